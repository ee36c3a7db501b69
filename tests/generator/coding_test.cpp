// The bits the transmitter sends. Its coding steps against published check
// values; payloads read back by parsers written from the formats (DAB+
// superframes, packet streams with FEC frames, T-DMB codewords); the
// multiplex against an independent coder: FIC blocks and sub-channels
// re-encoded from what was recorded, FIGs read back byte by byte, the CIF
// count, reconfiguration and description files.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "generator/conv_encoder.h"
#include "generator/ensemble_description.h"
#include "generator/energy_dispersal_prbs.h"
#include "generator/fib_crc.h"
#include "generator/fig_writer.h"
#include "generator/multiplex.h"
#include "generator/payload_coding.h"
#include "generator/payload_dabplus.h"
#include "generator/payload_sources.h"
#include "generator/protection_profiles.h"
#include "generator/puncturing.h"

namespace {

using Bytes = std::vector<uint8_t>;

// V_PI for PI = 1..24, position 0 in the most significant bit, as published.
constexpr uint32_t kPuncturingVectors[24] = {
    0xC8888888, 0xC888C888, 0xC8C8C888, 0xC8C8C8C8, 0xCCC8C8C8, 0xCCC8CCC8, 0xCCCCCCC8, 0xCCCCCCCC,
    0xECCCCCCC, 0xECCCECCC, 0xECECECCC, 0xECECECEC, 0xEEECECEC, 0xEEECEEEC, 0xEEEEEEEC, 0xEEEEEEEE,
    0xFEEEEEEE, 0xFEEEFEEE, 0xFEFEFEEE, 0xFEFEFEFE, 0xFFFEFEFE, 0xFFFEFFFE, 0xFFFFFFFE, 0xFFFFFFFF};

// Transmitter delay in CIFs of codeword bit i, by i mod 16 (bit reversal).
constexpr int kInterleaverDelay[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

// The bits of a logical frame or FIB group, first bit the top bit of byte 0,
// through energy dispersal (x^9 + x^5 + 1 as a shift register from all
// ones), the mother code (bit 6 of the register is the current input;
// polynomials 133 171 145 133 octal) and puncturing by runs of (blocks, PI),
// then the tail with 0xCCCCCC.
std::vector<uint8_t> ChannelCode(const uint8_t* bytes, size_t n, const std::vector<gen::PunctureRun>& runs) {
    std::vector<uint8_t> bits(8 * n);
    unsigned reg = 0x1FF;
    for (size_t i = 0; i < bits.size(); ++i) {
        const unsigned out = ((reg >> 8) ^ (reg >> 4)) & 1;
        reg = ((reg << 1) | out) & 0x1FF;
        bits[i] = ((bytes[i / 8] >> (7 - i % 8)) & 1) ^ static_cast<uint8_t>(out);
    }
    bits.resize(bits.size() + 6, 0);
    std::vector<uint8_t> mother, out;
    reg = 0;
    for (uint8_t b : bits) {
        reg = (reg >> 1) | (static_cast<unsigned>(b) << 6);
        for (unsigned poly : {0133u, 0171u, 0145u, 0133u}) mother.push_back(__builtin_parity(reg & poly) & 1);
    }
    size_t i = 0;
    for (auto [blocks, pi] : runs)
        for (int n = 0; n < 128 * blocks && i < mother.size(); ++n, ++i)
            if ((kPuncturingVectors[pi - 1] >> (31 - n % 32)) & 1) out.push_back(mother[i]);
    for (int j = 0; j < 24 && i < mother.size(); ++j, ++i)
        if ((0xCCCCCCu >> (23 - j)) & 1) out.push_back(mother[i]);
    return out;
}

// A block ending in its CRC, by the CRC function checked against published
// values below.
bool CrcOk(const uint8_t* p, size_t n) { return n >= 2 && gen::CrcCcitt16(p, n - 2) == (p[n - 2] << 8 | p[n - 1]); }

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

// True if the codeword (`stride` apart, parity last) has the parity that the
// encoder, checked against published examples below, gives its data.
bool RsCodeword(const uint8_t* word, size_t length, size_t stride, int parityBytes) {
    const size_t data = length - static_cast<size_t>(parityBytes);
    uint8_t parity[16];
    gen::RsEncoder(parityBytes).Encode(word, data, stride, parity, 1);
    for (size_t j = 0; j < static_cast<size_t>(parityBytes); ++j)
        if (parity[j] != word[(data + j) * stride]) return false;
    return true;
}

// Convolutional code, energy dispersal, puncturing vectors, the worked and the
// empty FIB, CRC, firecode and Reed-Solomon generators and codewords.
TEST(Coding, PublishedCheckValues) {
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
    for (int pi = 1; pi <= 24; ++pi) EXPECT_EQ(gen::PuncturingVector(pi), kPuncturingVectors[pi - 1]) << "PI " << pi;
    EXPECT_FALSE(gen::Puncture(Bytes(100), {{1, 8}}, out));
    gen::Fig fib = gen::EnsembleInformationFig(0xE123, 0, false, 1234, 0);
    const gen::Fig label = gen::EnsembleLabelFig(0xE123, "TEST ENSEMBLE", 0xFF00);
    fib.insert(fib.end(), label.begin(), label.end());
    fib.push_back(0xFF);
    fib.resize(32, 0);
    gen::SealFib(fib.data());
    EXPECT_EQ(fib, Hex("05 00 E1 23 04 EA 35 00 E1 23 54 45 53 54 20 45 4E 53 45 4D 42 4C 45 20 20 20 FF 00 FF 00 F5 A2"));
    uint8_t empty[32] = {0xFF};
    gen::SealFib(empty);
    EXPECT_EQ(Bytes(empty + 30, empty + 32), Hex("A8 A8"));
    const uint8_t digits[] = "123456789", zeros[22] = {};
    EXPECT_EQ(gen::CrcCcitt16(digits, 9), 0xD64E);
    EXPECT_EQ(gen::CrcCcitt16(zeros, 22), 0x604B);  // the 24-byte padding packet
    uint8_t sf[11] = {0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(gen::SuperframeFirecode(sf + 2), 0x38D4);
    const gen::RsEncoder rs10(10), rs16(16);
    EXPECT_EQ(rs10.Generator(), Hex("C1 9D 71 5F 5E C7 6F 9F C2 D8 01"));
    EXPECT_EQ(rs16.Generator(), Hex("3B 24 32 62 E5 29 41 A3 08 1E D1 44 BD 68 0D 3B 01"));
    uint8_t data[188], parity[16];
    for (int i = 0; i < 188; ++i) data[i] = static_cast<uint8_t>(i < 110 ? i : 0);
    rs10.Encode(data, 110, 1, parity, 1);
    EXPECT_EQ(Bytes(parity, parity + 10), Hex("A2 8A 69 0C EA 30 BD D4 A3 5C"));
    for (int i = 0; i < 188; ++i) data[i] = static_cast<uint8_t>(i == 0 ? 0x47 : 7 * i);
    rs16.Encode(data, 188, 1, parity, 1);
    EXPECT_EQ(Bytes(parity, parity + 16), Hex("78 96 7B F8 AF BD 8E 9C DE 78 69 D1 D8 C7 38 57"));
}

// The short-form table as published: bit rate and level of every row in
// order, and the slack (in 4-bit steps) left after its coded bits. The EEP
// sets fill their sub-channel exactly at every bit rate.
TEST(Protection, UepTableAndEepSets) {
    const int rates[14] = {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    const std::string levels = "54321 54321 5432 54321 54321 54321 5432 54321 54321 54321 54321 54321 542 531";
    const std::string slack = "0000100100000200021000210010000010010200000000201000101021120012";
    gen::SubChannelProfile p;
    auto infoBits = [&] { int blocks = 0; for (const gen::PunctureRun& r : p.runs) blocks += r.blocks; return 32 * blocks; };
    for (int row = 0, rate = 0; char c : levels) {
        if (c == ' ' && ++rate) continue;
        ASSERT_TRUE(gen::UepProfile(row, &p));
        EXPECT_TRUE(p.bitrateKbps == rates[rate] && infoBits() == 24 * p.bitrateKbps) << "row " << row;
        EXPECT_EQ(64u * p.sizeCu - gen::PuncturedLength(p.runs), 4u * (slack[row] - '0')) << "row " << row;
        EXPECT_EQ(p.paddingBits, 4 * (slack[row] - '0'));
        EXPECT_EQ(gen::FindUepIndex(p.bitrateKbps, c - '0'), row++);
    }
    EXPECT_TRUE(!gen::UepProfile(64, &p) && gen::FindUepIndex(56, 1) == -1);
    const struct { gen::ProtectionKind kind; int rateStep, steps, cuPerStep[4]; } sets[] = {
        {gen::ProtectionKind::kEepA, 8, 64, {12, 8, 6, 4}}, {gen::ProtectionKind::kEepB, 32, 32, {27, 21, 18, 15}}};
    for (const auto& s : sets)
        for (int level = 1; level <= 4; ++level)
            for (int n = 1; n <= s.steps; ++n) {
                ASSERT_TRUE(gen::EepProfile(s.kind, level, s.rateStep * n, &p));
                EXPECT_EQ(p.sizeCu, s.cuPerStep[level - 1] * n);
                EXPECT_EQ(gen::PuncturedLength(p.runs), 64u * p.sizeCu) << level << " n=" << n;
                EXPECT_EQ(infoBits(), 24 * s.rateStep * n);
            }
    EXPECT_FALSE(gen::EepProfile(gen::ProtectionKind::kEepB, 1, 48, &p) || gen::EepProfile(gen::ProtectionKind::kEepA, 5, 48, &p));
}


// The AU payloads of a superframe of 120 * s bytes, or an empty list and the
// reason on any fault: firecode, RS columns, AU start fields, AU CRCs.
std::vector<Bytes> ParseSuperframe(const uint8_t* sf, int s, std::string* why) {
    auto fail = [&](const std::string& w) { *why = w; return std::vector<Bytes>{}; };
    if (gen::SuperframeFirecode(sf + 2) != (sf[0] << 8 | sf[1])) return fail("firecode");
    for (int c = 0; c < s; ++c)
        if (!RsCodeword(sf + c, 120, static_cast<size_t>(s), 10)) return fail("RS column " + std::to_string(c));
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
        if (start[k + 1] - start[k] < 2 || !CrcOk(sf + start[k], static_cast<size_t>(start[k + 1] - start[k])))
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
        Bytes v(n);
        for (size_t i = 0; i < n; ++i) v[i] = sf[from + i * stride];
        return v;
    };
    EXPECT_EQ(bytes(0, 16), Hex("44 7D 70 0D 01 A4 11 11 11 11 11 11 11 11 11 11"));
    EXPECT_EQ(bytes(206, 2), Hex("00 24"));
    EXPECT_EQ(bytes(418, 2), Hex("36 FC"));
    EXPECT_EQ(bytes(654, 18), Hex("33 33 33 33 B6 64 69 35 70 2C 26 D8 FA 92 86 F7 60 01"));
    EXPECT_EQ(bytes(660, 10, 6), Hex("69 FA 2F 01 84 C1 C0 E0 9A 24"));
    EXPECT_EQ(bytes(665, 10, 6), Hex("D8 01 31 A6 69 C0 E0 75 8A C4"));
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
// continuity, padding, data groups with their CRC, and every FEC frame's
// rows as RS(204,188) codewords.
TEST(PacketPayload, PacketsDataGroupsAndFecFrames) {
    gen::PacketStreamParams params;
    params.components = {{17, 96, true, 2}, {300, 24, true, 1}, {1021, 48, false, 1}};
    params.fec = true, params.paddingShare = 0.15, params.seed = 5;
    const Bytes s = Pull(*gen::MakePacketPayload(64, params), 3 * 64, 80);  // six whole FEC frames
    std::map<int, int> continuity, groups;
    std::map<int, Bytes> partial;
    int fecFrames = 0;
    for (size_t pos = 0, table; pos + 2472 <= s.size(); pos += 216, ++fecFrames) {
        for (table = pos; pos < table + 2256;) {
            const uint8_t* p = &s[pos];
            const int size = 24 * ((p[0] >> 6) + 1), address = (p[0] & 3) << 8 | p[1], useful = p[2] & 0x7F;
            // CRC, useful length, data command, zero padding; padding packets (address 0) are 24 bytes.
            ASSERT_TRUE(CrcOk(p, static_cast<size_t>(size)) && useful <= size - 5 && !(p[2] & 0x80) && (address != 0 || size == 24)) << pos;
            ASSERT_TRUE(std::all_of(p + 3 + useful, p + size - 2, [](uint8_t b) { return b == 0; })) << pos;
            pos += static_cast<size_t>(size);
            if (address == 0) continue;
            ASSERT_TRUE(!continuity.count(address) || (p[0] >> 4 & 3) == ((continuity[address] + 1) & 3)) << pos;
            continuity[address] = p[0] >> 4 & 3;
            Bytes& unit = partial[address];
            ASSERT_EQ(unit.empty(), (p[0] & 8) != 0) << "first flag at " << pos;
            unit.insert(unit.end(), p + 3, p + 3 + useful);
            if (p[0] & 4) {  // last packet of the group
                ASSERT_TRUE(address == 1021 || (unit[0] == 0x40 && CrcOk(unit.data(), unit.size())));
                ++groups[address];
                unit.clear();
            }
        }
        ASSERT_EQ(pos, table + 2256) << "packets must fill the table exactly";
        // Codeword r: table bytes r, r + 12, ...; then parity bytes r, r + 12,
        // ... of the 192 in bytes 2..23 of the nine FEC packets (header 4c+3, FE).
        uint8_t parity[198];
        for (size_t c = 0; c < 9; ++c) {
            ASSERT_TRUE(s[pos + 24 * c] == 4 * c + 3 && s[pos + 24 * c + 1] == 0xFE) << "FEC packet " << c;
            std::copy(&s[pos + 24 * c + 2], &s[pos + 24 * c + 24], parity + 22 * c);
        }
        ASSERT_TRUE(std::all_of(parity + 192, parity + 198, [](uint8_t b) { return b == 0; }));
        for (size_t r = 0; r < 12; ++r) {
            uint8_t word[204];
            for (size_t c = 0; c < 204; ++c) word[c] = c < 188 ? s[table + r + 12 * c] : parity[r + 12 * (c - 188)];
            ASSERT_TRUE(RsCodeword(word, 204, 1, 16)) << "FEC frame " << fecFrames << " row " << r;
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
    params.tsLog = std::make_shared<std::vector<Bytes>>();
    const Bytes sent = Pull(*gen::MakeTdmbPayload(96, params), 3 * 96, 40);
    for (size_t k = 0; k < sent.size(); k += 204) ASSERT_EQ(sent[k], 0x47) << k;
    for (size_t k = 1; k < 12; ++k) EXPECT_EQ(sent[k], 0) << k;  // the delay lines start with zeros
    size_t w = 0;
    for (Bytes word(204);; ++w) {
        size_t i = 0;
        for (size_t q = 204 * w; i < 204 && q + 204 * (q % 12) < sent.size(); ++i, ++q) word[i] = sent[q + 204 * (q % 12)];
        if (i < 204) break;
        ASSERT_TRUE(RsCodeword(word.data(), 204, 1, 16)) << w;
        const Bytes& ts = params.tsLog->at(w);
        ASSERT_TRUE(std::equal(ts.begin(), ts.end(), word.begin())) << w;
    }
    EXPECT_GT(w, 40u);
}

// The multiplex of `d`, recording the FIBs it sends into `fibs` if given.
std::unique_ptr<gen::Multiplex> Build(const gen::EnsembleDescription& d, std::shared_ptr<Bytes> fibs = nullptr) {
    std::string error;
    auto m = gen::Multiplex::Make(d, &error);
    EXPECT_TRUE(m) << error;
    if (m && fibs) m->RecordFibs(fibs);
    return m;
}

gen::EnsembleDescription Preset(const std::string& name, int mode) {
    gen::PresetOptions o;
    o.mode = mode;
    gen::EnsembleDescription d;
    std::string error;
    EXPECT_TRUE(gen::MakePresetDescription(name, o, &d, &error)) << error;
    return d;
}

// The FIGs of `count` FIBs, their data fields after the first byte appended
// under 256 * type + that byte (so C/N, P/D and charset are part of the key).
// Every FIB must pass its CRC, hold whole FIGs and only zeros after the end marker.
std::map<int, Bytes> Fields(const uint8_t* fibs, size_t count) {
    std::map<int, Bytes> out;
    for (const uint8_t* fib = fibs; fib < fibs + 32 * count; fib += 32) {
        EXPECT_TRUE(CrcOk(fib, 32));
        size_t i = 0;
        for (size_t length; i < 30 && fib[i] != 0xFF; i += 1 + length) {
            length = fib[i] & 31;
            if (length == 0 || i + 1 + length > 30) break;
            Bytes& field = out[256 * (fib[i] >> 5) + fib[i + 1]];
            field.insert(field.end(), fib + i + 2, fib + i + 1 + length);
        }
        EXPECT_TRUE(i == 30 || (fib[i] == 0xFF && std::all_of(fib + i + 1, fib + 30, [](uint8_t b) { return b == 0; })));
    }
    return out;
}

bool Has(const Bytes& f, const Bytes& entry) { return std::search(f.begin(), f.end(), entry.begin(), entry.end()) != f.end(); }

// Every FIC block is its FIB group coded independently; the CIF count runs
// through the wrap, one step per CIF.
TEST(Multiplex, FicBlocksAreTheCodedFibGroupsInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        gen::EnsembleDescription d = Preset("default", mode);
        d.firstCifCount = 4997;
        auto fibs = std::make_shared<Bytes>();
        auto m = Build(d, fibs);
        const gen::ModeGeometry& g = gen::Geometry(mode);
        const size_t groupBytes = g.fibsPerFrame / g.cifsPerFrame * 32, blockBits = groupBytes * 8 * 3;
        Bytes bits;
        for (int cif = 0; cif < 4;) {
            m->NextFrame(bits);
            for (int k = 0; k < g.cifsPerFrame; ++k, ++cif) {
                const uint8_t* group = fibs->data() + cif * groupBytes;
                const Bytes coded = ChannelCode(group, groupBytes, {{mode == 3 ? 29 : 21, 16}, {3, 15}});
                ASSERT_TRUE(std::equal(coded.begin(), coded.end(), bits.begin() + k * blockBits, bits.begin() + (k + 1) * blockBits))
                    << "mode " << mode << " CIF " << cif;
                const Bytes info = Fields(group, groupBytes / 32)[0];  // FIG 0/0: EId, flags and CIF count high, low
                EXPECT_EQ(250 * (info.at(2) & 31) + info.at(3), (4997 + cif) % 5000);
            }
        }
    }
}

// The multiplex configuration read back from four frames of FIBs.
TEST(Multiplex, FigsCarryTheDescription) {
    gen::EnsembleDescription d = Preset("default", 1);
    d.label = "MVX DEFAULT Ö€$";  // sent in EBU Latin
    auto fibs = std::make_shared<Bytes>();
    auto m = Build(d, fibs);
    Bytes bits;
    for (int f = 0; f < 4; ++f) m->NextFrame(bits);
    auto f = Fields(fibs->data(), fibs->size() / 32);
    // FIG 0/1: DAB+ EEP 3-A 48 kbit/s at CU 0 (36 CU); MP2 UEP row 35 next; packet EEP 2-A 32 kbit/s.
    EXPECT_TRUE(Has(f[1], {0x04, 0x00, 0x80 | (2 << 2), 36}));
    EXPECT_TRUE(Has(f[1], {0x08, 36, 35}));
    EXPECT_TRUE(Has(f[1], {0x0C, 36 + 96, 0x80 | (1 << 2), 32}));
    // FIG 0/2, one component each: DAB+ (ASCTy 63) and MP2 audio, then packet data (TMId 3, SCId 1), primary.
    EXPECT_TRUE(Has(f[2], {0xE2, 0x01, 1, 63, (1 << 2) | 2}));
    EXPECT_TRUE(Has(f[2], {0xE2, 0x02, 1, 0, (2 << 2) | 2}));
    EXPECT_TRUE(Has(f[0x22], {0xE1, 0xE0, 0x02, 0x03, 1, 0xC0, (1 << 2) | 2}));
    EXPECT_TRUE(Has(f[3], {0x00, 0x10, 0x00, 3 << 2, 1}));  // SCId 1, DG used, DSCTy 0, SubChId 3, address 1
    // FIG 1/0 and 1/1 in EBU Latin with the short labels "MVX" and "Plus"; a 32-bit id gets no label.
    const std::string ensemble("\xE1\xA5MVX DEFAULT \xD7\xA9\xAB \xE0\x00", 20), plus("\xE2\x01MVX Plus        \x0F\x00", 20);
    EXPECT_TRUE(Has(f[256], Bytes(ensemble.begin(), ensemble.end())));
    EXPECT_TRUE(Has(f[257], Bytes(plus.begin(), plus.end())));
    EXPECT_EQ(f.size(), 7u) << "only FIG 0/0, 0/1, 0/2 (16 and 32-bit ids), 0/3, 1/0 and 1/1";
}

// Every MSC bit of a sub-channel is the recorded logical frames coded
// independently and time-interleaved: bit i of CIF t comes from frame
// t - d(i mod 16), zero before the start; UEP padding bits are zero.
void CheckSubChannel(gen::EnsembleDescription d, size_t which, int frames) {
    auto record = std::make_shared<Bytes>();
    d.subChannels[which].record = record;
    auto m = Build(d);
    const gen::SubChannelDesc& s = m->Description().subChannels[which];
    gen::SubChannelProfile p;
    std::string error;
    ASSERT_TRUE(gen::MakeProfile(s.protection, s.bitrateKbps, &p, &error));
    const gen::ModeGeometry& g = gen::Geometry(d.mode);
    const size_t n = 64 * static_cast<size_t>(p.sizeCu), frameBytes = 3 * static_cast<size_t>(s.bitrateKbps);
    std::vector<Bytes> coded;
    Bytes bits;
    for (int f = 0; f < frames; ++f) {
        m->NextFrame(bits);
        for (int c = 0; c < g.cifsPerFrame; ++c) {
            const size_t t = coded.size();
            ASSERT_GE(record->size(), (t + 1) * frameBytes);
            coded.push_back(ChannelCode(record->data() + t * frameBytes, frameBytes, p.runs));
            coded.back().resize(n, 0);
            const uint8_t* msc = bits.data() + g.ficBitsPerFrame + c * gen::kCifBits + 64 * s.startCu;
            for (size_t i = 0, delay; i < n; ++i) {
                delay = static_cast<size_t>(kInterleaverDelay[i % 16]);
                ASSERT_EQ(msc[i], t >= delay ? coded[t - delay][i] : 0) << "CIF " << t << " bit " << i;
            }
        }
    }
}

TEST(Multiplex, SubChannelsAreTheCodedRecordedPayload) {
    CheckSubChannel(Preset("single-random", 1), 0, 5);  // EEP 3-A, four CIFs a frame
    CheckSubChannel(Preset("default", 2), 1, 18);        // UEP row 35, 4 padding bits
    CheckSubChannel(Preset("data", 4), 1, 9);            // packet stream with FEC
}

// The change is announced in FIG 0/0 (change flags, occurrence) and by the
// next organisation in FIG 0/1 (C/N = 1) during the 10 CIFs before it, across
// the CIF count's wrap; then the current organisation is the new one.
TEST(Multiplex, ReconfigurationIsAnnouncedThenApplied) {
    gen::EnsembleDescription d = Preset("reconfigure", 2);
    d.firstCifCount = 4990;
    d.reconfiguration.cifCount = 20;
    d.reconfiguration.announceCifs = 10;
    auto fibs = std::make_shared<Bytes>();
    auto m = Build(d, fibs);
    // SubChId 0 at CU 0, EEP 3-A, 48 CU; then at CU 400, EEP 2-A, 64 CU.
    const Bytes before = {0, 0, 0x80 | (2 << 2), 48}, after = {400 >> 8, 400 & 255, 0x80 | (1 << 2), 64};
    Bytes bits;
    int nextSeen = 0;
    for (int t = 0; t < 34; ++t) {
        m->NextFrame(bits);  // mode II: one CIF per frame
        auto f = Fields(fibs->data() + t * 96, 3);
        const bool announcing = t >= 20 && t < 30;
        // FIG 0/0 (EId, change flags and CIF count high, low, occurrence): change flags 01
        // and the occurrence only while announcing.
        const Bytes& info = f[0];
        ASSERT_EQ(info.size(), announcing ? 5u : 4u) << "CIF " << t;
        EXPECT_EQ(250 * (info[2] & 31) + info[3], (4990 + t) % 5000);
        EXPECT_TRUE(info[2] >> 6 == (announcing ? 1 : 0) && (!announcing || info[4] == 20)) << "CIF " << t;
        EXPECT_TRUE(Has(f[1], t < 30 ? before : after) && !Has(f[1], t < 30 ? after : before)) << "CIF " << t;
        EXPECT_TRUE(f[0x81].empty() || (announcing && Has(f[0x81], after) && !Has(f[0x81], before))) << "CIF " << t;
        nextSeen += !f[0x81].empty();
    }
    EXPECT_GE(nextSeen, 3);
}

// A description file with every kind of line builds; syntax errors are found
// when parsing, inconsistencies when the multiplex is built.
TEST(EnsembleDescription, FileFormatAndItsErrors) {
    gen::EnsembleDescription d;
    std::string error;
    ASSERT_TRUE(gen::ParseDescription(
        "# two services\n"
        "ensemble eid=0xE2B0 label=\"FILE TEST\" short=FILE cif=100 mode=3 seed=9\n"
        "subchannel id=5 start=10 protection=eep-b:2 bitrate=64 payload=random:3\n"
        "subchannel id=6 protection=uep:4 bitrate=96 payload=random:4   # after id 5\n"
        "subchannel id=7 protection=eep-a:4 bitrate=16 payload=packet:5,size=48\n"
        "service sid=0xE2B1 label=\"Köln Süd Öffentl\" component=dabplus:5 component=stream:6,dscty=24\n"
        "service sid=0xE2E000B2 component=packet:7,scid=9,address=33,dscty=5\n"
        "reconfigure cif=300 subchannel=6 start=600 announce=100\n", 1, 1, &d, &error)) << error;
    EXPECT_TRUE(d.eid == 0xE2B0 && d.mode == 3 && d.firstCifCount == 100 && d.reconfiguration.newStartCu == 600 &&
                d.services.at(0).components.at(1).dataType == 24 && d.services.at(1).components.at(0).packetAddress == 33);
    auto m = Build(d);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->Description().subChannels[1].startCu, 10 + 42);  // 2-B at 64 kbit/s is 42 CU

    // Syntax errors are found when parsing, inconsistencies and payloads that
    // can't be made when the multiplex is built.
    const std::string sub = "subchannel id=1 start=0 protection=eep-a:3 bitrate=48 ";
    const struct { std::string text, error; bool parses; } bad[] = {
        {sub + "payload=random:1 colour=red\n", "line 1", false},
        {sub + "\n", "payload", false},
        {"subchannel id=1 protection=eep-a:5 bitrate=48 payload=random:1\n", "", false},
        {"service sid=1 component=video:1\n", "component kind", false},
        {"ensemble label=\"SEVENTEEN LETTERS\"\n", "label", false},
        {"service sid=1 label=\"a{b}\"\n", "label", false},  // no braces in EBU Latin
        {sub + "payload=random:1\nsubchannel id=2 start=30 protection=eep-a:3 bitrate=48 payload=random:1\n", "overlap", true},
        {"subchannel id=1 start=830 protection=uep:3 bitrate=56 payload=random:1\nservice sid=0xE001 component=mp2:2\n", "864", true},
    };
    for (const auto& b : bad) {
        error.clear();
        ASSERT_EQ(gen::ParseDescription(b.text, 1, 1, &d, &error), b.parses) << b.text;
        EXPECT_TRUE(b.parses ? !gen::Multiplex::Make(d, &error) : true) << b.text;
        EXPECT_TRUE(!error.empty() && error.find(b.error) != std::string::npos) << error;
    }
    for (const char* payload : {"random", "random:x", "nosuch:1", "dabplus-synth:2,rate=44", "packet:3,size=50",
                                "packet:3,colour=red", "tdmb:1,pid=9000", "dabp:/nonexistent", "mp2:/nonexistent"}) {
        ASSERT_TRUE(gen::ParseDescription(sub + "payload=" + payload + "\n", 1, 1, &d, &error)) << payload;
        error.clear();
        EXPECT_TRUE(!gen::Multiplex::Make(d, &error) && !error.empty()) << payload;
    }
}

}  // namespace
