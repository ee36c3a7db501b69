// Conversion of the SoapySDR stream formats to the device contract's bytes,
// and the choice of the stream format.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "soapydevice/sample_conversion.h"

namespace soapydev {
namespace {

StreamFormat Format(const std::string& native, double fullScale = 0.0) {
    StreamFormat f{};
    EXPECT_TRUE(ChooseStreamFormat(native, fullScale, {native}, &f)) << native;
    return f;
}

// Every byte value, written as a device of each format delivers it (as the
// device's own driver makes CS8 of u8 by subtracting 128), comes back unchanged.
TEST(SampleConversion, EightBitValuesPassExactlyThroughEveryFormat) {
    uint8_t bytes[512];
    for (int32_t i = 0; i < 512; ++i) bytes[i] = uint8_t(i & 0xFF);
    int8_t cs8[512];
    int16_t cs16[512];
    float cf32[512];
    for (int32_t i = 0; i < 512; ++i) {
        cs8[i] = int8_t(int32_t(bytes[i]) - 128);
        cs16[i] = int16_t((int32_t(bytes[i]) - 128) * 256);
        cf32[i] = (float(bytes[i]) - 128.0f) / 128.0f;
    }
    const struct {
        const char* name;
        const void* data;
    } cases[] = {{"CU8", bytes}, {"CS8", cs8}, {"CS16", cs16}, {"CF32", cf32}};
    for (const auto& c : cases) {
        uint8_t out[512];
        ConvertToBytes(Format(c.name), 1.0, c.data, 256, out);
        EXPECT_EQ(std::memcmp(out, bytes, sizeof out), 0) << c.name;
    }
}

TEST(SampleConversion, ScalingRoundsDownAndClipsOutOfRangeValues) {
    // A 12-bit device in 16-bit words reports a full scale of 2048.
    const int16_t twelveBit[6] = {2047, -2048, 16, -16, 15, -17};
    uint8_t out[6];
    ConvertToBytes(Format("CS16", 2048.0), 1.0, twelveBit, 3, out);
    const uint8_t expected12[6] = {255, 0, 129, 127, 128, 126};
    EXPECT_EQ(std::memcmp(out, expected12, 6), 0);

    // Float values beyond full scale, infinities and NaN stay in the byte range.
    const float wild[6] = {4.0f, -4.0f, std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(), std::nanf(""), 0.0f};
    ConvertToBytes(Format("CF32"), 1.0, wild, 3, out);
    const uint8_t expectedWild[6] = {255, 0, 255, 0, 0, 128};
    EXPECT_EQ(std::memcmp(out, expectedWild, 6), 0);

    // A digital gain of 2 doubles the distance from the centre, and clips.
    const int8_t small[4] = {10, -10, 100, -100};
    ConvertToBytes(Format("CS8"), 2.0, small, 2, out);
    const uint8_t expectedGain[4] = {148, 108, 255, 0};
    EXPECT_EQ(std::memcmp(out, expectedGain, 4), 0);
}

TEST(SampleConversion, NativeFormatFirstThenEightBitsThenWider) {
    const struct {
        const char* native;
        double nativeScale;
        std::vector<std::string> offered;
        bool found;
        const char* chosen;
        double fullScale;
    } cases[] = {
        {"CS16", 2048.0, {"CS8", "CS16", "CF32"}, true, "CS16", 2048.0},  // native, with the device's scale
        {"CS16", 0.0, {"CS16"}, true, "CS16", 32768.0},                   // no scale given: the format's own
        {"CS12", 2048.0, {"CF32", "CS16", "CS12"}, true, "CS16", 32768.0},  // packed native: a converted format
        {"CS12", 2048.0, {"CF32", "CS12"}, true, "CF32", 1.0},
        {"CF64", 1.0, {"CF64", "CU8"}, true, "CU8", 128.0},
        {"CS12", 2048.0, {"CS12", "CF64"}, false, "", 0.0},
    };
    for (const auto& c : cases) {
        StreamFormat f{};
        ASSERT_EQ(ChooseStreamFormat(c.native, c.nativeScale, c.offered, &f), c.found) << c.native;
        if (!c.found) continue;
        EXPECT_STREQ(f.name, c.chosen) << c.native;
        EXPECT_EQ(f.fullScale, c.fullScale) << c.native;
    }
}

}  // namespace
}  // namespace soapydev
