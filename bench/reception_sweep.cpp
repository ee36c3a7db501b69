// Reception against SNR, printed as a table: for each transmission mode and
// SNR, out of a number of seeds, how many acquisitions reached syncState 4
// within 3 s of the generated default ensemble (random start, a carrier
// offset of up to +-20 carriers), the median time to that lock, and the share
// of good FIBs delivered from then on. A tool, not a benchmark: it runs the
// frame steps on the calling thread through the test harness.
//
//   bench_reception_sweep [seeds per cell, default 10] [multipath profile, default none]
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "tests/support/frame_harness.cpp"

namespace {

using namespace mvdab;

int64_t fibsSeen = 0, fibsGood = 0;

void CountFibs(uint8_t*, int32_t length, int32_t flags) {
    if (receiverStatus.syncState != 4 && fibsSeen == 0) return;
    for (int32_t i = 0; i < length / 32; ++i) {
        ++fibsSeen;
        fibsGood += (flags >> (15 - i)) & 1;
    }
}

struct Outcome {
    double lockSeconds = -1.0;  // -1: no lock
    double goodShare = 0.0;
};

Outcome Receive(int32_t mode, double snrDb, uint64_t seed, const std::string& profile) {
    Outcome o;
    gen::EnsembleBits bits;
    std::string error;
    if (!gen::MakeEnsembleBits("default", "", mode, seed, &bits, &error)) return o;
    gen::FrameTransmitter tx(std::move(bits.source), mode);
    gen::ChannelParams channel;
    channel.seed = seed + 1000;
    channel.snrDb = snrDb;
    channel.frequencyOffsetHz = (double(seed * 7919 % 41) - 20.0) * 1000.0;
    channel.randomStart = true;
    if (!profile.empty()) gen::MultipathProfile(profile, &channel.taps);
    gen::ChannelModel model(channel, tx.MeanPower());
    test::FrameHarness h;
    if (!h.ready()) return o;
    h.Tune(227360);
    fibsSeen = fibsGood = 0;
    ficCallback.store(CountFibs);
    std::vector<std::complex<float>> samples(kIqFrameSamples);
    std::vector<uint8_t> bytes;
    for (double pushed = 0.0; pushed < 5.0;) {
        tx.Read(samples.data(), samples.size());
        model.ProcessU8(samples.data(), samples.size(), bytes);
        h.PushBytes(bytes.data(), int32_t(bytes.size()));
        pushed += double(bytes.size() / 2) / 2048000.0;
        if (o.lockSeconds < 0.0 && receiverStatus.syncState == 4) o.lockSeconds = pushed;
        if (o.lockSeconds < 0.0 && pushed > 3.0) break;
        if (o.lockSeconds >= 0.0 && pushed > o.lockSeconds + 2.0) break;
    }
    ficCallback.store(nullptr);
    o.goodShare = fibsSeen > 0 ? double(fibsGood) / double(fibsSeen) : 0.0;
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    const int seeds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    const std::string profile = argc > 2 ? argv[2] : "";
    std::printf("default ensemble, %s; per cell: locked within 3 s of %d, median lock s, good FIBs %% once locked\n",
                profile.empty() ? "single path" : profile.c_str(), seeds);
    std::printf("mode");
    for (int snr = 0; snr <= 20; snr += 4) std::printf("  %18d dB", snr);
    std::printf("\n");
    for (int32_t mode = 1; mode <= 4; ++mode) {
        std::printf("%4d", mode);
        for (int snr = 0; snr <= 20; snr += 4) {
            std::vector<double> times;
            double good = 0.0;
            for (int s = 1; s <= seeds; ++s) {
                const Outcome o = Receive(mode, snr, uint64_t(s), profile);
                if (o.lockSeconds < 0.0) continue;
                times.push_back(o.lockSeconds);
                good += o.goodShare;
            }
            std::sort(times.begin(), times.end());
            const double median = times.empty() ? -1.0 : times[times.size() / 2];
            const double share = times.empty() ? 0.0 : 100.0 * good / double(times.size());
            std::printf("  %3zu/%-3d %5.2f %6.1f", times.size(), seeds, median, share);
            std::fflush(stdout);
        }
        std::printf("\n");
    }
    return 0;
}
