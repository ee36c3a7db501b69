// Cost of the whole receiver frame step per transmission mode: the hand-over
// of one IqFrame and RunFrameStep in state 3 (tracking, demodulation of the
// symbols in SymbolMask, FIC decoding), with the FIC only and with the FIC
// and the 128 kbit/s MP2 sub-channel (UEP level 3), on a generated "default"
// ensemble at 20 dB SNR, as a multiple of real time on one core.
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
// syncState 4 or 5), msc_bytes (sub-channel bytes delivered per step).
#include <benchmark/benchmark.h>

#include <complex>
#include <cstdint>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
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

// IqFrames of `mode` (1..4) for a seamless loop, at least `minSeconds` long.
std::vector<uint8_t> LoopSignal(int32_t mode, double minSeconds) {
    const int64_t period = kModeTable[mode - 1].framePeriod;
    const int64_t loop = std::lcm(period, static_cast<int64_t>(kIqFrameSamples));
    int64_t steps = loop / kIqFrameSamples;
    while (static_cast<double>(steps * kIqFrameSamples) / 2048000.0 < minSeconds) steps += loop / kIqFrameSamples;

    gen::EnsembleBits bits;
    std::string error;
    if (!gen::MakeEnsembleBits("default", "", mode, 1, &bits, &error)) return {};
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

int64_t mscBytesSeen = 0;
void CountMsc(uint8_t*, int32_t length, int32_t) { mscBytesSeen += length; }

// The frame step on the looped signal; with `subChannel`, the MP2
// sub-channel of the ensemble (id 2: CU 36, UEP row 35) is selected first.
void RunFrameSteps(benchmark::State& state, bool subChannel) {
    const int32_t mode = static_cast<int32_t>(state.range(0));
    const std::vector<uint8_t> signal = LoopSignal(mode, 4.0);
    const size_t steps = signal.size() / kIqFrameBytes;
    if (steps == 0) {
        state.SkipWithError("signal not generated");
        return;
    }
    test::FrameHarness h(1);
    if (!h.ready() || h.Tune(227360) != 1) {
        state.SkipWithError("harness not ready");
        return;
    }
    // Acquisition and settling outside the timed loop: two passes.
    size_t next = 0;
    for (size_t i = 0; i < 2 * steps; ++i, next = (next + 1) % steps) h.PushIqFrame(&signal[next * kIqFrameBytes]);
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
        for (size_t i = 0; i < 20; ++i, next = (next + 1) % steps) h.PushIqFrame(&signal[next * kIqFrameBytes]);
    }
    ficCallback.store(CountFic);
    mscCallback.store(CountMsc);
    ficFramesSeen = 0;
    mscBytesSeen = 0;
    bool locked = true;
    for (auto _ : state) {
        h.PushIqFrame(&signal[next * kIqFrameBytes]);
        next = (next + 1) % steps;
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

}  // namespace

BENCHMARK_MAIN();
