// Gathering of device reads into IqFrames: whatever the sizes of the reads,
// the same stream of IqFrames comes out.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "receiver/capture.h"
#include "receiver/receiver_state.h"

namespace mvdab {
namespace {

std::vector<std::vector<uint8_t>>* collected = nullptr;
void Collect(const uint8_t* frame) { collected->emplace_back(frame, frame + kIqFrameBytes); }

// A stream whose bytes all differ from their neighbours' positions, so that
// a lost, doubled or shifted byte shows.
std::vector<uint8_t> Stream(size_t bytes) {
    std::vector<uint8_t> s(bytes);
    uint32_t x = 12345;
    for (uint8_t& b : s) {
        x = x * 1103515245u + 12345u;
        b = uint8_t(x >> 23);
    }
    return s;
}

// Feeds `stream` in reads of the given sizes (cycled) and returns the frames.
std::vector<std::vector<uint8_t>> Gather(const std::vector<uint8_t>& stream, const std::vector<int32_t>& sizes) {
    std::vector<uint8_t> gathering(kIqFrameBytes);
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes};
    std::vector<std::vector<uint8_t>> frames;
    collected = &frames;
    size_t at = 0;
    for (size_t i = 0; at < stream.size(); ++i) {
        int32_t n = sizes[i % sizes.size()];
        if (size_t(n) > stream.size() - at) n = int32_t(stream.size() - at);
        GatherIqBytes(&buffers, stream.data() + at, n, Collect);
        at += size_t(n);
    }
    collected = nullptr;
    return frames;
}

std::vector<std::vector<uint8_t>> Expected(const std::vector<uint8_t>& stream) {
    std::vector<std::vector<uint8_t>> frames;
    for (size_t at = 0; at + kIqFrameBytes <= stream.size(); at += kIqFrameBytes) {
        frames.emplace_back(stream.begin() + long(at), stream.begin() + long(at + kIqFrameBytes));
    }
    return frames;
}

TEST(ReceiverCapture, AnyPatternOfReadSizesGivesTheSameIqFrames) {
    const std::vector<uint8_t> stream = Stream(size_t(kIqFrameBytes) * 5 + 1000);
    const auto expected = Expected(stream);
    ASSERT_EQ(expected.size(), 5u);
    const std::vector<std::vector<int32_t>> patterns = {
        {kIqFrameBytes},                      // reads ending exactly at a frame end
        {kIqFrameBytes / 2},                  // two reads per frame, ending at the end
        {16384},                              // a typical transfer size
        {kReadBufferBytes},                   // the largest read: spans two frames
        {kIqFrameBytes - 2, 4},               // frame ends inside the short read
        {2, kIqFrameBytes},                   // every read crosses a frame end
        {1, 3, 5, 100001},                    // odd sizes: bytes, not samples, are gathered
        {kIqFrameBytes - 4, kReadBufferBytes} // a read that finishes two IqFrames at once
    };
    for (const auto& sizes : patterns) {
        EXPECT_TRUE(Gather(stream, sizes) == expected) << "first read size " << sizes[0];
    }
    std::mt19937 random(7);
    std::uniform_int_distribution<int32_t> size(0, kReadBufferBytes);
    std::vector<int32_t> randomSizes(200);
    for (int32_t& s : randomSizes) s = size(random);
    EXPECT_TRUE(Gather(stream, randomSizes) == expected) << "random read sizes";
}

TEST(ReceiverCapture, EmptyAndInvalidReadsChangeNothing) {
    std::vector<uint8_t> gathering(kIqFrameBytes);
    CaptureBuffers buffers{nullptr, gathering.data(), nullptr, kIqFrameBytes};
    std::vector<std::vector<uint8_t>> frames;
    collected = &frames;
    const std::vector<uint8_t> bytes = Stream(100);
    EXPECT_EQ(GatherIqBytes(&buffers, bytes.data(), 0, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, bytes.data(), -5, Collect), 0);
    EXPECT_EQ(GatherIqBytes(&buffers, nullptr, 100, Collect), 0);
    EXPECT_EQ(GatherIqBytes(nullptr, bytes.data(), 100, Collect), 0);
    EXPECT_EQ(buffers.remaining, kIqFrameBytes);
    collected = nullptr;
    EXPECT_TRUE(frames.empty());
}

}  // namespace
}  // namespace mvdab
