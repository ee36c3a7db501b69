#include "generator/fib_crc.h"

#include "generator/payload_coding.h"

namespace gen {

void SealFib(uint8_t* fib) {
    const uint16_t crc = CrcCcitt16(fib, kFibDataBytes);
    fib[30] = static_cast<uint8_t>(crc >> 8);
    fib[31] = static_cast<uint8_t>(crc);
}

}  // namespace gen
