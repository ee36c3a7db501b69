// Viterbi decoder throughput per kernel, against what real time asks of it.
//
// Counters:
//   steps/s         trellis steps decoded per second (traceback included)
//   xFicMode1       multiple of the FIC's need in modes I, II, IV: 774 steps
//                   per 24 ms CIF = 32,250 steps/s
//   xFicMode3       the same for mode III: 1,030 steps per CIF = 42,917 steps/s
//   xSubChannel384  multiple of a 384 kbit/s sub-channel's need: 9,216 bits +
//                   6 tail steps per CIF = 384,250 steps/s
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "channel/viterbi_decoder.h"

namespace {

using mvdab::SoftWord;
using mvdab::ViterbiVariant;

constexpr double kCifSeconds = 0.024;
constexpr double kFicStepsPerSecond = 774 / kCifSeconds;
constexpr double kFicMode3StepsPerSecond = 1030 / kCifSeconds;
constexpr double kSubChannel384StepsPerSecond = (384 * 24 + 6) / kCifSeconds;

// Soft words of a moderately noisy signal: each nibble near 0 or 15 with
// some spread, every fourth value neutral as in punctured blocks.
std::vector<SoftWord> NoisyWords(int32_t count) {
    std::mt19937 rng(42);
    std::vector<SoftWord> words(count);
    for (int32_t t = 0; t < count; ++t) {
        uint32_t w = 0;
        for (int k = 0; k < 4; ++k) {
            int s = (rng() & 1) ? 12 : 3;
            s += static_cast<int>(rng() % 7) - 3;
            s = s < 0 ? 0 : (s > 15 ? 15 : s);
            w = (w << 4) | static_cast<uint32_t>(k == 3 ? 8 : s);
        }
        words[t] = static_cast<SoftWord>(w);
    }
    return words;
}

void DecodeBlocks(benchmark::State& state, ViterbiVariant variant, int32_t count) {
    if (!mvdab::ViterbiVariantAvailable(variant)) {
        state.SkipWithError("kernel not available on this processor");
        return;
    }
    const auto words = NoisyWords(count);
    std::vector<uint8_t> out((count - 6) / 8);
    for (auto _ : state) {
        mvdab::ViterbiDecodeWith(variant, words.data(), count, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    const double steps = static_cast<double>(state.iterations()) * count;
    state.counters["steps/s"] = benchmark::Counter(steps, benchmark::Counter::kIsRate);
    state.counters["xFicMode1"] = benchmark::Counter(steps / kFicStepsPerSecond, benchmark::Counter::kIsRate);
    state.counters["xFicMode3"] = benchmark::Counter(steps / kFicMode3StepsPerSecond, benchmark::Counter::kIsRate);
    state.counters["xSubChannel384"] =
        benchmark::Counter(steps / kSubChannel384StepsPerSecond, benchmark::Counter::kIsRate);
}

void BM_ViterbiScalar(benchmark::State& s) { DecodeBlocks(s, ViterbiVariant::kScalar, static_cast<int32_t>(s.range(0))); }
void BM_ViterbiSse2(benchmark::State& s) { DecodeBlocks(s, ViterbiVariant::kSse2, static_cast<int32_t>(s.range(0))); }
void BM_ViterbiAvx2(benchmark::State& s) { DecodeBlocks(s, ViterbiVariant::kAvx2, static_cast<int32_t>(s.range(0))); }

// Block lengths: the FIC of modes I, II, IV; a 384 kbit/s sub-channel; the
// largest block the decoder takes.
#define VITERBI_LENGTHS Arg(774)->Arg(9222)->Arg(mvdab::kViterbiMaxSteps)
BENCHMARK(BM_ViterbiScalar)->VITERBI_LENGTHS;
BENCHMARK(BM_ViterbiSse2)->VITERBI_LENGTHS;
BENCHMARK(BM_ViterbiAvx2)->VITERBI_LENGTHS;

// The FIC of one mode I transmission frame: four CIFs of 774 steps.
void BM_FicFrameModeI(benchmark::State& state) {
    const auto words = NoisyWords(774);
    std::vector<uint8_t> out(96);
    for (auto _ : state) {
        for (int cif = 0; cif < 4; ++cif) mvdab::ViterbiDecode(words.data(), 774, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    // A mode I frame lasts 96 ms.
    state.counters["xRealTime"] = benchmark::Counter(state.iterations() * 0.096, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FicFrameModeI);

}  // namespace

BENCHMARK_MAIN();
