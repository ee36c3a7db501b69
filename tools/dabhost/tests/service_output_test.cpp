// The host's audio path from the bytes that the MSC callback delivers to the
// WAV and the recording, against what libmpg123 and libfaad2 give for the
// bytes that were sent (reference_audio.h), on the sample files.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "reference_audio.h"
#include "service_output.h"

namespace {

using reference::Pcm;

constexpr int kMp2FrameBytes = 384;             // 128 kbit/s at 48 kHz: one frame per CIF
constexpr int kModeOneDelivery = 4 * kMp2FrameBytes;  // a mode I transmission frame holds four CIFs

struct Output {
    std::string wavPath;
    std::string recordPath;
    std::FILE* wavFile;
    std::FILE* recordFile;
    WavWriter wav;
    ServiceOutput service;
    Output(const std::string& name, ServiceKind kind, bool adts)
        : wavPath(testing::TempDir() + name + ".wav"),
          recordPath(testing::TempDir() + name + ".rec"),
          wavFile(std::fopen(wavPath.c_str(), "wb")),
          recordFile(std::fopen(recordPath.c_str(), "wb")),
          wav(wavFile),
          service(kind, recordFile, adts, &wav) {}
    // Closes the files and reads the WAV back.
    Pcm Finish() {
        wav.Close();
        std::fclose(wavFile);
        std::fclose(recordFile);
        Pcm pcm;
        EXPECT_TRUE(reference::ReadWav(wavPath, &pcm));
        return pcm;
    }
};

TEST(ServiceOutput, Mp2WavEqualsTheFileDecodedWholeAndRecordingIsUntouched) {
    const std::vector<uint8_t> file = reference::ReadFile(reference::SamplePath("speech-mp2-128k.mp2"));
    ASSERT_EQ(file.size() % kMp2FrameBytes, 0u);
    const Pcm whole = reference::DecodeMp2(file);
    ASSERT_EQ(whole.rateHz, 48000);

    // Reception starts at some frame of the stream and comes in deliveries of
    // a transmission frame; the last one is cut short.
    const size_t first = 37 * kMp2FrameBytes;
    const size_t end = file.size() - kMp2FrameBytes / 2;
    Output out("mp2", ServiceKind::Mp2, false);
    for (size_t p = first; p < end; p += kModeOneDelivery)
        out.service.Push(file.data() + p, int(std::min<size_t>(kModeOneDelivery, end - p)), 2);
    const Pcm received = out.Finish();
    EXPECT_EQ(received.rateHz, 48000);
    EXPECT_EQ(received.channels, whole.channels);
    const long frames = long(received.samples.size()) / received.channels;
    EXPECT_GE(frames, 1152L * 440);
    // The first frame of a decoder started mid-stream differs while its
    // synthesis filter fills; from the second on the PCM is the same.
    EXPECT_EQ(reference::FindFrames(whole, received, 1152, frames - 1152), 38L * 1152);
    EXPECT_EQ(out.service.counts().decodeFailures, 0u);

    const std::vector<uint8_t> recorded = reference::ReadFile(out.recordPath);
    EXPECT_TRUE(recorded == std::vector<uint8_t>(file.begin() + long(first), file.begin() + long(end)));
}

struct DabPlusSample {
    const char* file;
    int s;
    int rateHz;
};

class DabPlusOutput : public testing::TestWithParam<DabPlusSample> {};

TEST_P(DabPlusOutput, PcmEqualsLibfaad2OfTheSentSuperframes) {
    const DabPlusSample sample = GetParam();
    const std::vector<uint8_t> file = reference::ReadFile(reference::SamplePath(sample.file));
    const int bytes = 120 * sample.s;
    ASSERT_EQ(file.size() % size_t(bytes), 0u);
    const int count = int(file.size()) / bytes;
    constexpr int kFirst = 3;  // reception starts at a later superframe
    const Pcm sent = reference::DecodeSuperframes(file.data() + kFirst * bytes, count - kFirst, sample.s);
    ASSERT_EQ(sent.rateHz, sample.rateHz);

    Output out(std::string("dabp-") + std::to_string(sample.s), ServiceKind::DabPlus, false);
    for (int f = kFirst; f < count; ++f) out.service.Push(file.data() + f * bytes, 110 * sample.s, 1);
    const Pcm received = out.Finish();
    EXPECT_EQ(received.rateHz, sent.rateHz);
    EXPECT_EQ(received.channels, sent.channels);
    EXPECT_TRUE(received.samples == sent.samples) << received.samples.size() << " samples against " << sent.samples.size();
    const ServiceCounts& c = out.service.counts();
    EXPECT_EQ(c.superframes, uint64_t(count - kFirst));
    EXPECT_EQ(c.auCrcFailures + c.headersUnusable + c.decodeFailures, 0u);
    EXPECT_EQ(c.audioFrames, c.aus);

    // The LOAS recording is a stream a standard decoder plays as sent.
    const std::vector<uint8_t> loas = reference::ReadFile(out.recordPath);
    ASSERT_GT(loas.size(), 3u);
    EXPECT_EQ(loas[0], 0x56);
    EXPECT_EQ(loas[1] & 0xE0, 0xE0);
}

INSTANTIATE_TEST_SUITE_P(Samples, DabPlusOutput,
                         testing::Values(DabPlusSample{"speech-heaac-48k.dabp", 6, 48000},
                                         DabPlusSample{"speech-heaacv2-32k.dabp", 4, 48000},
                                         DabPlusSample{"tones-aaclc-96k.dabp", 12, 48000}),
                         [](const testing::TestParamInfo<DabPlusSample>& info) {
                             std::string name = "s";
                             name += std::to_string(info.param.s);
                             return name;
                         });

TEST(ServiceOutput, DabPlusFaultsAreCountedAndOnlyTheBadAuIsLost) {
    const std::vector<uint8_t> file = reference::ReadFile(reference::SamplePath("speech-heaac-48k.dabp"));
    const int s = 6;
    std::vector<uint8_t> audio(file.begin(), file.begin() + 110 * s);
    Output out("dabp-faults", ServiceKind::DabPlus, true);
    out.service.Push(audio.data(), int(audio.size()), 1);
    audio[200] ^= 0x01;  // inside AU 0 of the 3 (AU 1 starts further on)
    out.service.Push(audio.data(), int(audio.size()), 1 | 0x80);
    std::vector<uint8_t> garbage(110 * s, 0xFF);  // start addresses beyond the end
    out.service.Push(garbage.data(), int(garbage.size()), 1 | 0x80);
    out.service.Push(audio.data(), 4, 1);  // shorter than any header
    out.Finish();
    const ServiceCounts& c = out.service.counts();
    EXPECT_EQ(c.superframes, 4u);
    EXPECT_EQ(c.firecodeFailures, 2u);
    EXPECT_EQ(c.headersUnusable, 2u);
    EXPECT_EQ(c.aus, 6u);
    EXPECT_EQ(c.auCrcFailures, 1u);
    EXPECT_EQ(c.audioFrames, 5u);
    // ADTS frames of the five good AUs.
    const std::vector<uint8_t> adts = reference::ReadFile(out.recordPath);
    size_t frames = 0;
    for (size_t p = 0; p + 7 <= adts.size(); ++frames) {
        ASSERT_EQ(adts[p], 0xFF);
        p += ((adts[p + 3] & 3) << 11) | (adts[p + 4] << 3) | (adts[p + 5] >> 5);
    }
    EXPECT_EQ(frames, 5u);
}

TEST(MscQueue, KeepsTheExpectedSubChannelInOrderAndCountsTheRest) {
    MscQueue q;
    const uint8_t bytes[3] = {1, 2, 3};
    q.Push(bytes, 3, 5);  // before any Expect: nothing is kept
    q.Expect(5);
    q.Push(bytes, 3, 5);
    q.Push(bytes, 2, 5 | 0x80);
    q.Push(bytes, 3, 6);
    q.Push(nullptr, 3, 5);
    const std::vector<MscQueue::Delivery> got = q.Take();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].bytes.size(), 2u);
    EXPECT_EQ(got[1].flags, 5 | 0x80);
    EXPECT_EQ(q.counts().foreign, 1u);
    EXPECT_EQ(q.counts().bytes, 5u);
    for (size_t i = 0; i < MscQueue::kMaxQueued + 3; ++i) q.Push(bytes, 1, 5);
    EXPECT_EQ(q.counts().dropped, 3u);
    EXPECT_EQ(q.Take().size(), MscQueue::kMaxQueued);
}

TEST(WavWriter, HeaderSizesPatchedChannelsJoinedOtherRatesDropped) {
    const std::string path = testing::TempDir() + "join.wav";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    WavWriter w(f);
    PcmBlock stereo{48000, 2, {100, -100, 200, -200}};
    PcmBlock mono{48000, 1, {7, -8}};
    PcmBlock other{32000, 2, {1, 1}};
    EXPECT_TRUE(w.Write(stereo));
    EXPECT_TRUE(w.Write(mono));
    EXPECT_TRUE(w.Write(other));
    w.Close();
    std::fclose(f);
    Pcm pcm;
    ASSERT_TRUE(reference::ReadWav(path, &pcm));
    EXPECT_EQ(pcm.samples, (std::vector<int16_t>{100, -100, 200, -200, 7, 7, -8, -8}));
    const std::vector<uint8_t> b = reference::ReadFile(path);
    EXPECT_EQ(b[40] | (b[41] << 8), 16);  // data bytes
    EXPECT_EQ(b[4] | (b[5] << 8), 36 + 16);
    EXPECT_EQ(w.figures().frames, 4u);
    EXPECT_EQ(w.figures().blocksDropped, 1u);
    EXPECT_EQ(w.figures().peak, 200);
}

}  // namespace
