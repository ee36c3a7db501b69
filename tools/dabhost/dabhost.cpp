// dabhost: opens the receiver, tunes one frequency, shows how acquisition
// progresses, and closes again.
//
// One status line per update: elapsed time, whether a DAB signal was found,
// lock, quality, and how many FIC frames arrived with how many good FIBs. A
// summary at the end gives the time to the first decision, the time the
// close took and the CPU time used as a share of real time.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include <sys/resource.h>

#include "host_options.h"
#include "mvxdab.h"

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int64_t> ficFrames{0};  // FIC callbacks so far
std::atomic<int64_t> ficGoodFibs{0};
std::atomic<int64_t> ficFibs{0};
volatile std::sig_atomic_t interrupted = 0;

void OnFic(uint8_t*, int32_t length, int32_t flags) {
    const int32_t fibs = length / 32;
    int32_t good = 0;
    for (int32_t i = 0; i < fibs && i < 12; ++i) good += (flags >> (15 - i)) & 1;
    ficFrames.fetch_add(1, std::memory_order_relaxed);
    ficFibs.fetch_add(fibs, std::memory_order_relaxed);
    ficGoodFibs.fetch_add(good, std::memory_order_relaxed);
}

void OnInterrupt(int) { interrupted = 1; }

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

const char* PresentText(int32_t present) {
    switch (present) {
        case -1: return "no DAB signal";
        case 1: return "DAB signal found";
        default: return "searching";
    }
}

// The part of the status line that is compared between polls.
std::string Status() {
    int32_t present = 0;
    int32_t locked = 0;
    int32_t quality = 0;
    int32_t frequency = 0;
    int32_t bandwidth = 0;
    MVDAB_GetSignalPresent(&present);
    const int32_t lockKnown = MVDAB_GetSignalLock(&locked);
    MVDAB_GetSignalQuality(&quality);
    MVDAB_GetFreqAndBW(&frequency, &bandwidth);
    char line[200];
    std::snprintf(line, sizeof line, "%d kHz | %-16s | lock %-3s | quality %3d | FIC %lld frames, %lld/%lld FIBs good",
                  frequency, PresentText(present), lockKnown ? (locked ? "yes" : "no") : "?", quality,
                  static_cast<long long>(ficFrames.load()), static_cast<long long>(ficGoodFibs.load()),
                  static_cast<long long>(ficFibs.load()));
    return line;
}

const char* OpenFailure(int32_t result) {
    return result == 2 ? "no device (the device library found none)"
                       : "the device library could not be loaded or the device failed";
}

}  // namespace

int main(int argc, char** argv) {
    HostOptions options;
    std::string error;
    if (!ParseHostOptions(argc, argv, &options, &error)) {
        std::fprintf(stderr, "dabhost: %s\n%s", error.c_str(), HostUsage());
        return 2;
    }
    if (options.help) {
        std::fputs(HostUsage(), stdout);
        return 0;
    }
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
    MVDAB_SetFICCallBack(OnFic);

    const int32_t opened = MVDAB_OpenDevice();
    if (opened != 1) {
        std::fprintf(stderr, "dabhost: open failed: %s\n", OpenFailure(opened));
        return 1;
    }
    const Clock::time_point start = Clock::now();
    const double cpuStart = CpuSeconds();
    if (MVDAB_SetFreqAndBW(options.frequencyKhz) != 1) {
        std::fprintf(stderr, "dabhost: tuning %d kHz failed\n", options.frequencyKhz);
    }
    std::printf("dabhost: tuned %d kHz, watching for %.1f s\n", options.frequencyKhz, options.durationSeconds);

    std::string last;
    double lastPrinted = -1.0;
    double firstDecision = -1.0;
    double firstLock = -1.0;
    while (!interrupted) {
        const double elapsed = Seconds(Clock::now() - start);
        if (elapsed >= options.durationSeconds) break;
        int32_t present = 0;
        int32_t locked = 0;
        MVDAB_GetSignalPresent(&present);
        if (present != 0 && firstDecision < 0.0) firstDecision = elapsed;
        if (MVDAB_GetSignalLock(&locked) == 1 && locked == 1 && firstLock < 0.0) firstLock = elapsed;
        const std::string status = Status();
        // A line when something changed, and at least once a second.
        if (!options.quiet && (status != last || elapsed - lastPrinted >= 1.0)) {
            std::printf("%7.2f s  %s\n", elapsed, status.c_str());
            std::fflush(stdout);
            last = status;
            lastPrinted = elapsed;
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(options.intervalSeconds));
    }

    const double watched = Seconds(Clock::now() - start);
    const double cpu = CpuSeconds() - cpuStart;
    const std::string final = Status();
    const Clock::time_point closeStart = Clock::now();
    MVDAB_CloseDevice();
    const double closeSeconds = Seconds(Clock::now() - closeStart);

    std::printf("dabhost: %s\n", final.c_str());
    if (firstDecision >= 0.0) {
        std::printf("dabhost: first decision after %.2f s\n", firstDecision);
    } else {
        std::printf("dabhost: no decision within %.1f s\n", watched);
    }
    if (firstLock >= 0.0) std::printf("dabhost: lock after %.2f s\n", firstLock);
    std::printf("dabhost: CPU %.2f s in %.2f s (%.1f%% of real time); close took %.0f ms\n", cpu, watched,
                watched > 0.0 ? 100.0 * cpu / watched : 0.0, closeSeconds * 1000.0);
    return 0;
}
