// Soft-value conversions of the FIC and of sub-channels: where the scales
// land, clipping of any float, the default map, and the vector forms that
// must give the nibbles of the one-value forms for every float.
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

TEST(SoftBits, ScalesClippingAndTheDefaultMap) {
    // x, then the FIC nibble at softBitMode 2 (scale 16) and 1 (scale 8).
    const struct {
        float x;
        int a, b;
    } fic[] = {
        {0.0f, 8, 8},       {0.03f, 8, 8},     {-0.03125f, 8, 8},   {-0.04f, 9, 8},     {0.0625f, 7, 7},
        {0.46f, 1, 4},      {0.46875f, 0, 4},  {-0.40625f, 14, 11}, {-0.41f, 15, 11},   {0.7071f, 0, 2},
        {-0.7071f, 15, 14}, {0.93f, 0, 1},     {0.9375f, 0, 0},     {-0.8125f, 15, 14}, {-0.82f, 15, 15},
        {1e30f, 0, 0},      {-1e30f, 15, 15},  {kInf, 0, 0},        {-kInf, 15, 15},    {std::nanf(""), 8, 8},
    }, msc[] = {  // the MSC nibble at softBitMode 1 (linear) and 2 (default map)
        {0.0f, 8, 8},      {0.0625f, 7, 6},  {0.43f, 5, 1},      {0.4375f, 4, 0},  {-0.375f, 11, 14},
        {-0.376f, 11, 15}, {0.7071f, 2, 0},  {-0.7071f, 14, 15}, {0.9375f, 0, 0},  {-0.9375f, 15, 15},
        {kInf, 0, 0},      {-1e30f, 15, 15}, {std::nanf(""), 8, 8},
    };
    for (const auto& p : fic) EXPECT_EQ(std::pair(int(FicSoftNibble(p.x, 2)), int(FicSoftNibble(p.x, 1))), std::pair(p.a, p.b)) << p.x;
    for (const auto& p : msc)
        EXPECT_EQ(std::pair(int(MscSoftNibble(p.x, 1, kMap)), int(MscSoftNibble(p.x, 2, kMap))), std::pair(p.a, p.b)) << p.x;
    // The map's runs, by their first index.
    const int starts[17] = {0, 18, 22, 24, 26, 28, 29, 30, 31, 33, 34, 35, 36, 38, 40, 44, 64};
    for (int nibble = 0; nibble < 16; ++nibble)
        for (int i = starts[nibble]; i < starts[nibble + 1]; ++i) EXPECT_EQ(kMap[i], nibble) << "index " << i;
}

TEST(SoftBits, VectorFormsEqualTheOneValueForms) {
    // Every step boundary of every scale with its neighbours one ulp either
    // side, a dense grid, and the specials; the count is no multiple of 16,
    // so the scalar tails run too. The MSC map also as a host's own, whose
    // neutral value isn't 8.
    std::vector<float> xs = {0.0f, -0.0f, kInf, -kInf, std::nanf(""), 1e30f, -1e30f,
                             std::numeric_limits<float>::denorm_min()};
    for (int k = -4096; k <= 4096; ++k) {
        const float x = float(k) / 1024.0f;
        xs.insert(xs.end(), {x, std::nextafter(x, kInf), std::nextafter(x, -kInf), float(k) * 1.37e-3f});
    }
    uint8_t inverted[64];
    for (int i = 0; i < 64; ++i) inverted[i] = uint8_t(15 - kMap[i]);
    std::vector<uint8_t> nibbles(xs.size());
    for (uint8_t mode : {1, 2}) {
        mvdab::ConvertFicSoftBits(xs.data(), int32_t(xs.size()), mode, nibbles.data());
        for (size_t i = 0; i < xs.size(); ++i) ASSERT_EQ(nibbles[i], FicSoftNibble(xs[i], mode)) << xs[i];
        for (const uint8_t* map : {kMap, static_cast<const uint8_t*>(inverted)}) {
            mvdab::ConvertMscSoftBits(xs.data(), int32_t(xs.size()), mode, map, nibbles.data());
            for (size_t i = 0; i < xs.size(); ++i) ASSERT_EQ(nibbles[i], MscSoftNibble(xs[i], mode, map)) << xs[i];
        }
    }
}

}  // namespace
