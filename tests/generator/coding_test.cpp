// Channel and payload coding of the transmitter against published check
// values, and the payloads read back by parsers written from the formats:
// DAB+ superframes, packet streams with FEC frames, T-DMB codewords.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "generator/conv_encoder.h"
#include "generator/energy_dispersal_prbs.h"
#include "generator/fib_crc.h"
#include "generator/fig_writer.h"
#include "generator/payload_coding.h"
#include "generator/payload_dabplus.h"
#include "generator/payload_sources.h"
#include "generator/protection_profiles.h"
#include "generator/puncturing.h"
#include "tests/generator/coding_checks.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(const char* text) {  // "0A 1B ..."
    Bytes out;
    for (const char* p = text; *p; p += *p == ' ' ? 1 : 2)
        if (*p != ' ') out.push_back(static_cast<uint8_t>(std::stoul(std::string(p, 2), nullptr, 16)));
    return out;
}

Bytes Pull(gen::PayloadSource& src, size_t length, int frames) {
    Bytes out(length * static_cast<size_t>(frames));
    for (size_t f = 0; f < static_cast<size_t>(frames); ++f) src.NextLogicalFrame(&out[length * f], length);
    return out;
}

// Firecode check: bytes 2..10 then 0, 1 through a right-shifting register
// with the reversed generator; 0 for a correct header.
unsigned FirecodeResidue(const uint8_t* sf) {
    unsigned reg = 0;
    for (int i : {2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 1})
        for (int b = 7; b >= 0; --b) reg = (reg >> 1) ^ ((((sf[i] >> b) ^ reg) & 1) ? 0xF41E : 0);
    return reg;
}

// True if the codeword (highest power first, `stride` apart) vanishes at
// alpha^0 .. alpha^(roots-1) in GF(256) with x^8 + x^4 + x^3 + x^2 + 1.
bool SyndromesZero(const uint8_t* word, size_t length, size_t stride, int roots) {
    auto mul = [](unsigned a, unsigned b) {
        unsigned r = 0;
        for (; b; b >>= 1, a = (a << 1) ^ ((a & 0x80) ? 0x11D : 0)) r ^= (b & 1) ? a : 0;
        return r;
    };
    for (unsigned r = 0, alpha = 1; r < static_cast<unsigned>(roots); ++r, alpha = mul(alpha, 2)) {
        unsigned acc = 0;
        for (size_t i = 0; i < length; ++i) acc = mul(acc, alpha) ^ word[i * stride];
        if (acc != 0) return false;
    }
    return true;
}

int InfoBlocks(const gen::SubChannelProfile& p) {
    int blocks = 0;
    for (const gen::PunctureRun& r : p.runs) blocks += r.blocks;
    return blocks;
}

TEST(ChannelCoding, ConvolutionalCodeDispersalAndPuncturingCheckValues) {
    Bytes out;
    const uint8_t one[1] = {1}, a5[8] = {1, 0, 1, 0, 0, 1, 0, 1};
    auto bitString = [](const Bytes& bits) { std::string s; for (uint8_t b : bits) s += static_cast<char>('0' + b); return s; };
    gen::ConvEncode(one, 1, out);
    EXPECT_EQ(bitString(out), "1111011011011101001010011111");
    gen::ConvEncode(a5, 8, out);
    EXPECT_EQ(bitString(out).substr(0, 56), "11110110001010111111101110111011010011110100110110011111");
    const Bytes seq = gen::DispersalSequence(256);
    Bytes bytes(32);
    for (size_t i = 0; i < 256; ++i) bytes[i / 8] |= static_cast<uint8_t>(seq[i] << (7 - i % 8));
    EXPECT_EQ(bytes, Hex("07 BE 2E 64 12 9D A3 CF 9B 15 23 8D AB 89 88 80 42 30 9C AB 0D E9 B9 14 2B 4F D9 25 BF 26 A6 60"));
    for (int pi = 1; pi <= 24; ++pi) EXPECT_EQ(gen::PuncturingVector(pi), check::kPuncturingVectors[pi - 1]) << "PI " << pi;
    EXPECT_FALSE(gen::Puncture(Bytes(100), {{1, 8}}, out));
}

TEST(ChannelCoding, WorkedFibAndCrcCheckValues) {
    uint8_t fib[32] = {};
    size_t used = 0;
    for (const gen::Fig& f : {gen::EnsembleInformationFig(0xE123, 0, false, 1234, 0),
                              gen::EnsembleLabelFig(0xE123, "TEST ENSEMBLE", 0xFF00)}) {
        std::copy(f.begin(), f.end(), fib + used);
        used += f.size();
    }
    fib[used] = 0xFF;
    gen::SealFib(fib);
    EXPECT_EQ(Bytes(fib, fib + 32),
              Hex("05 00 E1 23 04 EA 35 00 E1 23 54 45 53 54 20 45 4E 53 45 4D 42 4C 45 20 20 20 FF 00 FF 00 F5 A2"));
    uint8_t empty[32] = {0xFF};
    gen::SealFib(empty);
    EXPECT_EQ(Bytes(empty + 30, empty + 32), Hex("A8 A8"));
    const uint8_t digits[] = "123456789", zeros[22] = {};
    EXPECT_EQ(gen::CrcCcitt16(digits, 9), 0xD64E);
    EXPECT_EQ(gen::CrcCcitt16(zeros, 22), 0x604B);  // the 24-byte padding packet
}

// The short-form table as published: bit rate and level of every row in
// order, and the slack (in 4-bit steps) left after its coded bits.
TEST(Protection, UepTableRows) {
    const int rates[14] = {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    const std::string levels = "54321 54321 5432 54321 54321 54321 5432 54321 54321 54321 54321 54321 542 531";
    const std::string slack = "0000100100000200021000210010000010010200000000201000101021120012";
    gen::SubChannelProfile p;
    int row = 0, rate = 0;
    for (char c : levels) {
        if (c == ' ') {
            ++rate;
            continue;
        }
        ASSERT_TRUE(gen::UepProfile(row, &p));
        EXPECT_EQ(p.bitrateKbps, rates[rate]) << "row " << row;
        EXPECT_EQ(InfoBlocks(p) * 32, 24 * p.bitrateKbps) << "row " << row;
        EXPECT_EQ(64u * p.sizeCu - gen::PuncturedLength(p.runs), 4u * (slack[row] - '0')) << "row " << row;
        EXPECT_EQ(p.paddingBits, 4 * (slack[row] - '0'));
        EXPECT_EQ(gen::FindUepIndex(p.bitrateKbps, c - '0'), row++);
    }
    EXPECT_FALSE(gen::UepProfile(64, &p));
    EXPECT_EQ(gen::FindUepIndex(56, 1), -1);
}

TEST(Protection, EepSetsFillTheSubChannelExactly) {
    const struct { gen::ProtectionKind kind; int rateStep, steps, cuPerStep[4]; } sets[] = {
        {gen::ProtectionKind::kEepA, 8, 64, {12, 8, 6, 4}}, {gen::ProtectionKind::kEepB, 32, 32, {27, 21, 18, 15}}};
    gen::SubChannelProfile p;
    for (const auto& s : sets)
        for (int level = 1; level <= 4; ++level)
            for (int n = 1; n <= s.steps; ++n) {
                ASSERT_TRUE(gen::EepProfile(s.kind, level, s.rateStep * n, &p));
                EXPECT_EQ(p.sizeCu, s.cuPerStep[level - 1] * n);
                EXPECT_EQ(gen::PuncturedLength(p.runs), 64u * p.sizeCu) << level << " n=" << n;
                EXPECT_EQ(InfoBlocks(p) * 32, 24 * s.rateStep * n);
            }
    ASSERT_TRUE(gen::EepProfile(gen::ProtectionKind::kEepA, 2, 8, &p));  // the special case: (5, 13), (1, 12)
    ASSERT_EQ(p.runs.size(), 2u);
    EXPECT_TRUE(p.runs[0].blocks == 5 && p.runs[0].pi == 13 && p.runs[1].pi == 12);
    EXPECT_FALSE(gen::EepProfile(gen::ProtectionKind::kEepB, 1, 48, &p));
    EXPECT_FALSE(gen::EepProfile(gen::ProtectionKind::kEepA, 5, 48, &p));
}

TEST(PayloadCoding, FirecodeAndReedSolomonCheckValues) {
    uint8_t sf[11] = {0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(gen::SuperframeFirecode(sf + 2), 0x38D4);
    const gen::RsEncoder rs10(10), rs16(16);
    EXPECT_EQ(rs10.Generator(), Hex("C1 9D 71 5F 5E C7 6F 9F C2 D8 01"));
    EXPECT_EQ(rs16.Generator(), Hex("3B 24 32 62 E5 29 41 A3 08 1E D1 44 BD 68 0D 3B 01"));
    uint8_t data[188], parity[16];
    for (int i = 0; i < 110; ++i) data[i] = static_cast<uint8_t>(i);
    rs10.Encode(data, 110, 1, parity, 1);
    EXPECT_EQ(Bytes(parity, parity + 10), Hex("A2 8A 69 0C EA 30 BD D4 A3 5C"));
    data[0] = 0x47;
    for (int i = 1; i < 188; ++i) data[i] = static_cast<uint8_t>(7 * i);
    rs16.Encode(data, 188, 1, parity, 1);
    EXPECT_EQ(Bytes(parity, parity + 16), Hex("78 96 7B F8 AF BD 8E 9C DE 78 69 D1 D8 C7 38 57"));
}

// The AU payloads of a superframe of 120 * s bytes, or an empty list and the
// reason on any fault: firecode, RS columns, AU start fields, AU CRCs.
std::vector<Bytes> ParseSuperframe(const uint8_t* sf, int s, std::string* why) {
    auto fail = [&](const std::string& w) { *why = w; return std::vector<Bytes>{}; };
    if (FirecodeResidue(sf) != 0) return fail("firecode");
    for (int c = 0; c < s; ++c)
        if (!SyndromesZero(sf + c, 120, static_cast<size_t>(s), 10)) return fail("RS column " + std::to_string(c));
    const bool dac = sf[2] & 0x40, sbr = sf[2] & 0x20;
    const int numAus = dac ? (sbr ? 3 : 6) : (sbr ? 2 : 4);
    std::vector<int> start = {dac ? (sbr ? 6 : 11) : (sbr ? 5 : 8)};
    for (int k = 1, bit = 24; k < numAus; ++k, bit += 12) {
        const int v = sf[bit / 8] << 8 | sf[bit / 8 + 1];
        start.push_back(bit % 8 == 0 ? v >> 4 : v & 0xFFF);
    }
    start.push_back(110 * s);
    std::vector<Bytes> aus;
    for (int k = 0; k < numAus; ++k) {
        if (start[k + 1] - start[k] < 2 || !check::CrcResidueOk(sf + start[k], static_cast<size_t>(start[k + 1] - start[k])))
            return fail("AU " + std::to_string(k));
        aus.emplace_back(sf + start[k], sf + start[k + 1] - 2);
    }
    return aus;
}

TEST(DabPlusSuperframe, WorkedExampleBitExact) {
    gen::DabPlusAudio audio;  // 48 kHz, SBR, stereo: 3 AUs
    const std::vector<Bytes> aus = {Bytes(200, 0x11), Bytes(210, 0x22), Bytes(238, 0x33)};
    uint8_t sf[720];
    ASSERT_TRUE(gen::BuildDabPlusSuperframe(audio, 6, aus, sf));
    const auto bytes = [&](size_t from, size_t n, size_t stride = 1) {
        Bytes v;
        for (size_t i = 0; i < n; ++i) v.push_back(sf[from + i * stride]);
        return v;
    };
    EXPECT_EQ(bytes(0, 16), Hex("44 7D 70 0D 01 A4 11 11 11 11 11 11 11 11 11 11"));
    EXPECT_EQ(bytes(206, 2), Hex("00 24"));
    EXPECT_EQ(bytes(418, 2), Hex("36 FC"));
    EXPECT_EQ(bytes(654, 18), Hex("33 33 33 33 B6 64 69 35 70 2C 26 D8 FA 92 86 F7 60 01"));
    EXPECT_EQ(bytes(660, 10, 6), Hex("69 FA 2F 01 84 C1 C0 E0 9A 24"));
    EXPECT_EQ(bytes(665, 10, 6), Hex("D8 01 31 A6 69 C0 E0 75 8A C4"));
    auto big = aus;  // one byte too many does not fit; a wrong AU count is refused
    big[2].push_back(0);
    EXPECT_FALSE(gen::BuildDabPlusSuperframe(audio, 6, big, sf));
    big.pop_back();
    EXPECT_FALSE(gen::BuildDabPlusSuperframe(audio, 6, big, sf));
}

// Every audio mode, and sizes below the firecode's reach (s < 11 puts the
// header in several rows), round-trip through the parser.
TEST(DabPlusSuperframe, SyntheticSourceRoundTrip) {
    for (int mode = 0; mode < 4; ++mode) {
        gen::DabPlusAudio audio;
        audio.dac48k = mode & 1, audio.sbr = mode & 2, audio.stereo = mode != 2, audio.ps = mode == 2;
        for (size_t s : {1, 6, 12}) {
            const Bytes bytes = Pull(*gen::MakeDabPlusSyntheticPayload(8 * static_cast<int>(s), audio, 3), 24 * s, 10);
            for (size_t k = 0; k < 2; ++k) {
                std::string why;
                const auto aus = ParseSuperframe(&bytes[120 * s * k], static_cast<int>(s), &why);
                ASSERT_EQ(aus.size(), audio.dac48k ? (audio.sbr ? 3u : 6u) : (audio.sbr ? 2u : 4u)) << mode << " " << s << ": " << why;
                EXPECT_EQ(bytes[120 * s * k + 2] & 0x78, (audio.dac48k ? 0x40 : 0) | (audio.sbr ? 0x20 : 0) |
                                                            (audio.stereo ? 0x10 : 0) | (audio.ps ? 0x08 : 0));
            }
        }
    }
    EXPECT_FALSE(gen::MakeDabPlusSyntheticPayload(44, gen::DabPlusAudio{}, 1));
}

// A packet stream with FEC read back packet by packet: header, CRC,
// continuity, the log, data groups with their CRC, and every FEC frame's rows
// as RS(204,188) codewords.
TEST(PacketPayload, PacketsDataGroupsAndFecFrames) {
    gen::PacketStreamParams params;
    params.components = {{17, 96, true, 2}, {300, 24, true, 1}, {1021, 48, false, 1}};
    params.fec = true, params.paddingShare = 0.15, params.seed = 5;
    params.packetLog = std::make_shared<std::vector<Bytes>>();
    const Bytes s = Pull(*gen::MakePacketPayload(64, params), 3 * 64, 80);  // six whole FEC frames
    std::map<int, int> continuity, groups;
    std::map<int, Bytes> partial;
    size_t pos = 0, logged = 0;
    int fecFrames = 0;
    for (; pos + 2472 <= s.size(); pos += 216, ++fecFrames) {
        const size_t tableStart = pos;
        while (pos < tableStart + 2256) {
            const uint8_t* p = &s[pos];
            const int size = 24 * ((p[0] >> 6) + 1), address = (p[0] & 3) << 8 | p[1], useful = p[2] & 0x7F;
            ASSERT_TRUE(check::CrcResidueOk(p, static_cast<size_t>(size)) && useful <= size - 5 && !(p[2] & 0x80)) << pos;
            ASSERT_TRUE(std::all_of(p + 3 + useful, p + size - 2, [](uint8_t b) { return b == 0; })) << pos;
            ASSERT_TRUE(std::equal(p, p + size, params.packetLog->at(logged++).begin())) << pos;
            ASSERT_TRUE(address != 0 || size == 24) << pos;
            if (address != 0) {
                const int counter = (p[0] >> 4) & 3;
                ASSERT_TRUE(!continuity.count(address) || counter == ((continuity[address] + 1) & 3)) << pos;
                continuity[address] = counter;
                Bytes& unit = partial[address];
                ASSERT_EQ(unit.empty(), (p[0] & 8) != 0) << "first flag at " << pos;
                unit.insert(unit.end(), p + 3, p + 3 + useful);
                if (p[0] & 4) {  // last packet of the group
                    ASSERT_TRUE(address == 1021 || (unit[0] == 0x40 && check::CrcResidueOk(unit.data(), unit.size())));
                    ++groups[address];
                    unit.clear();
                }
            }
            pos += static_cast<size_t>(size);
        }
        ASSERT_EQ(pos, tableStart + 2256) << "packets must fill the table exactly";
        // Codeword r: table bytes r, r + 12, ...; then parity bytes r, r + 12,
        // ... of the 192 in bytes 2..23 of the nine FEC packets.
        uint8_t parity[198];
        for (size_t c = 0; c < 9; ++c) {
            ASSERT_TRUE(s[pos + 24 * c] == 4 * c + 3 && s[pos + 24 * c + 1] == 0xFE) << "FEC packet " << c;
            std::copy(&s[pos + 24 * c + 2], &s[pos + 24 * c + 24], parity + 22 * c);
        }
        ASSERT_TRUE(std::all_of(parity + 192, parity + 198, [](uint8_t b) { return b == 0; }));
        for (size_t r = 0; r < 12; ++r) {
            uint8_t word[204];
            for (size_t c = 0; c < 188; ++c) word[c] = s[tableStart + r + 12 * c];
            for (size_t j = 0; j < 16; ++j) word[188 + j] = parity[r + 12 * j];
            ASSERT_TRUE(SyndromesZero(word, 204, 1, 16)) << "FEC frame " << fecFrames << " row " << r;
        }
    }
    EXPECT_EQ(fecFrames, 6);
    for (int address : {17, 300, 1021}) EXPECT_GT(groups[address], 2) << address;
}

// Coded byte q (branch q mod 12) leaves the interleaver 204 * (q mod 12)
// bytes later: de-interleaved, every word is a codeword holding the logged
// transport packet.
TEST(TdmbPayload, InterleavedCodewordsCarryTheLoggedPackets) {
    gen::TdmbStreamParams params;
    params.seed = 4, params.pid = 0x1ABC;
    params.tsLog = std::make_shared<std::vector<Bytes>>();
    const Bytes sent = Pull(*gen::MakeTdmbPayload(96, params), 3 * 96, 40);
    for (size_t k = 0; k < sent.size(); k += 204) ASSERT_EQ(sent[k], 0x47) << k;
    for (size_t k = 1; k < 12; ++k) EXPECT_EQ(sent[k], 0) << k;  // the delay lines start with zeros
    size_t w = 0;
    for (Bytes word(204);; ++w) {
        size_t i = 0;
        for (size_t q = 204 * w; i < 204 && q + 204 * (q % 12) < sent.size(); ++i, ++q) word[i] = sent[q + 204 * (q % 12)];
        if (i < 204) break;
        ASSERT_TRUE(SyndromesZero(word.data(), 204, 1, 16)) << w;
        const Bytes& ts = params.tsLog->at(w);
        ASSERT_TRUE(std::equal(ts.begin(), ts.end(), word.begin())) << w;
        ASSERT_EQ(((ts[1] & 0x1F) << 8) | ts[2], 0x1ABC);
        ASSERT_EQ(ts[3] & 0x0F, static_cast<int>(w & 15));  // continuity counter
    }
    EXPECT_GT(w, 40u);
}

// File sources loop; an MP2 file must match the sub-channel's rate and hold
// whole frames; text descriptions build the same sources, or say why not.
TEST(PayloadSources, FilesTextAndTheirErrors) {
    const std::string mp2 = testing::TempDir() + "x.mp2";
    Bytes file;
    for (uint8_t k = 0; k < 3; ++k) {  // three layer II frames of 128 kbit/s at 48 kHz
        file.insert(file.end(), {0xFF, 0xFD, 0x84, 0x04});
        file.insert(file.end(), 380, k);
    }
    auto write = [&] { std::ofstream(mp2, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::ssize(file)); };
    write();
    std::string error;
    auto src = gen::MakeMp2Payload(mp2, 128, &error);
    ASSERT_TRUE(src) << error;
    const Bytes sent = Pull(*src, 384, 4);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), sent.begin()));
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 384, sent.begin() + 3 * 384));
    EXPECT_EQ(Pull(*gen::MakePayloadFromText("file:" + mp2, 8), 500, 3), Bytes(sent.begin(), sent.begin() + 1500));
    EXPECT_FALSE(gen::MakeMp2Payload(mp2, 96, &error));
    EXPECT_NE(error.find("128 kbit/s"), std::string::npos) << error;
    file.insert(file.end(), 5, 0x55);  // garbage after the last frame
    write();
    EXPECT_FALSE(gen::MakeMp2Payload(mp2, 128, &error));

    gen::PacketStreamParams params;
    params.components = {{40, 48, false, 1}};
    params.fec = true, params.paddingShare = 0.5, params.seed = 3;
    auto b = gen::MakePayloadFromText("packet:3,address=40,size=48,fec=1,groups=0,padding=0.5", 48);
    ASSERT_TRUE(b);
    EXPECT_EQ(Pull(*b, 144, 30), Pull(*gen::MakePacketPayload(48, params), 144, 30));
    for (const char* text : {"random", "random:x", "nosuch:1", "dabplus-synth:2,rate=44", "packet:3,size=50",
                             "packet:3,colour=red", "tdmb:1,pid=9000", "dabp:/nonexistent", "file:/nonexistent"}) {
        error.clear();
        EXPECT_FALSE(gen::MakePayloadFromText(text, 48, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

}  // namespace
