// Convolutional mother code of the channel coding: rate 1/4, constraint
// length 7, generators 133, 171, 145, 133 (octal; the top bit taps the
// current input bit). Bits are held one per byte (0 or 1) throughout the
// channel coder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gen {

// Encodes `count` information bits from a zeroed register, then 6 zero tail
// bits: `out` is replaced by 4 * (count + 6) bits, outputs x0 x1 x2 x3 per
// input bit.
void ConvEncode(const uint8_t* bits, size_t count, std::vector<uint8_t>& out);

}  // namespace gen
