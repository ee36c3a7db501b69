// Reed-Solomon words decoded per second, clean and with errors, against
// what a 192 kbit/s DAB+ sub-channel (s = 24) needs: 24 RS(120,110) columns
// per 120 ms superframe = 200 words/s, plus the search's partial decodes of
// up to 4 x 11 columns per transmission frame while unlocked (mode I: 4 per
// 96 ms = 458 words/s). For RS(204,188): a 192 kbit/s stream carries
// 192,000 / (204 * 8) = 118 packets/s.
//
// Counters:
//   words/s       decoded words per second
//   xSubChannel   multiple of the need above (658 words/s for RS(120,110),
//                 118 for RS(204,188))
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "delivery/reed_solomon.h"
#include "generator/payload_coding.h"

namespace {

constexpr double kRs120WordsPerSecond = 24 / 0.120 + 4 * 11 / 0.096;
constexpr double kRs204WordsPerSecond = 192000.0 / (204 * 8);

bool Ready() {
    static const bool ready = mvdab::BuildGfTables() == 1 && mvdab::InitRs120() == 1 && mvdab::InitRs204() == 1;
    return ready;
}

// 64 encoded words of `length` bytes with `errors` byte errors each.
std::vector<std::vector<uint8_t>> Words(int length, int parity, int errors) {
    std::mt19937 rng(uint32_t(length * 31 + errors));
    const gen::RsEncoder encoder(parity);
    std::vector<std::vector<uint8_t>> words(64, std::vector<uint8_t>(length));
    for (auto& w : words) {
        for (int i = 0; i < length - parity; ++i) w[i] = uint8_t(rng());
        encoder.Encode(w.data(), length - parity, 1, w.data() + length - parity, 1);
        for (int e = 0; e < errors; ++e) w[(e * 37 + rng() % 13) % length] ^= uint8_t(1 + rng() % 255);
    }
    return words;
}

void Report(benchmark::State& state, double need) {
    const double words = double(state.iterations());
    state.counters["words/s"] = benchmark::Counter(words, benchmark::Counter::kIsRate);
    state.counters["xSubChannel"] = benchmark::Counter(words / need, benchmark::Counter::kIsRate);
}

void BM_Rs120(benchmark::State& state) {
    if (!Ready()) return state.SkipWithError("tables");
    const auto words = Words(120, 10, int(state.range(0)));
    std::vector<uint8_t> work(120);
    size_t n = 0;
    for (auto _ : state) {
        work = words[n++ & 63];
        benchmark::DoNotOptimize(mvdab::DecodeRs120Column(work.data(), work.data() + 110, 1));
    }
    Report(state, kRs120WordsPerSecond);
}
BENCHMARK(BM_Rs120)->Arg(0)->Arg(1)->Arg(5)->Arg(6)->ArgName("errors");

void BM_Rs204(benchmark::State& state) {
    if (!Ready()) return state.SkipWithError("tables");
    const auto words = Words(204, 16, int(state.range(0)));
    std::vector<uint8_t> work(204);
    size_t n = 0;
    for (auto _ : state) {
        work = words[n++ & 63];
        benchmark::DoNotOptimize(mvdab::DecodeRs204Packet(work.data(), work.data() + 188));
    }
    Report(state, kRs204WordsPerSecond);
}
BENCHMARK(BM_Rs204)->Arg(0)->Arg(1)->Arg(8)->Arg(9)->ArgName("errors");

}  // namespace

BENCHMARK_MAIN();
