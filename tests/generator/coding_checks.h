// Reference pieces for the transmitter tests, none of which calls the
// generator's coders: the published puncturing vectors and interleaver
// delays, the channel coding chain on its own shift registers, and the CRC
// residue.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace check {

// V_PI for PI = 1..24, position 0 in the most significant bit, as published.
inline constexpr uint32_t kPuncturingVectors[24] = {
    0xC8888888, 0xC888C888, 0xC8C8C888, 0xC8C8C8C8, 0xCCC8C8C8, 0xCCC8CCC8, 0xCCCCCCC8, 0xCCCCCCCC,
    0xECCCCCCC, 0xECCCECCC, 0xECECECCC, 0xECECECEC, 0xEEECECEC, 0xEEECEEEC, 0xEEEEEEEC, 0xEEEEEEEE,
    0xFEEEEEEE, 0xFEEEFEEE, 0xFEFEFEEE, 0xFEFEFEFE, 0xFFFEFEFE, 0xFFFEFFFE, 0xFFFFFFFE, 0xFFFFFFFF};

// Transmitter delay in CIFs of codeword bit i, by i mod 16 (bit reversal).
inline constexpr int kInterleaverDelay[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

// XORs the energy dispersal sequence in: x^9 + x^5 + 1 as a shift register
// from all ones (the generator uses the recurrence).
inline void Descramble(std::vector<uint8_t>& bits) {
    unsigned reg = 0x1FF;
    for (uint8_t& b : bits) {
        const unsigned out = ((reg >> 8) ^ (reg >> 4)) & 1;
        reg = ((reg << 1) | out) & 0x1FF;
        b ^= static_cast<uint8_t>(out);
    }
}

// Bytes to bits, most significant first.
inline std::vector<uint8_t> Unpack(const uint8_t* bytes, size_t n) {
    std::vector<uint8_t> bits(8 * n);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = (bytes[i / 8] >> (7 - i % 8)) & 1;
    return bits;
}

// One logical frame or FIC block through dispersal, the mother code (own
// register: bit 6 is the current input, polynomials 133 171 145 133 octal)
// and puncturing by runs of (blocks, PI), then the tail with 0xCCCCCC.
inline std::vector<uint8_t> ChannelCode(std::vector<uint8_t> bits, const std::vector<std::pair<int, int>>& runs) {
    Descramble(bits);
    bits.resize(bits.size() + 6, 0);
    std::vector<uint8_t> mother, out;
    unsigned reg = 0;
    for (uint8_t b : bits) {
        reg = (reg >> 1) | (static_cast<unsigned>(b) << 6);
        for (unsigned poly : {0133u, 0171u, 0145u, 0133u}) mother.push_back(__builtin_parity(reg & poly) & 1);
    }
    size_t i = 0;
    for (auto [blocks, pi] : runs)
        for (int n = 0; n < 128 * blocks && i < mother.size(); ++n, ++i)
            if ((kPuncturingVectors[pi - 1] >> (31 - n % 32)) & 1) out.push_back(mother[i]);
    for (int j = 0; j < 24 && i < mother.size(); ++j, ++i)
        if ((0xCCCCCCu >> (23 - j)) & 1) out.push_back(mother[i]);
    return out;
}

// Register preset to all ones, run over data and its stored CRC, no final
// complement: a correct block leaves 0x1D0F.
inline bool CrcResidueOk(const uint8_t* data, size_t lengthWithCrc) {
    unsigned reg = 0xFFFF;
    for (size_t i = 0; i < 8 * lengthWithCrc; ++i) {
        const unsigned in = (data[i / 8] >> (7 - i % 8)) & 1;
        reg = ((reg << 1) & 0xFFFF) ^ ((in ^ (reg >> 15)) ? 0x1021 : 0);
    }
    return reg == 0x1D0F;
}

}  // namespace check
