// Soft-decision Viterbi decoder for the rate-1/4, constraint-length-7 mother
// code (64 states) shared by the FIC and every sub-channel.
//
// Metrics are unsigned bytes that saturate at 255; in a tie the predecessor
// with the oldest bit set wins; metrics are renormalised only when state 47
// exceeds 150; traceback starts from state 0 at the end of the block. The
// scalar, SSE2 and AVX2 kernels follow these rules to the bit and therefore
// give identical output.
#pragma once

#include <cstdint>

#include "channel/soft_word.h"

namespace mvdab {

// Steps of the encoder's zero tail that end every block.
constexpr int32_t kViterbiTailSteps = 6;

// Capacity of the decision memory, in trellis steps (64 decision bits each,
// 350,256 bytes in all). A CIF holds 864 capacity units; the largest
// sub-channel that fits is protection set B, level 4, n = 57 (855 units),
// with 43,776 decoded bits per CIF. Its 43,782 steps, tail included, bound
// every block of a sub-channel that can exist, and of the FIC (at most 1,030
// steps). A longer block can only come from a sub-channel that runs past the
// end of the CIF; it is refused.
constexpr int32_t kViterbiMaxDecodedBits = 43776;
constexpr int32_t kViterbiMaxSteps = kViterbiMaxDecodedBits + kViterbiTailSteps;

// Decodes `count` steps of `words` (tail included) into (count - 6) / 8 bytes
// of `output`, first bit in time in the top bit of the first byte. Any bits
// after the last whole byte are dropped. Returns 1 when decoded (also for
// count <= 6, which yields no bytes), 0 when refused: a null pointer with
// count > 6, or count above kViterbiMaxSteps; a refused block leaves zeros in
// `output` if it is not null. Not re-entrant: the decision memory is one
// static block, used by the demodulation thread only.
int32_t ViterbiDecode(const SoftWord* words, int32_t count, uint8_t* output);

// ---------------------------------------------------------------------------
// The kernels behind ViterbiDecode, for tests and benchmarks. ViterbiDecode
// uses the kernel picked once at load time: AVX2 when the processor has it,
// else SSE2.

enum class ViterbiVariant : int32_t { kScalar = 0, kSse2 = 1, kAvx2 = 2 };

// 1 if this processor and build can run the variant, else 0.
int32_t ViterbiVariantAvailable(ViterbiVariant variant);

// The variant that ViterbiDecode uses.
ViterbiVariant SelectedViterbiVariant();

// ViterbiDecode with a chosen kernel. Returns 0 as ViterbiDecode does, and
// also for a variant that is not available.
int32_t ViterbiDecodeWith(ViterbiVariant variant, const SoftWord* words, int32_t count,
                          uint8_t* output);

// ---------------------------------------------------------------------------
// Shared by the kernel files.

// Forward pass of one kernel: fills decisions[0 .. count-1], 1 <= count <=
// kViterbiMaxSteps.
using ViterbiKernel = void (*)(const SoftWord* words, int32_t count, uint64_t* decisions);

void RunViterbiScalar(const SoftWord* words, int32_t count, uint64_t* decisions);
void RunViterbiSse2(const SoftWord* words, int32_t count, uint64_t* decisions);
void RunViterbiAvx2(const SoftWord* words, int32_t count, uint64_t* decisions);

// Bit of a step's decision word that belongs to a state. States 2j (even)
// take bits 0..31 at position j, states 2j + 1 (odd) bits 32..63: the order
// in which the SIMD kernels produce them. A set bit selects the predecessor
// s / 2 + 32.
constexpr int32_t DecisionBit(int32_t state) { return (state & 1) * 32 + (state >> 1); }

// Branch costs for the SIMD kernels. The branch from state j (0..31) with
// input 0 has cost C_j; the other three branches of the butterfly j, j + 32
// -> 2j, 2j + 1 have cost C_j (j + 32 with input 1) or 60 - C_j (the other
// two), since their code bits are complements of one another. C_j is the sum
// of one entry of each table: row = top byte of the word (first and second
// soft values), row = low byte (third and fourth), column j.
struct alignas(32) BranchCostRows {
    uint8_t cost[256][32];  // cost units, 0..30
};
extern const BranchCostRows kViterbiHighByteCosts;
extern const BranchCostRows kViterbiLowByteCosts;

}  // namespace mvdab
