// Tuning through the host's set-frequency verb: tuner calls, the learned
// sample-clock offsets per frequency, the requests it posts, and its failures.
// (Stopping and starting the samples is tested through the public API.)
#include <gtest/gtest.h>

#include "device/tuning.h"
#include "receiver/receiver_lifecycle.h"
#include "receiver/receiver_state.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

using test::Device;
using test::FrameHarness;

constexpr int32_t kChannelA = 227360;
constexpr int32_t kChannelB = 225648;

int32_t CodeOf(float ppm) {
    const int32_t c = SampleRateOffsetCode(ppm);
    return c >= 0x2000 ? c - 0x4000 : c;
}

TEST(DeviceTuningFirst, CallsTheTunerWritesZeroOffsetAndPostsARetune) {
    {
        FrameHarness h(2);
        ASSERT_TRUE(h.ready());
        Device().demod[1][0x3F] = 0x55;
        Device().system[1] = 0x04;
        receptionLine.goodReceptionCount = 17;
        ASSERT_EQ(h.Tune(kChannelA), 1);
        EXPECT_EQ(Device().frequency, kChannelA);
        EXPECT_EQ(Device().bandwidth, 1) << "tuner type 2 takes bandwidth code 1";
        EXPECT_EQ(TunedBandwidthCode(), 1);
        EXPECT_EQ(Device().updates, 1);
        EXPECT_EQ(test::SampleRateRegister(), 0);
        EXPECT_EQ(tuningStorage.currentFrequency, kChannelA);
        EXPECT_EQ(receiverStatus.retuneRequest, 1);
        EXPECT_EQ(Device().system[1] & 0x04, 0) << "the reception line is switched off";
        EXPECT_EQ(receptionLine.goodReceptionCount, 0);
    }
    // An unknown tuner type makes no tuner call, but acquisition restarts.
    FrameHarness h(9);
    ASSERT_TRUE(h.ready());
    ASSERT_EQ(h.Tune(kChannelA), 1);
    EXPECT_EQ(Device().updates, 0);
    EXPECT_EQ(tuningStorage.currentFrequency, 0);
    EXPECT_EQ(receiverStatus.retuneRequest, 1);
}

class DeviceTuning : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.ready()); }
    // Serves the pending request as the next frame step would.
    void Serve() { h.PushSilentFrames(1); }
    FrameHarness h{1};
};

TEST_F(DeviceTuning, FailuresOfTheTunerAndOfTheOffsetWrite) {
    ASSERT_EQ(h.Tune(kChannelA), 1);
    Serve();
    Device().failSetFrequency = true;
    EXPECT_EQ(h.Tune(kChannelB), 0);
    EXPECT_EQ(tuningStorage.currentFrequency, kChannelA) << "the old tuning stands";
    EXPECT_EQ(receiverStatus.retuneRequest, 0);
    Device().failSetFrequency = false;

    Device().failDeviceUpdate = true;
    EXPECT_EQ(h.Tune(kChannelB), 0);
    EXPECT_EQ(tuningStorage.currentFrequency, -1);
    Device().failDeviceUpdate = false;
    // -1 makes even the old frequency count as new.
    const int32_t updates = Device().updates;
    ASSERT_EQ(h.Tune(kChannelA), 1);
    EXPECT_EQ(Device().updates, updates + 1);
    Serve();

    Device().failWritePage = 1;
    Device().failWriteAddr = 0x3E;
    EXPECT_EQ(h.Tune(kChannelB), 0);
    EXPECT_EQ(tuningStorage.currentFrequency, kChannelB) << "updated before the offsets";
    EXPECT_EQ(receiverStatus.retuneRequest, 0) << "acquisition isn't restarted";
}

TEST_F(DeviceTuning, LearnedOffsetsFollowTheirFrequency) {
    ASSERT_EQ(h.Tune(kChannelA), 1);
    RecordLearnedClockOffset(5.0f);
    ASSERT_NE(FindCachedFrequency(kChannelA), nullptr);
    EXPECT_FLOAT_EQ(FindCachedFrequency(kChannelA)->learnedPpm, 5.0f);
    EXPECT_FLOAT_EQ(clockOffsetTotalPpm, 5.0f);
    EXPECT_EQ(FindCachedFrequency(kChannelB), nullptr);
    // A second look in the same tuning adds nothing and makes no record.
    RecordLearnedClockOffset(2.0f);
    EXPECT_FLOAT_EQ(clockOffsetTotalPpm, 5.0f);
    EXPECT_EQ(frequencyCache.head.load()->next, nullptr);

    // Another frequency without a record gets the total learned so far.
    ASSERT_EQ(h.Tune(kChannelB), 1);
    EXPECT_EQ(test::SampleRateRegister(), CodeOf(5.0f));
    RecordLearnedClockOffset(-2.0f);
    EXPECT_FLOAT_EQ(FindCachedFrequency(kChannelB)->learnedPpm, 3.0f);

    // Back on A: its own value, marked applied.
    ASSERT_EQ(h.Tune(kChannelA), 1);
    EXPECT_EQ(test::SampleRateRegister(), CodeOf(5.0f));
    EXPECT_EQ(FindCachedFrequency(kChannelA)->applied, 1);
    ASSERT_EQ(h.Tune(kChannelB), 1);
    EXPECT_EQ(test::SampleRateRegister(), CodeOf(3.0f));
}

TEST_F(DeviceTuning, RecordOfTheCurrentTuningIsWrittenAtTheNextCallOnTheSameFrequency) {
    ASSERT_EQ(h.Tune(kChannelA), 1);
    Serve();
    RecordLearnedClockOffset(-4.0f);
    receiverStatus.syncState = 4;  // even with a clean FIC
    const int32_t updates = Device().updates;
    ASSERT_EQ(h.Tune(kChannelA), 1);
    EXPECT_EQ(Device().updates, updates) << "no tuner call";
    EXPECT_EQ(test::SampleRateRegister(), CodeOf(-4.0f));
    EXPECT_EQ(receiverStatus.retuneRequest, 1);
    EXPECT_EQ(receiverStatus.serviceResetRequest, 0);
    Serve();
    // Applied now: the next call on the clean frequency only resets services.
    receiverStatus.syncState = 4;
    ASSERT_EQ(h.Tune(kChannelA), 1);
    EXPECT_EQ(receiverStatus.serviceResetRequest, 1);
}

}  // namespace
}  // namespace mvdab
