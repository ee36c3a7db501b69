// CRC, firecode and Reed-Solomon encoding of the payloads.
#include "generator/payload_coding.h"

#include <array>

namespace gen {
namespace {

constexpr unsigned kFieldPolynomial = 0x11D;  // x^8 + x^4 + x^3 + x^2 + 1

struct GfTables {
    std::array<uint8_t, 512> exp{};  // alpha^i, twice over so that log a + log b needs no reduction
    std::array<int, 256> log{};      // log of 1..255; log[0] unused
};

constexpr GfTables MakeGfTables() {
    GfTables t{};
    unsigned x = 1;
    for (int i = 0; i < 255; ++i) {
        t.exp[i] = static_cast<uint8_t>(x);
        t.exp[i + 255] = static_cast<uint8_t>(x);
        t.log[x] = i;
        x <<= 1;
        if (x & 0x100) x ^= kFieldPolynomial;
    }
    t.exp[510] = t.exp[0];
    t.exp[511] = t.exp[1];
    return t;
}

constexpr GfTables kGf = MakeGfTables();

}  // namespace

uint16_t CrcCcitt16(const uint8_t* data, size_t length) {
    uint16_t reg = 0xFFFF;
    for (size_t i = 0; i < length; ++i) {
        reg ^= static_cast<uint16_t>(data[i] << 8);
        for (int b = 0; b < 8; ++b) reg = (reg & 0x8000) ? static_cast<uint16_t>((reg << 1) ^ 0x1021) : static_cast<uint16_t>(reg << 1);
    }
    return static_cast<uint16_t>(~reg);
}

uint16_t SuperframeFirecode(const uint8_t* nineBytes) {
    uint16_t reg = 0;
    for (int i = 0; i < 9; ++i) {
        for (int b = 7; b >= 0; --b) {
            const bool feedback = ((reg >> 15) & 1) != ((nineBytes[i] >> b) & 1);
            reg = static_cast<uint16_t>(reg << 1);
            if (feedback) reg ^= 0x782F;
        }
    }
    return reg;
}

uint8_t GfMultiply(uint8_t a, uint8_t b) {
    if (a == 0 || b == 0) return 0;
    return kGf.exp[kGf.log[a] + kGf.log[b]];
}

uint8_t GfPower(int exponent) { return kGf.exp[exponent % 255]; }

RsEncoder::RsEncoder(int parityBytes) {
    // g(x) = (x + alpha^0)(x + alpha^1) ... (x + alpha^(n-1)), lowest power first.
    generator_.assign(1, 1);
    for (int r = 0; r < parityBytes; ++r) {
        const uint8_t root = GfPower(r);
        std::vector<uint8_t> next(generator_.size() + 1, 0);
        for (size_t k = 0; k < generator_.size(); ++k) {
            next[k + 1] ^= generator_[k];               // x * g
            next[k] ^= GfMultiply(generator_[k], root);  // root * g
        }
        generator_ = std::move(next);
    }
}

void RsEncoder::Encode(const uint8_t* data, size_t count, size_t stride, uint8_t* parity, size_t parityStride) const {
    // Division register: reg[k] holds the coefficient of x^k of the remainder.
    const int n = ParityBytes();
    std::array<uint8_t, 256> reg{};
    for (size_t i = 0; i < count; ++i) {
        const uint8_t feedback = data[i * stride] ^ reg[n - 1];
        for (int k = n - 1; k > 0; --k) reg[k] = reg[k - 1] ^ GfMultiply(feedback, generator_[k]);
        reg[0] = GfMultiply(feedback, generator_[0]);
    }
    for (int k = 0; k < n; ++k) parity[k * parityStride] = reg[n - 1 - k];
}

}  // namespace gen
