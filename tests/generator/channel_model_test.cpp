// Channel model: each impairment measured back from the output, quantisation,
// and determinism however the input is cut into calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "generator/channel_model.h"

// Parameters are written as designated initializers naming only what differs
// from the defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;
constexpr double kFs = 2048000.0;
constexpr double kPi = 3.14159265358979323846;

// Complex noise low-passed to +-0.37 of the sample rate, like a DAB signal's
// occupied band, with unit mean power.
std::vector<cf> BandLimitedNoise(size_t n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> g(0, 1);
    constexpr int kHalf = 48;
    double h[2 * kHalf + 1];
    for (int k = -kHalf; k <= kHalf; ++k)
        h[k + kHalf] = (k == 0 ? 0.74 : std::sin(kPi * 0.74 * k) / (kPi * k)) * (0.54 + 0.46 * std::cos(kPi * k / kHalf));
    std::vector<cd> white(n + 2 * kHalf + 1);
    for (auto& w : white) w = cd(g(rng), g(rng));
    std::vector<cf> out(n);
    double power = 0;
    for (size_t i = 0; i < n; ++i) {
        cd acc = 0;
        for (int j = 0; j <= 2 * kHalf; ++j) acc += white[i + j] * h[j];
        out[i] = cf(acc);
        power += std::norm(acc);
    }
    for (auto& v : out) v /= static_cast<float>(std::sqrt(power / static_cast<double>(n)));
    return out;
}

std::vector<cf> RunChannel(const gen::ChannelParams& p, const std::vector<cf>& in, double power = 1) {
    gen::ChannelModel model(p, power);
    std::vector<cf> out;
    model.Process(in.data(), in.size(), out);
    return out;
}

// Mean error power of `out` against `want(i)` from sample `from` on, in dB.
template <class F>
double ErrorDb(const std::vector<cf>& out, size_t from, F want) {
    double err = 0;
    for (size_t i = from; i < out.size(); ++i) err += std::norm(cd(out[i]) - want(i));
    return 10 * std::log10(err / static_cast<double>(out.size() - from));
}

// The SNR counts the noise inside the occupied 1.536 MHz. The noise is white
// (no correlation between neighbouring samples), so that band holds
// 1536/2048 of its total power.
TEST(ChannelModel, SnrMeasuredInTheOccupiedBand) {
    const size_t n = 1 << 19;
    const auto in = BandLimitedNoise(n, 2);
    for (double snrDb : {0.0, 12.0}) {
        const auto out = RunChannel({.snrDb = snrDb}, in);
        ASSERT_EQ(out.size(), n);
        double total = 0;
        cd lag1 = 0;
        for (size_t i = 0; i < n; ++i) {
            const cd e = cd(out[i]) - cd(in[i]), next = i + 1 < n ? cd(out[i + 1]) - cd(in[i + 1]) : 0;
            total += std::norm(e);
            lag1 += next * std::conj(e);
        }
        EXPECT_LT(std::abs(lag1) / total, 0.01);
        EXPECT_NEAR(10 * std::log10(1.0 / (total / n * 1536 / 2048)), snrDb, 0.03);
    }
}

// Carrier offset and drift at 20 dB SNR, from the phase advance of
// output x conj(input): coarse over 16 samples, then over 2048.
TEST(ChannelModel, FrequencyOffsetAndDriftMeasuredBack) {
    const auto in = BandLimitedNoise(1 << 20, 3);
    const auto out = RunChannel({.snrDb = 20, .frequencyOffsetHz = -3456.7, .frequencyDriftHzPerSecond = 40}, in);
    auto advance = [&](size_t centre, size_t lag) {
        cd acc = 0;
        for (size_t i = centre - 20000; i < centre + 20000; ++i)
            acc += cd(out[i + lag]) * std::conj(cd(in[i + lag])) * std::conj(cd(out[i]) * std::conj(cd(in[i])));
        return std::arg(acc) / (2 * kPi);
    };
    for (size_t centre : {50000u, 1000000u}) {
        const double coarse = advance(centre, 16) / 16 * kFs, fine = advance(centre, 2048);
        const double f = (fine + std::round(coarse * 2048 / kFs - fine)) * kFs / 2048;
        EXPECT_NEAR(f, -3456.7 + 40 * (centre + 1024) / kFs, 0.5) << centre;
    }
}

// Delay of the input block at `m` in the output: cross-correlation peak,
// refined by a parabola.
double DelayAt(const std::vector<cf>& in, const std::vector<cf>& out, size_t m, int expect) {
    auto corr = [&](int lag) {
        cd acc = 0;
        for (size_t j = 0; j < 4096; ++j) acc += cd(out[m + lag + j]) * std::conj(cd(in[m + j]));
        return std::abs(acc);
    };
    int best = expect - 4;
    for (int lag = expect - 3; lag <= expect + 4; ++lag)
        if (corr(lag) > corr(best)) best = lag;
    const double l = corr(best - 1), c = corr(best), r = corr(best + 1);
    return best + 0.5 * (l - r) / (l - 2 * c + r);
}

TEST(ChannelModel, SampleClockOffsetMeasuredByCrossCorrelation) {
    const size_t n = 1 << 21;  // about 1 s
    const auto in = BandLimitedNoise(n, 4);
    for (double ppm : {37.5, -80.0}) {
        const auto out = RunChannel({.sampleClockPpm = ppm}, in);
        ASSERT_NEAR(static_cast<double>(out.size()), n * (1 + ppm * 1e-6) - 16, 2);  // 16 wait for more input
        const size_t m0 = 10000, m1 = n - 250000;
        const double d0 = DelayAt(in, out, m0, static_cast<int>(std::lround(m0 * ppm * 1e-6)));
        const double d1 = DelayAt(in, out, m1, static_cast<int>(std::lround(m1 * ppm * 1e-6)));
        EXPECT_NEAR((d1 - d0) / static_cast<double>(m1 - m0) * 1e6, ppm, 0.1);
        EXPECT_NEAR(d0, (m0 + 2048) * ppm * 1e-6, 0.05);  // the block's middle
    }
    // Tones inside the occupied band come out at the stretched times.
    const double step = 1 / (1 + 123e-6);
    for (double f : {0.05, -0.37}) {
        std::vector<cf> tone(100000);
        for (size_t i = 0; i < tone.size(); ++i) tone[i] = cf(std::polar(1.0, 2 * kPi * f * static_cast<double>(i)));
        const auto out = RunChannel({.sampleClockPpm = 123}, tone);
        EXPECT_LT(ErrorDb(out, 100, [&](size_t k) { return std::polar(1.0, 2 * kPi * f * static_cast<double>(k) * step); }), -60)
            << "tone at " << f;
    }
}

TEST(ChannelModel, MultipathTapsCwInterfererAndQuantisation) {
    std::vector<cf> impulse(2000, cf(0, 0));
    impulse[100] = cf(1, 0);
    const gen::ChannelParams p{.taps = {{0, 0, 0}, {37, -6, 1.5}, {500, -10, -2}}};
    auto out = RunChannel(p, impulse);
    const double total = 1 + std::pow(10, -0.6) + std::pow(10, -1.0);
    double energy = 0;
    for (const cf& v : out) energy += std::norm(cd(v));
    EXPECT_NEAR(energy, 1, 1e-5);
    for (const auto& t : p.taps) {
        const cf v = out[100 + static_cast<size_t>(t.delaySamples)];
        EXPECT_NEAR(std::abs(v), std::sqrt(std::pow(10, t.gainDb / 10) / total), 1e-6);
        EXPECT_NEAR(std::arg(v), t.phaseRad, 1e-5);
    }
    // Two fractional delays of 2.5 samples make a whole delay of 5.
    const auto in = BandLimitedNoise(20000, 5);
    const gen::ChannelParams half{.taps = {{2.5, 0, 0}}};
    out = RunChannel(half, RunChannel(half, in));
    ASSERT_EQ(out.size(), in.size() - 26);  // the kernel's look-ahead, twice
    EXPECT_LT(ErrorDb(out, 100, [&](size_t i) { return cd(in[i - 5]); }), -50);

    // A CW interferer 6 dB below a signal power of 2, at +300 kHz.
    out = RunChannel({.cwOffsetHz = 300000, .cwPowerDb = -6}, std::vector<cf>(1 << 16, cf(0, 0)), 2.0);
    EXPECT_NEAR(ErrorDb(out, 0, [](size_t) { return cd(0); }), 10 * std::log10(2.0) - 6, 8e-4);
    cd acc = 0;
    for (size_t i = 0; i + 1 < out.size(); ++i) acc += cd(out[i + 1]) * std::conj(cd(out[i]));
    EXPECT_NEAR(std::arg(acc) / (2 * kPi) * kFs, 300000, 1);

    // 8-bit quantisation rounds to the nearest code and clips.
    const cf q[] = {{0, 0}, {0.49f, -0.51f}, {1000, -1000}, {-127.5f, 127.4f}};
    uint8_t bytes[8];
    gen::QuantiseToU8(q, 4, 1.0, 0, 0, bytes);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 8), (std::vector<uint8_t>{128, 128, 128, 127, 255, 0, 0, 255}));
    gen::QuantiseToU8(q, 1, 2.0, -3, 4.2, bytes);
    EXPECT_EQ(bytes[0], 125);
    EXPECT_EQ(bytes[1], 132);
}

TEST(ChannelModel, LeadInRandomStartAndDropout) {
    const auto in = BandLimitedNoise(100000, 7);
    // 20,480 samples of lead-in; output samples 30,000 .. 39,999 dropped.
    gen::ChannelParams p{.leadInSeconds = 0.01, .randomStart = true, .randomStartMaxSamples = 1000,
                         .dropoutStartSeconds = 30000 / kFs, .dropoutSeconds = 10000 / kFs};
    gen::ChannelModel model(p, 1);
    std::vector<cf> out;
    model.Process(in.data(), in.size(), out);
    const size_t lead = 20480, skip = model.DroppedInputSamples();
    EXPECT_LT(skip, 1000u);
    ASSERT_EQ(out.size(), lead + in.size() - skip);
    for (size_t i = 0; i < out.size(); ++i) {
        const bool silent = i < lead || (i >= 30000 && i < 40000);
        ASSERT_EQ(out[i], silent ? cf(0, 0) : in[i - lead + skip]) << i;
    }
    p.seed = 2;  // another seed starts elsewhere
    gen::ChannelModel other(p, 1);
    other.Process(in.data(), in.size(), out);
    EXPECT_NE(other.DroppedInputSamples(), skip);
}

// Everything on at once: the same seed gives the same bytes however the input
// is cut into calls; another seed gives other bytes.
TEST(ChannelModel, DeterministicAndIndependentOfChunking) {
    const auto in = BandLimitedNoise(300000, 8);
    gen::ChannelParams p{.snrDb = 9, .frequencyOffsetHz = 1500, .frequencyDriftHzPerSecond = -3, .sampleClockPpm = -12,
                         .fadingDopplerHz = 20, .cwOffsetHz = -200000, .cwPowerDb = -10, .leadInSeconds = 0.002,
                         .randomStart = true, .dcI = 1.5, .dropoutStartSeconds = 0.05, .dropoutSeconds = 0.01};
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
    EXPECT_GT(whole.size(), 2 * (in.size() - 196608));
    EXPECT_EQ(whole, bytes(77, {1, 7, 4096, 13, 60000, 2}));
    EXPECT_NE(whole, bytes(78, {in.size()}));
}

}  // namespace
