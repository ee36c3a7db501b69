// The FIB check word: CRC x^16 + x^12 + x^5 + 1, preset 0xFFFF, complemented,
// over the 30-byte data field, stored high byte first in bytes 30 and 31.
#pragma once

#include <cstdint>

namespace gen {

constexpr int kFibBytes = 32;
constexpr int kFibDataBytes = 30;

// Writes the CRC of fib[0..29] into fib[30], fib[31].
void SealFib(uint8_t* fib);

}  // namespace gen
