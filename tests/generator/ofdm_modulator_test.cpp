// The OFDM modulator seen through an independent known-timing demodulator:
// every bit back in every mode, the frame's structure and scale, and bit
// errors at modest SNR after the channel model.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <vector>

#include "generator/channel_model.h"
#include "generator/frame_transmitter.h"
#include "generator/ofdm_modulator.h"
#include "tests/generator/ofdm_test_demodulator.h"

namespace {

using cf = std::complex<float>;
using ofdmtest::cd;

std::vector<uint8_t> RandomBits(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> bits(n);
    for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
    return bits;
}

TEST(OfdmModulator, EveryBitComesBackInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        gen::OfdmModulator mod(mode);
        const gen::ModeGeometry& g = mod.Geometry();
        ofdmtest::TestDemodulator demod(mode);
        std::vector<cf> frame(static_cast<size_t>(g.frameSamples));
        mod.SetRecording(true);
        // Two frames with different bits: each starts again from the phase
        // reference, nothing carries over.
        for (unsigned f = 0; f < 2; ++f) {
            const std::vector<uint8_t> bits = RandomBits(static_cast<size_t>(g.DataBitsPerFrame()), 100 * mode + f);
            mod.ModulateFrame(bits.data(), frame.data());
            EXPECT_EQ(mod.RecordedBits(), bits);
            EXPECT_EQ(ofdmtest::CountDifferences(demod.DemodulateFrame(frame.data()), bits), 0u);
        }
        for (int i = 0; i < g.nullSamples; ++i) ASSERT_EQ(frame[static_cast<size_t>(i)], cf(0, 0)) << i;

        // Phase reference: exp(j pi/2 q) on the active carriers, scaled by
        // sqrt(N^2/K) through the unscaled forward DFT; nothing elsewhere.
        const std::vector<cd> ref = demod.SymbolBins(frame.data(), 1);
        const double unit = g.fftSize / std::sqrt(static_cast<double>(g.carriers));
        double maxError = 0;
        for (int k = -g.fftSize / 2; k < g.fftSize / 2; ++k) {
            const int q = gen::PhaseReferenceQuarterTurns(mode, k);
            const cd want = q < 0 ? cd(0, 0) : std::polar(unit, std::numbers::pi / 2 * q);
            maxError = std::max(maxError, std::abs(demod.Bin(ref, k) - want) / unit);
        }
        EXPECT_LT(maxError, 1e-5);

        // Unit mean power over the useful part of every symbol; the prefix
        // repeats the symbol's end.
        for (int l = 1; l <= g.symbolsPerFrame; ++l) {
            const size_t start = static_cast<size_t>(g.nullSamples + (l - 1) * g.symbolSamples);
            double p = 0;
            for (int i = 0; i < g.fftSize; ++i) p += std::norm(cd(frame[start + static_cast<size_t>(g.guardSamples + i)]));
            ASSERT_NEAR(p / g.fftSize, 1.0, 1e-5) << l;
            for (int i = 0; i < g.guardSamples; ++i)
                ASSERT_EQ(frame[start + static_cast<size_t>(i)], frame[start + static_cast<size_t>(g.fftSize + i)]);
        }
    }
}

// Random channel bits through the channel model with noise only: the power
// the modulator declares is what it sends, so the SNR is what was asked for,
// and the bit errors of differential QPSK follow.
TEST(OfdmModulator, PowerAndBitErrorsAtModestSnr) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        gen::FrameTransmitter tx(gen::MakeRandomFrameBits(mode, 5), mode);
        const gen::ModeGeometry& g = tx.Geometry();
        std::vector<std::vector<uint8_t>> sent;
        tx.SetFrameObserver([&](uint64_t, const std::vector<uint8_t>& bits) { sent.push_back(bits); });
        const int frames = mode == 1 ? 2 : 4;
        std::vector<cf> clean(static_cast<size_t>(frames * g.frameSamples));
        tx.Read(clean.data(), clean.size());
        double power = 0;
        for (const cf& x : clean) power += std::norm(cd(x));
        EXPECT_NEAR(power / static_cast<double>(clean.size()) / tx.MeanPower(), 1.0, 0.01);

        gen::ChannelParams p;
        p.seed = 11;
        p.snrDb = 9;
        gen::ChannelModel channel(p, tx.MeanPower());
        std::vector<cf> noisy;
        channel.Process(clean.data(), clean.size(), noisy);
        ASSERT_EQ(noisy.size(), clean.size());

        ofdmtest::TestDemodulator demod(mode);
        size_t errors = 0, total = 0;
        for (int f = 0; f < frames; ++f) {
            errors += ofdmtest::CountDifferences(demod.DemodulateFrame(&noisy[static_cast<size_t>(f * g.frameSamples)]),
                                                 sent[static_cast<size_t>(f)]);
            total += sent[static_cast<size_t>(f)].size();
        }
        const double ber = static_cast<double>(errors) / static_cast<double>(total);
        RecordProperty("ber_mode" + std::to_string(mode), std::to_string(ber));
        // Differential QPSK at 9 dB per carrier loses about 1.68% of the bits
        // (simulated); half a dB of SNR error moves that by a fifth.
        EXPECT_GT(ber, 0.0150);
        EXPECT_LT(ber, 0.0190);
    }
}

}  // namespace
