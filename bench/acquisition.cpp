// CPU cost of acquisition per transmission mode, on a generated signal: one
// IqFrame of the search (state 0) and of the position confirmation (state 1),
// and the one-off frame entry with its frequency measurement.
//
//   bench_acquisition [--benchmark_filter=...]
//
// Counter iqframe_share: CPU time of the thread per call over the 58.75 ms an IqFrame
// lasts (0.05 means the stage takes 5 % of real time).
//
// The search frame is measured in its most expensive form: the votes are
// kept from call to call, so that after the first decision every call
// decides again and runs the null scans that fit the frame. The confirmation
// runs with an agreement tolerance of 0, so that it scans on and never
// leaves state 1.
#include <benchmark/benchmark.h>

#include <complex>
#include <ctime>
#include <cstdint>
#include <memory>
#include <vector>

#include "acquisition/coarse_frame_search.h"
#include "acquisition/frame_entry.h"
#include "acquisition/frame_position.h"
#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
#include "generator/channel_model.h"
#include "generator/frame_transmitter.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"

namespace {

using namespace mvdab;

constexpr double kIqFrameSeconds = 0.05875;

// `count` bytes of a mode-`m` signal (0..3) at 12 dB with a carrier offset
// of 3.3 carriers, from a random start.
std::vector<uint8_t> SignalBytes(int32_t m, size_t count) {
    gen::FrameTransmitter tx(gen::MakeRandomFrameBits(m + 1, 11), m + 1);
    gen::ChannelParams c;
    c.seed = 5;
    c.snrDb = 12.0;
    c.frequencyOffsetHz = 3.3 * 2048000.0 / tx.Geometry().fftSize;
    c.randomStart = true;
    gen::ChannelModel channel(c, tx.MeanPower());
    std::vector<uint8_t> bytes;
    std::vector<std::complex<float>> clean(16384);
    std::vector<uint8_t> chunk;
    while (bytes.size() < count) {
        tx.Read(clean.data(), clean.size());
        channel.ProcessU8(clean.data(), clean.size(), chunk);
        bytes.insert(bytes.end(), chunk.begin(), chunk.end());
    }
    bytes.resize(count);
    return bytes;
}

// The receiver's memory as at open, once per process.
bool Open() {
    static const bool ready = InitReceiverState() == 1;
    return ready;
}

void SetMode(int32_t m) {
    mode.transmissionMode = m;
    ApplyTransmissionMode();
}

// CPU time of the calling thread, in seconds.
double ThreadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Runs `call` for the benchmark's iterations and sets iqframe_share from the
// thread's CPU time.
template <typename Call>
void Measure(benchmark::State& state, Call call) {
    const double start = ThreadCpuSeconds();
    for (auto _ : state) call();
    const double perCall = (ThreadCpuSeconds() - start) / static_cast<double>(state.iterations());
    state.counters["iqframe_share"] = perCall / kIqFrameSeconds;
}

const char* const kModeNames[4] = {"mode I", "mode II", "mode III", "mode IV"};

// Opens the receiver memory and puts one IqFrame of mode `m` into the newest
// slot; false (the benchmark skipped) without memory.
bool LoadIqFrame(benchmark::State& state, int32_t m) {
    if (!Open()) {
        state.SkipWithError("no receiver memory");
        return false;
    }
    const std::vector<uint8_t> frame = SignalBytes(m, kIqFrameBytes);
    std::copy(frame.begin(), frame.end(), workBlocks.newestSlot);
    return true;
}

void BM_SearchIqFrame(benchmark::State& state) {
    const int32_t m = static_cast<int32_t>(state.range(0));
    if (!LoadIqFrame(state, m)) return;
    ResetCoarseSearch();
    Measure(state, [] { benchmark::DoNotOptimize(CoarseFrameSearch()); });
    state.SetLabel(kModeNames[m]);
}

void BM_ConfirmIqFrame(benchmark::State& state) {
    const int32_t m = static_cast<int32_t>(state.range(0));
    if (!LoadIqFrame(state, m)) return;
    WriteReceiverSettings();
    receiverSettings.nullAgreementTolerance = 0;
    ResetCoarseSearch();
    SetMode(m);
    coarseSearch.scanFill = 0;
    coarseSearch.scanNeed = mode.parameters.framePeriod;
    Measure(state, [] { benchmark::DoNotOptimize(ConfirmFramePosition()); });
    WriteReceiverSettings();
    state.SetLabel(kModeNames[m]);
}

void BM_EnterFirstFrame(benchmark::State& state) {
    const int32_t m = static_cast<int32_t>(state.range(0));
    if (!Open()) {
        state.SkipWithError("no receiver memory");
        return;
    }
    WriteReceiverSettings();
    SetMode(m);
    if (ConfigureModeBuffers(mode.configuredMode == -1 ? 1 : 0) != 1) {
        state.SkipWithError("DFT service failed");
        return;
    }
    mode.configuredMode = m;
    SwitchOnHistory(m);
    const size_t bytes = static_cast<size_t>(workBlocks.workingPool + kWorkingPoolBytes - workBlocks.historyBase);
    const std::vector<uint8_t> history = SignalBytes(m, bytes);
    std::copy(history.begin(), history.end(), workBlocks.historyBase);
    pipeline.frameSamples = 1000;
    Measure(state, [] {
        ResetFrameEntry();
        frequencyCorrection = FrequencyCorrection{};
        benchmark::DoNotOptimize(EnterFirstFrame());
    });
    state.SetLabel(kModeNames[m]);
}

BENCHMARK(BM_SearchIqFrame)->ArgName("mode")->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConfirmIqFrame)->ArgName("mode")->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EnterFirstFrame)->ArgName("mode")->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
