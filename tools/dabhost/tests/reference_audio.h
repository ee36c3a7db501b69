// The test's own view of the audio: what libmpg123 and libfaad2 give for the
// bytes that were sent, read without dabhost's code (the AU table is read
// here by hand, the decoder configuration comes from the table of the
// format), and a WAV reader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace reference {

struct Pcm {
    int rateHz = 0;
    int channels = 0;
    std::vector<int16_t> samples;  // interleaved
};

std::vector<uint8_t> ReadFile(const std::string& path);
// The file `name` of the sample directory (MVDAB_SAMPLES_DIR, or the shared
// samples beside the source tree).
std::string SamplePath(const std::string& name);

// The AudioSpecificConfig of the format's table for the audio parameters of
// superframe byte 2 (dac_rate, sbr, channel mode, ps in bits 6..3); empty for
// combinations the table does not list.
std::vector<uint8_t> TableConfig(uint8_t headerByte2);

// libmpg123 over a whole MPEG audio stream.
Pcm DecodeMp2(const std::vector<uint8_t>& stream);

// libfaad2 over the AUs of `count` whole superframes of 120 s bytes each
// (parity included, as in a .dabp file), one decoder from the first.
// AUs whose CRC fails are skipped.
Pcm DecodeSuperframes(const uint8_t* superframes, int count, int s);

// A 16-bit PCM WAV file; false when it is none.
bool ReadWav(const std::string& path, Pcm* out);

// Where `part` occurs in `whole` as a run of whole sample frames, searching
// from frame 0; -1 when it does not.
long FindFrames(const Pcm& whole, const Pcm& part, long partFrameOffset, long partFrames);

}  // namespace reference
