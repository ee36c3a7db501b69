// The clock loop against an in-process register bank: when it first looks,
// what holds it back (a large step, a register already written, an offset
// out of range, a failed access), what it writes and what it records in the
// frequency cache.
#include <gtest/gtest.h>

#include <cmath>

#include "demod_setup.h"
#include "device/access_library.h"
#include "device/tuning.h"

namespace {

using namespace mvdab;

// Page 1 of the demodulator as far as the clock loop reaches it: 0x3E, 0x3F.
uint8_t rateRegisters[2];
int32_t registerWrites;
bool failAccess;

template <bool kWrite>
int32_t FakeAccess(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    if (failAccess || page != 1 || addr < 0x3E || addr + count > 0x40) return 0;
    uint8_t* reg = rateRegisters + addr - 0x3E;
    for (int32_t i = 0; i < count; ++i) (kWrite ? reg[i] : buffer[i]) = kWrite ? buffer[i] : reg[i];
    registerWrites += kWrite ? 1 : 0;
    return 1;
}
int32_t RegisterCode() { return (rateRegisters[0] & 0x3F) * 256 + rateRegisters[1]; }

class ClockLoop : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(demodtest::SetUpMode(0));
        accessLibrary = AccessLibrary{};
        accessLibrary.demodRead = FakeAccess<false>;
        accessLibrary.demodWrite = FakeAccess<true>;
        rateRegisters[0] = rateRegisters[1] = 0;
        registerWrites = 0;
        failAccess = false;
        FreeFrequencyCache();
        clockWritten = 0;
        tuningStorage.currentFrequency = tuningStorage.tunedFrequency = 227360;
        tuningStorage.bandwidthCode = 6;
        tuningRecord = &tuningStorage;
        trackingLoops.clockHoldoff = 0;
    }
    void TearDown() override {
        FreeFrequencyCache();
        accessLibrary = AccessLibrary{};
        tuningRecord = nullptr;
    }

    // The loop's view after a frame: offset and step in ppm, integrator set
    // to match so that a correction visibly clears it.
    int32_t Look(float offsetPpm, float stepPpm) {
        trackingLoops.clockOffsetPpm = offsetPpm;
        trackingLoops.clockStepPpm = stepPpm;
        trackingLoops.timingIntegrator = 1.5f;
        return CorrectSampleClock();
    }
    bool Corrected() const { return trackingLoops.timingIntegrator == 0.0f; }
};

// With the hold-off the state machine sets on entry to tracking, frames 1 to
// 150 only count it down and frame 151 is the first that looks.
TEST_F(ClockLoop, FirstLookComesWithThe151stFrame) {
    trackingLoops.clockHoldoff = receiverSettings.clockCorrectionPeriod;
    // A constant small error: a path just beyond the guard. The integrator
    // then grows steadily while the proportional step stays far below 10 ppm.
    for (int32_t i = 0; i < 2 * mode.parameters.fftSize; ++i) modeBuffers.dftWork[i] = 0.0f;
    modeBuffers.dftWork[2 * (mode.parameters.guardLength + 1)] = std::sqrt(0.01f / receiverSettings.impulseScales[0]);
    for (int32_t frame = 1; frame <= 150; ++frame) {
        TrackFrameTiming();
        ASSERT_EQ(registerWrites, 0) << "frame " << frame;
        ASSERT_NE(trackingLoops.timingIntegrator, 0.0f);
    }
    EXPECT_EQ(trackingLoops.clockHoldoff, 0);
    TrackFrameTiming();
    EXPECT_EQ(trackingLoops.timingIntegrator, 0.0f);
    EXPECT_EQ(trackingLoops.clockHoldoff, 150);
    // Late energy moves the window later: the device clock is taken as too
    // fast, and the register is lowered by the offset in its own format.
    EXPECT_LT(trackingLoops.clockOffsetPpm, 0.0f);
    EXPECT_GT(registerWrites, 0);
    EXPECT_EQ(RegisterCode(), SampleRateOffsetCode(trackingLoops.clockOffsetPpm));
    EXPECT_EQ(clockWritten.load(), 1);
}

// The step is truncated towards zero before the test against 10 ppm: 9.9
// passes, 10 holds (hold-off re-armed, nothing written). Exactly +-200 ppm is
// applied; beyond it nothing is written, the integrator stays and the
// hold-off stays 0 so that the next frame looks again.
TEST_F(ClockLoop, StepAndOffsetBorders) {
    // offset, step, result, corrected (else hold-off 0 when the result is 0)
    const float cases[][4] = {{-20, 9.9f, 1, 1},  {-20, -9.99f, 1, 1}, {-20, 10, 1, 0},   {-20, -10, 1, 0},
                              {-20, 250, 1, 0},   {-20, NAN, 1, 0},    {200, 0, 1, 1},    {-200, 0, 1, 1},
                              {200.5f, 0, 0, 0},  {-201, 0, 0, 0},     {NAN, 0, 0, 0}};
    for (const auto& c : cases) {
        SetUp();
        SCOPED_TRACE(testing::Message() << c[0] << " / " << c[1]);
        EXPECT_EQ(Look(c[0], c[1]), c[2]);
        EXPECT_EQ(Corrected(), c[3] == 1);
        EXPECT_EQ(trackingLoops.clockHoldoff, c[2] == 1 ? 150 : 0);
        EXPECT_EQ(registerWrites > 0, c[3] == 1);
        EXPECT_EQ(RegisterCode(), c[3] == 1 ? SampleRateOffsetCode(c[0]) : 0);
    }
    // The offset out of range is recorded all the same, as the recording
    // comes first.
    SetUp();
    EXPECT_EQ(Look(200.5f, 0.0f), 0);
    ASSERT_NE(frequencyCache.head.load(), nullptr);
    EXPECT_EQ(frequencyCache.head.load()->learnedPpm.load(), 200.5f);
}

// After a correction that changed the register only the hold-off is
// re-armed until the next tuning clears clockWritten. A correction that
// rounds to no change leaves clockWritten 0, so a second one can follow.
TEST_F(ClockLoop, OneRegisterChangePerTuning) {
    EXPECT_EQ(Look(0.01f, 0.0f), 1);  // floor(0.01 * 16.78) = 0: nothing to write
    EXPECT_TRUE(Corrected());
    EXPECT_EQ(registerWrites, 0);
    EXPECT_EQ(clockWritten.load(), 0);

    trackingLoops.clockHoldoff = 0;
    EXPECT_EQ(Look(-30.0f, 0.0f), 1);
    EXPECT_EQ(clockWritten.load(), 1);
    const int32_t code = RegisterCode();

    trackingLoops.clockHoldoff = 0;
    EXPECT_EQ(Look(-12.0f, 0.0f), 1);
    EXPECT_FALSE(Corrected());
    EXPECT_EQ(RegisterCode(), code);
    EXPECT_EQ(trackingLoops.clockHoldoff, 150);
}

// A failed register access keeps the integrator and looks again with the
// next frame; switched off, the loop neither counts nor acts.
TEST_F(ClockLoop, FailedAccessIsRetriedAndSwitchedOffDoesNothing) {
    failAccess = true;
    EXPECT_EQ(Look(-40.0f, 1.0f), 0);
    EXPECT_FALSE(Corrected());
    EXPECT_EQ(trackingLoops.clockHoldoff, 0);
    failAccess = false;
    EXPECT_EQ(Look(-40.0f, 1.0f), 1);
    EXPECT_EQ(RegisterCode(), SampleRateOffsetCode(-40.0f));

    SetUp();
    receiverSettings.clockCorrectionEnabled = 0;
    trackingLoops.clockHoldoff = 3;
    EXPECT_EQ(Look(-30.0f, 0.0f), 1);
    EXPECT_EQ(trackingLoops.clockHoldoff, 3);
    trackingLoops.clockHoldoff = 0;
    EXPECT_EQ(Look(-30.0f, 0.0f), 1);
    EXPECT_FALSE(Corrected());
    EXPECT_EQ(registerWrites, 0);
    EXPECT_EQ(frequencyCache.head.load(), nullptr);
}

}  // namespace
