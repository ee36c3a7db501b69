// Gathering of device reads into IqFrames: whatever the sizes of the reads,
// the same stream of IqFrames comes out.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "receiver/capture.h"
#include "receiver/receiver_state.h"

namespace mvdab {
namespace {

std::vector<uint8_t> collected;
void Collect(const uint8_t* frame) { collected.insert(collected.end(), frame, frame + kIqFrameBytes); }

// Pseudo-random bytes, so that a lost, doubled or shifted byte shows.
const std::vector<uint8_t> kStream = [] {
    std::vector<uint8_t> s(size_t(kIqFrameBytes) * 5 + 1000);
    uint32_t x = 12345;
    for (uint8_t& b : s) b = uint8_t((x = x * 1103515245u + 12345u) >> 23);
    return s;
}();

// Feeds kStream in reads of the given sizes (cycled); returns the frames,
// concatenated.
std::vector<uint8_t> Gather(const std::vector<int32_t>& sizes) {
    std::vector<uint8_t> gathering(kIqFrameBytes);
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes, 0, 0};
    collected.clear();
    for (size_t i = 0, at = 0; at < kStream.size(); ++i) {
        const int32_t n = std::min(sizes[i % sizes.size()], int32_t(kStream.size() - at));
        GatherIqBytes(&buffers, kStream.data() + at, n, Collect);
        at += size_t(n);
    }
    return collected;
}

TEST(ReceiverCapture, AnyPatternOfReadSizesGivesTheSameIqFrames) {
    const std::vector<uint8_t> expected(kStream.begin(), kStream.begin() + 5 * kIqFrameBytes);
    std::mt19937 random(7);
    std::uniform_int_distribution<int32_t> size(0, kReadBufferBytes);
    std::vector<int32_t> randomSizes(200);
    for (int32_t& s : randomSizes) s = size(random);
    const std::vector<std::vector<int32_t>> patterns = {
        {kIqFrameBytes - 2, 4},                // frame ends inside the short read
        {2, kIqFrameBytes},                    // every read crosses a frame end
        {1, 3, 5, 100001},                     // odd sizes: bytes, not samples, are gathered
        {kIqFrameBytes - 4, kReadBufferBytes}, // a read that finishes two IqFrames at once
        randomSizes,
    };
    for (const auto& sizes : patterns) EXPECT_TRUE(Gather(sizes) == expected) << "first read size " << sizes[0];
}

// The capture thread's own sink hands each IqFrame over by exchanging the
// buffers: the demodulation thread's copy is that IqFrame, and the bytes
// that follow it in the same read start the next one.
TEST(ReceiverCapture, HandOverByExchangeKeepsEveryIqFrameWhole) {
    ASSERT_EQ(AllocCaptureBuffers(), 1);
    std::vector<uint8_t> taken(kIqFrameBytes);
    int32_t frames = 0;
    for (size_t at = 0; at < kStream.size();) {
        const int32_t n = std::min(int32_t(100003), int32_t(kStream.size() - at));
        if (GatherIqBytes(&captureBuffers, kStream.data() + at, n, HandOverIqFrame) > 0) {
            EXPECT_EQ(TakeHandOverFrame(taken.data()), 0) << "none lost";
            EXPECT_TRUE(std::equal(taken.begin(), taken.end(), kStream.begin() + ptrdiff_t(frames) * kIqFrameBytes))
                << "IqFrame " << frames;
            ++frames;
        }
        at += size_t(n);
    }
    EXPECT_EQ(frames, 5);
    // Three handed over before one take: two of them were lost.
    for (int i = 0; i < 3; ++i) HandOverIqFrame(kStream.data());
    EXPECT_EQ(TakeHandOverFrame(taken.data()), 2);
    FreeCaptureBuffers();
}

TEST(ReceiverCapture, EmptyAndInvalidReadsChangeNothing) {
    std::vector<uint8_t> gathering(kIqFrameBytes);
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes, 0, 0};
    collected.clear();
    EXPECT_EQ(GatherIqBytes(&buffers, kStream.data(), 0, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, kStream.data(), -5, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, nullptr, 100, Collect), 0);
    EXPECT_EQ(GatherIqBytes(nullptr, kStream.data(), 100, Collect), 0);
    EXPECT_EQ(buffers.remaining, kIqFrameBytes);
    EXPECT_TRUE(collected.empty());
    // A count of missing bytes out of range starts a new IqFrame.
    for (int32_t remaining : {0, -5, kIqFrameBytes + 2}) {
        buffers.remaining = remaining;
        EXPECT_EQ(GatherIqBytes(&buffers, kStream.data(), kIqFrameBytes, Collect), 1) << remaining;
    }
    EXPECT_TRUE(std::equal(kStream.begin(), kStream.begin() + kIqFrameBytes, collected.begin()));
}

}  // namespace
}  // namespace mvdab
