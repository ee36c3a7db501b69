// The lifecycle under concurrent host threads, through the public interface
// on the emulated device: opens and closes racing each other; a thread that
// opens and closes over and over while others call each function that
// reaches the device or the receiver's records; calls made from inside a
// callback. After every round the process holds as many threads, file
// descriptors and heap bytes as before it, and every result is one the
// header documents. MVDAB_LONG_TESTS=1 runs 1,000 rounds instead of a few
// dozen.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mvxdab.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// From the sanitizers' allocator interface (GCC ships no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

namespace {

// mallinfo2 sees only the main arena: with one arena for the whole process
// it counts the receiver's threads' allocations too. Set before main, while
// the process has no other thread.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
[[maybe_unused]] const int kOneArena = mallopt(M_ARENA_MAX, 1);
#endif

int32_t Rounds(int32_t quick) {
    const char* v = std::getenv("MVDAB_LONG_TESTS");
    return v != nullptr && std::string(v) == "1" ? 1000 : quick;
}

int32_t CountEntries(const char* directory) {
    int32_t n = 0;
    if (DIR* d = opendir(directory)) {
        while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

struct Resources {
    int32_t threads;
    int32_t descriptors;
    size_t heapBytes;
};

// The C library keeps a little after a free: the blocks in its per-thread
// allocation caches, and the thread records of the stacks it caches for
// the next thread. Far below what a leaked receiver would hold: 3.6 MB for
// an open, 0.7 MB for the capture buffers alone.
constexpr size_t kAllocatorCacheSlack = 64 * 1024;
// What the system loader keeps of each load and unload of the device
// library (its exit-handler records), measured at 560 bytes.
constexpr size_t kLoaderSlackPerRound = 1024;

Resources Snapshot() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const size_t heap = __sanitizer_get_current_allocated_bytes();
#else
    const size_t heap = mallinfo2().uordblks;
#endif
    return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"), heap};
}

std::string Show(const Resources& r) {
    return std::to_string(r.threads) + " threads, " + std::to_string(r.descriptors) + " descriptors, " +
           std::to_string(r.heapBytes) + " heap bytes";
}

void UseNoise() {
    setenv("MVC900_SOURCE", "noise", 1);
    unsetenv("MVC900_FAULT");
    unsetenv("MVC900_SPEED");
}

class ApiLifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        UseNoise();
        if (MVDAB_OpenDevice() != 1) GTEST_SKIP() << "emulated device not available";
        MVDAB_CloseDevice();
        // One more cycle with tuning, so that whatever the process keeps after
        // a first use (loader and allocator caches) is there before counting.
        MVDAB_OpenDevice();
        MVDAB_SetFreqAndBW(227360);
        MVDAB_CloseDevice();
        start_ = Snapshot();
    }
    void TearDown() override { MVDAB_CloseDevice(); }

    // Everything the rounds created is gone again: a leaked open alone
    // would hold 3.6 MB and at least three threads and descriptors.
    void ExpectBackAt(const Resources& start, int32_t round, size_t loaderSlack = 0) {
        const Resources now = Snapshot();
        const std::string where = "round " + std::to_string(round) + ": " + Show(now) + " against " + Show(start);
        EXPECT_EQ(now.threads, start.threads) << where;
        EXPECT_EQ(now.descriptors, start.descriptors) << where;
        EXPECT_LE(now.heapBytes, start.heapBytes + kAllocatorCacheSlack + loaderSlack) << where;
    }
    void ExpectBackAtStart(int32_t round, size_t loaderSlack = 0) { ExpectBackAt(start_, round, loaderSlack); }

    Resources start_{};
};

// Opens and closes on `threads` threads at once, in lockstep and free-running.
// `afterRound` runs on the first racer between the lockstep rounds, with
// round -1 before the first, and once more after the free run.
void RaceOpenAndClose(int32_t threads, int32_t rounds, const std::function<void(int32_t)>& afterRound) {
    std::atomic<int32_t> opened{0};
    std::atomic<int32_t> refused{0};
    std::atomic<int32_t> badResults{0};
    std::barrier sync(threads);
    std::vector<std::thread> racers;
    for (int32_t t = 0; t < threads; ++t) {
        racers.emplace_back([&, t] {
            sync.arrive_and_wait();
            if (t == 0) afterRound(-1);
            sync.arrive_and_wait();
            for (int32_t r = 0; r < rounds; ++r) {
                // Lockstep: all open, then all close.
                const int32_t o = MVDAB_OpenDevice();
                (o == 1 ? opened : o == 0 ? refused : badResults)++;
                sync.arrive_and_wait();
                if (MVDAB_CloseDevice() != 1) ++badResults;
                sync.arrive_and_wait();
                if (t == 0) afterRound(r);
                sync.arrive_and_wait();
            }
        });
    }
    for (std::thread& t : racers) t.join();
    EXPECT_EQ(opened.load(), rounds) << "exactly one open of each round succeeds";
    EXPECT_EQ(refused.load(), rounds * (threads - 1));
    EXPECT_EQ(badResults.load(), 0);

    // Free-running: every thread opens and closes as fast as it can.
    racers.clear();
    for (int32_t t = 0; t < threads; ++t) {
        racers.emplace_back([&] {
            for (int32_t r = 0; r < rounds; ++r) {
                const int32_t o = MVDAB_OpenDevice();
                if (o != 0 && o != 1) ++badResults;
                if (MVDAB_CloseDevice() != 1) ++badResults;
            }
        });
    }
    for (std::thread& t : racers) t.join();
    EXPECT_EQ(badResults.load(), 0);
    afterRound(rounds);
}

TEST_F(ApiLifecycle, OpensAndClosesRacingOnTwoAndFourThreads) {
    // The test holds the device library loaded, so that each close only
    // lowers its count: the heap then counts the receiver's own bytes alone.
    const char* dir = std::getenv("MVDAB_LIB_DIR");
    void* pinned = dir != nullptr ? dlopen((std::string(dir) + "/libMVC900ACCESS.so").c_str(), RTLD_NOW) : nullptr;
    if (pinned == nullptr) GTEST_SKIP() << "MVDAB_LIB_DIR must name the device library's folder";
    start_ = Snapshot();
    for (int32_t threads : {2, 4}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        const int32_t rounds = Rounds(kSanitized ? 6 : 40);
        Resources withRacers{};
        RaceOpenAndClose(threads, rounds, [&](int32_t r) {
            if (r < 0) {
                withRacers = Snapshot();
            } else if (r < rounds) {
                ExpectBackAt(withRacers, r);
            } else {
                ExpectBackAtStart(r);
            }
        });
    }
    dlclose(pinned);
}

// One call of a function that reaches the device or the receiver's records,
// and the results the header allows for it in any state.
struct DeviceCall {
    const char* name;
    std::function<int32_t(int32_t)> call;  // argument: a counter, to vary the call
    std::set<int32_t> allowed;
};

int32_t Debug(int32_t i) {
    int32_t value = i & 1;
    return MVDAB_DebugCMD(12, &value);
}

const DeviceCall kDeviceCalls[] = {
    {"SetFreqAndBW", [](int32_t i) { return MVDAB_SetFreqAndBW(i & 1 ? 227360 : 222064); }, {0, 1}},
    {"Stop", [](int32_t) { return MVDAB_Stop(); }, {1}},
    {"Start", [](int32_t) { return MVDAB_Start(); }, {0, 1}},
    {"DebugCMD 12", Debug, {1}},
    // On noise no signal is found: adds and changes are refused, nothing is there to delete.
    {"AddServiceCom", [](int32_t) { return MVDAB_AddServiceCom(0, 2, 0, 1, 0, 2, 36, 0, 0); }, {0}},
    {"DelServiceCom", [](int32_t) { return MVDAB_DelServiceCom(0, 2, 0); }, {0, 4}},  // 0: retune pending
    {"ChangeSCOrg", [](int32_t) { return MVDAB_ChangeSCOrg(0, 2, 36, 1, 0, 2, 36, 0, 0, 0, 9); }, {0}},
    {"GetSignalLock", [](int32_t) { int32_t v = 0; return MVDAB_GetSignalLock(&v); }, {0, 1}},
    {"GetFreqAndBW", [](int32_t) { int32_t f = 0, b = 0; return MVDAB_GetFreqAndBW(&f, &b); }, {0, 1}},
    {"GetTunerRange", [](int32_t) { int32_t v = 0; return MVDAB_GetTunerRange(&v); }, {0, 1}},
};

TEST_F(ApiLifecycle, CallsOnOtherThreadsWhileOneThreadOpensAndCloses) {
    const int32_t rounds = Rounds(kSanitized ? 4 : 25);
    for (const DeviceCall& c : kDeviceCalls) {
        SCOPED_TRACE(c.name);
        std::atomic<bool> stop{false};
        std::atomic<int32_t> calls{0};
        std::atomic<int32_t> unexpected{0};
        std::atomic<int32_t> lastUnexpected{-1000};
        std::vector<std::thread> callers;
        for (int32_t t = 0; t < 2; ++t) {
            callers.emplace_back([&] {
                for (int32_t i = 0; !stop; ++i) {
                    const int32_t r = c.call(i);
                    ++calls;
                    if (c.allowed.count(r) == 0) {
                        ++unexpected;
                        lastUnexpected = r;
                    }
                    // Now and then give the cycler a free run at the receiver.
                    if ((i & 7) == 0) std::this_thread::yield();
                }
            });
        }
        for (int32_t r = 0; r < rounds; ++r) {
            const int32_t o = MVDAB_OpenDevice();
            EXPECT_EQ(o, 1);
            if (r & 1) MVDAB_SetFreqAndBW(227360);
            // Closes at different points of the callers' calls and of the threads' start.
            std::this_thread::sleep_for(std::chrono::microseconds(300 * (r % 7)));
            EXPECT_EQ(MVDAB_CloseDevice(), 1);
        }
        stop = true;
        for (std::thread& t : callers) t.join();
        EXPECT_EQ(unexpected.load(), 0) << "last unexpected result " << lastUnexpected.load();
        EXPECT_GT(calls.load(), rounds);
        ExpectBackAtStart(rounds, size_t(rounds) * kLoaderSlackPerRound);
        start_ = Snapshot();
    }
}

// Calls from inside a FIC callback, made once when the first FIC arrives.
struct FromCallback {
    std::atomic<bool> done{false};
    int32_t close = -1, stop = -1, open = -1, start = -1, debug = -1;
    int32_t add = -1, del = -1, tune = -1;
};
FromCallback fromCallback;
std::atomic<bool> callbackArmed{false};

void CallEverythingOnce(uint8_t*, int32_t, int32_t) {
    if (!callbackArmed.exchange(false)) return;
    FromCallback& f = fromCallback;
    f.close = MVDAB_CloseDevice();
    f.stop = MVDAB_Stop();
    f.open = MVDAB_OpenDevice();
    f.start = MVDAB_Start();
    int32_t on = 1;
    f.debug = MVDAB_DebugCMD(12, &on);
    // A FIC means that a signal was found: the service commands take requests.
    f.add = MVDAB_AddServiceCom(0, 2, 0, 1, 0, 2, 36, 0, 0);
    f.del = MVDAB_DelServiceCom(0, 2, 0);
    f.tune = MVDAB_SetFreqAndBW(227360);
    f.done = true;
}

TEST_F(ApiLifecycle, InsideACallbackCloseAndStopAreRefusedAndTheRestWorks) {
    setenv("MVC900_SOURCE", "generated:preset=default,snr=20,mode=2", 1);
    setenv("MVC900_SPEED", kSanitized ? "0.5" : "2", 1);
    ASSERT_EQ(MVDAB_SetFICCallBack(CallEverythingOnce), 1);
    callbackArmed = true;
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kSanitized ? 60 : 15);
    while (!fromCallback.done && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    callbackArmed = false;
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    UseNoise();
    ASSERT_TRUE(fromCallback.done.load()) << "no FIC within the time";
    const FromCallback& f = fromCallback;
    EXPECT_EQ(f.close, 0);
    EXPECT_EQ(f.stop, 0);
    EXPECT_EQ(f.open, 0);
    EXPECT_EQ(f.start, 1) << "samples flow";
    EXPECT_EQ(f.debug, 1);
    EXPECT_EQ(f.add, 1);
    EXPECT_EQ(f.del, 1);
    EXPECT_EQ(f.tune, 1);
}

}  // namespace
