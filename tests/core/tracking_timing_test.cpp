// The timing loop on constructed impulse responses: the detector's response
// to paths at known delays and the direction in which it moves the window.
#include <gtest/gtest.h>

#include <cmath>

#include "demod_setup.h"

namespace {

using namespace mvdab;

class TimingLoop : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        ASSERT_TRUE(demodtest::SetUpMode(GetParam()));
        receiverSettings.clockCorrectionEnabled = 0;  // the clock loop has tests of its own
    }
    // The detector's error for paths at circular delays with scaled powers.
    float Error(std::initializer_list<std::pair<int32_t, float>> paths) {
        const int32_t n = mode.parameters.fftSize;
        const float scale = receiverSettings.impulseScales[GetParam()];
        for (int32_t i = 0; i < 2 * n; ++i) modeBuffers.dftWork[i] = 0.0f;
        for (const auto& [delay, power] : paths) modeBuffers.dftWork[2 * delay] = std::sqrt(power / scale);
        return TimingErrorOf(modeBuffers.dftWork, modeBuffers.timingWeights, n, scale);
    }
};

// A path at the middle of the guard, or a profile symmetric about it, gives
// no error (in mode III the guard is odd and its middle lies half a delay
// off). Late energy pulls the window later: a path in the guard's last
// quarter gently, one just beyond the guard about ten times harder; a path at
// the very end of the window is early energy. Each delay's power is clipped
// to 255 before its weight.
TEST_P(TimingLoop, DetectorResponseToPathsAtKnownDelays) {
    const int32_t g = mode.parameters.guardLength, n = mode.parameters.fftSize;
    EXPECT_NEAR(Error({{g / 2, 1.0f}}), 0.0f, 0.01f);
    EXPECT_NEAR(Error({{g / 2 - 40 * g / 126, 1.0f}, {g / 2 + 40 * g / 126, 1.0f}}), 0.0f, 0.02f);
    const float lastQuarter = Error({{g - 2, 1.0f}});
    EXPECT_GT(lastQuarter, 0.4f);
    EXPECT_LT(lastQuarter, 0.5f);
    EXPECT_FLOAT_EQ(Error({{g + 1, 1.0f}}), 5.0f);
    EXPECT_GT(5.0f, 9.0f * lastQuarter);
    EXPECT_FLOAT_EQ(Error({{g + 3, 1.0e6f}}), 255.0f * 5.0f);
    EXPECT_FLOAT_EQ(Error({{g + 3, 1.0e6f}, {n - 2, 1.0e6f}}), 255.0f * 5.0f - 255.0f * 4.0f);
    EXPECT_FLOAT_EQ(Error({{n - 1, 1.0f}}), -4.0f);
    pipeline.framePositionExact = 1000.0f;
    TrackFrameTiming();
    EXPECT_LT(pipeline.framePositionExact, 1000.0f);
}

INSTANTIATE_TEST_SUITE_P(AllModes, TimingLoop, ::testing::Values(0, 1, 2, 3), demodtest::ModeName);

}  // namespace
