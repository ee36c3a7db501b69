// Soft-value conversions of the FIC and of sub-channels: the points where the
// scales must land, clipping of any float, and the shape of the default map.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "channel/soft_bits.h"

namespace {

using mvdab::FicSoftNibble;
using mvdab::kDefaultSoftBitMap;
using mvdab::MscSoftNibble;

const uint8_t* Map() { return kDefaultSoftBitMap.data(); }

TEST(SoftBits, FicScales) {
    for (uint8_t mode : {uint8_t(1), uint8_t(2)}) {
        EXPECT_EQ(FicSoftNibble(0.0f, mode), 8);
        EXPECT_EQ(FicSoftNibble(0.7071f, mode), mode == 1 ? 2 : 0);
        EXPECT_EQ(FicSoftNibble(-0.7071f, mode), mode == 1 ? 14 : 15);
        EXPECT_EQ(FicSoftNibble(1e30f, mode), 0);
        EXPECT_EQ(FicSoftNibble(-1e30f, mode), 15);
        EXPECT_EQ(FicSoftNibble(std::numeric_limits<float>::infinity(), mode), 0);
        EXPECT_EQ(FicSoftNibble(-std::numeric_limits<float>::infinity(), mode), 15);
        EXPECT_EQ(FicSoftNibble(std::nanf(""), mode), 8);
    }
    // Scale 16: 0 from x = 7.5 / 16 up, 15 below x = -6.5 / 16.
    EXPECT_EQ(FicSoftNibble(0.46875f, 2), 0);
    EXPECT_EQ(FicSoftNibble(0.46f, 2), 1);
    EXPECT_EQ(FicSoftNibble(-0.40625f, 2), 14);
    EXPECT_EQ(FicSoftNibble(-0.41f, 2), 15);
    // softBitMode 1 halves the scale: the limits only near +-1.
    EXPECT_EQ(FicSoftNibble(0.9375f, 1), 0);
    EXPECT_EQ(FicSoftNibble(0.93f, 1), 1);
    EXPECT_EQ(FicSoftNibble(-0.8125f, 1), 14);
    EXPECT_EQ(FicSoftNibble(-0.82f, 1), 15);
    // Rounding is downward, so 8 covers -1/32 .. +1/32 in scale 16.
    EXPECT_EQ(FicSoftNibble(0.03f, 2), 8);
    EXPECT_EQ(FicSoftNibble(0.0625f, 2), 7);
    EXPECT_EQ(FicSoftNibble(-0.03125f, 2), 8);
    EXPECT_EQ(FicSoftNibble(-0.04f, 2), 9);
}

TEST(SoftBits, MscScales) {
    for (uint8_t mode : {uint8_t(1), uint8_t(2)}) {
        EXPECT_EQ(MscSoftNibble(0.0f, mode, Map()), 8);
        // The linear scale saturates only near +-1, the map well before a
        // clean carrier.
        EXPECT_EQ(MscSoftNibble(0.7071f, mode, Map()), mode == 1 ? 2 : 0);
        EXPECT_EQ(MscSoftNibble(-0.7071f, mode, Map()), mode == 1 ? 14 : 15);
        EXPECT_EQ(MscSoftNibble(std::numeric_limits<float>::infinity(), mode, Map()), 0);
        EXPECT_EQ(MscSoftNibble(-1e30f, mode, Map()), 15);
        EXPECT_EQ(MscSoftNibble(std::nanf(""), mode, Map()), 8);
    }
    // The two scales differ in gain and in the rounding offset.
    EXPECT_EQ(MscSoftNibble(0.0625f, 1, Map()), 7);
    EXPECT_EQ(MscSoftNibble(0.0625f, 2, Map()), 6);
    // The default map is not its own mirror: 0 from x = 0.4375, 15 below -0.375.
    EXPECT_EQ(MscSoftNibble(0.4375f, 2, Map()), 0);
    EXPECT_EQ(MscSoftNibble(0.43f, 2, Map()), 1);
    EXPECT_EQ(MscSoftNibble(-0.375f, 2, Map()), 14);
    EXPECT_EQ(MscSoftNibble(-0.376f, 2, Map()), 15);
    // Any other map is honoured.
    uint8_t inverted[64];
    for (int i = 0; i < 64; ++i) inverted[i] = uint8_t(15 - kDefaultSoftBitMap[i]);
    EXPECT_EQ(MscSoftNibble(0.5f, 2, inverted), 15);
}

TEST(SoftBits, DefaultMapRuns) {
    const int starts[16] = {0, 18, 22, 24, 26, 28, 29, 30, 31, 33, 34, 35, 36, 38, 40, 44};
    for (int nibble = 0; nibble < 16; ++nibble) {
        const int end = nibble == 15 ? 64 : starts[nibble + 1];
        for (int i = starts[nibble]; i < end; ++i) EXPECT_EQ(kDefaultSoftBitMap[i], nibble) << "index " << i;
    }
}

TEST(SoftBits, BlockConversionKeepsOrder) {
    const float values[5] = {0.7f, -0.7f, 0.0f, 0.1f, -0.1f};
    uint8_t nibbles[6] = {0, 0, 0, 0, 0, 0xAA};
    mvdab::ConvertFicSoftBits(values, 5, 2, nibbles);
    const uint8_t expected[6] = {0, 15, 8, 6, 10, 0xAA};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(nibbles[i], expected[i]) << i;
}

}  // namespace
