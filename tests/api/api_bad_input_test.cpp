// Every exported function called with the device closed, before and after an
// open, or with null pointers: the documented failure value, and no crash.
#include <gtest/gtest.h>

#include <cstdlib>

#include "mvxdab.h"

namespace {

void Fic(uint8_t*, int32_t, int32_t) {}
void Packet(uint8_t*, int32_t, int32_t, int32_t) {}

// Calls everything that needs an open device and checks the closed answers.
void ExpectClosedAnswers() {
    int32_t v = 77;
    int32_t w = 77;
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0);
    EXPECT_EQ(MVDAB_GetSignalPresent(&v), 0);
    EXPECT_EQ(MVDAB_GetSignalLock(&v), 0);
    EXPECT_EQ(MVDAB_GetSignalQuality(&v), 0);
    EXPECT_EQ(MVDAB_GetSignalStrength(&v), 0);
    EXPECT_EQ(MVDAB_GetFreqAndBW(&v, &w), 0);
    EXPECT_EQ(MVDAB_GetTunerRange(&v), 0);
    EXPECT_EQ(v, 77);
    EXPECT_EQ(w, 77);
    int32_t one = 1;
    EXPECT_EQ(MVDAB_DebugCMD(12, &one), 0);
    EXPECT_EQ(MVDAB_AddServiceCom(0, 1, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(MVDAB_DelServiceCom(0, 1, 0), 4);
    EXPECT_EQ(MVDAB_ChangeSCOrg(0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 5), 0);
}

TEST(ApiBadInput, ClosedReceiverAnswersWithFailureValues) {
    ExpectClosedAnswers();
    ExpectClosedAnswers();  // twice: nothing was changed by the first round
}

TEST(ApiBadInput, CallbacksCanBeSetWhileClosedButNotToNull) {
    EXPECT_EQ(MVDAB_SetFICCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetMWFICCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetMSCCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetPacketCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetStreamDataCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetFICCallBack(Fic), 1);
    EXPECT_EQ(MVDAB_SetMWFICCallBack(Fic), 1);
    EXPECT_EQ(MVDAB_SetMSCCallBack(Fic), 1);
    EXPECT_EQ(MVDAB_SetPacketCallBack(Packet), 1);
    EXPECT_EQ(MVDAB_SetStreamDataCallBack(Fic), 1);
}

TEST(ApiBadInput, NullPointersWhileOpenAreRefused) {
    setenv("MVC900_SOURCE", "noise", 1);
    if (MVDAB_OpenDevice() != 1) GTEST_SKIP() << "emulated device not available";
    EXPECT_EQ(MVDAB_GetSignalPresent(nullptr), 0);
    EXPECT_EQ(MVDAB_GetSignalLock(nullptr), 0);
    EXPECT_EQ(MVDAB_GetSignalQuality(nullptr), 0);
    EXPECT_EQ(MVDAB_GetSignalStrength(nullptr), 0);
    int32_t v = 0;
    EXPECT_EQ(MVDAB_GetFreqAndBW(nullptr, &v), 0);
    EXPECT_EQ(MVDAB_GetFreqAndBW(&v, nullptr), 0);
    EXPECT_EQ(MVDAB_GetTunerRange(nullptr), 0);
    EXPECT_EQ(MVDAB_DebugCMD(12, nullptr), 0);
    EXPECT_EQ(MVDAB_DebugCMD(1, &v), 0);
    EXPECT_EQ(MVDAB_DebugCMD(-5, &v), 0);
    // Services need a signal; on noise every add is refused.
    EXPECT_EQ(MVDAB_AddServiceCom(0, 1, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(MVDAB_AddServiceCom(3, 1, -5, 1, 0, 7, 30000, 0, 0), 0);
    EXPECT_EQ(MVDAB_DelServiceCom(0, 1, 0), 4);
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    ExpectClosedAnswers();
}

}  // namespace
