// One ensemble in the four transmission modes: after OFDM modulation and a
// known-timing demodulation, the FIC blocks and the CIFs come out as the
// same sequences in every mode; only their packing into frames differs.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <string>
#include <vector>

#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
#include "tests/generator/ofdm_test_demodulator.h"

namespace {

struct Recovered {
    std::vector<std::vector<uint8_t>> ficBlocks;  // the FIC bits of each CIF, in order
    std::vector<std::vector<uint8_t>> cifs;       // the MSC bits of each CIF, in order
};

// Sends `cifCount` CIFs of the ensemble in `mode` and demodulates them back.
Recovered SendAndRecover(const std::string& preset, int mode, int cifCount) {
    Recovered r;
    gen::EnsembleBits ensemble;
    std::string error;
    EXPECT_TRUE(gen::MakeEnsembleBits(preset, "", mode, 17, &ensemble, &error)) << error;
    if (!ensemble.source) return r;
    gen::FrameTransmitter tx(std::move(ensemble.source), mode);
    const gen::ModeGeometry& g = tx.Geometry();
    ofdmtest::TestDemodulator demod(mode);
    std::vector<std::complex<float>> frame(static_cast<size_t>(g.frameSamples));
    const size_t ficPerCif = static_cast<size_t>(g.ficBitsPerFrame / g.cifsPerFrame);
    for (int f = 0; f < cifCount / g.cifsPerFrame; ++f) {
        tx.Read(frame.data(), frame.size());
        const std::vector<uint8_t> bits = demod.DemodulateFrame(frame.data());
        for (int c = 0; c < g.cifsPerFrame; ++c) {
            const auto fic = bits.begin() + static_cast<ptrdiff_t>(c * ficPerCif);
            r.ficBlocks.emplace_back(fic, fic + static_cast<ptrdiff_t>(ficPerCif));
            const auto msc = bits.begin() + g.ficBitsPerFrame + static_cast<ptrdiff_t>(c) * gen::kCifBits;
            r.cifs.emplace_back(msc, msc + gen::kCifBits);
        }
    }
    return r;
}

TEST(ModeEquivalence, SameFicBlocksAndCifsInEveryMode) {
    // Past the 15 CIFs in which the time interleaving fills up.
    const int cifCount = 20;
    const Recovered one = SendAndRecover("default", 1, cifCount);
    ASSERT_EQ(one.cifs.size(), static_cast<size_t>(cifCount));
    // Something was sent: coded blocks are about half ones.
    EXPECT_GT(std::count(one.ficBlocks[0].begin(), one.ficBlocks[0].end(), 1), std::ssize(one.ficBlocks[0]) / 4);
    EXPECT_GT(std::count(one.cifs.back().begin(), one.cifs.back().end(), 1), static_cast<ptrdiff_t>(gen::kCifBits / 20));
    for (int mode = 2; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        const Recovered other = SendAndRecover("default", mode, cifCount);
        ASSERT_EQ(other.cifs.size(), one.cifs.size());
        for (size_t c = 0; c < one.cifs.size(); ++c) {
            EXPECT_TRUE(other.cifs[c] == one.cifs[c]) << "CIF " << c;
            // Mode III carries four FIBs per CIF instead of three, so its FIC
            // blocks are longer and hold other FIB groups; the others match.
            if (mode == 3) {
                EXPECT_EQ(other.ficBlocks[c].size(), 4 * one.ficBlocks[c].size() / 3);
            } else {
                EXPECT_TRUE(other.ficBlocks[c] == one.ficBlocks[c]) << "FIC block " << c;
            }
        }
    }
}

}  // namespace
