// The transmitted signal: phase reference and frequency interleaving tables
// against published check values, every bit back through a known-timing
// demodulator written from the rules, each impairment of the channel model
// measured back, and the byte stream with the SNR its description asks for.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <set>
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

// Forward DFT X_k = sum x_n exp(-j 2 pi k n / N), N a power of two.
void Dft(std::vector<cd>& x) {
    const size_t n = x.size();
    if (n == 1) return;
    std::vector<cd> even(n / 2), odd(n / 2);
    for (size_t i = 0; i < n / 2; ++i) even[i] = x[2 * i], odd[i] = x[2 * i + 1];
    Dft(even);
    Dft(odd);
    for (size_t k = 0; k < n / 2; ++k) {
        const cd t = std::polar(1.0, -2 * kPi * static_cast<double>(k) / static_cast<double>(n)) * odd[k];
        x[k] = even[k] + t, x[k + n / 2] = even[k] - t;
    }
}

// Bins of symbol l (1 = phase reference) of a frame starting at frame[0];
// carrier k at index (k + N) mod N.
std::vector<cd> Bins(const gen::ModeGeometry& g, const cf* frame, int l) {
    const cf* s = frame + g.nullSamples + (l - 1) * g.symbolSamples + g.guardSamples;
    std::vector<cd> x(s, s + g.fftSize);
    Dft(x);
    return x;
}

// Hard bits of a frame by differential detection, with the frequency
// interleaving built from its rule: the real part of carrier F(n) gives bit
// n, the imaginary part bit n + K of each data symbol.
std::vector<uint8_t> Demodulate(int mode, const cf* frame) {
    const gen::ModeGeometry& g = gen::Geometry(mode);
    const int n = g.fftSize, k = g.carriers;
    std::vector<size_t> bin;
    for (int i = 0, pi = 0; i < n; ++i, pi = (13 * pi + n / 4 - 1) % n)
        if (pi >= (n - k) / 2 && pi <= (n + k) / 2 && pi != n / 2) bin.push_back(static_cast<size_t>((pi + n / 2) % n));
    std::vector<uint8_t> bits;
    std::vector<cd> previous = Bins(g, frame, 1);
    for (int l = 2; l <= g.symbolsPerFrame; ++l) {
        std::vector<cd> current = Bins(g, frame, l);
        for (int part = 0; part < 2; ++part)
            for (size_t b : bin) {
                const cd d = current[b] * std::conj(previous[b]);
                bits.push_back((part ? d.imag() : d.real()) < 0);
            }
        previous.swap(current);
    }
    return bits;
}

struct TableCheck {
    std::array<int, 16> phaseFirst;    // (h + n) mod 4 from k = -K/2 upwards
    std::array<int, 16> phaseLast;     // ending at k = K/2
    std::array<int, 4> phaseCounts;    // how many carriers have 0, 1, 2, 3
    std::array<int, 12> carrierFirst;  // carriers of the first and last
    std::array<int, 4> carrierLast;    // interleaved indices
};

const TableCheck kChecks[4] = {
    {{1, 3, 1, 1, 1, 1, 2, 2, 3, 1, 1, 1, 3, 3, 2, 2}, {1, 0, 3, 0, 1, 2, 0, 1, 3, 2, 3, 0, 3, 0, 0, 1}, {364, 404, 356, 412},
     {-513, -14, 329, 692, -733, 13, 680, 273, -36, 43, 85, -432}, {641, 652, 606, 197}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {3, 2, 1, 2, 3, 0, 2, 3, 1, 0, 1, 2, 1, 2, 2, 3}, {96, 80, 128, 80},
     {-129, -14, -55, -76, 163, 141, -88, 7, -111, -85, 46, -176}, {-116, 155, 94, -187}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {2, 1, 0, 1, 2, 3, 1, 2, 0, 3, 0, 1, 0, 1, 1, 2}, {56, 36, 64, 36},
     {-65, -14, 52, -29, -58, 77, 40, 71, -38, 81, 92, -21}, {12, -37, 94, 5}},
    {{0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1}, {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0}, {232, 176, 184, 176},
     {-257, -14, 73, 180, 198, -243, 168, 218, 17, 299, 46, -171}, {10, 140, 27, -59}},
};

TEST(OfdmTables, PhaseReferenceAndInterleavingMatchCheckValues) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        const TableCheck& c = kChecks[mode - 1];
        const int k = gen::Geometry(mode).carriers;
        std::vector<int> v;
        std::array<int, 4> counts{};
        for (int q, i = -k / 2; i <= k / 2; ++i) {
            if (i == 0) continue;
            v.push_back(q = gen::PhaseReferenceQuarterTurns(mode, i));
            ASSERT_TRUE(q >= 0 && q <= 3);
            ++counts[static_cast<size_t>(q)];
        }
        EXPECT_TRUE(std::equal(c.phaseFirst.begin(), c.phaseFirst.end(), v.begin()));
        EXPECT_TRUE(std::equal(c.phaseLast.begin(), c.phaseLast.end(), v.end() - 16));
        EXPECT_EQ(counts, c.phaseCounts);
        for (int i : {0, k / 2 + 1, -k / 2 - 1}) EXPECT_EQ(gen::PhaseReferenceQuarterTurns(mode, i), -1) << i;
        for (int n = 0; n < 12; ++n) EXPECT_EQ(gen::InterleavedCarrier(mode, n), c.carrierFirst[static_cast<size_t>(n)]) << n;
        for (int n = 0; n < 4; ++n) EXPECT_EQ(gen::InterleavedCarrier(mode, k - 4 + n), c.carrierLast[static_cast<size_t>(n)]) << n;
        std::set<int> seen;
        for (int n = 0; n < k; ++n) seen.insert(gen::InterleavedCarrier(mode, n));
        EXPECT_TRUE(seen.size() == static_cast<size_t>(k) && *seen.begin() == -k / 2 && *seen.rbegin() == k / 2 && !seen.count(0));
    }
}

TEST(OfdmModulator, EveryBitComesBackInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        gen::OfdmModulator mod(mode);
        const gen::ModeGeometry& g = mod.Geometry();
        Samples frame(static_cast<size_t>(g.frameSamples));
        std::mt19937 rng(static_cast<unsigned>(mode));
        std::vector<uint8_t> bits(static_cast<size_t>(g.DataBitsPerFrame()));
        for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
        mod.ModulateFrame(bits.data(), frame.data());
        EXPECT_TRUE(Demodulate(mode, frame.data()) == bits);
        EXPECT_TRUE(std::all_of(frame.begin(), frame.begin() + g.nullSamples, [](cf x) { return x == cf(0, 0); }));
        // Phase reference: exp(j pi/2 q) on the active carriers, scaled by
        // sqrt(N^2/K) through the unscaled forward DFT; nothing elsewhere.
        const std::vector<cd> ref = Bins(g, frame.data(), 1);
        const double unit = g.fftSize / std::sqrt(static_cast<double>(g.carriers));
        double maxError = 0;
        for (int k = -g.fftSize / 2; k < g.fftSize / 2; ++k) {
            const int q = gen::PhaseReferenceQuarterTurns(mode, k);
            const cd want = q < 0 ? cd(0, 0) : std::polar(unit, kPi / 2 * q);
            maxError = std::max(maxError, std::abs(ref[static_cast<size_t>((k + g.fftSize) % g.fftSize)] - want) / unit);
        }
        EXPECT_LT(maxError, 1e-5);
        // The guard interval repeats the end of its symbol.
        for (int l = 1; l <= g.symbolsPerFrame; ++l) {
            const cf* s = &frame[static_cast<size_t>(g.nullSamples + (l - 1) * g.symbolSamples)];
            ASSERT_TRUE(std::equal(s, s + g.guardSamples, s + g.fftSize)) << l;
        }
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

// Noise counts inside the occupied 1.536 MHz: it is white (no correlation
// between neighbouring samples), so that band holds 1536/2048 of it.
TEST(ChannelModel, SnrMeasuredInTheOccupiedBand) {
    double power;
    const Samples& in = Signal(&power);
    const Samples out = RunChannel({.snrDb = 6}, in, power);
    ASSERT_EQ(out.size(), in.size());
    double total = 0;
    cd lag1 = 0;
    for (size_t i = 0; i + 1 < in.size(); ++i) {
        const cd e = cd(out[i]) - cd(in[i]), next = cd(out[i + 1]) - cd(in[i + 1]);
        total += std::norm(e);
        lag1 += next * std::conj(e);
    }
    EXPECT_LT(std::abs(lag1) / total, 0.01);
    EXPECT_NEAR(10 * std::log10(power / (total / static_cast<double>(in.size()) * 1536 / 2048)), 6, 0.05);
}

// Carrier offset and drift at 20 dB SNR from the phase advance of
// output x conj(input): coarse over 16 samples, then over 2048.
TEST(ChannelModel, FrequencyOffsetAndDriftMeasuredBack) {
    double power;
    const Samples& in = Signal(&power);
    const Samples out = RunChannel({.snrDb = 20, .frequencyOffsetHz = -3456.7, .frequencyDriftHzPerSecond = 200}, in, power);
    auto advance = [&](size_t centre, size_t lag) {
        cd acc = 0;
        for (size_t i = centre - 20000; i < centre + 20000; ++i)
            acc += cd(out[i + lag]) * std::conj(cd(in[i + lag])) * std::conj(cd(out[i]) * std::conj(cd(in[i])));
        return std::arg(acc) / (2 * kPi);
    };
    for (size_t centre : {30000u, 230000u}) {
        const double coarse = advance(centre, 16) / 16 * kFs, fine = advance(centre, 2048);
        const double f = (fine + std::round(coarse * 2048 / kFs - fine)) * kFs / 2048;
        EXPECT_NEAR(f, -3456.7 + 200 * (centre + 1024) / kFs, 0.5) << centre;
    }
}

// The delay of input blocks in the output, from the cross-correlation peak
// refined by a parabola, grows with the clock offset.
TEST(ChannelModel, SampleClockOffsetMeasuredByCrossCorrelation) {
    const Samples& in = Signal();
    const double ppm = -500;
    const Samples out = RunChannel({.sampleClockPpm = ppm}, in, 1);
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

TEST(ChannelModel, MultipathCwInterfererAndQuantisation) {
    Samples impulse(2000, cf(0, 0));
    impulse[100] = cf(1, 0);
    const gen::ChannelParams p{.taps = {{0, 0, 0}, {37, -6, 1.5}, {500, -10, -2}}};
    Samples out = RunChannel(p, impulse, 1);
    double energy = 0;
    for (const cf& v : out) energy += std::norm(cd(v));
    EXPECT_NEAR(energy, 1, 1e-5);  // the taps are normalised
    const double total = 1 + std::pow(10, -0.6) + std::pow(10, -1.0);
    for (const auto& t : p.taps) {
        const cf v = out[100 + static_cast<size_t>(t.delaySamples)];
        EXPECT_NEAR(std::abs(v), std::sqrt(std::pow(10, t.gainDb / 10) / total), 1e-6);
        EXPECT_NEAR(std::arg(v), t.phaseRad, 1e-5);
    }
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

TEST(ChannelModel, LeadInRandomStartAndDropout) {
    const Samples in(Signal().begin(), Signal().begin() + 100000);
    // 20,480 samples of lead-in; output samples 30,000 .. 39,999 dropped.
    gen::ChannelParams p{.leadInSeconds = 0.01, .randomStart = true, .randomStartMaxSamples = 1000,
                         .dropoutStartSeconds = 30000 / kFs, .dropoutSeconds = 10000 / kFs};
    gen::ChannelModel model(p, 1);
    Samples out;
    model.Process(in.data(), in.size(), out);
    const size_t lead = 20480, skip = model.DroppedInputSamples();
    EXPECT_LT(skip, 1000u);
    ASSERT_EQ(out.size(), lead + in.size() - skip);
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], i < lead || (i >= 30000 && i < 40000) ? cf(0, 0) : in[i - lead + skip]) << i;
    p.seed = 2;  // another seed starts elsewhere
    gen::ChannelModel other(p, 1);
    other.Process(in.data(), in.size(), out);
    EXPECT_NE(other.DroppedInputSamples(), skip);
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

// The noise the description asks for reaches the carriers: differential
// QPSK at 9 dB per carrier loses about 1.68% of the bits (simulated), after
// 8-bit quantisation too; half a dB of SNR error moves that by a fifth.
TEST(SignalStream, SnrFromTheDescription) {
    auto s = gen::MakeSignalStream("preset=random,mode=3,seed=8,snr=9");
    ASSERT_TRUE(s);
    auto source = gen::MakeRandomFrameBits(3, 8);
    const size_t frameSamples = static_cast<size_t>(gen::Geometry(3).frameSamples);
    std::vector<uint8_t> bytes(2 * frameSamples), sent;
    Samples frame(frameSamples);
    size_t errors = 0, total = 0;
    for (int f = 0; f < 4; ++f) {
        s->Read(bytes.data(), bytes.size());
        for (size_t i = 0; i < frame.size(); ++i) frame[i] = {bytes[2 * i] - 127.5f, bytes[2 * i + 1] - 127.5f};
        source->NextFrame(sent);
        const std::vector<uint8_t> got = Demodulate(3, frame.data());
        ASSERT_EQ(got.size(), sent.size());
        for (size_t i = 0; i < got.size(); ++i) errors += got[i] != sent[i];
        total += sent.size();
    }
    const double ber = static_cast<double>(errors) / static_cast<double>(total);
    EXPECT_GT(ber, 0.0150);
    EXPECT_LT(ber, 0.0190);
}

TEST(SignalStream, BadDescriptionsAreRefused) {
    for (const char* d : {"preset=no-such-ensemble", "mode=0", "mode=5", "mode=two", "mode=", "seed=-1", "seed=1x",
                          "snr=loud", "snr=nan", "cfo=1e999", "ppm=2000", "profile=moon", "fading=-1", "cw=100",
                          "cw=100:x", "cw=:3", "leadin=-1", "leadin=11", "randomstart=2", "colour=red", "snr", "=3",
                          "preset=", "preset=random,mode=2,config=/nonexistent/ensemble.conf"}) {
        std::string error;
        EXPECT_EQ(gen::MakeSignalStream(std::string("preset=random,") + d, &error), nullptr) << d;
        EXPECT_FALSE(error.empty()) << d;
        EXPECT_EQ(gen::MakeSignalStream(d), nullptr) << d;  // no error text wanted: no crash
    }
}

}  // namespace
