// Cost of the whole receiver frame step, as a multiple of real time on one
// core, on generated signals at 20 dB SNR:
//  - BM_FicOnlyFrameStep, per transmission mode: the hand-over of one IqFrame
//    and RunFrameStep in state 3 (tracking, demodulation of the symbols in
//    SymbolMask, FIC decoding), on the "default" ensemble;
//  - BM_SubChannelFrameStep, per transmission mode: the same with the FIC and
//    the ensemble's 128 kbit/s MP2 sub-channel (UEP level 3) selected;
//  - BM_DabPlusReceiver, mode I: the same with one 96 kbit/s DAB+ sub-channel
//    (EEP 3-A) selected, its decoding and, on the same core, the worker's
//    step after each IqFrame: superframe tracking, RS(120,110) over every
//    column, delivery.
//
//   bench_receiver [--benchmark_filter=...]
//
// The signal is generated before the timed loop: a stretch of a whole number
// of IqFrames that is also a whole number of transmission frames, played in a
// loop, so that the frame timing runs on seamlessly at the wrap and the
// receiver stays locked.
//
// Counters: x_realtime (signal seconds per CPU second), fic_frames (frames
// decoded per step), locked (1 when every timed step ended in state 3 with
// syncState 4 or 5), msc_bytes (sub-channel bytes delivered per step),
// superframes (delivered per second of signal: 8.33 when none is lost).
#include <benchmark/benchmark.h>

#include <complex>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
#include "delivery/worker.h"
#include "mvxdab.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
// The benchmarks link the receiver core and the generator only; the
// thread-less harness is compiled into this one directly.
#include "tests/support/frame_harness.cpp"

namespace {

using namespace mvdab;

int64_t ficFramesSeen = 0;
void CountFic(uint8_t*, int32_t, int32_t) { ++ficFramesSeen; }

int64_t mscBytesSeen = 0;
void CountMsc(uint8_t*, int32_t length, int32_t) { mscBytesSeen += length; }

int64_t superframesSeen = 0;
void CountSuperframe(uint8_t*, int32_t, int32_t flags) { superframesSeen += (flags & 0x80) == 0; }

// IqFrames of `mode` (1..4) for a seamless loop, at least `minSeconds` long,
// of the preset "default" or of the ensemble described in `configPath`.
std::vector<uint8_t> LoopSignal(int32_t mode, double minSeconds, const std::string& configPath = "") {
    const int64_t period = kModeTable[mode - 1].framePeriod;
    const int64_t loop = std::lcm(period, static_cast<int64_t>(kIqFrameSamples));
    int64_t steps = loop / kIqFrameSamples;
    while (static_cast<double>(steps * kIqFrameSamples) / 2048000.0 < minSeconds) steps += loop / kIqFrameSamples;

    gen::EnsembleBits bits;
    std::string error;
    if (!gen::MakeEnsembleBits("default", configPath, mode, 1, &bits, &error)) return {};
    gen::FrameTransmitter tx(std::move(bits.source), mode);
    gen::ChannelParams channel;
    channel.snrDb = 20.0;
    gen::ChannelModel model(channel, tx.MeanPower());
    std::vector<uint8_t> out;
    out.reserve(static_cast<size_t>(steps) * kIqFrameBytes + 4096);
    std::vector<std::complex<float>> in(kIqFrameSamples);
    std::vector<uint8_t> piece;
    while (out.size() < static_cast<size_t>(steps) * kIqFrameBytes) {
        tx.Read(in.data(), in.size());
        model.ProcessU8(in.data(), in.size(), piece);
        out.insert(out.end(), piece.begin(), piece.end());
    }
    out.resize(static_cast<size_t>(steps) * kIqFrameBytes);
    return out;
}

// The thread-less harness tuned to a looped signal, one IqFrame a step.
struct LoopPlayer {
    std::vector<uint8_t> signal;
    size_t steps = 0;
    size_t next = 0;
    test::FrameHarness h{1};

    // False, with the benchmark skipped, when the signal or the harness failed.
    bool Ready(benchmark::State& state) {
        steps = signal.size() / kIqFrameBytes;
        if (steps == 0) {
            state.SkipWithError("signal not generated");
            return false;
        }
        if (!h.ready() || h.Tune(227360) != 1) {
            state.SkipWithError("harness not ready");
            return false;
        }
        return true;
    }
    void Step() {
        h.PushIqFrame(&signal[next * kIqFrameBytes]);
        next = (next + 1) % steps;
    }
};

// The frame step on the looped signal; with `subChannel`, the MP2
// sub-channel of the ensemble (id 2: CU 36, UEP row 35) is selected first.
void RunFrameSteps(benchmark::State& state, bool subChannel) {
    const int32_t mode = static_cast<int32_t>(state.range(0));
    LoopPlayer p;
    p.signal = LoopSignal(mode, 4.0);
    if (!p.Ready(state)) return;
    // Acquisition and settling outside the timed loop: two passes.
    for (size_t i = 0; i < 2 * p.steps; ++i) p.Step();
    if (pipeline.acquisitionState != 3) {
        state.SkipWithError("no lock on the generated signal");
        return;
    }
    if (subChannel) {
        if (MVDAB_AddServiceCom(0, 2, 36, 0, 35, 0, 0, 0, 0) != 1) {
            state.SkipWithError("sub-channel refused");
            return;
        }
        // Take-over and the time de-interleaver's fill.
        for (size_t i = 0; i < 20; ++i) p.Step();
    }
    ficCallback.store(CountFic);
    mscCallback.store(CountMsc);
    ficFramesSeen = 0;
    mscBytesSeen = 0;
    bool locked = true;
    for (auto _ : state) {
        p.Step();
        locked = locked && pipeline.acquisitionState == 3 && receiverStatus.syncState >= 4;
    }
    ficCallback.store(nullptr);
    mscCallback.store(nullptr);
    const double iterations = static_cast<double>(state.iterations());
    state.counters["x_realtime"] =
        benchmark::Counter(iterations * kIqFrameSamples / 2048000.0, benchmark::Counter::kIsRate);
    state.counters["fic_frames"] = static_cast<double>(ficFramesSeen) / iterations;
    state.counters["msc_bytes"] = static_cast<double>(mscBytesSeen) / iterations;
    state.counters["locked"] = locked ? 1.0 : 0.0;
    state.SetLabel("mode " + std::to_string(mode));
}

void BM_FicOnlyFrameStep(benchmark::State& state) { RunFrameSteps(state, false); }
void BM_SubChannelFrameStep(benchmark::State& state) { RunFrameSteps(state, true); }
BENCHMARK(BM_FicOnlyFrameStep)->DenseRange(1, 4)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SubChannelFrameStep)->DenseRange(1, 4)->Unit(benchmark::kMicrosecond);

void BM_DabPlusReceiver(benchmark::State& state) {
    // The loop of mode I is 235 transmission frames, 188 superframes: the
    // superframes run on seamlessly at the wrap too.
    const std::string config = "/tmp/mvdab_bench_dabplus_96.txt";
    std::ofstream(config) << "ensemble eid=0xE2D0 label=\"MVX BENCH\"\n"
                             "subchannel id=1 start=0 protection=eep-a:3 bitrate=96 payload=dabplus-synth:5\n"
                             "service sid=0xE2D1 label=\"Plus 96\" component=dabplus:1\n";
    LoopPlayer p;
    p.signal = LoopSignal(1, 4.0, config);
    std::remove(config.c_str());
    if (!p.Ready(state)) return;
    auto step = [&] {
        p.Step();
        RunWorkerStep();
    };
    for (size_t i = 0; i < p.steps; ++i) step();
    // 96 kbit/s EEP 3-A: long form, set A, level 3, 72 CU at CU 0.
    if (pipeline.acquisitionState != 3 || MVDAB_AddServiceCom(3, 1, 0, 1, 0, 2, 72, 0, 0) != 1) {
        state.SkipWithError("no lock on the generated signal");
        return;
    }
    mscCallback.store(CountSuperframe);
    for (size_t i = 0; i < p.steps; ++i) step();
    superframesSeen = 0;
    bool locked = true;
    for (auto _ : state) {
        step();
        locked = locked && pipeline.acquisitionState == 3 && superframeState.locked == 1;
    }
    const double seconds = static_cast<double>(state.iterations()) * kIqFrameSamples / 2048000.0;
    state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    state.counters["superframes"] = static_cast<double>(superframesSeen) / seconds;
    state.counters["locked"] = locked ? 1.0 : 0.0;
    state.SetLabel("mode 1, DAB+ 96 kbit/s");
}
BENCHMARK(BM_DabPlusReceiver)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
