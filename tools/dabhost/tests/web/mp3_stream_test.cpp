// The MP3 stream of the web page: the encoder's output format whatever comes
// in, and listeners that fall behind.
#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <mpg123.h>

#include "mp3_stream.h"

// Sample frames and format libmpg123 decodes from `mp3` (also used by the
// end-to-end test).
long DecodedFrames(const std::vector<uint8_t>& mp3, long* rate, int* channels) {
    mpg123_init();
    mpg123_handle* h = mpg123_new(nullptr, nullptr);
    mpg123_open_feed(h);
    mpg123_feed(h, mp3.data(), mp3.size());
    long frames = 0;
    int encoding = 0;
    std::vector<unsigned char> out(1 << 16);
    for (;;) {
        size_t done = 0;
        const int r = mpg123_read(h, out.data(), out.size(), &done);
        if (r == MPG123_NEW_FORMAT) mpg123_getformat(h, rate, channels, &encoding);
        frames += long(done / 4);
        if (r != MPG123_OK && r != MPG123_NEW_FORMAT) break;
    }
    mpg123_delete(h);
    return frames;
}

namespace {

PcmBlock Tone(int rateHz, int channels, int frames) {
    PcmBlock b;
    b.rateHz = rateHz;
    b.channels = channels;
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c) b.samples.push_back(int16_t(8000 * std::sin(0.05 * i)));
    return b;
}

// One format out whatever the service sends, across a change of rate.
TEST(Mp3Encoder, OneFormatForEveryInput) {
    Mp3Encoder encoder;
    std::vector<uint8_t> mp3;
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(encoder.Encode(Tone(32000, 1, 3840), &mp3));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(encoder.Encode(Tone(48000, 2, 1152), &mp3));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(encoder.Encode(Tone(24000, 2, 1152), &mp3));
    EXPECT_FALSE(encoder.Encode(Tone(48000, 3, 100), &mp3));
    EXPECT_FALSE(encoder.Encode(PcmBlock{}, &mp3));
    long rate = 0;
    int channels = 0;
    // 2.4 s + 0.48 s + 0.96 s of input, less what the encoder still holds.
    const long frames = DecodedFrames(mp3, &rate, &channels);
    EXPECT_EQ(rate, 48000);
    EXPECT_EQ(channels, 2);
    EXPECT_GT(frames, 48000 * 36 / 10);
    EXPECT_LT(frames, 48000 * 39 / 10 + 1152);
}

// A listener that falls behind loses chunks, counted, and goes on at a frame
// header; the others get every byte from the first header on.
TEST(Mp3Broadcast, SlowListenerDropsAloneAndResumesAtAFrame) {
    Mp3Broadcast b;
    std::vector<uint8_t> chunk(1000, 0x55);
    const uint8_t header[] = {0xFF, 0xFB, 0x94, 0x64};  // 128 kbit/s, 48 kHz
    std::copy(header, header + 4, chunk.begin() + 10);
    b.Publish(chunk.data(), chunk.size());  // nobody listens: fine
    auto slow = b.Join();
    auto fast = b.Join();
    std::vector<uint8_t> got;
    for (int i = 0; i < 100; ++i) {
        b.Publish(chunk.data(), chunk.size());
        ASSERT_TRUE(b.Take(*fast, &got, std::chrono::milliseconds(0)));
    }
    ASSERT_EQ(got.size(), 100000u - 10);
    EXPECT_EQ(got[0], 0xFF);
    // 990 + 64 x 1000 bytes fit in the slow listener's 64 KiB.
    EXPECT_EQ(slow->dropped, 35u);
    EXPECT_EQ(b.figures().droppedChunks, 35u);
    std::vector<uint8_t> late;
    ASSERT_TRUE(b.Take(*slow, &late, std::chrono::milliseconds(0)));
    EXPECT_EQ(late.size(), 990u + 64 * 1000);
    late.clear();
    b.Publish(chunk.data(), chunk.size());
    ASSERT_TRUE(b.Take(*slow, &late, std::chrono::milliseconds(0)));
    EXPECT_EQ(late.size(), 990u);
    b.Leave(slow);
    EXPECT_EQ(b.figures().listeners, 1);
    b.Close();
    EXPECT_FALSE(b.Take(*fast, &got, std::chrono::milliseconds(1000)));
}

}  // namespace
