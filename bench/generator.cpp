// Cost of the transmitter: OfdmModulator::ModulateFrame per mode, and the
// whole signal stream (multiplex, modulation, channel model, 8-bit bytes)
// per second of signal, as a multiple of real time (seconds of signal per
// second of one core).
//
//   bench_generator [--benchmark_filter=...]
//
// Counter: x_realtime. The stream benchmarks use the "default" ensemble
// when it exists, random channel bits otherwise; the channel is plain, with
// noise, or with noise, multipath, carrier and clock offsets.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <complex>
#include <random>
#include <string>
#include <vector>

#include "generator/frame_bits.h"
#include "generator/ofdm_modulator.h"
#include "generator/signal_stream.h"

namespace {

void BM_ModulateFrame(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    gen::OfdmModulator mod(mode);
    const gen::ModeGeometry& g = mod.Geometry();
    std::vector<uint8_t> bits(static_cast<size_t>(g.DataBitsPerFrame()));
    std::mt19937 rng(1);
    for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
    std::vector<std::complex<float>> frame(static_cast<size_t>(g.frameSamples));
    for (auto _ : state) {
        mod.ModulateFrame(bits.data(), frame.data());
        benchmark::DoNotOptimize(frame.data());
    }
    state.counters["x_realtime"] =
        benchmark::Counter(g.frameSamples / 2048000.0, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ModulateFrame)->DenseRange(1, 4)->Unit(benchmark::kMicrosecond);

// range(0): mode; range(1): 0 plain, 1 noise, 2 noise + urban multipath +
// carrier offset + clock offset.
void BM_SignalStream(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    const char* channels[] = {"", ",snr=15", ",snr=15,profile=urban,cfo=1234,ppm=20"};
    const std::string tail = ",mode=" + std::to_string(mode) + channels[state.range(1)];
    const std::vector<std::string> presets = gen::SignalPresetNames();
    const bool haveDefault = std::find(presets.begin(), presets.end(), "default") != presets.end();
    std::string error;
    auto stream = gen::MakeSignalStream(std::string("preset=") + (haveDefault ? "default" : "random") + tail, &error);
    if (!stream) {
        state.SkipWithError(error.c_str());
        return;
    }
    state.SetLabel(haveDefault ? "default" : "random");
    std::vector<uint8_t> second(2 * 2048000);
    for (auto _ : state) {
        stream->Read(second.data(), second.size());
        benchmark::DoNotOptimize(second.data());
    }
    state.counters["x_realtime"] = benchmark::Counter(1.0, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_SignalStream)
    ->ArgsProduct({{1, 2, 3, 4}, {0, 1}})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);

}  // namespace

BENCHMARK_MAIN();
