// Independent checks for the payload tests, written differently from the
// generator's encoders: bitwise field multiplication, syndromes instead of
// division, CRC residues instead of recomputation, the firecode register
// held bit-reversed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "generator/payload.h"

namespace check {

// GF(256) with x^8 + x^4 + x^3 + x^2 + 1, shift-and-add.
inline uint8_t Mul(uint8_t a, uint8_t b) {
    unsigned r = 0, x = a;
    for (; b; b >>= 1) {
        if (b & 1) r ^= x;
        x <<= 1;
        if (x & 0x100) x ^= 0x11D;
    }
    return static_cast<uint8_t>(r);
}

// True if the codeword (highest power first, `stride` apart) vanishes at
// alpha^0 .. alpha^(roots-1).
inline bool SyndromesZero(const uint8_t* word, size_t length, size_t stride, int roots) {
    uint8_t alpha = 1;
    for (int r = 0; r < roots; ++r) {
        uint8_t acc = 0;
        for (size_t i = 0; i < length; ++i) acc = Mul(acc, alpha) ^ word[i * stride];
        if (acc != 0) return false;
        alpha = Mul(alpha, 2);
    }
    return true;
}

// Register preset to all ones, run over data and its stored CRC, no final
// complement: a correct block leaves 0x1D0F.
inline bool CrcResidueOk(const uint8_t* data, size_t lengthWithCrc) {
    unsigned reg = 0xFFFF;
    for (size_t i = 0; i < lengthWithCrc; ++i) {
        for (int b = 7; b >= 0; --b) {
            const unsigned in = (data[i] >> b) & 1;
            const unsigned top = (reg >> 15) & 1;
            reg = (reg << 1) & 0xFFFF;
            if (in ^ top) reg ^= 0x1021;
        }
    }
    return reg == 0x1D0F;
}

// Firecode test of a superframe: bytes 2..10 then 0, 1 through a right-shifting
// register with the reversed generator; 0 for a correct header.
inline unsigned FirecodeResidue(const uint8_t* sf) {
    const int order[11] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 1};
    unsigned reg = 0;
    for (int i : order) {
        for (int b = 7; b >= 0; --b) {
            const unsigned f = ((sf[i] >> b) & 1) ^ (reg & 1);
            reg >>= 1;
            if (f) reg ^= 0xF41E;
        }
    }
    return reg;
}

// `frames` logical frames of `length` bytes from a source, back to back.
inline std::vector<uint8_t> Pull(gen::PayloadSource& src, size_t length, int frames) {
    std::vector<uint8_t> out(length * static_cast<size_t>(frames));
    for (int f = 0; f < frames; ++f) src.NextLogicalFrame(&out[length * static_cast<size_t>(f)], length);
    return out;
}

}  // namespace check
