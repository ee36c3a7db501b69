// OFDM modulation in every mode: the phase reference and frequency
// interleaving tables against published check values, every bit back through
// an independent known-timing demodulator, the frame's structure and scale,
// and the frame transmitter's stream of back-to-back frames.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <set>
#include <vector>

#include "generator/frame_transmitter.h"
#include "generator/ofdm_modulator.h"
#include "tests/generator/ofdm_test_demodulator.h"

namespace {

using cf = std::complex<float>;
using ofdmtest::cd;

struct TableCheck {
    std::array<int, 16> phaseFirst;   // k = -K/2 upwards
    std::array<int, 16> phaseLast;    // ending at k = K/2
    std::array<int, 4> phaseCounts;   // how many carriers have 0, 1, 2, 3
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
        // Outside the band and the centre carrier there is nothing.
        for (int i : {0, k / 2 + 1, -k / 2 - 1}) EXPECT_EQ(gen::PhaseReferenceQuarterTurns(mode, i), -1) << i;

        for (int n = 0; n < 12; ++n) EXPECT_EQ(gen::InterleavedCarrier(mode, n), c.carrierFirst[static_cast<size_t>(n)]) << n;
        for (int n = 0; n < 4; ++n) EXPECT_EQ(gen::InterleavedCarrier(mode, k - 4 + n), c.carrierLast[static_cast<size_t>(n)]) << n;
        std::set<int> seen;
        for (int n = 0; n < k; ++n) {
            const int carrier = gen::InterleavedCarrier(mode, n);
            EXPECT_TRUE(carrier != 0 && std::abs(carrier) <= k / 2) << carrier;
            seen.insert(carrier);
        }
        EXPECT_EQ(seen.size(), static_cast<size_t>(k));
    }
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
        std::mt19937 rng(static_cast<unsigned>(mode));
        for (int f = 0; f < 2; ++f) {
            std::vector<uint8_t> bits(static_cast<size_t>(g.DataBitsPerFrame()));
            for (auto& b : bits) b = static_cast<uint8_t>(rng() & 1);
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
            const cf* s = &frame[static_cast<size_t>(g.nullSamples + (l - 1) * g.symbolSamples)];
            double p = 0;
            for (int i = 0; i < g.fftSize; ++i) p += std::norm(cd(s[g.guardSamples + i]));
            ASSERT_NEAR(p / g.fftSize, 1.0, 1e-5) << l;
            for (int i = 0; i < g.guardSamples; ++i) ASSERT_EQ(s[i], s[g.fftSize + i]);
        }
    }
}

// Reads that straddle frame boundaries give the frames as the modulator makes
// them, back to back, at the power the transmitter declares.
TEST(FrameTransmitter, FramesFollowBackToBackAsModulated) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        gen::FrameTransmitter tx(gen::MakeRandomFrameBits(mode, 3), mode);
        const size_t frameLength = static_cast<size_t>(tx.Geometry().frameSamples);
        std::vector<std::vector<uint8_t>> sent;
        tx.SetFrameObserver([&](uint64_t frame, const std::vector<uint8_t>& bits) {
            EXPECT_EQ(frame, sent.size());
            sent.push_back(bits);
        });
        const int frames = mode == 1 ? 6 : 20;
        std::vector<cf> stream(frameLength * static_cast<size_t>(frames));
        for (size_t done = 0, step = 1; done < stream.size(); done += step, step = step * 3 + 7) {
            step = std::min(step, stream.size() - done);
            tx.Read(stream.data() + done, step);
        }
        ASSERT_EQ(sent.size(), static_cast<size_t>(frames));
        EXPECT_EQ(tx.SamplesRead(), stream.size());
        // Reading exactly up to a frame end does not begin the next frame.
        EXPECT_EQ(tx.FramesStarted(), static_cast<uint64_t>(frames));
        double power = 0;
        for (const cf& x : stream) power += std::norm(cd(x));
        EXPECT_NEAR(power / static_cast<double>(stream.size()) / tx.MeanPower(), 1.0, 0.01);

        gen::OfdmModulator mod(mode);
        std::vector<cf> frame(frameLength);
        for (size_t f = 0; f < sent.size(); ++f) {
            mod.ModulateFrame(sent[f].data(), frame.data());
            EXPECT_TRUE(std::equal(frame.begin(), frame.end(), stream.begin() + static_cast<ptrdiff_t>(f * frameLength)))
                << "frame " << f;
        }
    }
}

}  // namespace
