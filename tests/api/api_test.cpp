// The receiver through its public interface on the emulated device: open,
// tune, the search on noise, start, stop and close; the failure values of
// every entry point while closed or given null pointers; device failures
// injected by the emulated device (MVC900_FAULT), after each of which a clean
// open still works. Locking on a generated ensemble in every mode is in
// api_reception_test.cpp.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "mvxdab.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

void UseDevice(const char* source, const char* fault = nullptr) {
    setenv("MVC900_SOURCE", source, 1);
    fault != nullptr ? setenv("MVC900_FAULT", fault, 1) : unsetenv("MVC900_FAULT");
}

// Opens on noise with `fault` injected; the open's result.
int32_t OpenWith(const char* fault = nullptr) {
    UseDevice("noise", fault);
    return MVDAB_OpenDevice();
}

int32_t Present() {
    int32_t v = 99;
    EXPECT_EQ(MVDAB_GetSignalPresent(&v), 1);
    return v;
}

int32_t Frequency() {
    int32_t f = 77;
    int32_t b = 77;
    EXPECT_EQ(MVDAB_GetFreqAndBW(&f, &b), 1);
    EXPECT_EQ(b, 1);
    return f;
}

// Seconds until signalPresent reads `value`, or -1 after `limit` seconds.
double WaitForPresent(int32_t value, double limit = 4.0) {
    const Clock::time_point start = Clock::now();
    while (SecondsSince(start) < limit) {
        if (Present() == value) return SecondsSince(start);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1.0;
}

// Closes the receiver; closing has to be quick even with threads waiting.
void CloseQuickly() {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_LT(SecondsSince(start), 2.0) << "the longest wait of a thread is 1 s";
}

// Nothing of what went before is left behind: a clean open tunes and, with
// `search`, samples reach the search on noise.
void ExpectCleanOpenWorks(bool search = true) {
    ASSERT_EQ(OpenWith(), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    if (search) {
        EXPECT_GE(WaitForPresent(-1), 0.0);
    }
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
}

using Getter = int32_t (*)(int32_t*);
constexpr Getter kGetters[] = {MVDAB_GetSignalPresent, MVDAB_GetSignalLock, MVDAB_GetSignalQuality,
                               MVDAB_GetSignalStrength, MVDAB_GetTunerRange};

// Everything that needs an open device, with the answers of a closed one.
void ExpectClosedAnswers() {
    int32_t v = 77;
    int32_t w = 77;
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0);
    for (Getter get : kGetters) EXPECT_EQ(get(&v), 0);
    EXPECT_EQ(MVDAB_GetFreqAndBW(&v, &w), 0);
    EXPECT_EQ(v, 77);
    EXPECT_EQ(w, 77);
    // The debug switch answers in every state; the line waits for a device.
    for (int32_t value : {1, 7, 0}) EXPECT_EQ(MVDAB_DebugCMD(12, &value), 1);
    EXPECT_EQ(MVDAB_AddServiceCom(0, 1, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(MVDAB_DelServiceCom(0, 1, 0), 4);
    EXPECT_EQ(MVDAB_ChangeSCOrg(0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 5), 0);
}

void Fic(uint8_t*, int32_t, int32_t) {}
void Packet(uint8_t*, int32_t, int32_t, int32_t) {}

// Runs first, before anything in the process has opened the device.
TEST(ApiBeforeOpen, EverythingFailsButCallbacksCanBeSet) {
    ExpectClosedAnswers();
    ExpectClosedAnswers();  // twice: the first round changed nothing
    // Callbacks can be set while closed, but not to null.
    for (auto set : {MVDAB_SetFICCallBack, MVDAB_SetMWFICCallBack, MVDAB_SetMSCCallBack, MVDAB_SetStreamDataCallBack}) {
        EXPECT_EQ(set(nullptr), 0);
        EXPECT_EQ(set(Fic), 1);
    }
    EXPECT_EQ(MVDAB_SetPacketCallBack(nullptr), 0);
    EXPECT_EQ(MVDAB_SetPacketCallBack(Packet), 1);
}

class Api : public ::testing::Test {
protected:
    void SetUp() override {
        if (OpenWith() != 1) GTEST_SKIP() << "emulated device not available";
        MVDAB_CloseDevice();
    }
    void TearDown() override {
        MVDAB_CloseDevice();
        unsetenv("MVC900_FAULT");
    }
};

// Faults of a running receiver; a clean open must work afterwards.
class ApiDeviceFaults : public Api {
protected:
    void TearDown() override {
        Api::TearDown();
        if (!IsSkipped()) ExpectCleanOpenWorks();
    }
};

TEST_F(Api, NullArgumentsWhileOpenAndEverythingAfterCloseFail) {
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    for (Getter get : kGetters) EXPECT_EQ(get(nullptr), 0);
    int32_t v = 0;
    EXPECT_EQ(MVDAB_GetFreqAndBW(nullptr, &v), 0);
    EXPECT_EQ(MVDAB_GetFreqAndBW(&v, nullptr), 0);
    EXPECT_EQ(MVDAB_DebugCMD(12, nullptr), 0);
    for (int32_t value : {1, 7, 0}) EXPECT_EQ(MVDAB_DebugCMD(12, &value), 1);
    EXPECT_EQ(MVDAB_DebugCMD(1, &v), 0);
    EXPECT_EQ(MVDAB_DebugCMD(-5, &v), 0);
    // Services need a signal; on noise every add is refused.
    EXPECT_EQ(MVDAB_AddServiceCom(0, 1, 0, 0, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(MVDAB_AddServiceCom(3, 1, -5, 1, 0, 7, 30000, 0, 0), 0);
    EXPECT_EQ(MVDAB_DelServiceCom(0, 1, 0), 4);
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    ExpectClosedAnswers();
}

TEST_F(Api, RightAfterOpenNothingIsDecided) {
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    int32_t v = 77;
    EXPECT_EQ(Present(), 0);
    EXPECT_EQ(MVDAB_GetSignalLock(&v), 0);
    EXPECT_EQ(v, 77);
    EXPECT_EQ(MVDAB_GetSignalQuality(&v), 1);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(Frequency(), 0);
    EXPECT_EQ(MVDAB_Start(), 1) << "samples already flow";
    EXPECT_EQ(MVDAB_OpenDevice(), 0) << "a second open is refused";
    EXPECT_EQ(Present(), 0) << "and changed nothing";
}

TEST_F(Api, NoiseGivesNoSignalWithinSecondsKeepsSearchingAndClosesQuickly) {
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_EQ(Frequency(), 227360);
    // 7 IqFrames of search take 411 ms of samples; about a second with the
    // start of the stream. The bound is loose for loaded or sanitized runs.
    const double decided = WaitForPresent(-1);
    ASSERT_GE(decided, 0.0) << "signalPresent never reached -1";
    EXPECT_LT(decided, 3.0);
    int32_t locked = 77;
    EXPECT_EQ(MVDAB_GetSignalLock(&locked), 1);
    EXPECT_EQ(locked, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_EQ(Present(), -1) << "it keeps searching";
    CloseQuickly();
    EXPECT_EQ(MVDAB_CloseDevice(), 1) << "a second close is harmless";
}

TEST_F(Api, StopAndStart) {
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    ASSERT_GE(WaitForPresent(-1), 0.0);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(Frequency(), 0);
    EXPECT_EQ(MVDAB_Start(), 1);
    EXPECT_EQ(Present(), 0) << "start resets the status";
    // Tuning after a stop brings the samples back by itself.
    EXPECT_EQ(MVDAB_Stop(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_GE(WaitForPresent(-1), 0.0);
}

TEST_F(Api, EveryFailingStepOfOpenLeavesTheProcessAbleToOpen) {
    const std::pair<const char*, int32_t> cases[] = {
        {"no-device", 2},            // the device library finds no device
        {"event", 0},                // streaming can't start
        {"tuner-type", 0},           // the tuner type can't be read
        {"demod-write=1:3E", 0},     // a register write of the set-up fails
        {"demod-read=1:01", 0},      // the read of the soft reset fails
        {"demod-write-after=5", 0},  // writes fail part-way through the set-up
    };
    for (const auto& [fault, result] : cases) {
        SCOPED_TRACE(fault);
        EXPECT_EQ(OpenWith(fault), result);
        int32_t v = 77;
        EXPECT_EQ(MVDAB_GetSignalPresent(&v), 0) << "the receiver is closed";
        EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0);
        EXPECT_EQ(MVDAB_CloseDevice(), 1);
        ExpectCleanOpenWorks(false);
    }
    // A source that can't be played is no device either.
    UseDevice("file:/nonexistent/recording.u8");
    EXPECT_EQ(MVDAB_OpenDevice(), 2);
    ExpectCleanOpenWorks();
}

TEST_F(ApiDeviceFaults, FailedTuningKeepsOrForgetsTheFrequency) {
    // The tuner update fails on the second call: the first tuning stands,
    // the second leaves the frequency unknown (-1), so every later call tunes.
    ASSERT_EQ(OpenWith("update-after=1"), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_EQ(Frequency(), 227360);
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0);
    EXPECT_EQ(Frequency(), -1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0);
    MVDAB_CloseDevice();
    // A refused frequency leaves the old tuning as it was.
    ASSERT_EQ(OpenWith("set-frequency"), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0);
    EXPECT_EQ(Frequency(), 0);
    MVDAB_CloseDevice();
    // The reception line is best effort: a failing system register doesn't fail a tuning.
    ASSERT_EQ(OpenWith("sys-write=01,sys-read=03"), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_GE(WaitForPresent(-1), 0.0);
}

TEST_F(ApiDeviceFaults, StartAndStopFailures) {
    // Streaming can be registered once only: open uses it, a start after a stop fails.
    ASSERT_EQ(OpenWith("event-after=1"), 1);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    EXPECT_EQ(MVDAB_Start(), 0) << "nothing was registered, so it tries again";
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0) << "tuning needs samples to flow";
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    // The device refuses to stop streaming: the receiver goes on running.
    ASSERT_EQ(OpenWith("release-event"), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_EQ(MVDAB_Stop(), 0);
    EXPECT_GE(WaitForPresent(-1), 0.0) << "still searching";
    EXPECT_EQ(MVDAB_Start(), 1) << "samples still flow";
    CloseQuickly();
    // A failing release of the device is not the host's concern.
    ASSERT_EQ(OpenWith("release"), 1);
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
}

TEST_F(ApiDeviceFaults, StreamThatStopsLeavesTheReceiverUndecidedAndClosable) {
    // Two IqFrames and a bit, then nothing: too little for the search to give up.
    ASSERT_EQ(OpenWith("stream-stop=500000"), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(Present(), 0);
    int32_t locked = 77;
    EXPECT_EQ(MVDAB_GetSignalLock(&locked), 0) << "not known";
    CloseQuickly();
}

}  // namespace
