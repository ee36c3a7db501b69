// The receiver on a generated ensemble played by the emulated device: it
// finds the signal, locks, and delivers FIBs with good CRCs in the mode sent.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "mvxdab.h"

namespace {

std::atomic<int32_t> ficFrames{0};
std::atomic<int32_t> goodFibs{0};
std::atomic<int32_t> lastMode{0};

void CountFic(uint8_t*, int32_t length, int32_t flags) {
    ficFrames++;
    lastMode = (flags & 7) - 1;
    for (int32_t fib = 0; fib < length / 32; ++fib) goodFibs += (flags >> (15 - fib)) & 1;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

TEST(ApiGeneratedSignal, LocksAndDeliversCleanFibsInEveryTestedMode) {
    // Sanitized builds run several times slower than real time; the device
    // then plays its signal slowed down, which the receiver can't tell.
    setenv("MVC900_SPEED", kSanitized ? "0.2" : "1", 1);
    unsetenv("MVC900_FAULT");
    unsetenv("MVC900_CLOCK_PPM");
    const auto limit = std::chrono::seconds(kSanitized ? 60 : 10);
    ASSERT_EQ(MVDAB_SetFICCallBack(CountFic), 1);
    for (int32_t mode : {1, 2}) {
        const std::string source = "generated:preset=default,snr=20,mode=" + std::to_string(mode);
        setenv("MVC900_SOURCE", source.c_str(), 1);
        if (MVDAB_OpenDevice() != 1) GTEST_SKIP() << "emulated device or generator not available";
        ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
        ficFrames = 0;
        goodFibs = 0;
        const auto end = std::chrono::steady_clock::now() + limit;
        bool locked = false;
        for (int32_t v = 0; !locked && std::chrono::steady_clock::now() < end;) {
            locked = MVDAB_GetSignalLock(&v) == 1 && v == 1 && ficFrames >= 5;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        int32_t present = 0;
        MVDAB_GetSignalPresent(&present);
        MVDAB_CloseDevice();
        EXPECT_TRUE(locked) << "mode " << mode << ": no lock in " << limit.count() << " s";
        EXPECT_EQ(present, 1);
        EXPECT_EQ(lastMode.load(), mode - 1);
        EXPECT_GE(goodFibs.load(), ficFrames.load() * 3 / 2) << "mostly good FIBs";
    }
    unsetenv("MVC900_SPEED");
    unsetenv("MVC900_SOURCE");
}

}  // namespace
