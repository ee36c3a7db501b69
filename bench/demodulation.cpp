// Cost of DemodulateFrame per transmission mode, with the FIC-only mask and
// with every symbol selected, as a multiple of real time (seconds of signal
// per second of one core), and its split into unpack and rotation, the DFTs,
// and the rest (extraction, products, weights, de-interleaving, loops,
// impulse response and timing detector).
//
//   bench_demodulation [--benchmark_filter=...]
//
// Counters: x_realtime (frame duration over CPU time per frame), and the
// shares unpack_rotate_pct, dft_pct, rest_pct of the CPU time per frame.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <time.h>
#include <vector>

#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
#include "demodulation/interference_excision.h"
#include "demodulation/symbol_demodulator.h"
#include "demodulation/tracking_loops.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"
#include "services/symbol_mask.h"

namespace {

using namespace mvdab;

std::vector<uint8_t>& Pool() {
    static std::vector<uint8_t> pool(kWorkingPoolBytes);
    return pool;
}

// Lays out the pool for mode `m`, fills the history with 8-bit noise of the
// level a tuner delivers (the cost does not depend on the content), and
// selects the FIC only or every symbol.
bool SetUp(int32_t m, bool everySymbol) {
    WriteReceiverSettings();
    receiverSettings.clockCorrectionEnabled = 0;  // no device here

    std::vector<uint8_t>& pool = Pool();
    workBlocks = WorkBlocks{};
    workBlocks.workingPool = pool.data();
    workBlocks.newestSlot = pool.data() + kNewestSlotOffset;
    mode.transmissionMode = m;
    mode.parameters = kModeTable[m];
    if (ConfigureModeBuffers(dftPlan.forward == nullptr ? 1 : 0) != 1) return false;
    mode.configuredMode = m;
    SwitchOnHistory(m);
    ResetTrackingLoops();
    ResetExcision();
    frequencyCorrection = FrequencyCorrection{};

    std::mt19937 rng(3);
    std::normal_distribution<float> noise(127.5f, 25.0f);
    uint8_t* p = workBlocks.historyBase;
    const int64_t bytes = kWorkingPoolBytes - (p - pool.data());
    for (int64_t i = 0; i < bytes; ++i) {
        const float v = noise(rng);
        p[i] = static_cast<uint8_t>(v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v));
    }
    pipeline.frameSamples = 0;
    ResetSymbolMask();
    if (everySymbol) {
        for (int32_t l = 1; l < mode.parameters.symbolsPerFrame; ++l) SymbolMask[l] = kMaskReference | kMaskData;
    }
    return true;
}

// CPU time of this thread, so that the split holds on a shared machine.
double ThreadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Seconds per frame of the parts, measured on their own over `frames` frames.
struct Split {
    double total;
    double unpackRotate;
    double dft;
};

Split MeasureSplit(int32_t frames) {
    const ModeParameters& m = mode.parameters;
    int32_t selected = 0;
    for (int32_t l = 0; l < m.symbolsPerFrame; ++l) selected += SymbolMask[l] != 0 ? 1 : 0;
    const uint8_t* frame = workBlocks.historyBase + 2 * m.guardLength;
    Split split{};

    double start = ThreadSeconds();
    for (int32_t f = 0; f < frames; ++f) {
        frequencyCorrection.samplePhaseIncrement = 1.0e-4;
        DemodulateFrame();
    }
    split.total = (ThreadSeconds() - start) / frames;

    start = ThreadSeconds();
    for (int32_t f = 0; f < frames; ++f) {
        for (int32_t l = 0; l < selected; ++l) {
            UnpackSamples(frame + 2 * static_cast<int64_t>(m.symbolLength) * l, modeBuffers.dftWork, m.fftSize);
            RotateSamples(modeBuffers.dftWork, m.fftSize, 0.5, 1.0e-4);
        }
    }
    split.unpackRotate = (ThreadSeconds() - start) / frames;

    start = ThreadSeconds();
    for (int32_t f = 0; f < frames; ++f) {
        for (int32_t l = 0; l < selected; ++l) ForwardDft(&dftPlan, modeBuffers.dftWork);
        BackwardDft(&dftPlan, modeBuffers.dftWork);
    }
    split.dft = (ThreadSeconds() - start) / frames;
    return split;
}

void BM_DemodulateFrame(benchmark::State& state) {
    const int32_t m = static_cast<int32_t>(state.range(0));
    const bool everySymbol = state.range(1) != 0;
    if (!SetUp(m, everySymbol)) {
        state.SkipWithError("DFT service failed");
        return;
    }
    const double frameSeconds = mode.parameters.framePeriod / 2048000.0;
    for (auto _ : state) {
        frequencyCorrection.samplePhaseIncrement = 1.0e-4;  // keep the loop from running away on noise
        benchmark::DoNotOptimize(DemodulateFrame());
    }
    state.counters["x_realtime"] =
        benchmark::Counter(frameSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);

    const Split split = MeasureSplit(everySymbol ? 50 : 400);
    const double rest = split.total - split.unpackRotate - split.dft;
    state.counters["unpack_rotate_pct"] = 100.0 * split.unpackRotate / split.total;
    state.counters["dft_pct"] = 100.0 * split.dft / split.total;
    state.counters["rest_pct"] = 100.0 * rest / split.total;
    const char* const names[4] = {"mode I", "mode II", "mode III", "mode IV"};
    state.SetLabel(std::string(names[m]) + (everySymbol ? ", every symbol" : ", FIC only"));
}

BENCHMARK(BM_DemodulateFrame)
    ->ArgNames({"mode", "every"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
