// Outer coding of the payloads: the 16-bit CRC of packets, AUs and data
// groups, the DAB+ superframe firecode, and systematic Reed-Solomon encoding
// over GF(256) with field polynomial x^8 + x^4 + x^3 + x^2 + 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gen {

// CRC with generator x^16 + x^12 + x^5 + 1, register preset to 0xFFFF, bits
// fed from the top of each byte, result complemented. Stored high byte first.
uint16_t CrcCcitt16(const uint8_t* data, size_t length);

// Firecode of a DAB+ superframe: the remainder of bytes 2..10 (given as
// `nineBytes`) divided by x^16 + x^14 + x^13 + x^12 + x^11 + x^5 + x^3 + x^2
// + x + 1, register starting at 0. Stored in bytes 0 (high) and 1 (low).
uint16_t SuperframeFirecode(const uint8_t* nineBytes);

// GF(256) arithmetic, primitive element alpha = 2.
uint8_t GfMultiply(uint8_t a, uint8_t b);
uint8_t GfPower(int exponent);  // alpha^exponent, any exponent >= 0

// Systematic RS encoder with `parityBytes` roots alpha^0 ... alpha^(parityBytes-1),
// shortened codes taken as implicit leading zeros: RS(120,110) has 10 parity
// bytes, RS(204,188) 16.
class RsEncoder {
public:
    explicit RsEncoder(int parityBytes);
    // Generator polynomial, lowest power first, leading 1 included.
    const std::vector<uint8_t>& Generator() const { return generator_; }
    int ParityBytes() const { return static_cast<int>(generator_.size()) - 1; }
    // Parity of data[0], data[stride], ... (`count` bytes, the first the highest
    // power), written to parity[0], parity[parityStride], ...
    void Encode(const uint8_t* data, size_t count, size_t stride, uint8_t* parity, size_t parityStride) const;

private:
    std::vector<uint8_t> generator_;
};

}  // namespace gen
