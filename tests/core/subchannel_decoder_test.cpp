// The sub-channel decoder on hand-made soft values: where the time
// de-interleaver puts each branch, and how the count towards an announced
// change cuts a frame short and delivers what was decoded.
#include <gtest/gtest.h>

#include <vector>

#include "acquisition/mode_buffers.h"
#include "channel/fic_decoder.h"
#include "channel/subchannel_decoder.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_commands.h"
#include "services/service_component.h"
#include "services/service_requests.h"
#include "services/symbol_mask.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

std::vector<int32_t> deliveredLengths;
std::vector<int32_t> deliveredFlags;
void Record(uint8_t*, int32_t length, int32_t flags) {
    deliveredLengths.push_back(length);
    deliveredFlags.push_back(flags);
}

// One plain EEP 3-A sub-channel of 6 capacity units at CU 10, set up in the
// given mode, with FrameCarriers laid over WorkingPool.
class SubChannelDecoder : public ::testing::Test {
protected:
    void Start(int32_t m) {
        ASSERT_TRUE(h.ready());
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        mode.configuredMode = m;
        modeBuffers.frameCarriers = reinterpret_cast<float*>(workBlocks.workingPool);
        ResetSymbolMask();
        receiverStatus.signalPresent = 1;
        ASSERT_EQ(AddServiceRequest({0, 7, 10, 1, 0, 2, 6, 0}), 1);
        h.PushSilentFrames(1);
        ASSERT_EQ(pipeline.selectedCount, 1);
        r = pipeline.selectedServices[0];
        ASSERT_EQ(SetUpSubChannel(r, 0, 1), 1);
        deliveredLengths.clear();
        deliveredFlags.clear();
        mscCallback.store(Record);
    }
    void TearDown() override {
        mscCallback.store(nullptr);
        modeBuffers = ModeBuffers{};
        cifCountWanted = 0;
    }
    // Soft values of every CIF of the frame: `x` everywhere.
    void Fill(float x) {
        for (int32_t c = 0; c < mode.parameters.cifsPerFrame; ++c)
            for (int32_t j = 0; j < 6 * 64; ++j) r->cifSoftBits[c][j] = x;
    }
    test::FrameHarness h;
    ServiceComponent* r = nullptr;
};

TEST_F(SubChannelDecoder, EachBranchIsWrittenToTheSlotOfItsDelay) {
    Start(1);  // mode II: one CIF per frame
    Fill(0.7071f);
    r->cifSoftBits[0][0] = -0.7071f;   // branch 0: delay 15
    r->cifSoftBits[0][15] = -0.7071f;  // branch 15: delay 0, read in this very CIF
    r->cifSoftBits[0][17] = -0.7071f;  // branch 1: delay 7
    r->timeIndex = 3;
    DecodeSubChannel(r);
    const int32_t slot = 6 * 64;
    const uint8_t* store = r->timeStore;
    EXPECT_EQ(store[(15 + 3) % 16 * slot + 0], 15);
    EXPECT_EQ(store[3 * slot + 15], 15);
    EXPECT_EQ(store[(7 + 3) * slot + 17], 15);
    EXPECT_EQ(store[(7 + 3) * slot + 1], 0);
    EXPECT_EQ(store[3 * slot + 14], 0) << "branch 14 has delay 8";
    EXPECT_EQ(r->timeIndex, 4);
}

TEST_F(SubChannelDecoder, NothingIsDeliveredUntilSixteenCifsHaveFilledTheStore) {
    Start(0);  // mode I: four CIFs per frame
    Fill(0.7071f);
    for (int32_t frame = 1; frame <= 6; ++frame) {
        DecodeSubChannel(r);
        EXPECT_EQ(deliveredLengths.size(), frame <= 4 ? 0u : size_t(frame - 4)) << frame;
    }
    ASSERT_FALSE(deliveredLengths.empty());
    EXPECT_EQ(deliveredLengths[0], 4 * 192 / 8);
    EXPECT_EQ(deliveredFlags[0], 7) << "the sub-channel id";
}

TEST_F(SubChannelDecoder, ChangeDueAtTheFirstCifOfAFrameDeliversOneCif) {
    Start(0);
    Fill(0.7071f);
    r->timeInterleaverFull = 1;
    ASSERT_EQ(ChangeServiceOrganisation({0, 7, 100, 1, 0, 2, 6, 0}, 121), 1);
    ficDecoder.cifCountValid = 1;
    ficDecoder.latestCifCountLow = 120;  // the frame's first CIF
    DecodeSubChannel(r);
    ASSERT_EQ(deliveredLengths.size(), 1u);
    EXPECT_EQ(deliveredLengths[0], 192 / 8);
    EXPECT_EQ(r->reconfiguration->state, 2);
    EXPECT_EQ(cifCountWanted, 2);
    EXPECT_EQ(r->timeIndex, 1);
}

TEST_F(SubChannelDecoder, ChangeCifAbove249IsNeverReached) {
    Start(0);
    Fill(0.7071f);
    ASSERT_EQ(ChangeServiceOrganisation({0, 7, 100, 1, 0, 2, 6, 0}, int8_t(250)), 1);
    ficDecoder.cifCountValid = 0;  // free running from 0
    for (int32_t frame = 0; frame < 130; ++frame) DecodeSubChannel(r);  // 520 CIFs, two periods
    EXPECT_EQ(r->reconfiguration->state, 1);
    EXPECT_EQ(cifCountWanted, 1);
    EXPECT_EQ(r->reconfiguration->cifCount, 520 % 250);
}

}  // namespace
}  // namespace mvdab
