// Energy dispersal: the PRBS of polynomial x^9 + x^5 + 1 with all nine cells
// starting at one, XORed onto the bits in transmission order. It restarts for
// every FIC coding block and every logical frame of every sub-channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gen {

// The first `count` PRBS bits, one per byte.
std::vector<uint8_t> DispersalSequence(size_t count);

// XORs the PRBS, restarted, onto `count` bits (one per byte).
void DisperseBits(uint8_t* bits, size_t count);

}  // namespace gen
