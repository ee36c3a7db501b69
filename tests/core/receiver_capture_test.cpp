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
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes};
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
        {kIqFrameBytes},                       // reads ending exactly at a frame end
        {kIqFrameBytes / 2},                   // two reads per frame, ending at the end
        {16384},                               // a typical transfer size
        {kReadBufferBytes},                    // the largest read: spans two frames
        {kIqFrameBytes - 2, 4},                // frame ends inside the short read
        {2, kIqFrameBytes},                    // every read crosses a frame end
        {1, 3, 5, 100001},                     // odd sizes: bytes, not samples, are gathered
        {kIqFrameBytes - 4, kReadBufferBytes}, // a read that finishes two IqFrames at once
        randomSizes,
    };
    for (const auto& sizes : patterns) EXPECT_TRUE(Gather(sizes) == expected) << "first read size " << sizes[0];
}

TEST(ReceiverCapture, EmptyAndInvalidReadsChangeNothing) {
    std::vector<uint8_t> gathering(kIqFrameBytes);
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes};
    collected.clear();
    EXPECT_EQ(GatherIqBytes(&buffers, kStream.data(), 0, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, kStream.data(), -5, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, nullptr, 100, Collect), 0);
    EXPECT_EQ(GatherIqBytes(nullptr, kStream.data(), 100, Collect), 0);
    EXPECT_EQ(buffers.remaining, kIqFrameBytes);
    EXPECT_TRUE(collected.empty());
}

}  // namespace
}  // namespace mvdab
