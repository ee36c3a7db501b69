// A small FIC transmitter for the FIC stage's tests, written from the coding
// rules alone: FIBs with their CRC, energy dispersal, the rate-1/4 mother code
// with its zero tail, the FIC's puncturing, and the mapping of coded bits to
// the float soft values that the demodulator leaves in FrameCarriers
// (positive for a 0 bit).
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace fictest {

using Bytes = std::vector<uint8_t>;
using Bits = std::vector<uint8_t>;

// CRC of a FIB: x^16 + x^12 + x^5 + 1, preset 0xFFFF, data top bit first,
// complemented; shifted bit by bit with the data bit folded into the feedback.
inline uint16_t Crc16(const uint8_t* data, int length) {
    uint16_t reg = 0xFFFF;
    for (int i = 0; i < length; ++i)
        for (int k = 7; k >= 0; --k) {
            const int in = ((data[i] >> k) & 1) ^ (reg >> 15);
            reg = uint16_t(reg << 1);
            if (in) reg ^= 0x1021;
        }
    return uint16_t(reg ^ 0xFFFF);
}

// A FIB from FIG bytes: end marker and zero padding when they leave room,
// then the CRC; with `breakCrc` the CRC is made wrong.
inline Bytes MakeFib(const Bytes& figs, bool breakCrc = false) {
    Bytes fib = figs;
    if (fib.size() < 30) fib.push_back(0xFF);
    fib.resize(30, 0x00);
    uint16_t crc = Crc16(fib.data(), 30);
    if (breakCrc) crc ^= 0x0100;
    fib.push_back(uint8_t(crc >> 8));
    fib.push_back(uint8_t(crc));
    return fib;
}

// FIG 0/0 with ensemble id, no change flags, and the CIF count.
inline Bytes Fig00(uint16_t eid, int cifHigh, int cifLow) {
    return {0x05, 0x00, uint8_t(eid >> 8), uint8_t(eid), uint8_t(cifHigh), uint8_t(cifLow)};
}

// A FIB of random FIG bytes (type 1 headers with random bodies) and a right
// or wrong CRC.
inline Bytes RandomFib(std::mt19937& rng, bool breakCrc = false) {
    Bytes figs;
    while (figs.size() < 24) {
        const int length = 1 + int(rng() % 5);
        figs.push_back(uint8_t(0x20 | length));
        for (int i = 0; i < length; ++i) figs.push_back(uint8_t(rng()));
    }
    return MakeFib(figs, breakCrc);
}

// Energy dispersal sequence: p(i) = p(i-5) xor p(i-9), the nine bits before
// the first all ones.
inline Bits Prbs(int count) {
    Bits p(count + 9, 1);
    for (int i = 9; i < count + 9; ++i) p[i] = p[i - 5] ^ p[i - 9];
    return Bits(p.begin() + 9, p.end());
}

// Mother-code outputs of one step for the register of the last seven inputs
// (current input in bit 6): generators 133, 171, 145, 133 octal.
inline void EncodeStep(uint32_t reg, Bits& out) {
    for (uint32_t g : {0133u, 0171u, 0145u, 0133u}) out.push_back(uint8_t(__builtin_popcount(reg & g) & 1));
}

// The coded bits of one CIF of FIC: the CIF's FIBs scrambled, encoded with
// the zero tail, and punctured, 2304 bits for 3 FIBs, 3072 for 4.
inline Bits EncodeFicCif(const Bytes& cifBytes) {
    const int infoBits = int(cifBytes.size()) * 8;
    const Bits prbs = Prbs(infoBits);
    Bits mother;
    uint32_t reg = 0;
    for (int i = 0; i < infoBits + 6; ++i) {
        const int bit = i < infoBits ? ((cifBytes[i / 8] >> (7 - i % 8)) & 1) ^ prbs[i] : 0;
        reg = (uint32_t(bit) << 6) | (reg >> 1);
        EncodeStep(reg, mother);
    }
    // Blocks of 128 mother bits: all but the last three with V16, those three
    // with V15; each vector applies to four groups of 32 bits. The 24 tail
    // bits use the tail vector.
    const uint32_t v16 = 0xEEEEEEEE, v15 = 0xEEEEEEEC, vTail = 0xCCCCCC;
    const int blocks = infoBits / 32;
    Bits coded;
    for (int b = 0; b < blocks; ++b) {
        const uint32_t v = b < blocks - 3 ? v16 : v15;
        for (int j = 0; j < 128; ++j)
            if ((v >> (31 - j % 32)) & 1) coded.push_back(mother[b * 128 + j]);
    }
    for (int j = 0; j < 24; ++j)
        if ((vTail >> (23 - j)) & 1) coded.push_back(mother[blocks * 128 + j]);
    return coded;
}

// Float soft values of coded bits: +amplitude for 0, -amplitude for 1, with
// Gaussian noise of the given deviation.
inline void WriteSoftValues(const Bits& coded, float amplitude, float noise, std::mt19937& rng, float* out) {
    std::normal_distribution<float> gauss(0.0f, noise > 0.0f ? noise : 1.0f);
    for (size_t i = 0; i < coded.size(); ++i)
        out[i] = (coded[i] ? -amplitude : amplitude) + (noise > 0.0f ? gauss(rng) : 0.0f);
}

}  // namespace fictest
