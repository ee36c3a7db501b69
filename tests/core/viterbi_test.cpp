// Viterbi decoder: exact decoding of clean and noisy codewords from an
// encoder written here, and every kernel's decisions equal to those of a
// plain trellis model where ties and saturated metrics decide, up to the
// longest block the receiver decodes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "channel/viterbi_decoder.h"

namespace mvdab {
namespace {

using Bits = std::vector<uint8_t>;
using Words = std::vector<SoftWord>;

// Outputs for a register of the last seven inputs, current input in the top
// bit, so the octal generators apply as written.
std::array<int, 4> EncoderOutputs(uint32_t reg) {
    auto parity = [](uint32_t x) { return __builtin_popcount(x) & 1; };
    return {parity(reg & 0133), parity(reg & 0171), parity(reg & 0145), parity(reg & 0133)};
}

// Four mother-code bits per input, then per tail input.
Bits Encode(const Bits& bits) {
    Bits out;
    uint32_t reg = 0;
    for (size_t i = 0; i < bits.size() + 6; ++i) {
        const uint32_t b = i < bits.size() ? bits[i] : 0;
        reg = (b << 6) | (reg >> 1);
        for (int x : EncoderOutputs(reg)) out.push_back(static_cast<uint8_t>(x));
    }
    return out;
}

Bits RandomBits(std::mt19937& rng, int n) {
    Bits bits(n);
    for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
    return bits;
}

// Soft words of a codeword sent as -1 / +1 through Gaussian noise (Box-Muller
// on the raw generator, the same with every standard library). Outputs from
// `sent` on are punctured: neutral 8.
Words ToWords(std::mt19937& rng, const Bits& code, double sigma, int sent = 4) {
    Words words(code.size() / 4, 0);
    for (size_t i = 0; i < code.size(); ++i) {
        double y = code[i] ? 1.0 : -1.0;
        if (sigma > 0) {
            const double u1 = (rng() + 1.0) / 4294967297.0, u2 = rng() / 4294967296.0;
            y += sigma * std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179 * u2);
        }
        const int s = static_cast<int>(i % 4) < sent ? std::clamp(static_cast<int>(std::floor(7.5 * y + 8)), 0, 15) : 8;
        words[i / 4] = static_cast<SoftWord>(words[i / 4] << 4 | s);
    }
    return words;
}

std::vector<uint8_t> Decode(ViterbiVariant v, const Words& words) {
    std::vector<uint8_t> out((words.size() - 6) / 8, 0xA5);
    EXPECT_EQ(ViterbiDecodeWith(v, words.data(), static_cast<int32_t>(words.size()), out.data()), 1);
    return out;
}

std::vector<ViterbiVariant> Variants() {
    std::vector<ViterbiVariant> v;
    for (auto x : {ViterbiVariant::kScalar, ViterbiVariant::kSse2, ViterbiVariant::kAvx2})
        if (ViterbiVariantAvailable(x)) v.push_back(x);
    return v;
}

// Plain trellis model: integer metrics clipped at 255, ties to the older
// state, normalised when state 47 passes 150. Gives each step's decisions in
// the kernels' bit order; the bytes come from the decoder's own traceback.
std::vector<uint64_t> ModelDecisions(const Words& words) {
    std::array<int, 64> metric{};
    std::vector<uint64_t> decisions(words.size(), 0);
    for (size_t t = 0; t < words.size(); ++t) {
        std::array<int, 64> next{};
        for (int s = 0; s < 64; ++s) {
            int cand[2];
            for (int hi = 0; hi < 2; ++hi) {
                const int prev = (s >> 1) + 32 * hi;
                uint32_t reg = static_cast<uint32_t>(s & 1) << 6;  // a(i) .. a(i-6) from the top
                for (int k = 1; k <= 6; ++k) reg |= static_cast<uint32_t>((prev >> (k - 1)) & 1) << (6 - k);
                const auto code = EncoderOutputs(reg);
                int cost = 0;
                for (int k = 0; k < 4; ++k) cost += code[k] ? 15 - ((words[t] >> (12 - 4 * k)) & 15) : (words[t] >> (12 - 4 * k)) & 15;
                cand[hi] = std::min(255, metric[prev] + cost);
            }
            const bool high = cand[1] <= cand[0];
            if (high) decisions[t] |= uint64_t{1} << DecisionBit(s);
            next[s] = cand[high];
        }
        if (next[47] > 150) {
            const int m = *std::min_element(next.begin(), next.end());
            for (int& x : next) x -= m;
        }
        metric = next;
    }
    return decisions;
}

std::vector<uint64_t> KernelDecisions(ViterbiVariant v, const Words& words) {
    std::vector<uint64_t> d(words.size());
    const ViterbiKernel kernel = v == ViterbiVariant::kScalar ? RunViterbiScalar
                                 : v == ViterbiVariant::kSse2 ? RunViterbiSse2
                                                              : RunViterbiAvx2;
    kernel(words.data(), static_cast<int32_t>(words.size()), d.data());
    return d;
}

// Blocks on which the tie rule, saturation and normalisation decide, and
// the longest block of the receiver (a whole CIF of set B level 4).
std::vector<Words> HardCases() {
    std::mt19937 rng(3);
    std::vector<Words> cases{Words(774, 0x8888)};  // all neutral: ties throughout
    Words nearTies(1030), random(774);
    for (auto& w : nearTies) w = static_cast<SoftWord>(0x7777 + (rng() & 0x1111));
    for (auto& w : random) w = static_cast<SoftWord>(rng());
    cases.push_back(nearTies);
    cases.push_back(random);
    // Constant data keeps the true path in state 0, where the metrics would
    // climb to 255 if that state were the one watched.
    cases.push_back(ToWords(rng, Encode(Bits(1024, 0)), 0.5));
    // Clean, then erased: the wrong paths sit at 255, state 47 may stay low.
    Words cleanThenErased = ToWords(rng, Encode(RandomBits(rng, 1536)), 0.0, 2);
    std::fill(cleanThenErased.begin() + 700, cleanThenErased.begin() + 900, 0x8888);
    cases.push_back(cleanThenErased);
    EXPECT_EQ(kViterbiMaxSteps, 192 * 228 + 6);
    cases.push_back(ToWords(rng, Encode(RandomBits(rng, kViterbiMaxSteps - 6)), 0.6));
    return cases;
}

TEST(ViterbiDecode, EveryKernelFollowsTheTrellisModelOnTiesAndSaturation) {
    const std::vector<Words> cases = HardCases();
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto model = ModelDecisions(cases[i]);
        const auto bytes = Decode(ViterbiVariant::kScalar, cases[i]);
        for (auto v : Variants()) {
            EXPECT_EQ(KernelDecisions(v, cases[i]), model) << "case " << i << ", variant " << int(v);
            EXPECT_EQ(Decode(v, cases[i]), bytes) << "case " << i << ", variant " << int(v);
        }
    }
    // Noisy data decodes to what was sent.
    std::mt19937 rng(9);
    const Bits sent = RandomBits(rng, 768);
    const auto got = Decode(ViterbiVariant::kScalar, ToWords(rng, Encode(sent), 0.5));
    for (size_t p = 0; p < sent.size(); ++p) ASSERT_EQ((got[p / 8] >> (7 - p % 8)) & 1, sent[p]) << p;
}

TEST(ViterbiDecode, DegenerateAndOversizedBlocks) {
    std::vector<uint8_t> out(kViterbiMaxSteps / 8 + 1, 0x5A);
    const Words words(kViterbiMaxSteps + 8, 0x0000);
    EXPECT_EQ(ViterbiDecode(words.data(), 6, out.data()), 1);  // no data
    EXPECT_EQ(out[0], 0x5A);
    // Beyond the decision memory, or without input: refused, output zeroed.
    EXPECT_EQ(ViterbiDecode(words.data(), kViterbiMaxSteps + 8, out.data()), 0);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(ViterbiDecode(nullptr, 14, out.data()), 0);
    EXPECT_EQ(ViterbiDecode(words.data(), 14, nullptr), 0);
}

}  // namespace
}  // namespace mvdab
