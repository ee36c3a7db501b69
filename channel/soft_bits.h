// Conversion of the demodulator's float soft values to the 4-bit soft nibbles
// of the Viterbi decoder: 0 is a certain 0 bit, 15 a certain 1 bit, 8 about
// neutral. A positive float stands for a 0 bit. Rounding is always downward,
// and every value is clipped, so no float can overflow a nibble; a NaN gives
// the neutral 8.
//
// The FIC and the MSC use different scales:
//   FIC:          v = floor(s x - 0.5) in -8..7, nibble 7 - v; s = 8 with
//                 softBitMode 1, else 16.
//   MSC mode 1:   v = floor(8 x + 0.5) in -7..8, nibble 8 - v.
//   MSC default:  v = floor(32 x), index 31 - v in 0..63, nibble softBitMap[index].
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace mvdab {

// The default softBitMap: fine steps in the middle of the scale, early
// saturation. Index 31 - v for v = floor(32 x).
extern const std::array<uint8_t, 64> kDefaultSoftBitMap;

// floor(y) for a finite y with |y| below 2^31, without a call into the
// maths library: truncation, one lower where it rounded up.
inline int32_t FloorToInt(float y) {
    const int32_t t = static_cast<int32_t>(y);
    return t - (static_cast<float>(t) > y ? 1 : 0);
}

// Each scale compares the scaled value itself against the bounds, which is
// the same as comparing its floor against them; the floor is only taken
// inside the bounds.
inline uint8_t FicSoftNibble(float x, uint8_t softBitMode) {
    const float scale = softBitMode == 1 ? 8.0f : 16.0f;
    const float y = scale * x - 0.5f;
    if (y >= 7.0f) return 0;
    if (y >= -8.0f) return static_cast<uint8_t>(7 - FloorToInt(y));
    if (y < -8.0f) return 15;
    return 8;  // NaN
}

inline uint8_t MscSoftNibble(float x, uint8_t softBitMode, const uint8_t* softBitMap) {
    if (softBitMode == 1) {
        const float y = 8.0f * x + 0.5f;
        if (y >= 8.0f) return 0;
        if (y >= -7.0f) return static_cast<uint8_t>(8 - FloorToInt(y));
        if (y < -7.0f) return 15;
        return 8;  // NaN
    }
    const float y = 32.0f * x;
    int32_t index;
    if (y >= 32.0f) index = 0;
    else if (y >= -32.0f) index = 31 - FloorToInt(y);
    else if (y < -32.0f) index = 63;
    else return 8;  // NaN
    return softBitMap[index];
}

// FIC nibbles of `count` values, in order.
void ConvertFicSoftBits(const float* values, int32_t count, uint8_t softBitMode, uint8_t* nibbles);
// MSC nibbles of `count` values, in order, with `softBitMap` (64 entries)
// unless softBitMode is 1.
void ConvertMscSoftBits(const float* values, int32_t count, uint8_t softBitMode, const uint8_t* softBitMap,
                        uint8_t* nibbles);

}  // namespace mvdab
