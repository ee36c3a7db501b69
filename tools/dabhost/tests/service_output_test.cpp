// The host's audio path from the bytes that the MSC callback delivers to the
// WAV and the recording with damaged DAB+ superframes, for the sanitizer
// builds (the end-to-end runs check both services bit-exactly in plain
// builds).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "reference_audio.h"
#include "service_output.h"

namespace {

using reference::Pcm;
using reference::ReadFile;

struct Output {
    std::string wavPath, recordPath;
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

TEST(ServiceOutput, DabPlusFaultsAreCountedAndOnlyTheBadAuIsLost) {
    const std::vector<uint8_t> file = ReadFile(reference::SamplePath("speech-heaac-48k.dabp"));
    const int s = 6;
    std::vector<uint8_t> audio(file.begin(), file.begin() + 110 * s);
    Output out("dabp-faults", ServiceKind::DabPlus, true);
    out.service.Push(audio.data(), int(audio.size()), 1);
    audio[200] ^= 0x01;  // inside AU 0 of the 3
    out.service.Push(audio.data(), int(audio.size()), 1 | 0x80);
    std::vector<uint8_t> garbage(110 * s, 0xFF);  // start addresses beyond the end
    out.service.Push(garbage.data(), int(garbage.size()), 1 | 0x80);
    out.service.Push(audio.data(), 4, 1);  // shorter than any header
    out.Finish();
    const ServiceCounts& c = out.service.counts();
    EXPECT_EQ(std::vector<uint64_t>({c.superframes, c.firecodeFailures, c.headersUnusable, c.aus, c.auCrcFailures,
                                     c.audioFrames}),
              std::vector<uint64_t>({4, 2, 2, 6, 1, 5}));
    // ADTS frames of the five good AUs.
    const std::vector<uint8_t> adts = ReadFile(out.recordPath);
    size_t frames = 0;
    for (size_t p = 0; p + 7 <= adts.size(); ++frames) {
        ASSERT_EQ(adts[p], 0xFF);
        p += ((adts[p + 3] & 3) << 11) | (adts[p + 4] << 3) | (adts[p + 5] >> 5);
    }
    EXPECT_EQ(frames, 5u);
}

}  // namespace
