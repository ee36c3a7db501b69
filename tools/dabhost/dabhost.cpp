// dabhost: a host program of the receiver library. It opens the device,
// tunes a frequency, shows progress while the receiver searches and locks,
// reads the FIC through the callback, and prints the ensemble once it is
// complete (or what is known of it at the timeout). With --scan it does the
// same over a list of frequencies and reports which hold an ensemble.
//
// Only the public header and the host's own FIC parser are used, as in any
// host. Progress lines go to stderr, results to stdout.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "ensemble_wait.h"
#include "fic_queue.h"
#include "host_options.h"
#include "host_report.h"
#include "mvxdab.h"
#include "tools/ficparse/fic_parser.h"

namespace {

using Clock = std::chrono::steady_clock;

FicQueue ficQueue;  // filled by the FIC callback on the receiver's thread
volatile std::sig_atomic_t interrupted = 0;

// Runs on the demodulation thread: a copy under a short lock, nothing more.
void OnFic(uint8_t* bytes, int32_t length, int32_t flags) { ficQueue.Push(bytes, length, flags); }

void OnInterrupt(int) { interrupted = 1; }

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

StatusSnapshot ReadStatus(double elapsed) {
    StatusSnapshot s;
    s.elapsedSeconds = elapsed;
    int32_t bandwidth = 0;
    int32_t locked = 0;
    MVDAB_GetSignalPresent(&s.present);
    s.lockKnown = MVDAB_GetSignalLock(&locked) == 1;
    s.locked = s.lockKnown && locked == 1;
    MVDAB_GetSignalQuality(&s.quality);
    MVDAB_GetFreqAndBW(&s.frequencyKhz, &bandwidth);
    s.fic = ficQueue.counts();
    return s;
}

// Prints a status line when the signal state changes (if `onChange`), and
// otherwise once a second.
class ProgressPrinter {
public:
    ProgressPrinter(bool quiet, bool onChange) : quiet_(quiet), onChange_(onChange) {}
    void Show(const StatusSnapshot& s) {
        if (quiet_) return;
        const int key = (s.present + 1) * 1000 + (s.lockKnown ? 100 + 10 * s.locked : 0) + s.quality / 10;
        const bool changed = onChange_ && key != key_;
        const bool due = s.elapsedSeconds - lastPrinted_ >= 1.0;
        if (!changed && !due) return;
        std::fprintf(stderr, "%s\n", StatusLine(s).c_str());
        key_ = key;
        lastPrinted_ = s.elapsedSeconds;
    }

private:
    bool quiet_;
    bool onChange_;
    int key_ = -1;
    double lastPrinted_ = 0.0;
};

void Sleep(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

// Tunes one frequency and waits for a decision by `rule`. False when the
// receiver refused the tuning.
bool WatchFrequency(int32_t frequencyKhz, const WaitRule& rule, const HostOptions& options, bool scanning,
                    ficparse::FicParser& parser, TunedResult* result) {
    if (MVDAB_SetFreqAndBW(frequencyKhz) != 1) {
        std::fprintf(stderr, "dabhost: tuning %s failed\n", FrequencyText(frequencyKhz).c_str());
        return false;
    }
    ficQueue.Clear();
    parser.Reset();
    const Clock::time_point start = Clock::now();
    EnsembleWait wait(rule);
    ProgressPrinter progress(options.quiet, !scanning);
    WaitOutcome outcome = WaitOutcome::Waiting;
    StatusSnapshot status;
    uint64_t parsedFrames = 0;
    while (outcome == WaitOutcome::Waiting) {
        const double elapsed = Seconds(Clock::now() - start);
        status = ReadStatus(elapsed);
        // Until the receiver has found the new signal's frame structure no
        // FIC can come from it; what arrives is the end of the previous
        // frequency's last frame step, and must not count for this one.
        if (status.present == 1)
            parsedFrames += uint64_t(ficQueue.Drain(parser));
        else
            ficQueue.Discard();
        WaitPoll poll;
        poll.elapsedSeconds = elapsed;
        poll.present = status.present;
        poll.lockKnown = status.lockKnown;
        poll.locked = status.locked;
        poll.ficFrames = parsedFrames;
        poll.mode = status.fic.mode;
        progress.Show(status);
        outcome = interrupted ? wait.Stop(elapsed, parser.ensemble()) : wait.Update(poll, parser.ensemble());
        if (outcome == WaitOutcome::Waiting) Sleep(options.intervalSeconds);
    }
    result->frequencyKhz = frequencyKhz;
    result->outcome = outcome;
    result->quality = status.quality;
    result->lockSeconds = wait.lockSeconds();
    result->decidedSeconds = wait.decidedSeconds();
    result->fic = status.fic;
    result->ensemble = parser.ensemble();
    result->statistics = parser.statistics();
    return true;
}

// One frequency: wait for the ensemble, print it, then keep showing status
// for the requested duration.
int RunTuned(const HostOptions& options) {
    ficparse::FicParser parser;
    WaitRule rule;
    rule.timeoutSeconds = options.timeoutSeconds;
    rule.settleSeconds = options.settleSeconds;
    TunedResult result;
    if (!WatchFrequency(options.frequencyKhz, rule, options, false, parser, &result)) return 1;
    const std::string out = options.json ? TunedResultJson(result) + "\n" : TunedResultText(result);
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);

    const Clock::time_point start = Clock::now();
    ProgressPrinter progress(options.quiet, true);
    while (!interrupted && Seconds(Clock::now() - start) < options.durationSeconds) {
        ficQueue.Drain(parser);
        progress.Show(ReadStatus(result.decidedSeconds + Seconds(Clock::now() - start)));
        Sleep(options.intervalSeconds);
    }
    return HasEnsemble(result.outcome) ? 0 : 2;
}

int RunScan(const HostOptions& options) {
    ficparse::FicParser parser;
    WaitRule rule;
    rule.timeoutSeconds = options.scanTimeoutSeconds;
    rule.noSignalSeconds = 0.0;
    rule.labelSuffices = true;
    std::vector<TunedResult> results;
    if (!options.quiet)
        std::fprintf(stderr, "dabhost: scanning %zu frequencies, up to %.1f s each\n",
                     options.scanFrequenciesKhz.size(), rule.timeoutSeconds);
    for (int32_t frequency : options.scanFrequenciesKhz) {
        if (interrupted) break;
        TunedResult result;
        if (!WatchFrequency(frequency, rule, options, true, parser, &result)) {
            result.frequencyKhz = frequency;
            result.outcome = WaitOutcome::TuneFailed;
        }
        if (!options.quiet) std::fprintf(stderr, "%s\n", ScanProgressLine(result).c_str());
        results.push_back(std::move(result));
    }
    const std::string out = options.json ? ScanJson(results) + "\n" : ScanTableText(results);
    std::fputs(out.c_str(), stdout);
    for (const TunedResult& r : results)
        if (HasEnsemble(r.outcome)) return 0;
    return 2;
}

const char* OpenFailure(int32_t result) {
    return result == 2 ? "no device found (the device library reports none attached)"
                       : "the device library (libMVC900ACCESS.so, looked for beside libMVXDAB.so and on the "
                         "library path) could not be loaded, or the device failed to start";
}

}  // namespace

int main(int argc, char** argv) {
    HostOptions options;
    std::string error;
    if (!ParseHostOptions(argc, argv, &options, &error)) {
        std::fprintf(stderr, "dabhost: %s\n%s", error.c_str(), HostUsage());
        return 1;
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
        std::fprintf(stderr, "dabhost: cannot open the device: %s\n", OpenFailure(opened));
        return 1;
    }
    const Clock::time_point start = Clock::now();
    const double cpuStart = CpuSeconds();
    const int status = options.scan ? RunScan(options) : RunTuned(options);

    const double ran = Seconds(Clock::now() - start);
    const double cpu = CpuSeconds() - cpuStart;
    const Clock::time_point closeStart = Clock::now();
    MVDAB_CloseDevice();
    const double closeSeconds = Seconds(Clock::now() - closeStart);
    if (!options.quiet)
        std::fprintf(stderr, "dabhost: CPU %.2f s in %.2f s (%.1f%% of real time); close took %.0f ms\n", cpu, ran,
                     ran > 0.0 ? 100.0 * cpu / ran : 0.0, closeSeconds * 1000.0);
    return status;
}
