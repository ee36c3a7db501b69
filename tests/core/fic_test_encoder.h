// A small FIC transmitter for the FIC stage's tests, written from the coding
// rules alone: FIBs with their CRC, energy dispersal, the rate-1/4 mother code
// with its zero tail, the FIC's puncturing, and coded bits as the float soft
// values of FrameCarriers (positive for a 0 bit).
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace fictest {

using Bytes = std::vector<uint8_t>;

// x^16 + x^12 + x^5 + 1, preset 0xFFFF, top bit first, complemented.
inline uint16_t Crc16(const uint8_t* data, int length) {
    uint16_t reg = 0xFFFF;
    for (int i = 0; i < length * 8; ++i) {
        const int in = ((data[i / 8] >> (7 - i % 8)) & 1) ^ (reg >> 15);
        reg = uint16_t((reg << 1) ^ (in ? 0x1021 : 0));
    }
    return uint16_t(~reg);
}

// A FIB of the given FIG bytes, end marker, padding and CRC (made wrong on request).
inline Bytes MakeFib(Bytes fib, bool breakCrc = false) {
    if (fib.size() < 30) fib.push_back(0xFF);
    fib.resize(30, 0x00);
    const uint16_t crc = uint16_t(Crc16(fib.data(), 30) ^ (breakCrc ? 0x0100 : 0));
    fib.insert(fib.end(), {uint8_t(crc >> 8), uint8_t(crc)});
    return fib;
}

// A FIB of type 1 FIGs with random bodies.
inline Bytes RandomFib(std::mt19937& rng, bool breakCrc = false) {
    Bytes figs;
    while (figs.size() < 24) {
        const int length = 1 + int(rng() % 5);
        figs.push_back(uint8_t(0x20 | length));
        for (int i = 0; i < length; ++i) figs.push_back(uint8_t(rng()));
    }
    return MakeFib(figs, breakCrc);
}

// Coded bits of one CIF of FIC (3 or 4 FIBs): scrambled with p(i) = p(i-5)
// xor p(i-9) from all ones, encoded with generators 133, 171, 145, 133 octal
// and the zero tail, then punctured: blocks of 128 mother bits with V16 but
// the last three with V15, the 24 tail bits with the tail vector.
inline std::vector<uint8_t> EncodeFicCif(const Bytes& cif) {
    const int infoBits = int(cif.size()) * 8;
    std::vector<uint8_t> prbs(9, 1), mother;
    uint32_t reg = 0;
    for (int i = 0; i < infoBits + 6; ++i) {
        prbs.push_back(prbs[i + 4] ^ prbs[i]);
        const int bit = i < infoBits ? ((cif[i / 8] >> (7 - i % 8)) & 1) ^ prbs.back() : 0;
        reg = (uint32_t(bit) << 6) | (reg >> 1);
        for (uint32_t g : {0133u, 0171u, 0145u, 0133u}) mother.push_back(uint8_t(__builtin_popcount(reg & g) & 1));
    }
    const int blocks = infoBits / 32;
    std::vector<uint8_t> coded;
    for (int j = 0; j < blocks * 128; ++j) {
        const uint32_t v = j / 128 < blocks - 3 ? 0xEEEEEEEE : 0xEEEEEEEC;
        if ((v >> (31 - j % 32)) & 1) coded.push_back(mother[j]);
    }
    for (int j = 0; j < 24; ++j)
        if ((0xCCCCCCu >> (23 - j)) & 1) coded.push_back(mother[blocks * 128 + j]);
    return coded;
}

// +amplitude for a 0 bit, -amplitude for a 1, plus Gaussian noise.
inline void WriteSoftValues(const std::vector<uint8_t>& coded, float amplitude, float noise, std::mt19937& rng,
                            float* out) {
    std::normal_distribution<float> gauss(0.0f, 1.0f);
    for (size_t i = 0; i < coded.size(); ++i) out[i] = (coded[i] ? -amplitude : amplitude) + noise * gauss(rng);
}

}  // namespace fictest
