// Channel model: each impairment measured back from the output.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "generator/channel_model.h"

namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;
constexpr double kFs = 2048000.0;
constexpr double kPi = 3.14159265358979323846;

// In-place radix-2 FFT (forward, unscaled).
void Fft(std::vector<cd>& a) {
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        const cd w = std::polar(1.0, -2 * kPi / static_cast<double>(len));
        for (size_t i = 0; i < n; i += len) {
            cd v = 1;
            for (size_t k = 0; k < len / 2; ++k, v *= w) {
                const cd x = a[i + k], y = a[i + k + len / 2] * v;
                a[i + k] = x + y;
                a[i + k + len / 2] = x - y;
            }
        }
    }
}

// Complex noise low-passed to +-0.37 of the sample rate, like a DAB signal's
// occupied band, with unit mean power.
std::vector<cf> BandLimitedNoise(size_t n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> g(0, 1);
    constexpr int kHalf = 48;
    std::vector<double> h(2 * kHalf + 1);
    for (int k = -kHalf; k <= kHalf; ++k) {
        const double x = 0.74 * k;
        const double s = k == 0 ? 1 : std::sin(kPi * x) / (kPi * x);
        h[k + kHalf] = 0.74 * s * (0.54 + 0.46 * std::cos(kPi * k / kHalf));
    }
    std::vector<cd> white(n + h.size());
    for (auto& w : white) w = cd(g(rng), g(rng));
    std::vector<cf> out(n);
    double power = 0;
    for (size_t i = 0; i < n; ++i) {
        cd acc = 0;
        for (size_t j = 0; j < h.size(); ++j) acc += white[i + j] * h[j];
        out[i] = cf(acc);
        power += std::norm(acc);
    }
    const float scale = static_cast<float>(1 / std::sqrt(power / static_cast<double>(n)));
    for (auto& v : out) v *= scale;
    return out;
}

std::vector<cf> RunChannel(const gen::ChannelParams& p, const std::vector<cf>& in, double power = 1) {
    gen::ChannelModel model(p, power);
    std::vector<cf> out;
    model.Process(in.data(), in.size(), out);
    return out;
}

double MeanPower(const std::vector<cf>& x, size_t from = 0, size_t to = SIZE_MAX) {
    to = std::min(to, x.size());
    double s = 0;
    for (size_t i = from; i < to; ++i) s += std::norm(cd(x[i]));
    return s / static_cast<double>(to - from);
}

TEST(ChannelModel, DefaultParametersPassTheSignalUnchanged) {
    const auto in = BandLimitedNoise(5000, 1);
    const auto out = RunChannel(gen::ChannelParams{}, in);
    ASSERT_EQ(out.size(), in.size());
    for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], in[i]) << i;
}

// The SNR counts only the noise inside the occupied 1.536 MHz: measured there
// by DFT, the noise power must be signal power / SNR; over the whole band it
// is 2.048/1.536 times that.
TEST(ChannelModel, SnrMeasuredInTheOccupiedBand) {
    const size_t n = 1 << 19;
    const auto in = BandLimitedNoise(n, 2);
    const double signalPower = MeanPower(in);
    for (double snrDb : {0.0, 12.0}) {
        gen::ChannelParams p;
        p.snrDb = snrDb;
        p.seed = 9;
        const auto out = RunChannel(p, in, signalPower);
        ASSERT_EQ(out.size(), n);
        double total = 0, inBand = 0;
        const size_t nfft = 2048;
        for (size_t b = 0; b + nfft <= n; b += nfft) {
            std::vector<cd> noise(nfft);
            for (size_t i = 0; i < nfft; ++i) noise[i] = cd(out[b + i]) - cd(in[b + i]);
            Fft(noise);
            for (size_t k = 0; k < nfft; ++k) {
                const double e = std::norm(noise[k]) / nfft;  // per-sample power share
                total += e;
                const long f = k < nfft / 2 ? static_cast<long>(k) : static_cast<long>(k) - static_cast<long>(nfft);
                if (std::abs(f) <= 768) inBand += e;
            }
        }
        const double blocks = static_cast<double>(n / nfft);
        total /= blocks * nfft;
        inBand /= blocks * nfft;
        const double measuredSnr = 10 * std::log10(signalPower / inBand);
        EXPECT_NEAR(measuredSnr, snrDb, 0.05);
        EXPECT_NEAR(total / inBand, 2048.0 / 1537.0, 0.01);
        gen::ChannelModel model(p, signalPower);
        EXPECT_NEAR(model.NoiseVariance(), signalPower / std::pow(10, snrDb / 10) * 2048 / 1536, 1e-12);
    }
}

// Carrier offset and drift, measured from the phase of output x conj(input)
// at 20 dB SNR.
TEST(ChannelModel, FrequencyOffsetAndDriftMeasuredBack) {
    const size_t n = 1 << 20;  // 0.51 s
    const auto in = BandLimitedNoise(n, 3);
    gen::ChannelParams p;
    p.snrDb = 20;
    p.frequencyOffsetHz = -3456.7;
    p.frequencyDriftHzPerSecond = 40;
    const auto out = RunChannel(p, in, MeanPower(in));
    ASSERT_EQ(out.size(), n);
    // Phase advance over `lag` around sample `centre`.
    auto advance = [&](size_t centre, size_t lag) {
        const size_t span = 40000;
        cd acc = 0;
        for (size_t i = centre - span / 2; i < centre + span / 2; ++i) {
            const cd z0 = cd(out[i]) * std::conj(cd(in[i]));
            const cd z1 = cd(out[i + lag]) * std::conj(cd(in[i + lag]));
            acc += z1 * std::conj(z0);
        }
        return std::arg(acc);
    };
    // Coarse over 16 samples, then refined over 2048 without ambiguity.
    auto measure = [&](size_t centre) {
        const double coarse = advance(centre, 16) / (2 * kPi * 16) * kFs;
        const double fine = advance(centre, 2048);
        const double turns = std::round(coarse * 2048 / kFs - fine / (2 * kPi));
        return (fine / (2 * kPi) + turns) * kFs / 2048;
    };
    const size_t a = 50000, b = n - 50000;
    const double fa = measure(a), fb = measure(b);
    EXPECT_NEAR(fa, p.frequencyOffsetHz + 40 * (a + 1024) / kFs, 0.5);
    EXPECT_NEAR(fb, p.frequencyOffsetHz + 40 * (b + 1024) / kFs, 0.5);
    EXPECT_NEAR((fb - fa) / ((b - a) / kFs), 40, 2);
}

// Delay of the input block at `m` in the output, by cross-correlation with a
// parabolic fit of the peak.
double DelayAt(const std::vector<cf>& in, const std::vector<cf>& out, size_t m, int expect) {
    const size_t w = 4096;
    auto corr = [&](int lag) {
        cd acc = 0;
        for (size_t j = 0; j < w; ++j) acc += cd(out[m + lag + j]) * std::conj(cd(in[m + j]));
        return std::abs(acc);
    };
    int best = expect - 4;
    double bestV = -1;
    for (int lag = expect - 4; lag <= expect + 4; ++lag) {
        const double v = corr(lag);
        if (v > bestV) bestV = v, best = lag;
    }
    const double l = corr(best - 1), r = corr(best + 1);
    return best + 0.5 * (l - r) / (l - 2 * bestV + r);
}

TEST(ChannelModel, SampleClockOffsetMeasuredByCrossCorrelation) {
    const size_t n = 1 << 21;  // about 1 s
    const auto in = BandLimitedNoise(n, 4);
    for (double ppm : {37.5, -80.0}) {
        gen::ChannelParams p;
        p.sampleClockPpm = ppm;
        const auto out = RunChannel(p, in);
        // A few samples wait for input still to come.
        ASSERT_NEAR(static_cast<double>(out.size()), n * (1 + ppm * 1e-6) - 16, 2);
        const size_t m0 = 10000, m1 = n - 250000;
        const double d0 = DelayAt(in, out, m0, static_cast<int>(std::lround(m0 * ppm * 1e-6)));
        const double d1 = DelayAt(in, out, m1, static_cast<int>(std::lround(m1 * ppm * 1e-6)));
        EXPECT_NEAR((d1 - d0) / static_cast<double>(m1 - m0) * 1e6, ppm, 0.1);
        // The block's mean delay is that of its middle.
        EXPECT_NEAR(d0, (m0 + 2048) * ppm * 1e-6, 0.05);
    }
}

// The resampler reproduces a tone near the band edge at the stretched times.
TEST(ChannelModel, ResamplerErrorIsSmallInTheOccupiedBand) {
    const size_t n = 200000;
    const double ppm = 123.0, step = 1 / (1 + ppm * 1e-6);
    for (double f : {0.01, 0.2, 0.37, -0.37}) {
        std::vector<cf> in(n);
        for (size_t i = 0; i < n; ++i) in[i] = cf(std::polar(1.0, 2 * kPi * f * static_cast<double>(i)));
        gen::ChannelParams p;
        p.sampleClockPpm = ppm;
        const auto out = RunChannel(p, in);
        double err = 0;
        size_t count = 0;
        for (size_t k = 100; k < out.size(); ++k) {
            const cd want = std::polar(1.0, 2 * kPi * f * static_cast<double>(k) * step);
            err += std::norm(cd(out[k]) - want);
            ++count;
        }
        EXPECT_LT(10 * std::log10(err / static_cast<double>(count)), -60) << "tone at " << f;
    }
}

TEST(ChannelModel, MultipathTapsAreNormalisedAndDelayed) {
    std::vector<cf> impulse(2000, cf(0, 0));
    impulse[100] = cf(1, 0);
    gen::ChannelParams p;
    p.taps = {{0, 0, 0}, {37, -6, 1.5}, {500, -10, -2}};
    const auto out = RunChannel(p, impulse);
    ASSERT_EQ(out.size(), impulse.size());
    const double total = 1 + std::pow(10, -0.6) + std::pow(10, -1.0);
    EXPECT_NEAR(std::abs(out[100]), std::sqrt(1 / total), 1e-6);
    EXPECT_NEAR(std::abs(out[137]), std::sqrt(std::pow(10, -0.6) / total), 1e-6);
    EXPECT_NEAR(std::arg(out[137]), 1.5, 1e-5);
    EXPECT_NEAR(std::abs(out[600]), std::sqrt(0.1 / total), 1e-6);
    EXPECT_NEAR(std::arg(out[600]), -2, 1e-5);
    EXPECT_NEAR(MeanPower(out) * out.size(), 1, 1e-5);

    // A fractional delay: the delayed band-limited signal matches one delayed
    // by whole samples after a half-sample shift both ways.
    const auto in = BandLimitedNoise(20000, 5);
    gen::ChannelParams half;
    half.taps = {{2.5, 0, 0}};
    const auto once = RunChannel(half, in);
    const auto twice = RunChannel(half, once);
    double err = 0;
    for (size_t i = 100; i + 100 < twice.size(); ++i) err += std::norm(cd(twice[i]) - cd(in[i - 5]));
    EXPECT_LT(10 * std::log10(err / (twice.size() - 200)), -50);
    EXPECT_EQ(once.size(), in.size() - 13);  // the kernel's look-ahead
}

TEST(ChannelModel, NamedProfilesExist) {
    for (const std::string& name : gen::MultipathProfileNames()) {
        std::vector<gen::PathTap> taps;
        ASSERT_TRUE(gen::MultipathProfile(name, &taps)) << name;
        EXPECT_FALSE(taps.empty());
    }
    EXPECT_FALSE(gen::MultipathProfile("no-such-profile", nullptr));
}

// With fading the received power varies over time but keeps its mean.
TEST(ChannelModel, FadingKeepsMeanPower) {
    const auto in = BandLimitedNoise(1 << 20, 6);
    gen::ChannelParams p;
    p.fadingDopplerHz = 100;
    const auto out = RunChannel(p, in);
    double lo = 1e9, hi = 0;
    for (size_t b = 0; b + 4096 <= out.size(); b += 4096) {
        const double e = MeanPower(out, b, b + 4096) / MeanPower(in, b, b + 4096);
        lo = std::min(lo, e);
        hi = std::max(hi, e);
    }
    EXPECT_LT(lo, 0.3);
    EXPECT_GT(hi, 1.5);
    EXPECT_NEAR(MeanPower(out) / MeanPower(in), 1, 0.35);
}

TEST(ChannelModel, CwInterfererPowerAndFrequency) {
    std::vector<cf> zeros(1 << 16, cf(0, 0));
    gen::ChannelParams p;
    p.cwOffsetHz = 300000;
    p.cwPowerDb = -6;
    const auto out = RunChannel(p, zeros, 2.0);
    EXPECT_NEAR(MeanPower(out), 2.0 * std::pow(10, -0.6), 1e-4);
    cd acc = 0;
    for (size_t i = 0; i + 1 < out.size(); ++i) acc += cd(out[i + 1]) * std::conj(cd(out[i]));
    EXPECT_NEAR(std::arg(acc) / (2 * kPi) * kFs, 300000, 1);
}

TEST(ChannelModel, LeadInRandomStartAndDropout) {
    const auto in = BandLimitedNoise(100000, 7);
    gen::ChannelParams p;
    p.leadInSeconds = 0.01;                    // 20480 samples
    p.randomStart = true;
    p.randomStartMaxSamples = 1000;
    p.dropoutStartSeconds = 30000 / kFs;       // output samples 30000 .. 39999
    p.dropoutSeconds = 10000 / kFs;
    gen::ChannelModel model(p, 1);
    std::vector<cf> out;
    model.Process(in.data(), in.size(), out);
    const size_t lead = 20480, skip = model.DroppedInputSamples();
    EXPECT_LT(skip, 1000u);
    ASSERT_EQ(out.size(), lead + in.size() - skip);
    for (size_t i = 0; i < lead; ++i) ASSERT_EQ(out[i], cf(0, 0));
    for (size_t i = lead; i < out.size(); ++i) {
        const bool gone = i >= 30000 && i < 40000;
        ASSERT_EQ(out[i], gone ? cf(0, 0) : in[i - lead + skip]) << i;
    }
    // Another seed starts elsewhere.
    p.seed = 2;
    gen::ChannelModel other(p, 1);
    other.Process(in.data(), in.size(), out);
    EXPECT_NE(other.DroppedInputSamples(), skip);
}

TEST(ChannelModel, QuantisationRoundsAndClips) {
    const cf in[] = {{0, 0}, {0.49f, -0.51f}, {1000, -1000}, {-127.5f, 127.4f}, {10.2f, -3.7f}};
    uint8_t out[10];
    gen::QuantiseToU8(in, 5, 1.0, 0, 0, out);
    const uint8_t want[] = {128, 128, 128, 127, 255, 0, 0, 255, 138, 124};
    for (int i = 0; i < 10; ++i) EXPECT_EQ(out[i], want[i]) << i;
    gen::QuantiseToU8(in, 1, 2.0, -3, 4.2, out);
    EXPECT_EQ(out[0], 125);
    EXPECT_EQ(out[1], 132);
}

// Everything on at once: the same seed gives the same bytes however the input
// is cut into calls; another seed gives other bytes.
TEST(ChannelModel, DeterministicAndIndependentOfChunking) {
    const auto in = BandLimitedNoise(300000, 8);
    gen::ChannelParams p;
    p.seed = 77;
    p.snrDb = 9;
    p.frequencyOffsetHz = 1500;
    p.frequencyDriftHzPerSecond = -3;
    p.sampleClockPpm = -12;
    gen::MultipathProfile("urban", &p.taps);
    p.fadingDopplerHz = 20;
    p.cwOffsetHz = -200000;
    p.cwPowerDb = -10;
    p.leadInSeconds = 0.002;
    p.randomStart = true;
    p.dropoutStartSeconds = 0.05;
    p.dropoutSeconds = 0.01;
    p.dcI = 1.5;

    auto bytes = [&](uint64_t seed, const std::vector<size_t>& chunks) {
        gen::ChannelParams q = p;
        q.seed = seed;
        gen::ChannelModel model(q, 1);
        std::vector<uint8_t> all, part;
        size_t pos = 0, c = 0;
        while (pos < in.size()) {
            const size_t len = std::min(chunks[c++ % chunks.size()], in.size() - pos);
            model.ProcessU8(in.data() + pos, len, part);
            all.insert(all.end(), part.begin(), part.end());
            pos += len;
        }
        return all;
    };
    const auto whole = bytes(77, {in.size()});
    EXPECT_EQ(whole, bytes(77, {in.size()}));
    EXPECT_EQ(whole, bytes(77, {1, 7, 4096, 13, 60000, 2}));
    EXPECT_NE(whole, bytes(78, {in.size()}));
    EXPECT_GT(whole.size(), 2 * (in.size() - 196608));
}

}  // namespace
