// The host's service commands and their take-over at IqFrame boundaries: the
// rules of one service at a time, the lists, the geometry of a sub-channel in
// SymbolMask and the work blocks, and the swap of an announced change.
#include <gtest/gtest.h>

#include <iterator>
#include <utility>

#include "acquisition/mode_buffers.h"
#include "channel/fic_decoder.h"
#include "channel/subchannel_decoder.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_state.h"
#include "services/service_commands.h"
#include "services/service_component.h"
#include "services/service_requests.h"
#include "services/symbol_mask.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

using test::FrameHarness;

ServiceRequest Short(int8_t type, int8_t id, int16_t start, int8_t tableIndex) {
    return {type, id, start, 0, tableIndex, 0, 0, 0};
}
ServiceRequest Long(int8_t type, int8_t id, int16_t start, int8_t optionAndLevel, int16_t size) {
    return {type, id, start, 1, 0, optionAndLevel, size, 0};
}

// A receiver that has found a signal in the given mode and laid out its
// buffers, so that requests are taken over.
class Services : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(h.ready());
        SetMode(0);
        receiverStatus.signalPresent = 1;
    }
    void TearDown() override {
        modeBuffers = ModeBuffers{};
        cifCountWanted = 0;
    }
    void SetMode(int32_t m) {
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        mode.configuredMode = m;
        // Only addresses are computed from it here.
        modeBuffers.frameCarriers = reinterpret_cast<float*>(workBlocks.workingPool);
        ResetSymbolMask();
    }
    void Step() { h.PushSilentFrames(1); }
    // Adds a request and lets a frame step take it over.
    bool Take(const ServiceRequest& r) { return AddServiceRequest(r) == 1 && (Step(), true); }
    // Takes over one request and lays out its sub-channel.
    ServiceComponent* SetUpOne(const ServiceRequest& r) {
        if (!Take(r) || pipeline.selectedCount != 1) return nullptr;
        ServiceComponent* c = pipeline.selectedServices[0];
        return SetUpSubChannel(c, 0, 1) == 1 ? c : nullptr;
    }
    FrameHarness h;
};

TEST(ServicesClosed, CommandsRefuseWithoutAnOpenDevice) {
    EXPECT_EQ(AddServiceRequest(Short(0, 1, 0, 0)), 0);
    EXPECT_EQ(DeleteServiceRequest(1), 4);
    EXPECT_EQ(ChangeServiceOrganisation(Short(0, 1, 0, 0), 10), 0);
}

TEST_F(Services, AddIsRefusedUntilASignalIsPresentAndForOtherTypes) {
    receiverStatus.signalPresent = 0;
    EXPECT_EQ(AddServiceRequest(Short(0, 1, 0, 0)), 0);
    receiverStatus.signalPresent = 1;
    for (int8_t type : {1, 2, 4, -1}) EXPECT_EQ(AddServiceRequest(Short(type, 1, 0, 0)), 0);
    // Nor while a retune or a service reset is pending.
    for (int32_t* request : {&receiverStatus.retuneRequest, &receiverStatus.serviceResetRequest}) {
        *request = 1;
        EXPECT_EQ(AddServiceRequest(Short(0, 1, 0, 0)), 0);
        *request = 0;
    }
    EXPECT_EQ(receiverStatus.serviceCount, 0);
    receiverStatus.retuneRequest = 1;
    EXPECT_EQ(DeleteServiceRequest(1), 0);
    receiverStatus.retuneRequest = 0;
}

TEST_F(Services, OneServiceAtATimeTakenOverAndFreedAtFrameSteps) {
    ASSERT_EQ(AddServiceRequest(Short(0, 7, 0, 0)), 1);
    EXPECT_EQ(receiverStatus.freeSlots, 1);
    EXPECT_EQ(AddServiceRequest(Short(0, 7, 0, 0)), 5);  // waiting in addedServices
    EXPECT_EQ(AddServiceRequest(Short(3, 8, 20, 0)), 0);
    Step();
    ASSERT_EQ(pipeline.selectedCount, 1);
    EXPECT_EQ(AddServiceRequest(Short(0, 7, 0, 0)), 5);  // active
    ASSERT_EQ(DeleteServiceRequest(7), 1);
    EXPECT_EQ(receiverStatus.freeSlots, 2);
    EXPECT_EQ(DeleteServiceRequest(7), 4);
    Step();
    EXPECT_EQ(receiverStatus.removedServices, nullptr);
    EXPECT_EQ(pipeline.selectedCount, 0);
    // A record deleted before its take-over is never selected.
    ASSERT_EQ(AddServiceRequest(Short(3, 8, 20, 0)), 1);
    EXPECT_EQ(receiverStatus.freeSlots, 0);
    ASSERT_EQ(DeleteServiceRequest(8), 1);
    EXPECT_EQ(receiverStatus.serviceCount, 0);
    Step();
    EXPECT_EQ(pipeline.selectedCount, 0);
    // Requests wait until a mode is configured.
    mode.configuredMode = -1;
    ASSERT_TRUE(Take(Short(0, 1, 0, 0)));
    EXPECT_EQ(pipeline.selectedCount, 0);
    SetMode(0);
    Step();
    EXPECT_EQ(pipeline.selectedCount, 1);
}

TEST_F(Services, BadArgumentsAreRefusedAndChangeNothing) {
    // Each case is refused by add and by a change of an active sub-channel.
    const ServiceRequest cases[] = {
        Short(0, 64, 0, 0),           // sub-channel id above 63
        Short(0, 1, 0, 64),           // table index above 63
        Short(0, 1, -1, 0),           // negative start
        Short(0, 1, 849, 0),          // short form past the CIF: 16 CUs from 849
        Long(0, 1, 0, 0, 11),         // size below one step of set A
        Long(0, 1, 0, 4 + 0, 26),     // size below one step of set B
        Long(0, 1, 0, 3, 868),        // long form larger than a CIF
    };
    ASSERT_TRUE(Take(Short(0, 2, 500, 0)));
    ServiceComponent* active = receiverStatus.activeServices;
    for (size_t i = 0; i < std::size(cases); ++i) {
        ServiceRequest add = cases[i];
        EXPECT_EQ(AddServiceRequest(add), 0) << i;
        add.subChannelId = add.subChannelId == 1 ? 2 : add.subChannelId;
        EXPECT_EQ(ChangeServiceOrganisation(add, 10), 0) << i;
    }
    EXPECT_EQ(receiverStatus.addedServices, nullptr);
    EXPECT_EQ(active->reconfiguration, nullptr);
    EXPECT_EQ(receiverStatus.serviceCount, 1);
    // The largest that fits is accepted: set B level 4 over the whole CIF.
    ASSERT_EQ(DeleteServiceRequest(2), 1);
    EXPECT_EQ(AddServiceRequest(Long(0, 1, 0, 4 + 3, 864)), 1);
}

TEST_F(Services, FailedSetUpAtTakeOverDropsOnlyThatRequest) {
    ASSERT_EQ(AddServiceRequest(Short(0, 1, 0, 0)), 1);
    receiverStatus.addedServices->startAddress = 860;  // can't be set up
    EXPECT_EQ(RunFrameStep(), 0);
    EXPECT_EQ(pipeline.selectedCount, 0);
    EXPECT_EQ(receiverStatus.serviceCount, 0);
    EXPECT_EQ(AddServiceRequest(Short(0, 2, 0, 0)), 1);  // the lock and the slot given back
}

TEST_F(Services, AnnouncedChangeIsSwappedInWhenDue) {
    ASSERT_EQ(AddServiceRequest(Short(3, 4, 100, 10)), 1);
    EXPECT_EQ(ChangeServiceOrganisation(Short(0, 4, 200, 20), 17), 0);  // not active yet
    Step();
    ASSERT_EQ(ChangeServiceOrganisation(Short(0, 4, 200, 20), 17), 1);
    EXPECT_EQ(cifCountWanted, 1);
    EXPECT_EQ(ChangeServiceOrganisation(Short(0, 4, 300, 20), 18), 0);  // one change at a time
    ServiceComponent* old = receiverStatus.activeServices;
    ASSERT_NE(old->reconfiguration, nullptr);
    EXPECT_EQ(old->reconfiguration->changeCif, 17);
    // The sub-channel decoder finds the change due.
    old->reconfiguration->state = 2;
    cifCountWanted = 2;
    Step();
    ServiceComponent* now = receiverStatus.activeServices;
    ASSERT_NE(now, nullptr);
    EXPECT_EQ(now->startAddress, 200);
    EXPECT_EQ(now->type, 3);  // inherited
    EXPECT_EQ(now->reconfiguration, nullptr);
    EXPECT_EQ(pipeline.selectedServices[0], now);
    EXPECT_EQ(cifCountWanted, 0);
    // Deleting a record with a pending change frees both (the sanitizer
    // build reports a leak if anything stays).
    ASSERT_EQ(ChangeServiceOrganisation(Short(0, 4, 300, 20), 250), 1);
    ASSERT_EQ(DeleteServiceRequest(4), 1);
    Step();
    EXPECT_EQ(receiverStatus.serviceCount, 0);
}

TEST_F(Services, ChangeCifAbove249IsNeverReached) {
    ServiceComponent* r = SetUpOne(Long(0, 7, 10, 2, 6));
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(ChangeServiceOrganisation(Long(0, 7, 100, 2, 6), int8_t(250)), 1);
    ficDecoder.cifCountValid = 0;  // free running from 0
    for (int32_t frame = 0; frame < 130; ++frame) DecodeSubChannel(r);  // 520 CIFs, two periods
    EXPECT_EQ(r->reconfiguration->state, 1);
    EXPECT_EQ(cifCountWanted, 1);
    EXPECT_EQ(r->reconfiguration->cifCount, 520 % 250);
    ASSERT_EQ(DeleteServiceRequest(7), 1);
    Step();
}

TEST_F(Services, RetuneAndServiceResetDropEverything) {
    ASSERT_TRUE(Take(Short(0, 4, 100, 10)));
    ASSERT_EQ(ChangeServiceOrganisation(Short(0, 4, 200, 20), 30), 1);
    h.PostRetune();
    Step();
    EXPECT_EQ(receiverStatus.activeServices, nullptr);
    EXPECT_EQ(cifCountWanted, 0);

    receiverStatus.signalPresent = 1;
    ASSERT_TRUE(Take(Short(0, 5, 100, 10)));
    receiverStatus.serviceResetRequest = 1;
    pipeline.acquisitionState = -2;
    Step();
    EXPECT_EQ(receiverStatus.activeServices, nullptr);
    EXPECT_EQ(pipeline.selectedCount, 0);
    EXPECT_EQ(SymbolMask[4], 0);  // FIC only
}

}  // namespace
}  // namespace mvdab
