// Soft-value conversions of the FIC and of sub-channels: where the scales
// land, clipping of any float, and the default map.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "channel/soft_bits.h"

namespace {

using mvdab::FicSoftNibble;
using mvdab::MscSoftNibble;
const uint8_t* const kMap = mvdab::kDefaultSoftBitMap.data();
constexpr float kInf = std::numeric_limits<float>::infinity();

TEST(SoftBits, FicScales) {
    struct Point {
        float x;
        int nibble16, nibble8;  // softBitMode 2 (scale 16), softBitMode 1 (scale 8)
    } const points[] = {
        {0.0f, 8, 8},        {0.03f, 8, 8},      {-0.03125f, 8, 8}, {-0.04f, 9, 8},    {0.0625f, 7, 7},
        {0.46f, 1, 4},       {0.46875f, 0, 4},   {-0.40625f, 14, 11}, {-0.41f, 15, 11}, {0.7071f, 0, 2},
        {-0.7071f, 15, 14},  {0.93f, 0, 1},      {0.9375f, 0, 0},   {-0.8125f, 15, 14}, {-0.82f, 15, 15},
        {1e30f, 0, 0},       {-1e30f, 15, 15},   {kInf, 0, 0},      {-kInf, 15, 15},   {std::nanf(""), 8, 8},
    };
    for (const Point& p : points) {
        EXPECT_EQ(FicSoftNibble(p.x, 2), p.nibble16) << p.x;
        EXPECT_EQ(FicSoftNibble(p.x, 1), p.nibble8) << p.x;
    }
    const float values[5] = {0.7f, -0.7f, 0.0f, 0.1f, -0.1f};
    uint8_t nibbles[6] = {0, 0, 0, 0, 0, 0xAA};
    mvdab::ConvertFicSoftBits(values, 5, 2, nibbles);
    EXPECT_EQ(std::vector<uint8_t>(nibbles, nibbles + 6), (std::vector<uint8_t>{0, 15, 8, 6, 10, 0xAA}));
}

TEST(SoftBits, MscScales) {
    struct Point {
        float x;
        int linear, mapped;  // softBitMode 1, default map
    } const points[] = {
        {0.0f, 8, 8},      {0.0625f, 7, 6},  {0.43f, 5, 1},     {0.4375f, 4, 0},  {-0.375f, 11, 14},
        {-0.376f, 11, 15}, {0.7071f, 2, 0},  {-0.7071f, 14, 15}, {0.9375f, 0, 0},  {-0.9375f, 15, 15},
        {kInf, 0, 0},      {-1e30f, 15, 15}, {std::nanf(""), 8, 8},
    };
    for (const Point& p : points) {
        EXPECT_EQ(MscSoftNibble(p.x, 1, kMap), p.linear) << p.x;
        EXPECT_EQ(MscSoftNibble(p.x, 2, kMap), p.mapped) << p.x;
    }
    // The map's runs, by their first index, and a map of the host's own.
    const int starts[17] = {0, 18, 22, 24, 26, 28, 29, 30, 31, 33, 34, 35, 36, 38, 40, 44, 64};
    for (int nibble = 0; nibble < 16; ++nibble)
        for (int i = starts[nibble]; i < starts[nibble + 1]; ++i) EXPECT_EQ(kMap[i], nibble) << "index " << i;
    uint8_t inverted[64];
    for (int i = 0; i < 64; ++i) inverted[i] = uint8_t(15 - kMap[i]);
    EXPECT_EQ(MscSoftNibble(0.5f, 2, inverted), 15);
}

// The conversions as written with the maths library's floor, the reference
// that the inlined ones must equal for every float.
uint8_t ReferenceFic(float x, uint8_t softBitMode) {
    const float v = std::floor((softBitMode == 1 ? 8.0f : 16.0f) * x - 0.5f);
    if (v >= 7.0f) return 0;
    if (v >= -8.0f) return uint8_t(7 - int(v));
    return v < -8.0f ? 15 : 8;
}
uint8_t ReferenceMsc(float x, uint8_t softBitMode) {
    if (softBitMode == 1) {
        const float v = std::floor(8.0f * x + 0.5f);
        if (v >= 8.0f) return 0;
        if (v >= -7.0f) return uint8_t(8 - int(v));
        return v < -7.0f ? 15 : 8;
    }
    const float v = std::floor(32.0f * x);
    if (v > 31.0f) return kMap[0];
    if (v >= -32.0f) return kMap[31 - int(v)];
    return v < -32.0f ? kMap[63] : 8;
}

TEST(SoftBits, InlinedFloorEqualsTheMathsLibrary) {
    // Every step boundary of every scale with its neighbours one ulp either
    // side, a dense grid, and the specials.
    std::vector<float> xs = {0.0f, -0.0f, kInf, -kInf, std::nanf(""), 1e30f, -1e30f,
                             std::numeric_limits<float>::denorm_min(), -std::numeric_limits<float>::denorm_min()};
    for (int k = -4096; k <= 4096; ++k) {
        const float x = float(k) / 1024.0f;
        xs.push_back(x);
        xs.push_back(std::nextafter(x, kInf));
        xs.push_back(std::nextafter(x, -kInf));
    }
    for (int k = -200000; k <= 200000; ++k) xs.push_back(float(k) * 1.37e-5f);
    for (float x : xs) {
        for (uint8_t mode : {1, 2}) {
            ASSERT_EQ(FicSoftNibble(x, mode), ReferenceFic(x, mode)) << x << " mode " << int(mode);
            ASSERT_EQ(MscSoftNibble(x, mode, kMap), ReferenceMsc(x, mode)) << x << " mode " << int(mode);
        }
    }
    // The vector forms give the same nibbles, their scalar tails included
    // (the count is no multiple of 16); the MSC map also as the host's own,
    // whose neutral value isn't 8.
    uint8_t inverted[64];
    for (int i = 0; i < 64; ++i) inverted[i] = uint8_t(15 - kMap[i]);
    for (uint8_t mode : {1, 2}) {
        std::vector<uint8_t> nibbles(xs.size());
        mvdab::ConvertFicSoftBits(xs.data(), int32_t(xs.size()), mode, nibbles.data());
        for (size_t i = 0; i < xs.size(); ++i) ASSERT_EQ(nibbles[i], FicSoftNibble(xs[i], mode)) << xs[i];
        for (const uint8_t* map : {kMap, static_cast<const uint8_t*>(inverted)}) {
            mvdab::ConvertMscSoftBits(xs.data(), int32_t(xs.size()), mode, map, nibbles.data());
            for (size_t i = 0; i < xs.size(); ++i)
                ASSERT_EQ(nibbles[i], MscSoftNibble(xs[i], mode, map)) << xs[i] << " mode " << int(mode);
        }
    }
}

}  // namespace
