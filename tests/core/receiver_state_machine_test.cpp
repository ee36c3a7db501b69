// The acquisition state machine driven frame by frame on signals without DAB
// structure, and the host's requests that steer it.
#include <gtest/gtest.h>

#include <vector>

#include "device/tuning.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_state.h"
#include "receiver/status_queries.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

using test::FrameHarness;

constexpr int32_t kSearchFrames = 7;
constexpr int32_t kHoldoffFrames = 4;

// acquisitionState after each of `count` noise frames.
std::vector<int32_t> StatesOverNoise(FrameHarness& h, int32_t count, uint32_t seed) {
    std::vector<int32_t> states;
    for (int32_t i = 0; i < count; ++i) {
        h.PushNoiseFrames(1, seed + uint32_t(i));
        states.push_back(pipeline.acquisitionState);
    }
    return states;
}

TEST(ReceiverStateMachine, ParkedUntilTheFirstTuning) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
    h.PushNoiseFrames(5);
    EXPECT_EQ(pipeline.acquisitionState, -2);
    EXPECT_EQ(receiverStatus.syncState, 0);
    EXPECT_EQ(receiverStatus.signalPresent, 0);
    int32_t present = 9;
    int32_t locked = 9;
    int32_t quality = 9;
    EXPECT_EQ(QuerySignalPresent(&present), 1);
    EXPECT_EQ(present, 0);
    EXPECT_EQ(QuerySignalLock(&locked), 0);
    EXPECT_EQ(locked, 9);
    EXPECT_EQ(QuerySignalQuality(&quality), 1);
    EXPECT_EQ(quality, 0);
}

TEST(ReceiverStateMachine, NoiseCyclesSevenFramesOfSearchAndFourOfHoldOff) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
    ASSERT_EQ(h.Tune(227360), 1);
    const std::vector<int32_t> states = StatesOverNoise(h, 3 * (kSearchFrames + kHoldoffFrames), 100);
    // Round r: the retune (or the end of the hold-off) puts state 0 in
    // place, then 7 frames of search, then 4 of hold-off.
    std::vector<int32_t> expected;
    for (int32_t round = 0; round < 3; ++round) {
        for (int32_t i = 0; i < kSearchFrames - 1; ++i) expected.push_back(0);
        for (int32_t i = 0; i < kHoldoffFrames; ++i) expected.push_back(-1);
        expected.push_back(0);
    }
    EXPECT_EQ(states, expected);
    EXPECT_EQ(receiverStatus.signalPresent, -1);
    EXPECT_EQ(receiverStatus.syncState, 0);
}

TEST(ReceiverStateMachine, SignalPresentFallsToMinusOneAfterTheFirstRound) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
    ASSERT_EQ(h.Tune(227360), 1);
    for (int32_t i = 0; i < kSearchFrames - 1; ++i) {
        h.PushNoiseFrames(1, 7 + uint32_t(i));
        EXPECT_EQ(receiverStatus.signalPresent, 0) << "frame " << i;
    }
    h.PushNoiseFrames(1, 50);
    EXPECT_EQ(receiverStatus.signalPresent, -1);
    int32_t locked = 9;
    EXPECT_EQ(QuerySignalLock(&locked), 1);
    EXPECT_EQ(locked, 0);
    // It stays -1 through the following rounds: the search restarts but
    // doesn't reset what the host reads.
    h.PushNoiseFrames(2 * (kSearchFrames + kHoldoffFrames), 60);
    EXPECT_EQ(receiverStatus.signalPresent, -1);
}

TEST(ReceiverStateMachine, RetuneDuringHoldOffStartsTheSearchAtOnce) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
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

TEST(ReceiverStateMachine, SameFrequencyWithCleanFicAsksOnlyForAServiceReset) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
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

TEST(ReceiverStateMachine, LockQueryHasThreeAnswers) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
    struct Case {
        int32_t present, sync, result, written;
    };
    const Case cases[] = {
        {-1, 0, 1, 0}, {1, 4, 1, 1}, {1, 5, 1, 1}, {1, 3, 0, 77}, {1, 2, 0, 77}, {0, 4, 0, 77}, {0, 0, 0, 77},
    };
    for (const Case& c : cases) {
        receiverStatus.signalPresent = c.present;
        receiverStatus.syncState = c.sync;
        int32_t locked = 77;
        EXPECT_EQ(QuerySignalLock(&locked), c.result) << c.present << "/" << c.sync;
        EXPECT_EQ(locked, c.written) << c.present << "/" << c.sync;
    }
}

TEST(ReceiverStateMachine, QualityStaircaseBoundaries) {
    EXPECT_EQ(QualityStep(10.0f), 80);
    EXPECT_EQ(QualityStep(10.0001f), 100);
    EXPECT_EQ(QualityStep(8.0f), 50);
    EXPECT_EQ(QualityStep(8.0001f), 80);
    EXPECT_EQ(QualityStep(5.0f), 30);
    EXPECT_EQ(QualityStep(5.0001f), 50);
    EXPECT_EQ(QualityStep(-20.0f), 30);
}

TEST(ReceiverStateMachine, ResyncRestartsWithoutHoldOffAndMarksServicesDirty) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
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

TEST(ReceiverStateMachine, StopParksAndForgetsTheOlderSlots) {
    FrameHarness h;
    ASSERT_TRUE(h.ready());
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
