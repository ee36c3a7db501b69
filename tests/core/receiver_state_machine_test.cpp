// The acquisition state machine driven frame by frame on signals without DAB
// structure, the host's requests that steer it, and the status queries.
#include <gtest/gtest.h>

#include <vector>

#include "device/tuning.h"
#include "receiver/capture.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_state.h"
#include "receiver/status_queries.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

constexpr int32_t kSearchFrames = 7;
constexpr int32_t kHoldoffFrames = 4;
constexpr int32_t kRound = kSearchFrames + kHoldoffFrames;

class ReceiverStateMachine : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.ready()); }
    test::FrameHarness h;
};

TEST_F(ReceiverStateMachine, ParkedUntilTheFirstTuning) {
    h.PushNoiseFrames(5);
    EXPECT_EQ(pipeline.acquisitionState, -2);
    EXPECT_EQ(receiverStatus.syncState, 0);
    int32_t present = 9;
    int32_t quality = 9;
    EXPECT_EQ(QuerySignalPresent(&present), 1);
    EXPECT_EQ(present, 0);
    EXPECT_EQ(QuerySignalQuality(&quality), 1);
    EXPECT_EQ(quality, 0);
}

TEST_F(ReceiverStateMachine, NoiseCyclesSevenFramesOfSearchAndFourOfHoldOff) {
    ASSERT_EQ(h.Tune(227360), 1);
    std::vector<int32_t> states, present, expectedStates, expectedPresent;
    for (int32_t i = 0; i < 3 * kRound; ++i) {
        h.PushNoiseFrames(1, 100 + uint32_t(i));
        states.push_back(pipeline.acquisitionState);
        present.push_back(receiverStatus.signalPresent);
        // Each round: the retune (or the end of the hold-off) puts state 0 in
        // place, then 7 frames of search, then 4 of hold-off.
        const int32_t k = i % kRound;
        expectedStates.push_back(k < kSearchFrames - 1 || k == kRound - 1 ? 0 : -1);
        // -1 once the first search has failed; later rounds don't reset it.
        expectedPresent.push_back(i < kSearchFrames - 1 ? 0 : -1);
    }
    EXPECT_EQ(states, expectedStates);
    EXPECT_EQ(present, expectedPresent);
    EXPECT_EQ(receiverStatus.syncState, 0);
}

// A position that never confirms (noise, as if a mode had been decided): at
// the confirmation timeout the state machine holds off, syncState back at 0.
TEST_F(ReceiverStateMachine, UnconfirmedPositionTimesOutIntoTheHoldOff) {
    ASSERT_EQ(h.Tune(227360), 1);
    h.PushNoiseFrames(1, 40);
    mode.transmissionMode = 1;
    mode.parameters = kModeTable[1];
    pipeline.acquisitionState = receiverStatus.syncState = 1;
    pipeline.confirmTimeout = 2;
    h.PushNoiseFrames(2, 41);
    EXPECT_EQ(pipeline.acquisitionState, -1);
    EXPECT_EQ(receiverStatus.syncState, 0);
}

TEST_F(ReceiverStateMachine, RetuneDuringHoldOffStartsTheSearchAtOnce) {
    ASSERT_EQ(h.Tune(227360), 1);
    h.PushNoiseFrames(kSearchFrames + 1, 3);
    ASSERT_EQ(pipeline.acquisitionState, -1);
    ASSERT_EQ(h.Tune(225648), 1);
    EXPECT_EQ(receiverStatus.signalPresent, 0);
    h.PushNoiseFrames(1, 4);
    EXPECT_EQ(pipeline.acquisitionState, 0);
    EXPECT_EQ(pipeline.searchTimeout, kSearchFrames - 1);
    EXPECT_EQ(receiverStatus.retuneRequest, 0);
}

TEST_F(ReceiverStateMachine, SameFrequencyWithCleanFicAsksOnlyForAServiceReset) {
    ASSERT_EQ(h.Tune(227360), 1);
    const int32_t updates = test::Device().updates;
    h.PushNoiseFrames(2, 9);
    // As if the FIC were clean: the receiver is tracking.
    pipeline.acquisitionState = 3;
    receiverStatus.syncState = 4;
    receiverStatus.signalPresent = 1;
    ASSERT_EQ(h.Tune(227360), 1);
    EXPECT_EQ(test::Device().updates, updates) << "no tuner call for the frequency in hand";
    EXPECT_EQ(receiverStatus.serviceResetRequest, 1);
    EXPECT_EQ(receiverStatus.retuneRequest, 0);
    EXPECT_EQ(receiverStatus.signalPresent, 0);
    pipeline.acquisitionState = -2;  // keep state 3 from running on noise
    h.PushNoiseFrames(1, 10);
    EXPECT_EQ(receiverStatus.serviceResetRequest, 0);
    EXPECT_EQ(receiverStatus.signalPresent, 1);
    EXPECT_EQ(pipeline.acquisitionState, -2) << "sync is kept";
    EXPECT_EQ(receiverStatus.syncState, 4);
    // The same frequency without a clean FIC restarts acquisition.
    receiverStatus.syncState = 5;
    ASSERT_EQ(h.Tune(227360), 1);
    EXPECT_EQ(receiverStatus.retuneRequest, 1);
    EXPECT_EQ(receiverStatus.serviceResetRequest, 0);
    h.PushNoiseFrames(1, 11);
    EXPECT_EQ(pipeline.acquisitionState, 0);
}

// Regression: an IqFrame written over in the hand-over before the
// demodulation thread took it left a gap in the history that tracking read
// across, delivering bytes that were never sent until the FIC's error count
// restarted it. A gap with a frame position held restarts at once.
TEST_F(ReceiverStateMachine, IqFrameLostInTheHandOverRestartsTracking) {
    ASSERT_EQ(h.Tune(227360), 1);
    h.PushNoiseFrames(2, 12);
    std::vector<uint8_t> frame(kIqFrameBytes, 128);
    // The capture thread hands over one IqFrame per step: no restart.
    pipeline.acquisitionState = -2;
    HandOverIqFrame(frame.data());
    RunFrameStep();
    EXPECT_EQ(pipeline.acquisitionState, -2);
    // Two before a step, while tracking: the first was never seen.
    pipeline.acquisitionState = 3;
    receiverStatus.syncState = 4;
    HandOverIqFrame(frame.data());
    HandOverIqFrame(frame.data());
    RunFrameStep();
    EXPECT_EQ(pipeline.acquisitionState, 0);
    EXPECT_EQ(pipeline.resyncRequest, 0);
}

TEST_F(ReceiverStateMachine, LockQueryHasThreeAnswersAndQualityIsAStaircase) {
    // {signalPresent, syncState, result, value written (77: untouched)}
    const int32_t locks[][4] = {{-1, 0, 1, 0},  {1, 4, 1, 1},  {1, 5, 1, 1}, {1, 3, 0, 77},
                                {1, 2, 0, 77}, {0, 4, 0, 77}, {0, 0, 0, 77}};
    for (const auto& c : locks) {
        receiverStatus.signalPresent = c[0];
        receiverStatus.syncState = c[1];
        int32_t locked = 77;
        EXPECT_EQ(QuerySignalLock(&locked), c[2]) << c[0] << "/" << c[1];
        EXPECT_EQ(locked, c[3]) << c[0] << "/" << c[1];
    }
    const std::pair<float, int32_t> steps[] = {{10.0001f, 100}, {10.0f, 80}, {8.0001f, 80}, {8.0f, 50},
                                               {5.0001f, 50},   {5.0f, 30},  {-20.0f, 30}};
    for (auto [snr, quality] : steps) EXPECT_EQ(QualityStep(snr), quality) << snr;
}

TEST_F(ReceiverStateMachine, ResyncRestartsWithoutHoldOffAndMarksServicesDirty) {
    ASSERT_EQ(h.Tune(227360), 1);
    h.PushNoiseFrames(3, 21);
    pipeline.resyncRequest = 1;
    receiverStatus.signalPresent = 1;
    h.PushNoiseFrames(1, 22);
    EXPECT_EQ(pipeline.resyncRequest, 0);
    EXPECT_EQ(pipeline.servicesDirty, 1);
    EXPECT_EQ(pipeline.acquisitionState, 0);
    EXPECT_EQ(pipeline.searchTimeout, kSearchFrames - 1);
    EXPECT_EQ(receiverStatus.signalPresent, 1) << "a resync leaves signalPresent as it was";
}

TEST_F(ReceiverStateMachine, StopParksAndForgetsTheOlderSlots) {
    ASSERT_EQ(h.Tune(227360), 1);
    h.PushNoiseFrames(2, 31);
    workBlocks.middleSlot = workBlocks.workingPool + kMiddleSlotOffset;
    workBlocks.historyBase = workBlocks.middleSlot;
    StopReceiver();
    EXPECT_EQ(pipeline.acquisitionState, -2);
    EXPECT_EQ(workBlocks.middleSlot, nullptr);
    EXPECT_EQ(workBlocks.historyBase, nullptr);
    h.PushNoiseFrames(3, 32);
    EXPECT_EQ(pipeline.acquisitionState, -2);
}

}  // namespace
}  // namespace mvdab
