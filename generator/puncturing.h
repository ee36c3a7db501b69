// Puncturing of the mother code: runs of 128-bit blocks, each block using
// puncturing vector V_PI four times (once per 32-bit group), then the 24 tail
// bits with the tail vector (12 kept).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gen {

struct PunctureRun {
    int blocks;  // number of 128-bit blocks (32 information bits each)
    int pi;      // puncturing index 1..24: V_PI keeps PI + 8 of 32 bits
};

// V_PI as a 32-bit word, position 0 in the most significant bit.
uint32_t PuncturingVector(int pi);
// The tail vector, 24 bits, position 0 in bit 23.
constexpr uint32_t kTailVector = 0xCCCCCC;

// Bits kept by the runs and the tail: sum of 4 * blocks * (PI + 8) + 12.
size_t PuncturedLength(const std::vector<PunctureRun>& runs);

// Punctures `mother` (4 * I + 24 bits, I = 32 * total blocks) and appends the
// kept bits to `out`. False if the length does not match the runs.
bool Puncture(const std::vector<uint8_t>& mother, const std::vector<PunctureRun>& runs, std::vector<uint8_t>& out);

}  // namespace gen
