// Energy dispersal: the PRBS of x^9 + x^5 + 1 as a byte table.
#include "channel/energy_dispersal.h"

#include <array>

namespace mvdab {

namespace {

// The sequence repeats every 511 bits, so 511 bytes (8 periods) repeat too.
constexpr int32_t kPrbsPeriodBytes = 511;

// Nine-stage shift register, all stages 1 at the start. Each step outputs
// stage 9 XOR stage 5 and shifts that bit into stage 1; the first output is
// the top bit of the first byte.
constexpr std::array<uint8_t, kPrbsPeriodBytes> BuildPrbsBytes() {
    std::array<uint8_t, kPrbsPeriodBytes> bytes{};
    uint32_t stages = 0x1FF;  // bit k - 1 holds stage k
    for (int32_t i = 0; i < kPrbsPeriodBytes; ++i) {
        uint32_t value = 0;
        for (int32_t bit = 0; bit < 8; ++bit) {
            const uint32_t out = ((stages >> 8) ^ (stages >> 4)) & 1;
            stages = ((stages << 1) | out) & 0x1FF;
            value = (value << 1) | out;
        }
        bytes[i] = static_cast<uint8_t>(value);
    }
    return bytes;
}

constexpr std::array<uint8_t, kPrbsPeriodBytes> kPrbsBytes = BuildPrbsBytes();

static_assert(kPrbsBytes[0] == 0x07 && kPrbsBytes[1] == 0xBE && kPrbsBytes[7] == 0xCF);

}  // namespace

void EnergyDisperse(uint8_t* bytes, int32_t byteCount) {
    if (bytes == nullptr) return;
    for (int32_t done = 0; done < byteCount; done += kPrbsPeriodBytes) {
        const int32_t n = byteCount - done < kPrbsPeriodBytes ? byteCount - done : kPrbsPeriodBytes;
        uint8_t* block = bytes + done;
        for (int32_t i = 0; i < n; ++i) block[i] ^= kPrbsBytes[i];
    }
}

}  // namespace mvdab
