// The timing loop on constructed impulse responses: the detector's response
// to paths at known delays, the direction in which it moves the window, and
// the loading of the gain stages.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "demod_setup.h"

namespace {

using namespace mvdab;

class TimingLoop : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        ASSERT_TRUE(demodtest::SetUpMode(GetParam()));
        receiverSettings.clockCorrectionEnabled = 0;  // the clock loop has tests of its own
        ClearImpulse();
    }

    int32_t N() const { return mode.parameters.fftSize; }
    int32_t Guard() const { return mode.parameters.guardLength; }
    float Scale() const { return receiverSettings.impulseScales[GetParam()]; }

    void ClearImpulse() {
        for (int32_t i = 0; i < 2 * N(); ++i) modeBuffers.dftWork[i] = 0.0f;
    }
    // A path at circular delay `delay` whose scaled power is `power`.
    void AddPath(int32_t delay, float power) {
        modeBuffers.dftWork[2 * delay] = std::sqrt(power / Scale());
    }
    float Error() const { return TimingErrorOf(modeBuffers.dftWork, modeBuffers.timingWeights, N(), Scale()); }
};

// A single path at the middle of the guard sits where the weight crosses 0,
// and a profile symmetric about it leaves the position alone.
TEST_P(TimingLoop, EnergySymmetricAboutTheMiddleOfTheGuardGivesNoError) {
    // (In mode III the guard is odd and its middle lies half a delay off.)
    AddPath(Guard() / 2, 1.0f);
    EXPECT_NEAR(Error(), 0.0f, 0.01f);
    ClearImpulse();
    AddPath(Guard() / 2 - 40 * Guard() / 126, 1.0f);
    AddPath(Guard() / 2 + 40 * Guard() / 126, 1.0f);
    EXPECT_NEAR(Error(), 0.0f, 0.02f);
}

// Late energy pulls the window later (positive error), a path in the guard's
// last quarter gently, one just beyond the guard about ten times harder; a
// path at the very end of the window is early energy and pulls it earlier.
TEST_P(TimingLoop, LateEnergyPositiveEarlyEnergyNegative) {
    AddPath(Guard() - 2, 1.0f);
    const float lastQuarter = Error();
    EXPECT_GT(lastQuarter, 0.4f);
    EXPECT_LT(lastQuarter, 0.5f);
    ClearImpulse();
    AddPath(Guard() + 1, 1.0f);
    EXPECT_FLOAT_EQ(Error(), 5.0f);
    EXPECT_GT(Error(), 9.0f * lastQuarter);
    ClearImpulse();
    AddPath(N() - 1, 1.0f);
    EXPECT_FLOAT_EQ(Error(), -4.0f);

    pipeline.framePositionExact = 1000.0f;
    TrackFrameTiming();
    EXPECT_LT(pipeline.framePositionExact, 1000.0f);
}

// Each delay's power is clipped to 255 before its weight.
TEST_P(TimingLoop, EachDelayIsClippedBeforeItsWeight) {
    AddPath(Guard() + 3, 1.0e6f);
    EXPECT_FLOAT_EQ(Error(), 255.0f * 5.0f);
    AddPath(N() - 2, 1.0e6f);
    EXPECT_FLOAT_EQ(Error(), 255.0f * 5.0f - 255.0f * 4.0f);
}

// The stage gains change with the frames that reach 100 and 200 and act
// from the frame after; the integrator carries over. Stage 3 is given gains
// of its own here so that its loading shows.
TEST_P(TimingLoop, GainStagesLoadAtTheirFrameAndActFromTheNext) {
    receiverSettings.timingIntegralGains[2] = 0.002f;
    receiverSettings.timingProportionalGains[2] = 0.03f;
    AddPath(Guard() + 1, 0.01f);  // error 0.05: small, constant
    const float error = Error();

    float integrator = 0.0f;
    float position = 0.0f;
    pipeline.framePositionExact = 0.0f;
    for (int32_t frame = 1; frame <= 205; ++frame) {
        const int stage = frame <= 100 ? 0 : (frame <= 200 ? 1 : 2);
        const float ki = receiverSettings.timingIntegralGains[stage];
        const float kp = receiverSettings.timingProportionalGains[stage];
        integrator += ki * error;
        position += integrator + kp * error;
        TrackFrameTiming();
        ASSERT_EQ(trackingLoops.trackedFrames, frame);
        ASSERT_FLOAT_EQ(trackingLoops.timingIntegrator, integrator) << "frame " << frame;
        ASSERT_FLOAT_EQ(pipeline.framePositionExact, position) << "frame " << frame;
        if (frame == 99) EXPECT_EQ(trackingLoops.timingProportionalGain, receiverSettings.timingProportionalGains[0]);
        if (frame == 100) EXPECT_EQ(trackingLoops.timingProportionalGain, receiverSettings.timingProportionalGains[1]);
        if (frame == 200) EXPECT_EQ(trackingLoops.timingIntegralGain, 0.002f);
    }
    // The clock view of the loop: the integrator over one frame, negated.
    EXPECT_FLOAT_EQ(trackingLoops.clockOffsetPpm, -1.0e6f * integrator / mode.parameters.frameBytes);
    EXPECT_FLOAT_EQ(trackingLoops.clockStepPpm, -1.0e6f * 0.03f * error / mode.parameters.frameBytes);

    // A restart brings stage 1 back and clears the integrator and the count.
    ResetTrackingLoops();
    EXPECT_EQ(trackingLoops.trackedFrames, 0);
    EXPECT_EQ(trackingLoops.timingIntegrator, 0.0f);
    EXPECT_EQ(trackingLoops.timingIntegralGain, receiverSettings.timingIntegralGains[0]);
}

std::string ModeName(const ::testing::TestParamInfo<int32_t>& info) {
    const char* const names[4] = {"ModeI", "ModeII", "ModeIII", "ModeIV"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(AllModes, TimingLoop, ::testing::Values(0, 1, 2, 3), ModeName);

}  // namespace
