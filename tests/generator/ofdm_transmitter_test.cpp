// The frame transmitter: frames back to back at exact lengths, as the
// modulator makes them, whatever the read sizes.
#include <gtest/gtest.h>

#include <complex>
#include <vector>

#include "generator/frame_transmitter.h"
#include "generator/ofdm_modulator.h"

namespace {

using cf = std::complex<float>;

TEST(FrameTransmitter, FramesFollowBackToBackAsModulated) {
    for (int mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE(mode);
        gen::FrameTransmitter tx(gen::MakeRandomFrameBits(mode, 3), mode);
        const gen::ModeGeometry& g = tx.Geometry();
        std::vector<std::vector<uint8_t>> sent;
        tx.SetFrameObserver([&](uint64_t frame, const std::vector<uint8_t>& bits) {
            EXPECT_EQ(frame, sent.size());
            sent.push_back(bits);
        });
        const size_t frameLength = static_cast<size_t>(g.frameSamples);
        const int frames = mode == 1 ? 6 : 20;
        // Reads that straddle frame boundaries, then the rest.
        std::vector<cf> stream(frameLength * static_cast<size_t>(frames));
        size_t done = 0;
        for (size_t step = 1; done < stream.size(); step = step * 3 + 7) {
            const size_t n = std::min(step, stream.size() - done);
            tx.Read(stream.data() + done, n);
            done += n;
        }
        ASSERT_EQ(sent.size(), static_cast<size_t>(frames));
        EXPECT_EQ(tx.SamplesRead(), stream.size());

        gen::OfdmModulator mod(mode);
        std::vector<cf> frame(frameLength);
        for (int f = 0; f < frames; ++f) {
            mod.ModulateFrame(sent[static_cast<size_t>(f)].data(), frame.data());
            const cf* got = &stream[static_cast<size_t>(f) * frameLength];
            size_t mismatches = 0;
            for (size_t i = 0; i < frameLength; ++i) mismatches += got[i] != frame[i];
            EXPECT_EQ(mismatches, 0u) << "frame " << f;
        }
        // Reading exactly up to a frame end does not begin the next frame.
        EXPECT_EQ(tx.FramesStarted(), static_cast<uint64_t>(frames));
    }
}

}  // namespace
