// Unstructured sources, MPEG layer II files, the wrappers and the text
// descriptions.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "generator/payload_sources.h"
#include "tests/generator/coding_checks.h"

namespace {

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(PayloadSources, RandomAndFileBytes) {
    auto a = gen::MakeRandomPayload(7);
    const auto bytes = check::Pull(*a, 96, 10);
    // A continuous stream, whatever the frame length; another seed differs.
    EXPECT_EQ(bytes, check::Pull(*gen::MakeRandomPayload(7), 48, 20));
    EXPECT_NE(bytes, check::Pull(*gen::MakeRandomPayload(8), 96, 10));

    const std::string path = testing::TempDir() + "five.bin";
    WriteFile(path, {1, 2, 3, 4, 5});
    auto f = gen::MakeFilePayload(path);
    ASSERT_TRUE(f);
    EXPECT_EQ(check::Pull(*f, 3, 4), (std::vector<uint8_t>{1, 2, 3, 4, 5, 1, 2, 3, 4, 5, 1, 2}));
    std::string error;
    EXPECT_FALSE(gen::MakeFilePayload(path + ".missing", &error));
    EXPECT_FALSE(error.empty());
}

// A layer II frame of 128 kbit/s at 48 kHz: header, then filler.
std::vector<uint8_t> Frame(uint8_t fill) {
    std::vector<uint8_t> f(384, fill);
    f[0] = 0xFF, f[1] = 0xFD, f[2] = 0x84, f[3] = 0x04;
    return f;
}

TEST(PayloadSources, Mp2FramesMustMatchTheSubChannel) {
    const std::string path = testing::TempDir() + "x.mp2";
    std::vector<uint8_t> file;
    for (int k = 0; k < 3; ++k) {
        const auto f = Frame(static_cast<uint8_t>(k));
        file.insert(file.end(), f.begin(), f.end());
    }
    WriteFile(path, file);
    std::string error;
    auto src = gen::MakeMp2Payload(path, 128, &error);
    ASSERT_TRUE(src) << error;
    const auto sent = check::Pull(*src, 384, 4);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), sent.begin()));
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + 384, sent.begin() + 3 * 384));
    EXPECT_FALSE(gen::MakeMp2Payload(path, 96, &error));
    EXPECT_NE(error.find("128 kbit/s"), std::string::npos) << error;

    file.insert(file.end(), 5, 0x55);  // garbage after the last frame
    WriteFile(path, file);
    EXPECT_FALSE(gen::MakeMp2Payload(path, 128, &error));
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

// Descriptions build the same source as the factories, and reject nonsense.
TEST(PayloadSources, TextDescriptions) {
    auto a = gen::MakePayloadFromText("random:77", 48);
    ASSERT_TRUE(a);
    EXPECT_EQ(check::Pull(*a, 144, 2), check::Pull(*gen::MakeRandomPayload(77), 144, 2));
    gen::PacketStreamParams params;
    params.components = {{40, 48, false, 1}};
    params.fec = true;
    params.paddingShare = 0.5;
    params.seed = 3;
    auto b = gen::MakePayloadFromText("packet:3,address=40,size=48,fec=1,groups=0,padding=0.5", 48);
    ASSERT_TRUE(b);
    EXPECT_EQ(check::Pull(*b, 144, 30), check::Pull(*gen::MakePacketPayload(48, params), 144, 30));
    for (const char* text : {"random", "random:x", "nosuch:1", "dabplus-synth:2,rate=44", "packet:3,size=50",
                             "packet:3,colour=red", "tdmb:1,pid=9000", "dabp:/nonexistent"}) {
        std::string error;
        EXPECT_FALSE(gen::MakePayloadFromText(text, 48, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

}  // namespace
