// Packet mode: the stream parsed back packet by packet, data groups
// reassembled, and FEC frames checked as RS(204,188) codewords. T-DMB: the
// stream de-interleaved independently, every word a codeword holding the
// transport packet that was logged.
#include <gtest/gtest.h>

#include <map>

#include "generator/payload_sources.h"
#include "tests/generator/coding_checks.h"

namespace {

struct Stream {
    std::vector<std::vector<uint8_t>> packets;              // ordinary packets in order
    std::map<int, std::vector<std::vector<uint8_t>>> units;  // per address: reassembled data groups / chunks
    int fecFrames = 0;
};

// Walks a stream of whole packets (FEC frames if `fec`), checking each
// header and CRC as it goes.
void Parse(const std::vector<uint8_t>& s, bool fec, Stream* out) {
    std::map<int, int> continuity;
    std::map<int, std::vector<uint8_t>> partial;
    size_t pos = 0;
    while (pos + (fec ? 2472 : 96) <= s.size()) {
        const size_t tableEnd = pos + 2256;
        do {
            const uint8_t* p = &s[pos];
            const int size = 24 * ((p[0] >> 6) + 1);
            const int address = (p[0] & 3) << 8 | p[1];
            const int firstLast = (p[0] >> 2) & 3, useful = p[2] & 0x7F;
            ASSERT_TRUE(check::CrcResidueOk(p, static_cast<size_t>(size))) << "packet at " << pos;
            ASSERT_LE(useful, size - 5);
            ASSERT_EQ(p[2] & 0x80, 0);
            for (int i = 3 + useful; i < size - 2; ++i) ASSERT_EQ(p[i], 0) << "padding of packet at " << pos;
            out->packets.emplace_back(p, p + size);
            if (address == 0) {
                ASSERT_TRUE(size == 24 && p[22] == 0x60 && p[23] == 0x4B) << "padding packet at " << pos;
            } else {
                const int counter = (p[0] >> 4) & 3;
                ASSERT_TRUE(!continuity.count(address) || counter == ((continuity[address] + 1) & 3)) << "at " << pos;
                continuity[address] = counter;
                auto& unit = partial[address];
                ASSERT_EQ(unit.empty(), (firstLast & 2) != 0) << "first flag at " << pos;
                unit.insert(unit.end(), p + 3, p + 3 + useful);
                if (firstLast & 1) {
                    out->units[address].push_back(unit);
                    unit.clear();
                }
            }
            pos += static_cast<size_t>(size);
        } while (fec ? pos < tableEnd : false);
        if (!fec) continue;
        ASSERT_EQ(pos, tableEnd) << "packets must fill the table exactly";
        // Codeword r: table bytes r, r + 12, ...; parity bytes r, r + 12, ...
        // of the 192 carried by the nine FEC packets.
        uint8_t parity[198];
        for (int c = 0; c < 9; ++c) {
            const uint8_t* f = &s[tableEnd + 24 * static_cast<size_t>(c)];
            ASSERT_TRUE(f[0] == 4 * c + 3 && f[1] == 0xFE) << "FEC packet " << c;
            std::copy(f + 2, f + 24, parity + 22 * c);
        }
        for (int i = 192; i < 198; ++i) ASSERT_EQ(parity[i], 0);
        for (int r = 0; r < 12; ++r) {
            uint8_t word[204];
            for (int c = 0; c < 188; ++c) word[c] = s[tableEnd - 2256 + static_cast<size_t>(r + 12 * c)];
            for (int j = 0; j < 16; ++j) word[188 + j] = parity[r + 12 * j];
            ASSERT_TRUE(check::SyndromesZero(word, 204, 1, 16)) << "FEC frame " << out->fecFrames << " row " << r;
        }
        pos += 216;
        ++out->fecFrames;
    }
}

TEST(PacketPayload, StreamOfPacketsAndDataGroups) {
    gen::PacketStreamParams params;
    params.components = {{17, 96, true, 2}, {300, 24, true, 1}, {1021, 48, false, 1}};
    params.paddingShare = 0.15, params.seed = 5;
    params.packetLog = std::make_shared<std::vector<std::vector<uint8_t>>>();
    auto src = gen::MakePacketPayload(32, params);
    ASSERT_TRUE(src);
    const auto bytes = check::Pull(*src, 3 * 32, 200);
    Stream st;
    Parse(bytes, false, &st);
    if (HasFatalFailure()) return;
    ASSERT_GT(st.packets.size(), 250u);
    // The log holds the same packets (it may run ahead by the part of a
    // packet not yet sent).
    ASSERT_GE(params.packetLog->size(), st.packets.size());
    for (size_t i = 0; i < st.packets.size(); ++i) ASSERT_EQ((*params.packetLog)[i], st.packets[i]) << i;
    for (int address : {17, 300}) {
        ASSERT_GT(st.units[address].size(), 3u);
        for (const auto& g : st.units[address]) {
            ASSERT_EQ(g[0], 0x40);  // CRC flag, type 0
            ASSERT_TRUE(check::CrcResidueOk(g.data(), g.size()));
        }
    }
    EXPECT_GT(st.units[1021].size(), 3u);
    // Same parameters, same bytes; the log is not part of the identity.
    params.packetLog.reset();
    EXPECT_EQ(bytes, check::Pull(*gen::MakePacketPayload(32, params), 3 * 32, 200));
}

TEST(PacketPayload, FecFramesAreCodewords) {
    gen::PacketStreamParams params;
    params.components = {{5, 72, true, 1}, {6, 96, true, 1}};
    params.fec = true, params.seed = 9;
    const auto bytes = check::Pull(*gen::MakePacketPayload(64, params), 3 * 64, 60);  // 11,520 bytes: four whole FEC frames
    Stream st;
    Parse(bytes, true, &st);
    if (HasFatalFailure()) return;
    EXPECT_EQ(st.fecFrames, 4);
}

// Coded byte q (branch q mod 12) leaves the interleaver 204 * (q mod 12)
// bytes later. Returns the coded words that are complete in `sent`.
std::vector<std::vector<uint8_t>> Deinterleave(const std::vector<uint8_t>& sent) {
    std::vector<std::vector<uint8_t>> words;
    for (size_t w = 0;; ++w) {
        std::vector<uint8_t> word(204);
        for (size_t i = 0; i < 204; ++i) {
            const size_t q = 204 * w + i, at = q + 204 * (q % 12);
            if (at >= sent.size()) return words;
            word[i] = sent[at];
        }
        words.push_back(word);
    }
}

TEST(TdmbPayload, InterleavedCodewordsCarryTheLoggedPackets) {
    gen::TdmbStreamParams params;
    params.seed = 4;
    params.pid = 0x1ABC;
    params.tsLog = std::make_shared<std::vector<std::vector<uint8_t>>>();
    auto src = gen::MakeTdmbPayload(96, params);
    ASSERT_TRUE(src);
    const auto sent = check::Pull(*src, 3 * 96, 100);  // 28,800 bytes
    // Branch 0 is not delayed: a sync byte every 204 bytes from the start;
    // the other branches start with their zero-filled delay lines.
    for (size_t k = 0; k < sent.size(); k += 204) ASSERT_EQ(sent[k], 0x47) << k;
    for (size_t k = 1; k < 12; ++k) EXPECT_EQ(sent[k], 0) << k;
    const auto words = Deinterleave(sent);
    ASSERT_GT(words.size(), 120u);
    ASSERT_GE(params.tsLog->size(), words.size());
    for (size_t w = 0; w < words.size(); ++w) {
        ASSERT_TRUE(check::SyndromesZero(words[w].data(), 204, 1, 16)) << w;
        const auto& ts = (*params.tsLog)[w];
        ASSERT_TRUE(std::equal(ts.begin(), ts.end(), words[w].begin())) << w;
        ASSERT_EQ(ts[0], 0x47);
        ASSERT_EQ(((ts[1] & 0x1F) << 8) | ts[2], 0x1ABC);
        ASSERT_EQ(ts[3] & 0x0F, static_cast<int>(w & 15));  // continuity counter
        for (int i = 4; i < 188; ++i) ASSERT_NE(ts[i], 0x47);
    }
    params.tsLog.reset();
    EXPECT_EQ(sent, check::Pull(*gen::MakeTdmbPayload(96, params), 3 * 96, 100));
}

}  // namespace
