// The receiver on the SoapySDR device library and the test module, through
// the public interface: it locks on the generated ensemble, its sample-clock
// correction reaches the module's frequency correction and cancels the
// module's clock error, a sub-channel's bytes are the bytes sent, and after
// the device is unplugged tuning fails, a close completes and a new open
// brings reception back.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "generator/ensemble_description.h"
#include "generator/multiplex.h"
#include "mvxdab.h"
#include "tests/soapy/soapy_test_support.h"
#include "tests/support/generated_subchannels.h"

namespace {

using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::atomic<int32_t> fibs{0};
std::atomic<int32_t> goodFibs{0};

void OnFic(uint8_t*, int32_t length, int32_t flags) {
    for (int32_t i = 0; i < length / 32; ++i) {
        ++fibs;
        if ((flags >> (15 - i)) & 1) ++goodFibs;
    }
}

std::mutex mscLock;
std::vector<uint8_t> received;  // MSC bytes of the selected sub-channel

void OnMsc(uint8_t* bytes, int32_t length, int32_t) {
    std::lock_guard<std::mutex> hold(mscLock);
    received.insert(received.end(), bytes, bytes + length);
}

// Waits until the module has played `seconds` more of its signal (a
// sanitized build may generate it slower than its pace).
void PlayFor(double seconds) {
    const int64_t until = ReadModuleState().samples + int64_t(seconds * 2048000.0);
    const auto end = Clock::now() + std::chrono::seconds(120);
    while (Clock::now() < end && ReadModuleState().samples < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// Waits until the receiver reports lock; false after `seconds` of signal
// played at `speed` times real time.
bool LocksWithin(double seconds, double speed) {
    const auto end = Clock::now() + std::chrono::duration<double>(seconds / speed);
    while (Clock::now() < end) {
        int32_t locked = 0;
        if (MVDAB_GetSignalLock(&locked) == 1 && locked == 1) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

class SoapyReceiverTest : public testing::Test {
protected:
    void SetUp() override {
        ClearTestEnvironment();
        setenv("MVDAB_DEVICE_LIBRARY", "libMVC900ACCESS_soapy.so", 1);
        setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
        setenv("MVXTEST_SOURCE", "generated:preset=default,snr=25", 1);
        ASSERT_EQ(MVDAB_SetFICCallBack(OnFic), 1);
        ASSERT_EQ(MVDAB_SetMSCCallBack(OnMsc), 1);
        // Faster than real time, but paced, so that the receiver keeps up;
        // sanitized builds play the signal slowed down.
        setenv("MVXTEST_SPEED", kSanitized ? "0.3" : "3", 1);
        speed_ = kSanitized ? 0.3 : 3.0;
    }
    void TearDown() override {
        MVDAB_CloseDevice();
        ClearTestEnvironment();
        unsetenv("MVDAB_DEVICE_LIBRARY");
    }
    // The module's frequency correction comes to cancel its 40 ppm clock
    // error, and the FIC stays clean with it.
    void ExpectClockCorrectionReachesTheModule();
    // A second of signal brings FIBs, all with a good CRC.
    void ExpectCleanFic() {
        fibs = goodFibs = 0;
        PlayFor(1.0);
        EXPECT_GT(fibs.load(), 30);
        EXPECT_EQ(goodFibs.load(), fibs.load());
    }
    double speed_ = 1.0;  // pace of the module, multiple of real time
};

TEST_F(SoapyReceiverTest, LocksCorrectsItsClockThroughTheDeviceAndDeliversTheBytesSent) {
    // The module's converter runs 40 ppm fast; the receiver measures that and
    // writes -40 ppm into the sample-rate register, which the device library
    // hands to the module as a reference error of +40 ppm.
    // (Sanitized builds, too slow for the clock loop to settle, check
    // reception only.)
    setenv("MVXTEST_CLOCK_PPM", kSanitized ? "0" : "40", 1);
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    ASSERT_TRUE(LocksWithin(15.0, speed_));
    EXPECT_EQ(ReadModuleState().frequencyHz, 227360000.0);
    ExpectCleanFic();
    if (!kSanitized) {
        ExpectClockCorrectionReachesTheModule();
        if (HasFatalFailure()) return;
    }

    // The MP2 sub-channel (id 2, UEP) of the generated ensemble, as the host
    // learns its parameters from the FIC.
    gen::EnsembleDescription d;
    std::string error;
    ASSERT_TRUE(gen::MakePresetDescription("default", gen::PresetOptions{}, &d, &error)) << error;
    std::unique_ptr<gen::Multiplex> multiplex = gen::Multiplex::Make(d, &error);
    ASSERT_NE(multiplex, nullptr) << error;
    d = multiplex->Description();
    mvdab::test::SubChannelParameters p;
    ASSERT_TRUE(mvdab::test::DescribeSubChannel(d, 2, false, &p));
    {
        std::lock_guard<std::mutex> hold(mscLock);
        received.clear();
    }
    ASSERT_EQ(MVDAB_AddServiceCom(0, 2, p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel, p.size, 0, 0), 1);
    PlayFor(3.0);
    ASSERT_EQ(MVDAB_DelServiceCom(0, 2, 0), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    // One stretch of what was sent: nothing lost, doubled or altered.
    std::lock_guard<std::mutex> hold(mscLock);
    const size_t logicalFrame = 3 * 128;  // bytes of 24 ms at 128 kbit/s
    EXPECT_GE(received.size(), 40 * logicalFrame) << "less than a second of the sub-channel";
    ASSERT_GE(received.size(), size_t(64));
    const int64_t played = ReadModuleState().samples / 49152 + 64;  // 24 ms are 49,152 samples
    const std::vector<uint8_t> sent = mvdab::test::SentPayload(d, 2, played);
    const auto at = std::search(sent.begin(), sent.end(), received.begin(), received.begin() + 64);
    ASSERT_NE(at, sent.end()) << "the first bytes delivered were never sent";
    ASSERT_LE(size_t(at - sent.begin()) + received.size(), sent.size());
    EXPECT_TRUE(std::equal(received.begin(), received.end(), at));
    std::printf("    %zu bytes of sub-channel 2 compared with what was sent\n", received.size());
}

void SoapyReceiverTest::ExpectClockCorrectionReachesTheModule() {
    double correction = 0.0;
    // Up to 30 s of signal, however long a busy machine takes to play it.
    const int64_t until = ReadModuleState().samples + int64_t(30.0 * 2048000.0);
    const auto end = Clock::now() + std::chrono::seconds(120);
    while (Clock::now() < end && ReadModuleState().samples < until &&
           std::fabs((correction = ReadModuleState().correctionPpm) - 40.0) > 2.0)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::printf("    module's frequency correction %+.2f ppm for a clock error of +40 ppm\n", correction);
    EXPECT_NEAR(correction, 40.0, 2.0);
    // With the correction in force, the FIC stays clean.
    ExpectCleanFic();
}

TEST_F(SoapyReceiverTest, UnpluggedDeviceFailsTuningAndANewOpenRecovers) {
    setenv("MVXTEST_UNPLUG_MS", "3000", 1);
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_TRUE(LocksWithin(2.5, speed_));
    // Until the module has played its 3 s and failed.
    PlayFor(3.0 - double(ReadModuleState().samples) / 2048000.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // The device is gone: a new tuning fails, and so does a start after a stop.
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    const auto closing = Clock::now();
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_LT(Clock::now() - closing, std::chrono::seconds(3));

    // Plugged in again.
    unsetenv("MVXTEST_UNPLUG_MS");
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_TRUE(LocksWithin(15.0, speed_));
}

}  // namespace

namespace {

// MVDAB_DEVICE_LIBRARY chooses the device library by file name or path; one
// that isn't there fails the open instead of falling back to the default.
TEST_F(SoapyReceiverTest, TheChosenDeviceLibraryIsLoadedOrTheOpenFails) {
    setenv("MVDAB_DEVICE_LIBRARY", "libMVC900ACCESS_none.so", 1);
    EXPECT_EQ(MVDAB_OpenDevice(), 0);
    // The SoapySDR library by path, with no such device: "no device" (the
    // emulated device would have opened).
    const char* dir = std::getenv("MVDAB_LIB_DIR");
    const std::string path = std::string(dir != nullptr ? dir : ".") + "/libMVC900ACCESS_soapy.so";
    setenv("MVDAB_DEVICE_LIBRARY", path.c_str(), 1);
    setenv("MVSOAPY_DEVICE", "driver=none-such", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(MVDAB_OpenDevice(), 2);
    testing::internal::GetCapturedStderr();
    setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
    EXPECT_EQ(MVDAB_OpenDevice(), 1);
}

}  // namespace
