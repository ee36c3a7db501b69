// Independent checks for the transmitter tests, none of which calls the
// generator's coders: puncturing masks rebuilt from bit positions, a
// hard-decision Viterbi decoder on its own trellis model, a FIB/FIG reader,
// bitwise GF(256) syndromes, CRC residues and a bit-reversed firecode register.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "generator/payload.h"

namespace check {

// 1 = sent, per position of the mother code, for runs of (blocks, PI) and the
// tail. Built from "PI + 8 ones, nested": the ones of V_PI are the positions
// of the puncturing table, grown one position per index.
inline std::vector<uint8_t> PunctureMask(const std::vector<std::pair<int, int>>& runs) {
    // Order in which positions join as PI grows from 1 to 24 (V_1 has nine).
    static const int kBase[9] = {0, 1, 4, 8, 12, 16, 20, 24, 28};
    static const int kAdded[23] = {17, 9,  25, 5, 21, 13, 29, 2, 18, 10, 26, 6,
                                   22, 14, 30, 3, 19, 11, 27, 7, 23, 15, 31};
    std::vector<uint8_t> mask;
    for (auto [blocks, pi] : runs) {
        uint8_t v[32] = {};
        for (int p : kBase)
            v[p] = 1;
        for (int k = 0; k < pi - 1; ++k)
            v[kAdded[k]] = 1;
        for (int g = 0; g < 4 * blocks; ++g)
            mask.insert(mask.end(), v, v + 32);
    }
    for (int j = 0; j < 24; ++j)
        mask.push_back((j % 4) < 2 ? 1 : 0);
    return mask;
}

// Hard-decision Viterbi over the punctured bits: `punctured` laid onto the
// positions where `mask` is 1, the rest ignored. Returns the information bits
// (the 6 tail bits dropped).
inline std::vector<uint8_t> ViterbiDecode(const std::vector<uint8_t>& punctured, const std::vector<uint8_t>& mask) {
    const size_t steps = mask.size() / 4;
    std::vector<int8_t> sym(mask.size(), -1);  // -1 = erased
    size_t k = 0;
    for (size_t i = 0; i < mask.size(); ++i)
        if (mask[i]) sym[i] = k < punctured.size() ? static_cast<int8_t>(punctured[k++]) : -1;
    // State = the last six inputs, newest in bit 0. Polynomials with the
    // current input in bit 0: 155, 117, 123, 155 (octal).
    const unsigned polys[4] = {0155, 0117, 0123, 0155};
    auto parity = [](unsigned x) { return __builtin_parity(x); };
    std::vector<int> metric(64, 1 << 20), next(64);
    metric[0] = 0;
    std::vector<uint8_t> from(steps * 64);
    for (size_t t = 0; t < steps; ++t) {
        std::fill(next.begin(), next.end(), 1 << 29);
        for (unsigned s = 0; s < 64; ++s) {
            for (unsigned in = 0; in < 2; ++in) {
                const unsigned reg = (s << 1) | in;  // 7 bits, current input in bit 0
                int cost = metric[s];
                for (int o = 0; o < 4; ++o) {
                    const int8_t r = sym[4 * t + o];
                    if (r >= 0 && r != parity(reg & polys[o])) ++cost;
                }
                const unsigned ns = reg & 63;
                if (cost < next[ns]) {
                    next[ns] = cost;
                    from[t * 64 + ns] = static_cast<uint8_t>(s);
                }
            }
        }
        metric.swap(next);
    }
    std::vector<uint8_t> bits(steps);
    unsigned s = 0;  // the tail ends in state 0
    for (size_t t = steps; t-- > 0;) {
        bits[t] = s & 1;
        s = from[t * 64 + s];
    }
    bits.resize(steps - 6);
    return bits;
}

// x^9 + x^5 + 1 from all ones, written as a shift register (the generator
// uses the recurrence).
inline void Descramble(std::vector<uint8_t>& bits) {
    unsigned reg = 0x1FF;
    for (uint8_t& b : bits) {
        const unsigned out = ((reg >> 8) ^ (reg >> 4)) & 1;
        reg = ((reg << 1) | out) & 0x1FF;
        b ^= static_cast<uint8_t>(out);
    }
}

inline std::vector<uint8_t> PackBits(const std::vector<uint8_t>& bits) {
    std::vector<uint8_t> bytes(bits.size() / 8, 0);
    for (size_t i = 0; i < bytes.size() * 8; ++i)
        bytes[i / 8] |= static_cast<uint8_t>(bits[i] << (7 - i % 8));
    return bytes;
}

// One FIG as read back from a FIB.
struct FigRead {
    int type = 0;
    int extension = -1;         // type 0: b4..b0 of the first data byte; type 1: b2..b0
    std::vector<uint8_t> data;  // data field, first byte included
};

// Walks the FIGs of a 30-byte FIB data field; false on a FIG running past
// the data field or on bytes after the end marker that are not zero.
inline bool ReadFigs(const uint8_t* fib, std::vector<FigRead>* out) {
    size_t i = 0;
    while (i < 30) {
        if (fib[i] == 0xFF) {
            for (size_t j = i + 1; j < 30; ++j)
                if (fib[j] != 0) return false;
            return true;
        }
        const int type = fib[i] >> 5, length = fib[i] & 31;
        if (length == 0 || i + 1 + length > 30) return false;
        FigRead f;
        f.type = type;
        f.data.assign(fib + i + 1, fib + i + 1 + length);
        f.extension = type == 0 ? (f.data[0] & 31) : (f.data[0] & 7);
        out->push_back(f);
        i += 1 + length;
    }
    return true;
}

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

// Bytes from hex text: "0A 1B ...".
inline std::vector<uint8_t> Hex(const char* text) {
    std::vector<uint8_t> out;
    for (const char* p = text; *p; p += *p == ' ' ? 1 : 2)
        if (*p != ' ') out.push_back(static_cast<uint8_t>(std::stoul(std::string(p, 2), nullptr, 16)));
    return out;
}

// The sample audio files: MVDAB_SAMPLES_DIR, or shared/samples beside the source tree.
inline std::string SamplesDir() {
    if (const char* env = std::getenv("MVDAB_SAMPLES_DIR")) return env;
    return (std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().parent_path() / "shared" / "samples")
        .string();
}

}  // namespace check
