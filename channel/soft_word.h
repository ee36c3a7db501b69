// The soft input of one trellis step of the convolutional decoder.
#pragma once

#include <cstdint>

namespace mvdab {

// Four 4-bit soft values, one per output of the rate-1/4 mother code:
// bits 15..12 first output (133 octal), 11..8 second (171), 7..4 third (145),
// 3..0 fourth (133 again). 0 is a certain 0 bit, 15 a certain 1 bit.
using SoftWord = uint16_t;

// Soft value written where the transmitter punctured a bit.
constexpr uint16_t kNeutralSoftValue = 8;

}  // namespace mvdab
