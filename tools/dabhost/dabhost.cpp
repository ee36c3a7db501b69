// dabhost: a host program of the receiver library. It opens the device,
// tunes a frequency, shows progress while the receiver searches and locks,
// reads the FIC through the callback, and prints the ensemble once it is
// complete (or what is known of it at the timeout). With --scan it does the
// same over a list of frequencies and reports which hold an ensemble. With
// --service it then requests the service's sub-channel, decodes its audio
// into WAV and records the stream, and follows an announced reconfiguration
// of the multiplex.
//
// Only the public header and the host's own FIC parser are used, as in any
// host. Progress lines go to stderr, results to stdout.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#if defined(_WIN32)
#define NOMINMAX
#include <windows.h>
#else
#include <sys/resource.h>
#endif

#include "ensemble_wait.h"
#include "fic_queue.h"
#include "host_receiver.h"
#include "host_options.h"
#include "host_report.h"
#include "mvxdab.h"
#include "service_output.h"
#include "service_select.h"
#include "web_radio.h"
#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/fic_parser.h"

namespace {

volatile std::sig_atomic_t interrupted = 0;

void OnInterrupt(int) { interrupted = 1; }

double CpuSeconds() {
#if defined(_WIN32)
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0.0;
    // FILETIME counts 100 ns.
    auto seconds = [](FILETIME t) { return 1e-7 * double((uint64_t(t.dwHighDateTime) << 32) | t.dwLowDateTime); };
    return seconds(kernel) + seconds(user);
#else
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
#endif
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

// Output files of a service; "-" is standard output.
struct ServiceFiles {
    std::FILE* wav = nullptr;
    std::FILE* record = nullptr;
    bool Open(const HostOptions& o) {
        return OpenOne(o.wavPath, &wav) && OpenOne(o.recordPath, &record);
    }
    ~ServiceFiles() {
        for (std::FILE* f : {wav, record})
            if (f != nullptr && f != stdout) std::fclose(f);
        std::fflush(stdout);
    }

private:
    static bool OpenOne(const std::string& path, std::FILE** file) {
        if (path.empty()) return true;
        *file = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
        if (*file == nullptr) std::fprintf(stderr, "dabhost: cannot write %s\n", path.c_str());
        return *file != nullptr;
    }
};

bool EndsWith(const std::string& text, const char* tail) {
    const std::string t(tail);
    return text.size() >= t.size() && text.compare(text.size() - t.size(), t.size(), t) == 0;
}

// Requests the chosen service and receives it for the requested time: the
// FIC stays parsed so that an announced reconfiguration is passed on.
int ReceiveService(const HostOptions& options, const ServiceChoice& choice, ficparse::FicParser& parser,
                   std::FILE* out) {
    ServiceFiles files;
    if (!files.Open(options)) return 1;
    WavWriter wav(files.wav);
    ServiceOutput output(choice.kind, files.record, EndsWith(options.recordPath, ".aac"), &wav);
    output.SaveSlidesTo(options.slidesDir);

    const ServiceRequest r = RequestFor(choice.kind, choice.subChannel);
    mscQueue.Expect(choice.subChannel.id);
    MVDAB_SetMSCCallBack(OnMsc);
    const int32_t added = MVDAB_AddServiceCom(r.type, r.subChannelId, r.startAddress, r.longForm, r.tableIndex,
                                              r.optionAndLevel, r.size, 0, 0);
    std::fprintf(out, "Service 0x%0*X \"%s\": %s in sub-channel %d (%s, %d kbit/s, CU %d+%d), request type %d: %s\n",
                 choice.serviceId > 0xFFFF ? 8 : 4, choice.serviceId, choice.label.c_str(),
                 ServiceKindText(choice.kind), choice.subChannel.id, choice.subChannel.ProtectionText().c_str(),
                 choice.subChannel.bitRate, choice.subChannel.startAddress, choice.subChannel.size, r.type,
                 added == 1 ? "accepted" : "refused");
    std::fflush(out);
    if (added != 1) return 2;

    ReconfigurationFollower follower;
    follower.Select(choice.subChannel);
    bool refusalShown = false;
    const double duration = options.durationGiven ? options.durationSeconds : std::numeric_limits<double>::infinity();
    const Clock::time_point start = Clock::now();
    double lastShown = 0.0;
    auto drain = [&] {
        for (const MscQueue::Delivery& d : mscQueue.Take())
            output.Push(d.bytes.data(), int(d.bytes.size()), d.flags);
    };
    while (!interrupted && !output.counts().writeFailed) {
        const double elapsed = Seconds(Clock::now() - start);
        if (elapsed >= duration || (options.frames != 0 && output.counts().deliveries >= options.frames)) break;
        ficQueue.Drain(parser);
        PassOnChange(parser.ensemble(), choice.kind, options.quiet, follower, &refusalShown);
        drain();
        if (!options.quiet && elapsed - lastShown >= 1.0) {
            std::string line = ServiceStatusLine(elapsed, choice.kind, output.counts(), mscQueue.counts().dropped);
            if (choice.kind == ServiceKind::DabPlus && !output.AudioText().empty()) line += ", " + output.AudioText();
            if (!output.label().empty()) line += ", label \"" + output.label() + "\"";
            std::fprintf(stderr, "%s\n", line.c_str());
            lastShown = elapsed;
        }
        Sleep(options.intervalSeconds);
    }
    MVDAB_DelServiceCom(r.type, r.subChannelId, 0);
    drain();
    wav.Close();
    const ServiceCounts& c = output.counts();
    const double selected = Seconds(Clock::now() - start);
    std::fprintf(stderr, "%s\n", ServiceStatusLine(selected, choice.kind, c, mscQueue.counts().dropped).c_str());
    if (files.wav != nullptr)
        std::fprintf(stderr, "dabhost: WAV %s: %s\n", options.wavPath.c_str(),
                     wav.figures().frames > 0 ? wav.figures().Text().c_str() : "no audio decoded");
    if (!output.label().empty() || c.slides > 0)
        std::fprintf(stderr, "dabhost: label \"%s\", %llu slide%s%s%s\n", output.label().c_str(),
                     static_cast<unsigned long long>(c.slides), c.slides == 1 ? "" : "s",
                     options.slidesDir.empty() ? "" : " saved in ", options.slidesDir.c_str());
    if (options.json)
        std::fprintf(out, "{\"service\": %s, \"dynamicLabel\": %s, \"slides\": %llu}\n",
                     ficparse::JsonString(choice.label).c_str(), ficparse::JsonString(output.label()).c_str(),
                     static_cast<unsigned long long>(c.slides));
    if (follower.changesPassed() > 0)
        std::fprintf(stderr, "dabhost: %d reconfiguration%s followed\n", follower.changesPassed(),
                     follower.changesPassed() == 1 ? "" : "s");
    if (c.writeFailed) {
        std::fprintf(stderr, "dabhost: an output file refused a write\n");
        return 1;
    }
    return c.deliveries > 0 ? 0 : 2;
}

// One frequency: wait for the ensemble, print it, then either keep showing
// status for the requested duration or receive the requested service.
int RunTuned(const HostOptions& options) {
    ficparse::FicParser parser;
    WaitRule rule;
    rule.timeoutSeconds = options.timeoutSeconds;
    rule.settleSeconds = options.settleSeconds;
    TunedResult result;
    if (!WatchFrequency(options.frequencyKhz, rule, options, false, parser, &result)) return 1;
    // Standard output may carry audio; then everything else goes to stderr.
    std::FILE* out = options.wavPath == "-" || options.recordPath == "-" ? stderr : stdout;
    const std::string text = options.json ? TunedResultJson(result) + "\n" : TunedResultText(result);
    std::fputs(text.c_str(), out);
    std::fflush(out);
    if (!options.service.empty()) {
        if (!HasEnsemble(result.outcome)) return 2;
        ServiceChoice choice;
        std::string why;
        if (!ChooseService(parser.ensemble(), options.service, &choice, &why)) {
            std::fprintf(stderr, "dabhost: %s\n", why.c_str());
            return 2;
        }
        return ReceiveService(options, choice, parser, out);
    }

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
    // A reader of standard output that goes away (a player that was closed)
    // shows as a failed write, which ends the reception in order.
#if defined(SIGPIPE)
    std::signal(SIGPIPE, SIG_IGN);
#endif
    std::signal(SIGTERM, OnInterrupt);
    MVDAB_SetFICCallBack(OnFic);

    const int32_t opened = MVDAB_OpenDevice();
    if (opened != 1) {
        std::fprintf(stderr, "dabhost: cannot open the device: %s\n", OpenFailure(opened));
        return 1;
    }
    const Clock::time_point start = Clock::now();
    const double cpuStart = CpuSeconds();
    const int status = options.webPort >= 0 ? RunWeb(options, interrupted)
                       : options.scan         ? RunScan(options)
                                              : RunTuned(options);

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
