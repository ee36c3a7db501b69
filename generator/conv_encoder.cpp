#include "generator/conv_encoder.h"

#include <array>

namespace gen {
namespace {

constexpr unsigned kPolynomials[4] = {0133, 0171, 0145, 0133};

// For every 7-bit window (current bit at the top, oldest at the bottom) the
// four output bits, x0 in bit 3.
constexpr std::array<uint8_t, 128> MakeOutputTable() {
    std::array<uint8_t, 128> table{};
    for (unsigned window = 0; window < 128; ++window) {
        unsigned nibble = 0;
        for (unsigned p : kPolynomials) {
            unsigned taps = window & p, parity = 0;
            while (taps) {
                parity ^= taps & 1;
                taps >>= 1;
            }
            nibble = (nibble << 1) | parity;
        }
        table[window] = static_cast<uint8_t>(nibble);
    }
    return table;
}

constexpr std::array<uint8_t, 128> kOutputs = MakeOutputTable();

}  // namespace

void ConvEncode(const uint8_t* bits, size_t count, std::vector<uint8_t>& out) {
    out.resize(4 * (count + 6));
    unsigned window = 0;  // bit 6 = current input, bit 0 = input six steps back
    uint8_t* o = out.data();
    for (size_t i = 0; i < count + 6; ++i) {
        const unsigned in = i < count ? (bits[i] & 1u) : 0u;
        window = (window >> 1) | (in << 6);
        const uint8_t nibble = kOutputs[window];
        o[0] = (nibble >> 3) & 1;
        o[1] = (nibble >> 2) & 1;
        o[2] = (nibble >> 1) & 1;
        o[3] = nibble & 1;
        o += 4;
    }
}

}  // namespace gen
