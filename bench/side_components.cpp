// Throughput of the T-DMB stream decoder and the packet-mode extractor, one
// core, as a multiple of real time for the largest sub-channel each could
// serve: the stream decoder on the worker at 192 and 384 kbit/s (mode I
// transmission frames of 2,304 and 4,608 bytes every 96 ms), clean and with
// 8 byte errors in every word; the packet extractor at 96 kbit/s (1,152
// bytes every 96 ms) with FEC, clean and with every table damaged, and
// without FEC.
//
// Counters:
//   xRealTime   sub-channel seconds decoded per second of one core
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "delivery/gf_tables.h"
#include "delivery/packet_extraction.h"
#include "delivery/reed_solomon.h"
#include "delivery/stream_decoder.h"
#include "delivery/superframe_sync.h"
#include "delivery/worker.h"
#include "generator/payload_sources.h"
#include "receiver/callback_slots.h"

namespace {

constexpr double kFrameSeconds = 0.096;  // one mode I transmission frame

bool Ready() {
    static const bool ready = mvdab::BuildGfTables() == 1 && mvdab::InitRs204() == 1 &&
                              mvdab::AllocateSuperframeBuffers() == 1 && mvdab::AllocateStreamBuffers() == 1 &&
                              mvdab::AllocatePacketDecoders() == 1;
    return ready;
}

int64_t sink = 0;
void Stream(uint8_t* bytes, int32_t, int32_t flags) { sink += bytes[5] + flags; }
void Packet(uint8_t* packet, int32_t size, int32_t, int32_t) { sink += packet[size - 1]; }

void Report(benchmark::State& state, int64_t frames) {
    state.counters["xRealTime"] = benchmark::Counter(double(frames) * kFrameSeconds, benchmark::Counter::kIsRate);
}

// 200 transmission frames (19.2 s) of a generated T-DMB stream; with
// `errors`, that many byte errors in every word.
std::vector<uint8_t> TdmbFrames(int bitrate, int errors) {
    gen::TdmbStreamParams p;
    gen::PayloadPtr source = gen::MakeTdmbPayload(bitrate, p);
    std::vector<uint8_t> bytes(size_t(200) * 4 * 3 * bitrate);
    for (size_t at = 0; at < bytes.size(); at += 3 * size_t(bitrate)) source->NextLogicalFrame(&bytes[at], 3 * size_t(bitrate));
    std::mt19937 rng(7);
    std::vector<int> count(bytes.size() / 204 + 1, 0);
    for (size_t i = 204; i < bytes.size() && errors > 0; ++i) {
        const long word = long(i / 204) - long(i % 12);
        if (word < 0 || count[word] >= errors || rng() % 8 != 0) continue;
        bytes[i] ^= uint8_t(1 + rng() % 255);
        ++count[word];
    }
    return bytes;
}

void BM_TdmbStream(benchmark::State& state) {
    if (!Ready()) return state.SkipWithError("buffers");
    const int bitrate = int(state.range(0));
    const std::vector<uint8_t> bytes = TdmbFrames(bitrate, int(state.range(1)));
    const int frameBytes = 4 * 3 * bitrate;
    const int frames = int(bytes.size() / frameBytes);
    mvdab::streamDataCallback = Stream;
    int64_t done = 0;
    for (auto _ : state) {
        const int f = int(done % frames);
        if (f == 0) {
            // The stream starts again: the worker restarts with it.
            mvdab::FlushWorker();
            mvdab::RunWorkerStep();
        }
        mvdab::QueueStreamBytes(1, &bytes[size_t(f) * frameBytes], frameBytes);
        mvdab::RunWorkerStep();
        ++done;
    }
    Report(state, done);
}
BENCHMARK(BM_TdmbStream)->Args({192, 0})->Args({192, 8})->Args({384, 0})->ArgNames({"kbps", "errors"});

// 200 transmission frames of a generated 96 kbit/s packet stream, 96-byte
// packets; `damage` 1 puts 4 byte errors into every FEC table.
std::vector<uint8_t> PacketFrames(bool fec, int damage) {
    gen::PacketStreamParams p;
    p.components = {{5, 96, true, 1}};
    p.fec = fec;
    gen::PayloadPtr source = gen::MakePacketPayload(96, p);
    std::vector<uint8_t> bytes(size_t(200) * 4 * 288);
    for (size_t at = 0; at < bytes.size(); at += 288) source->NextLogicalFrame(&bytes[at], 288);
    if (damage != 0) {
        for (size_t t = 0; t + 2472 <= bytes.size(); t += 2472) {
            for (int e = 0; e < 4; ++e) bytes[t + 100 + 500 * e] ^= 0x5A;
        }
    }
    return bytes;
}

void BM_PacketExtraction(benchmark::State& state) {
    if (!Ready()) return state.SkipWithError("buffers");
    const bool fec = state.range(0) != 0;
    const std::vector<uint8_t> bytes = PacketFrames(fec, int(state.range(1)));
    constexpr int kFrameBytes = 4 * 288;
    const int frames = int(bytes.size() / kFrameBytes);
    mvdab::packetCallback = Packet;
    const uint16_t wanted = 5;
    int64_t done = 0;
    for (auto _ : state) {
        const int f = int(done % frames);
        if (f == 0) {
            mvdab::ResetPacketProbe(0);
            mvdab::ResetPacketDecoder(0);
            mvdab::RestartPacketSearch(0);
        }
        mvdab::ExtractPackets(0, &bytes[size_t(f) * kFrameBytes], 1, kFrameBytes, &wanted, 1, uint8_t(fec));
        ++done;
    }
    Report(state, done);
}
BENCHMARK(BM_PacketExtraction)->Args({1, 0})->Args({1, 1})->Args({0, 0})->ArgNames({"fec", "damaged"});

}  // namespace

BENCHMARK_MAIN();
