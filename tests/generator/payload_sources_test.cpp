// Unstructured sources, MPEG layer II files, the wrappers and the text
// descriptions.
#include <gtest/gtest.h>

#include <fstream>

#include "generator/payload_sources.h"
#include "tests/generator/coding_checks.h"

namespace {

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(PayloadSources, RandomAndFileBytes) {
    const auto bytes = check::Pull(*gen::MakeRandomPayload(7), 96, 10);
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

TEST(PayloadSources, Mp2FramesMustMatchTheSubChannel) {
    // Three layer II frames of 128 kbit/s at 48 kHz: header, then filler.
    const std::string path = testing::TempDir() + "x.mp2";
    std::vector<uint8_t> file;
    for (uint8_t k = 0; k < 3; ++k) {
        file.insert(file.end(), {0xFF, 0xFD, 0x84, 0x04});
        file.insert(file.end(), 380, k);
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

    // The sample file: a frame header at the start of every logical frame.
    const std::string sample = check::SamplesDir() + "/speech-mp2-128k.mp2";
    if (!std::ifstream(sample)) GTEST_SKIP() << "no " << sample;
    src = gen::MakeMp2Payload(sample, 128, &error);
    ASSERT_TRUE(src) << error;
    const auto frames = check::Pull(*src, 384, 500);
    for (size_t k = 0; k < frames.size(); k += 384) {
        ASSERT_EQ(frames[k], 0xFF) << k / 384;
        ASSERT_EQ(frames[k + 1] & 0xFE, 0xFC) << k / 384;
    }
}

// Descriptions build the same source as the factories, and reject nonsense.
TEST(PayloadSources, TextDescriptions) {
    auto a = gen::MakePayloadFromText("random:77", 48);
    ASSERT_TRUE(a);
    EXPECT_EQ(check::Pull(*a, 144, 2), check::Pull(*gen::MakeRandomPayload(77), 144, 2));
    gen::PacketStreamParams params;
    params.components = {{40, 48, false, 1}};
    params.fec = true, params.paddingShare = 0.5, params.seed = 3;
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
