// The transmitted signal: phase reference and frequency interleaving tables
// against published check values, frames against their definition, each
// impairment of the channel model measured back, and bad stream descriptions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/frame_transmitter.h"
#include "generator/ofdm_modulator.h"
#include "generator/signal_stream.h"

// Channel parameters are written as designated initializers naming only what
// differs from the defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;
using Samples = std::vector<cf>;
constexpr double kFs = 2048000.0, kPi = std::numbers::pi;

// Per mode, published: (h + n) mod 4 of the first and the last 16 carriers
// from k = -K/2 to K/2; how many carriers have 0, 1, 2, 3; the carriers F(n)
// of n = 0..11 and of the last four n.
const struct { const char *phaseFirst, *phaseLast; std::array<int, 4> counts; int carriers[16]; } kChecks[4] = {
    {"1311112231113322", "1030120132303001", {364, 404, 356, 412}, {-513, -14, 329, 692, -733, 13, 680, 273, -36, 43, 85, -432, 641, 652, 606, 197}},
    {"2022223302220033", "3212302310121223", {96, 80, 128, 80}, {-129, -14, -55, -76, 163, 141, -88, 7, -111, -85, 46, -176, -116, 155, 94, -187}},
    {"2022223302220033", "2101231203010112", {56, 36, 64, 36}, {-65, -14, 52, -29, -58, 77, 40, 71, -38, 81, 92, -21, 12, -37, 94, 5}},
    {"0200001120002211", "0323013021232330", {232, 176, 184, 176}, {-257, -14, 73, 180, 198, -243, 168, 218, 17, 299, 46, -171, 10, 140, 27, -59}},
};

// The tables against their published values; then frames against their
// definition, evaluated directly at every 127th sample of each symbol, guard
// interval included: z(1, k) = exp(j pi/2 q(k)); z(l, k) = z(l-1, k) y with
// y = ((1 - 2 p_n) + j (1 - 2 p_(n+K))) / sqrt 2 on carrier F(n), F from the
// interleaving rule; each symbol the inverse DFT of z at unit power, after a
// null symbol of zeros.
TEST(OfdmModulator, TablesAndFramesFollowTheDefinitionInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        const auto& check = kChecks[mode - 1];
        const int k = gen::Geometry(mode).carriers;
        std::string v;
        std::array<int, 4> counts{};
        for (int q, i = -k / 2; i <= k / 2; ++i) {
            if (i == 0) continue;
            v += static_cast<char>('0' + (q = gen::PhaseReferenceQuarterTurns(mode, i)));
            ASSERT_TRUE(q >= 0 && q <= 3);
            ++counts[static_cast<size_t>(q)];
        }
        EXPECT_EQ(v.substr(0, 16), check.phaseFirst);
        EXPECT_EQ(v.substr(v.size() - 16), check.phaseLast);
        EXPECT_EQ(counts, check.counts);
        for (int i = 0; i < 16; ++i) EXPECT_EQ(gen::InterleavedCarrier(mode, i < 12 ? i : k - 16 + i), check.carriers[i]) << i;
        gen::OfdmModulator mod(mode);
        const gen::ModeGeometry& g = mod.Geometry();
        const int n = g.fftSize;
        std::mt19937 rng(static_cast<unsigned>(mode));
        std::vector<uint8_t> bits(static_cast<size_t>(g.DataBitsPerFrame()));
        for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
        Samples frame(static_cast<size_t>(g.frameSamples));
        mod.ModulateFrame(bits.data(), frame.data());
        EXPECT_TRUE(std::all_of(frame.begin(), frame.begin() + g.nullSamples, [](cf x) { return x == cf(0, 0); }));
        std::vector<cd> z(static_cast<size_t>(n)), turn(static_cast<size_t>(n));  // z by carrier k at (k + N) mod N
        std::vector<size_t> carrierOf;
        for (int i = 0; i < n; ++i) turn[static_cast<size_t>(i)] = std::polar(1.0, 2 * kPi * i / n);
        for (int i = 0, pi = 0; i < n; ++i, pi = (13 * pi + n / 4 - 1) % n)
            if (pi >= (n - k) / 2 && pi <= (n + k) / 2 && pi != n / 2) carrierOf.push_back(static_cast<size_t>((pi + n / 2) % n));
        for (int c = -k / 2; c <= k / 2; ++c)
            if (c != 0) z[static_cast<size_t>((c + n) % n)] = std::polar(1.0, kPi / 2 * gen::PhaseReferenceQuarterTurns(mode, c));
        double maxError = 0;
        for (int l = 1; l <= g.symbolsPerFrame; ++l) {
            const uint8_t* p = bits.data() + (l - 2) * 2 * k;
            for (int i = 0; l > 1 && i < k; ++i) z[carrierOf[static_cast<size_t>(i)]] *= cd(1 - 2 * p[i], 1 - 2 * p[i + k]) / std::sqrt(2.0);
            for (int t = 0; t < g.symbolSamples; t += 127) {
                cd want = 0;
                for (int c = 0; c < n; ++c) want += z[static_cast<size_t>(c)] * turn[static_cast<size_t>(((t - g.guardSamples) * c % n + n) % n)];
                const cf got = frame[static_cast<size_t>(g.nullSamples + (l - 1) * g.symbolSamples + t)];
                maxError = std::max(maxError, std::abs(cd(got) - want / std::sqrt(static_cast<double>(k))));
            }
        }
        EXPECT_LT(maxError, 1e-4);
    }
}

// A clean mode II signal as the channel's input, and the power it declares.
const Samples& Signal(double* power = nullptr) {
    static gen::FrameTransmitter tx(gen::MakeRandomFrameBits(2, 5), 2);
    static const Samples signal = [] { Samples s(1 << 18); tx.Read(s.data(), s.size()); return s; }();
    if (power) *power = tx.MeanPower();
    return signal;
}

Samples RunChannel(const gen::ChannelParams& p, const Samples& in, double power) {
    gen::ChannelModel model(p, power);
    Samples out;
    model.Process(in.data(), in.size(), out);
    return out;
}

// The SNR is the declared signal power over the noise inside the occupied
// 1.536 MHz; the noise is white (no correlation between neighbouring
// samples), so that band holds 1536/2048 of it.
TEST(ChannelModel, SnrMeasuredInTheOccupiedBand) {
    double power;
    const Samples& in = Signal(&power);
    const Samples out = RunChannel({.snrDb = 6}, in, power);
    ASSERT_EQ(out.size(), in.size());
    double total = 0, signal = 0;
    cd lag1 = 0;
    for (size_t i = 0; i + 1 < in.size(); ++i) {
        const cd e = cd(out[i]) - cd(in[i]), next = cd(out[i + 1]) - cd(in[i + 1]);
        total += std::norm(e), signal += std::norm(cd(in[i])), lag1 += next * std::conj(e);
    }
    EXPECT_LT(std::abs(lag1) / total, 0.01);
    EXPECT_NEAR(signal / static_cast<double>(in.size()) / power, 1, 0.01);  // the transmitter declares its power
    EXPECT_NEAR(10 * std::log10(power / (total / static_cast<double>(in.size()) * 1536 / 2048)), 6, 0.05);
}

// Carrier offset and drift from the phase advance of output x conj(input)
// over 16 samples, around two instants; the clock offset from the delay of
// input blocks in the output (cross-correlation peak refined by a parabola).
TEST(ChannelModel, FrequencyAndClockOffsetsMeasuredBack) {
    const Samples& in = Signal();
    Samples out = RunChannel({.frequencyOffsetHz = -3456.7, .frequencyDriftHzPerSecond = 200}, in, 1);
    for (size_t centre : {30000u, 230000u}) {
        cd acc = 0;
        for (size_t i = centre - 20000; i < centre + 20000; ++i)
            acc += cd(out[i + 16]) * std::conj(cd(in[i + 16])) * std::conj(cd(out[i]) * std::conj(cd(in[i])));
        EXPECT_NEAR(std::arg(acc) / (2 * kPi) / 16 * kFs, -3456.7 + 200 * (centre + 8) / kFs, 0.5) << centre;
    }
    const double ppm = -500;
    out = RunChannel({.sampleClockPpm = ppm}, in, 1);
    ASSERT_NEAR(static_cast<double>(out.size()), in.size() * (1 + ppm * 1e-6) - 16, 2);  // 16 wait for more input
    auto delayAt = [&](size_t m) {
        auto corr = [&](int lag) {
            cd acc = 0;
            for (size_t j = 0; j < 4096; ++j) acc += cd(out[m + lag + j]) * std::conj(cd(in[m + j]));
            return std::abs(acc);
        };
        int best = static_cast<int>(std::lround(m * ppm * 1e-6)) - 4;
        for (int lag = best + 1; lag <= best + 8; ++lag) best = corr(lag) > corr(best) ? lag : best;
        const double l = corr(best - 1), c = corr(best), r = corr(best + 1);
        return best + 0.5 * (l - r) / (l - 2 * c + r);
    };
    const size_t m0 = 10000, m1 = in.size() - 30000;
    const double d0 = delayAt(m0), d1 = delayAt(m1);
    EXPECT_NEAR((d1 - d0) / static_cast<double>(m1 - m0) * 1e6, ppm, 0.3);
    EXPECT_NEAR(d0, (m0 + 2048) * ppm * 1e-6, 0.05);  // the block's middle
}

TEST(ChannelModel, LeadInDropoutMultipathCwInterfererAndQuantisation) {
    // 20,480 samples of lead-in, a random start under 1000 samples, output
    // samples 30,000 .. 39,999 dropped: zeros there, the input elsewhere.
    const Samples in(Signal().begin(), Signal().begin() + 100000);
    gen::ChannelModel model({.leadInSeconds = 0.01, .randomStart = true, .randomStartMaxSamples = 1000,
                             .dropoutStartSeconds = 30000 / kFs, .dropoutSeconds = 10000 / kFs}, 1);
    Samples out;
    model.Process(in.data(), in.size(), out);
    const size_t skip = model.DroppedInputSamples();
    ASSERT_TRUE(skip > 0 && skip < 1000 && out.size() == 20480 + in.size() - skip);
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], i < 20480 || (i >= 30000 && i < 40000) ? cf(0, 0) : in[i - 20480 + skip]) << i;
    // Taps normalised to a total power of 1, each with its delay, power and phase.
    Samples impulse(2000, cf(0, 0));
    impulse[100] = cf(1, 0);
    out = RunChannel({.taps = {{0, 0, 0}, {37, -6, 1.5}, {500, -10, -2}}}, impulse, 1);
    const double total = 1 + std::pow(10, -0.6) + std::pow(10, -1.0);
    EXPECT_NEAR(std::abs(out[100] - cf(std::sqrt(1 / total))), 0, 1e-6);
    EXPECT_NEAR(std::abs(cd(out[137]) - std::polar(std::sqrt(std::pow(10, -0.6) / total), 1.5)), 0, 1e-6);
    EXPECT_NEAR(std::abs(cd(out[600]) - std::polar(std::sqrt(0.1 / total), -2.0)), 0, 1e-6);
    // A CW interferer 6 dB below a signal power of 2, at +300 kHz.
    out = RunChannel({.cwOffsetHz = 300000, .cwPowerDb = -6}, Samples(1 << 16, cf(0, 0)), 2.0);
    double cw = 0;
    cd acc = 0;
    for (size_t i = 0; i + 1 < out.size(); ++i) cw += std::norm(cd(out[i])), acc += cd(out[i + 1]) * std::conj(cd(out[i]));
    EXPECT_NEAR(10 * std::log10(cw / static_cast<double>(out.size() - 1)), 10 * std::log10(2.0) - 6, 1e-3);
    EXPECT_NEAR(std::arg(acc) / (2 * kPi) * kFs, 300000, 1);
    // 8-bit quantisation rounds to the nearest code and clips.
    const cf q[] = {{0, 0}, {0.49f, -0.51f}, {1000, -1000}, {-127.5f, 127.4f}};
    uint8_t bytes[8];
    gen::QuantiseToU8(q, 4, 1.0, 0, 0, bytes);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 8), (std::vector<uint8_t>{128, 128, 128, 127, 255, 0, 0, 255}));
    gen::QuantiseToU8(q, 1, 2.0, -3, 4.2, bytes);
    EXPECT_TRUE(bytes[0] == 125 && bytes[1] == 132);
}

// Everything on at once: the same seed gives the same bytes however the input
// is cut into calls; another seed gives other bytes.
TEST(ChannelModel, DeterministicAndIndependentOfChunking) {
    const Samples in(Signal().begin(), Signal().begin() + 60000);
    gen::ChannelParams p{.snrDb = 9, .frequencyOffsetHz = 1500, .frequencyDriftHzPerSecond = -3, .sampleClockPpm = -12,
                         .fadingDopplerHz = 20, .cwOffsetHz = -200000, .cwPowerDb = -10, .leadInSeconds = 0.002,
                         .randomStart = true, .randomStartMaxSamples = 20000, .dcI = 1.5,
                         .dropoutStartSeconds = 0.015, .dropoutSeconds = 0.005};
    gen::MultipathProfile("urban", &p.taps);
    auto bytes = [&](uint64_t seed, const std::vector<size_t>& chunks) {
        p.seed = seed;
        gen::ChannelModel model(p, 1);
        std::vector<uint8_t> all, part;
        for (size_t pos = 0, c = 0, len; pos < in.size(); pos += len) {
            len = std::min(chunks[c++ % chunks.size()], in.size() - pos);
            model.ProcessU8(in.data() + pos, len, part);
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    };
    const auto whole = bytes(77, {in.size()});
    EXPECT_GT(whole.size(), 2 * (in.size() - 20000));
    EXPECT_EQ(whole, bytes(77, {1, 7, 4096, 13, 60000, 2}));
    EXPECT_NE(whole, bytes(78, {in.size()}));
}

// Every key of a description reaches the channel; bad ones are refused.
TEST(SignalStream, DescriptionsReachTheChannelOrAreRefused) {
    auto s = gen::MakeSignalStream(
        "preset=random,snr=9,cfo=-1500,drift=2,ppm=3,profile=urban,fading=10,cw=1000:-6,leadin=0.5,randomstart=1");
    EXPECT_NE(s->Describe().find("SNR 9.000000 dB, offset -1500.0 Hz+2.000 Hz/s, clock +3.00 ppm, 6 path(s), fading 10.000000 Hz, "
                                 "CW -6.000000 dB at 1000.000000 Hz, lead-in 0.500 s, random start"), std::string::npos) << s->Describe();
    for (const char* d : {"preset=no-such-ensemble", "mode=0", "mode=5", "mode=two", "mode=", "seed=-1", "seed=1x", "snr=loud",
                          "snr=nan", "cfo=1e999", "ppm=2000", "profile=moon", "fading=-1", "cw=100", "cw=100:x", "cw=:3",
                          "leadin=-1", "leadin=11", "randomstart=2", "colour=red", "snr", "=3", "preset=", "config=/nonexistent"}) {
        std::string error;  // and without an error text wanted: no crash
        EXPECT_TRUE(!gen::MakeSignalStream(std::string("preset=random,") + d, &error) && !error.empty() && !gen::MakeSignalStream(d)) << d;
    }
}

}  // namespace
