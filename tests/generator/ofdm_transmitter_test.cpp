// The frame transmitter: frames back to back at exact lengths, and the same
// stream whatever the read sizes.
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

TEST(FrameTransmitter, SameStreamForAnyReadPattern) {
    const int mode = 2;
    const size_t total = 5 * static_cast<size_t>(gen::Geometry(mode).frameSamples) + 123;
    gen::FrameTransmitter a(gen::MakeRandomFrameBits(mode, 9), mode);
    std::vector<cf> whole(total);
    a.Read(whole.data(), total);

    gen::FrameTransmitter b(gen::MakeRandomFrameBits(mode, 9), mode);
    std::vector<cf> pieces(total);
    const size_t sizes[] = {1, 0, 2, 663, 664, 665, 49151, 49152, 49153, 7};
    size_t done = 0;
    for (size_t i = 0; done < total; ++i) {
        const size_t n = std::min(sizes[i % std::size(sizes)], total - done);
        b.Read(pieces.data() + done, n);
        done += n;
    }
    EXPECT_TRUE(whole == pieces);

    // Another seed is another stream.
    gen::FrameTransmitter c(gen::MakeRandomFrameBits(mode, 10), mode);
    std::vector<cf> other(total);
    c.Read(other.data(), total);
    EXPECT_FALSE(whole == other);
}

}  // namespace
