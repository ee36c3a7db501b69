// Failures of the device, injected by the emulated device (MVC900_FAULT):
// every failing step of an open leaves the process able to open again, and
// the failures of start, stop, tuning and streaming give the documented
// answers without harming a later clean open.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "mvxdab.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

void UseDevice(const char* source, const char* fault) {
    setenv("MVC900_SOURCE", source, 1);
    if (fault != nullptr) {
        setenv("MVC900_FAULT", fault, 1);
    } else {
        unsetenv("MVC900_FAULT");
    }
}

int32_t Present() {
    int32_t v = 99;
    MVDAB_GetSignalPresent(&v);
    return v;
}

bool WaitForPresent(int32_t value, double limit) {
    const Clock::time_point start = Clock::now();
    while (SecondsSince(start) < limit) {
        if (Present() == value) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int32_t CurrentFrequency() {
    int32_t f = 77;
    int32_t b = 0;
    EXPECT_EQ(MVDAB_GetFreqAndBW(&f, &b), 1);
    return f;
}

// A clean open must work after whatever went before: nothing of a failed
// open was left behind. With `search`, samples must also reach the search
// on noise.
void ExpectCleanOpenWorks(const char* after, bool search = true) {
    UseDevice("noise", nullptr);
    ASSERT_EQ(MVDAB_OpenDevice(), 1) << "after " << after;
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 1) << "after " << after;
    if (search) EXPECT_TRUE(WaitForPresent(-1, 4.0)) << "after " << after;
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
}

class ApiDeviceFaults : public ::testing::Test {
protected:
    void SetUp() override {
        UseDevice("noise", nullptr);
        if (MVDAB_OpenDevice() != 1) GTEST_SKIP() << "emulated device not available";
        MVDAB_CloseDevice();
    }
    void TearDown() override {
        MVDAB_CloseDevice();
        unsetenv("MVC900_FAULT");
    }
};

TEST_F(ApiDeviceFaults, EveryFailingStepOfOpenLeavesTheProcessAbleToOpen) {
    struct Case {
        const char* fault;
        int32_t result;
    };
    const Case cases[] = {
        {"no-device", 2},           // the device library finds no device
        {"event", 0},               // streaming can't start
        {"tuner-type", 0},          // the tuner type can't be read
        {"demod-write=1:3E", 0},    // a register write of the set-up fails
        {"demod-read=1:01", 0},     // the read of the soft reset fails
        {"demod-write-after=5", 0}, // writes fail part-way through the set-up
    };
    for (const Case& c : cases) {
        UseDevice("noise", c.fault);
        EXPECT_EQ(MVDAB_OpenDevice(), c.result) << c.fault;
        int32_t v = 77;
        EXPECT_EQ(MVDAB_GetSignalPresent(&v), 0) << c.fault << ": the receiver is closed";
        EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0) << c.fault;
        EXPECT_EQ(MVDAB_CloseDevice(), 1) << c.fault;
        ExpectCleanOpenWorks(c.fault, false);
    }
    // A source that can't be played is no device either.
    UseDevice("file:/nonexistent/recording.u8", nullptr);
    EXPECT_EQ(MVDAB_OpenDevice(), 2);
    ExpectCleanOpenWorks("a missing file");
}

TEST_F(ApiDeviceFaults, FailedTuningKeepsOrForgetsTheFrequency) {
    // The tuner update fails on the second call: the first tuning stands,
    // the second leaves the frequency unknown (-1).
    UseDevice("noise", "update-after=1");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_EQ(CurrentFrequency(), 227360);
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0);
    EXPECT_EQ(CurrentFrequency(), -1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0) << "-1 makes every later call tune";
    MVDAB_CloseDevice();

    // A refused frequency leaves the old tuning as it was.
    UseDevice("noise", "set-frequency");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0);
    EXPECT_EQ(CurrentFrequency(), 0);
    MVDAB_CloseDevice();

    // The reception line is best effort: a failing system register doesn't fail a tuning.
    UseDevice("noise", "sys-write=01,sys-read=03");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_TRUE(WaitForPresent(-1, 4.0));
    MVDAB_CloseDevice();
    ExpectCleanOpenWorks("tuning faults");
}

TEST_F(ApiDeviceFaults, StartAndStopFailures) {
    // Streaming can be registered once only: open uses it, a start after a stop fails.
    UseDevice("noise", "event-after=1");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    EXPECT_EQ(MVDAB_Start(), 0) << "nothing was registered, so it tries again";
    EXPECT_EQ(MVDAB_SetFreqAndBW(227360), 0) << "tuning needs samples to flow";
    EXPECT_EQ(MVDAB_CloseDevice(), 1);

    // The device refuses to stop streaming: the receiver goes on running.
    UseDevice("noise", "release-event");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_EQ(MVDAB_Stop(), 0);
    EXPECT_TRUE(WaitForPresent(-1, 4.0)) << "still searching";
    EXPECT_EQ(MVDAB_Start(), 1) << "samples still flow";
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_LT(SecondsSince(start), 2.0);

    // A failing release of the device is not the host's concern.
    UseDevice("noise", "release");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    ExpectCleanOpenWorks("start and stop faults");
}

TEST_F(ApiDeviceFaults, StreamThatStopsLeavesTheReceiverUndecidedAndClosable) {
    // Two IqFrames and a bit, then nothing: too little for the search to give up.
    UseDevice("noise", "stream-stop=500000");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(Present(), 0);
    int32_t locked = 77;
    EXPECT_EQ(MVDAB_GetSignalLock(&locked), 0) << "not known";
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    const double closing = SecondsSince(start);
    EXPECT_LT(closing, 2.0);
    RecordProperty("close_seconds_without_data", std::to_string(closing));
    ExpectCleanOpenWorks("a stopped stream");
}

}  // namespace
