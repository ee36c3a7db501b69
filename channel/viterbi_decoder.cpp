// Viterbi decoder: trellis tables, the scalar kernel, traceback and packing,
// and the choice of kernel.
#include "channel/viterbi_decoder.h"

#include <bit>
#include <cstring>

namespace mvdab {

namespace {

// Code bits of a branch. The 7-bit window holds the bit entering the encoder
// in bit 0 and the bit k steps older in bit k; the new state is window & 63
// and the old state window >> 1. The generators 133, 171 and 145 octal tap
// the newest input with their top bit, so here they appear bit-reversed.
constexpr uint32_t kTapsFirst = 0b1101101;   // first and fourth output, 133
constexpr uint32_t kTapsSecond = 0b1001111;  // second output, 171
constexpr uint32_t kTapsThird = 0b1010011;   // third output, 145

// 3-bit code pattern of a window: bit 2 first (and fourth) output, bit 1
// second, bit 0 third. The fourth output repeats the first, so eight
// patterns cover all 128 branches.
constexpr uint8_t CodePattern(uint32_t window) {
    return static_cast<uint8_t>(((std::popcount(window & kTapsFirst) & 1) << 2) |
                                ((std::popcount(window & kTapsSecond) & 1) << 1) |
                                (std::popcount(window & kTapsThird) & 1));
}

struct PatternTable {
    uint8_t pattern[128];  // code pattern by window: new state + 64 x (oldest bit)
};

constexpr PatternTable BuildPatternTable() {
    PatternTable table{};
    for (uint32_t window = 0; window < 128; ++window) table.pattern[window] = CodePattern(window);
    return table;
}

constexpr PatternTable kBranchPatterns = BuildPatternTable();

// All three generators tap the newest and the oldest bit, so flipping either
// complements the code bits. The SIMD kernels build on that: of the four
// branches of a butterfly, two carry the pattern of window 2j and two its
// complement.
constexpr bool ButterfliesAreComplementary() {
    for (uint32_t j = 0; j < 32; ++j) {
        const uint8_t base = kBranchPatterns.pattern[2 * j];
        if (kBranchPatterns.pattern[2 * j + 64] != (base ^ 7)) return false;
        if (kBranchPatterns.pattern[2 * j + 1] != (base ^ 7)) return false;
        if (kBranchPatterns.pattern[2 * j + 1 + 64] != base) return false;
    }
    return true;
}
static_assert(ButterfliesAreComplementary());
// Input 1 into an all-zero register gives 1111 first.
static_assert(CodePattern(1) == 7);

// Cost of a soft value s against code bit c: s for 0, 15 - s for 1 (= s ^ 15).
constexpr uint8_t SoftCost(uint32_t soft, uint32_t codeBit) {
    return static_cast<uint8_t>(codeBit ? 15 - soft : soft);
}

// One table per byte of the word: high byte holds the first and second soft
// values, low byte the third and fourth; the fourth is charged against the
// first output's bit.
constexpr BranchCostRows BuildByteCosts(bool highByte) {
    BranchCostRows table{};
    for (uint32_t row = 0; row < 256; ++row) {
        const uint32_t upper = row >> 4;
        const uint32_t lower = row & 15;
        for (uint32_t j = 0; j < 32; ++j) {
            const uint32_t p = kBranchPatterns.pattern[2 * j];
            const uint32_t first = (p >> 2) & 1;
            const uint32_t second = (p >> 1) & 1;
            const uint32_t third = p & 1;
            table.cost[row][j] = highByte
                ? static_cast<uint8_t>(SoftCost(upper, first) + SoftCost(lower, second))
                : static_cast<uint8_t>(SoftCost(upper, third) + SoftCost(lower, first));
        }
    }
    return table;
}

constexpr uint8_t kNormaliseAbove = 150;  // limit on the metric of state 47
constexpr int32_t kWatchedState = 47;

}  // namespace

constexpr BranchCostRows kViterbiHighByteCosts = BuildByteCosts(true);
constexpr BranchCostRows kViterbiLowByteCosts = BuildByteCosts(false);

void RunViterbiScalar(const SoftWord* words, int32_t count, uint64_t* decisions) {
    uint8_t metrics[2][64] = {};
    int32_t oldSet = 0;
    for (int32_t t = 0; t < count; ++t) {
        const uint32_t word = words[t];
        const uint32_t s0 = word >> 12;
        const uint32_t s1 = (word >> 8) & 15;
        const uint32_t s2 = (word >> 4) & 15;
        const uint32_t s3 = word & 15;
        uint32_t cost[8];
        for (uint32_t p = 0; p < 8; ++p) {
            const uint32_t first = (p >> 2) & 1;
            cost[p] = SoftCost(s0, first) + SoftCost(s1, (p >> 1) & 1) + SoftCost(s2, p & 1) +
                      SoftCost(s3, first);
        }
        const uint8_t* previous = metrics[oldSet];
        uint8_t* next = metrics[oldSet ^ 1];
        uint64_t decision = 0;
        for (int32_t s = 0; s < 64; ++s) {
            uint32_t a = previous[s >> 1] + cost[kBranchPatterns.pattern[s]];
            uint32_t b = previous[(s >> 1) + 32] + cost[kBranchPatterns.pattern[s + 64]];
            a = a > 255 ? 255 : a;
            b = b > 255 ? 255 : b;
            // Ties go to the predecessor with the oldest bit set.
            next[s] = static_cast<uint8_t>(b < a ? b : a);
            decision |= static_cast<uint64_t>(b <= a) << DecisionBit(s);
        }
        if (next[kWatchedState] > kNormaliseAbove) {
            uint8_t smallest = next[0];
            for (int32_t s = 1; s < 64; ++s) smallest = next[s] < smallest ? next[s] : smallest;
            for (int32_t s = 0; s < 64; ++s) next[s] = static_cast<uint8_t>(next[s] - smallest);
        }
        decisions[t] = decision;
        oldSet ^= 1;
    }
}

namespace {

// The state one step back, as its decision bit: from b = DecisionBit(s) of
// the state s after step p and the decision word d of step p, DecisionBit of
// (s >> 1) | (oldest bit << 5), the state before it. s >> 1 is b & 31, so the
// new state's bit 0 is bit 0 of b and its upper bits are (b & 31) >> 1 with
// the oldest bit on top. Working on b rather than on s keeps the loop-carried
// chain to a shift, a mask and two merges.
constexpr uint32_t StepBack(uint32_t bit, uint64_t d) {
    return ((bit & 1) << 5) | ((bit >> 1) & 15) | (static_cast<uint32_t>((d >> bit) & 1) << 4);
}

constexpr bool StepBackFollowsTheState() {
    for (uint32_t s = 0; s < 64; ++s) {
        for (uint32_t oldest = 0; oldest < 2; ++oldest) {
            const uint32_t bit = static_cast<uint32_t>(DecisionBit(static_cast<int32_t>(s)));
            const uint64_t d = static_cast<uint64_t>(oldest) << bit;
            const uint32_t before = (s >> 1) | (oldest << 5);
            if (StepBack(bit, d) != static_cast<uint32_t>(DecisionBit(static_cast<int32_t>(before)))) return false;
            if ((bit >> 5) != (s & 1)) return false;
        }
    }
    return true;
}
static_assert(StepBackFollowsTheState());

// Follows the decisions back from state 0 at the end of the block. The state
// after step p holds the input bit of step p in bit 0, which is bit 5 of its
// decision bit; the decision word of step p gives the oldest bit of the state
// before it.
void TraceBack(const uint64_t* decisions, int32_t count, uint8_t* output) {
    const int32_t byteCount = (count - kViterbiTailSteps) / 8;
    uint32_t bit = static_cast<uint32_t>(DecisionBit(0));
    for (int32_t t = count - 1; t >= byteCount * 8; --t) bit = StepBack(bit, decisions[t]);
    for (int32_t b = byteCount - 1; b >= 0; --b) {
        uint32_t packed = 0;
        for (int32_t k = 7; k >= 0; --k) {
            packed |= (bit >> 5) << (7 - k);
            bit = StepBack(bit, decisions[8 * b + k]);
        }
        output[b] = static_cast<uint8_t>(packed);
    }
}

ViterbiKernel KernelOf(ViterbiVariant variant) {
    switch (variant) {
        case ViterbiVariant::kScalar:
            return RunViterbiScalar;
        case ViterbiVariant::kSse2:
#if defined(__x86_64__) || defined(_M_X64)
            return RunViterbiSse2;
#else
            return nullptr;
#endif
        case ViterbiVariant::kAvx2:
#if defined(__x86_64__) || defined(_M_X64)
            __builtin_cpu_init();
            if (__builtin_cpu_supports("avx2")) return RunViterbiAvx2;
#endif
            return nullptr;
    }
    return nullptr;
}

// AVX2 when the processor has it: all three kernels give the same bits, and
// AVX2 decodes about 5 to 10 % faster than SSE2 (bench_viterbi; both are
// thousands of times faster than the FIC needs). Chosen once, when the
// library is loaded.
ViterbiVariant SelectVariant() {
    if (KernelOf(ViterbiVariant::kAvx2) != nullptr) return ViterbiVariant::kAvx2;
    if (KernelOf(ViterbiVariant::kSse2) != nullptr) return ViterbiVariant::kSse2;
    return ViterbiVariant::kScalar;
}

const ViterbiVariant selectedVariant = SelectVariant();
const ViterbiKernel selectedKernel = KernelOf(selectedVariant);

// 64 decision bits per step of the block in hand; nothing survives a call.
alignas(64) uint64_t decisionMemory[kViterbiMaxSteps];

int32_t DecodeWithKernel(ViterbiKernel kernel, const SoftWord* words, int32_t count,
                         uint8_t* output) {
    if (count <= kViterbiTailSteps) return 1;
    if (kernel == nullptr || words == nullptr || output == nullptr || count > kViterbiMaxSteps) {
        if (output != nullptr) std::memset(output, 0, static_cast<size_t>((count - kViterbiTailSteps) / 8));
        return 0;
    }
    kernel(words, count, decisionMemory);
    TraceBack(decisionMemory, count, output);
    return 1;
}

}  // namespace

int32_t ViterbiDecode(const SoftWord* words, int32_t count, uint8_t* output) {
    return DecodeWithKernel(selectedKernel, words, count, output);
}

int32_t ViterbiVariantAvailable(ViterbiVariant variant) { return KernelOf(variant) != nullptr ? 1 : 0; }

ViterbiVariant SelectedViterbiVariant() { return selectedVariant; }

int32_t ViterbiDecodeWith(ViterbiVariant variant, const SoftWord* words, int32_t count,
                          uint8_t* output) {
    return DecodeWithKernel(KernelOf(variant), words, count, output);
}

}  // namespace mvdab
