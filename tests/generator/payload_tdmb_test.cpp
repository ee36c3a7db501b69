// T-DMB stream: de-interleaved independently, every word a codeword holding
// the transport packet that was logged.
#include <gtest/gtest.h>

#include "generator/payload_sources.h"
#include "tests/generator/coding_checks.h"

namespace {

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
