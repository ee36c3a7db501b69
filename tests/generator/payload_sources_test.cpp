// Unstructured sources, MPEG layer II files, the wrappers and the text
// descriptions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "generator/payload_sources.h"

namespace {

std::vector<uint8_t> Pull(gen::PayloadSource& src, size_t length, int frames) {
    std::vector<uint8_t> out(length * static_cast<size_t>(frames));
    for (int f = 0; f < frames; ++f) src.NextLogicalFrame(&out[length * static_cast<size_t>(f)], length);
    return out;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(PayloadSources, RandomAndFileBytes) {
    auto a = gen::MakeRandomPayload(7);
    const auto bytes = Pull(*a, 96, 10);
    // A continuous stream, whatever the frame length; another seed differs.
    EXPECT_EQ(bytes, Pull(*gen::MakeRandomPayload(7), 48, 20));
    EXPECT_NE(bytes, Pull(*gen::MakeRandomPayload(8), 96, 10));

    const std::string path = testing::TempDir() + "five.bin";
    WriteFile(path, {1, 2, 3, 4, 5});
    auto f = gen::MakeFilePayload(path);
    ASSERT_TRUE(f);
    EXPECT_EQ(Pull(*f, 3, 4), (std::vector<uint8_t>{1, 2, 3, 4, 5, 1, 2, 3, 4, 5, 1, 2}));
    std::string error;
    EXPECT_FALSE(gen::MakeFilePayload(path + ".missing", &error));
    EXPECT_FALSE(error.empty());
}

// A layer II frame header at 48 kHz (MPEG-1) or 24 kHz (MPEG-2) with bit
// rate index `rate`, followed by filler up to the frame length.
std::vector<uint8_t> Frame(bool mpeg1, int rate, size_t bytes, uint8_t fill) {
    std::vector<uint8_t> f(bytes, fill);
    f[0] = 0xFF;
    f[1] = mpeg1 ? 0xFD : 0xF5;
    f[2] = static_cast<uint8_t>(rate << 4 | 1 << 2);
    f[3] = 0x04;
    return f;
}

TEST(PayloadSources, Mp2FramesMustMatchTheSubChannel) {
    const std::string path = testing::TempDir() + "x.mp2";
    std::vector<uint8_t> file;
    for (int k = 0; k < 3; ++k) {  // 3 frames of 128 kbit/s at 48 kHz: 384 bytes
        const auto f = Frame(true, 8, 384, static_cast<uint8_t>(k));
        file.insert(file.end(), f.begin(), f.end());
    }
    WriteFile(path, file);
    std::string error;
    auto src = gen::MakeMp2Payload(path, 128, &error);
    ASSERT_TRUE(src) << error;
    const auto sent = Pull(*src, 384, 4);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), sent.begin()));
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 384, sent.begin() + 3 * 384));
    EXPECT_FALSE(gen::MakeMp2Payload(path, 96, &error));
    EXPECT_NE(error.find("128 kbit/s"), std::string::npos) << error;

    // 24 kHz, 64 kbit/s: a 384-byte frame spans two 192-byte logical frames;
    // an odd trailing frame is left out of the loop.
    file.clear();
    for (int k = 0; k < 3; ++k) {
        const auto f = Frame(false, 8, 384, static_cast<uint8_t>(k));
        file.insert(file.end(), f.begin(), f.end());
    }
    WriteFile(path, file);
    src = gen::MakeMp2Payload(path, 64, &error);
    ASSERT_TRUE(src) << error;
    const auto half = Pull(*src, 192, 5);
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 768, half.begin()));
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 192, half.begin() + 768));

    file.push_back(0);  // garbage after the last frame
    file.insert(file.end(), 4, 0x55);
    WriteFile(path, file);
    EXPECT_FALSE(gen::MakeMp2Payload(path, 64, &error));
}

TEST(PayloadSources, Mp2SampleFile) {
    const char* env = std::getenv("MVDAB_SAMPLES_DIR");
    const std::string path = std::string(env ? env : "../shared/samples") + "/speech-mp2-128k.mp2";
    if (!std::ifstream(path)) GTEST_SKIP() << "no " << path;
    std::string error;
    auto src = gen::MakeMp2Payload(path, 128, &error);
    ASSERT_TRUE(src) << error;
    for (int k = 0; k < 500; ++k) {
        uint8_t frame[384];
        src->NextLogicalFrame(frame, 384);
        ASSERT_EQ(frame[0], 0xFF) << k;
        ASSERT_EQ(frame[1] & 0xFE, 0xFC) << k;
    }
}

TEST(PayloadSources, RecordingAndSkipping) {
    auto record = std::make_shared<std::vector<uint8_t>>();
    auto rec = gen::MakeRecordingPayload(gen::MakeRandomPayload(3), record);
    const auto sent = Pull(*rec, 24, 5);
    EXPECT_EQ(*record, sent);
    auto skipped = gen::MakeSkippingPayload(gen::MakeRandomPayload(3), 2);
    const auto later = Pull(*skipped, 24, 3);
    EXPECT_TRUE(std::equal(later.begin(), later.end(), sent.begin() + 48));
}

TEST(PayloadSources, TextDescriptions) {
    const std::string dir = testing::TempDir();
    WriteFile(dir + "f.bin", {9, 8, 7});
    const char* good[] = {"random:5", "file:" "", "dabplus-synth:2", "dabplus-synth:2,rate=32,sbr=0,stereo=0",
                          "packet:3", "packet:3,address=40,size=48,fec=1,groups=0,padding=0.5", "tdmb:1,pid=0x44"};
    for (const char* text : good) {
        std::string t = text, error;
        if (t == "file:") t += dir + "f.bin";
        EXPECT_TRUE(gen::MakePayloadFromText(t, 48, &error)) << t << ": " << error;
    }
    const char* bad[] = {"random", "random:x", "nosuch:1", "dabplus-synth:2,rate=44", "packet:3,size=50",
                         "packet:3,colour=red", "tdmb:1,pid=9000", "dabp:/nonexistent", "mp2:/nonexistent"};
    for (const char* text : bad) {
        std::string error;
        EXPECT_FALSE(gen::MakePayloadFromText(text, 48, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
    // The description builds the same source as the factory.
    auto a = gen::MakePayloadFromText("random:77", 48);
    EXPECT_EQ(Pull(*a, 144, 2), Pull(*gen::MakeRandomPayload(77), 144, 2));
}

}  // namespace
