// The two audio decoders of the host: MPEG layer II through libmpg123 and
// AAC (LC, HE-AAC, HE-AAC v2 with 960-sample frames) through libfaad2. Both
// turn what the sub-channel carries into interleaved 16-bit PCM.
#pragma once

#include <cstdint>
#include <vector>

#include "superframe.h"

struct PcmBlock {
    int rateHz = 0;                 // Hz; 0 before the first decoded frame
    int channels = 0;               // 1 or 2
    std::vector<int16_t> samples;   // interleaved, channels x frames
};

// MPEG layer II from a byte stream that may start and be cut anywhere: the
// decoder finds the frame sync itself and keeps partial frames for the next
// call.
class Mp2Decoder {
public:
    Mp2Decoder();
    ~Mp2Decoder();
    Mp2Decoder(const Mp2Decoder&) = delete;
    Mp2Decoder& operator=(const Mp2Decoder&) = delete;

    bool ok() const { return handle_ != nullptr; }
    // Appends the PCM of every frame completed by `bytes` to `out` (whose
    // rate and channels it sets). Returns the number of frames decoded.
    int Decode(const uint8_t* bytes, int length, PcmBlock* out);

private:
    void* handle_ = nullptr;    // the libmpg123 handle
    std::vector<uint8_t> pcm_;  // one read's worth of decoder output
};

// AAC access units of a DAB+ sub-channel. The decoder is set up from the
// superframe's audio parameters and set up again when they change.
class AacDecoder {
public:
    AacDecoder() = default;
    ~AacDecoder();
    AacDecoder(const AacDecoder&) = delete;
    AacDecoder& operator=(const AacDecoder&) = delete;

    // Decodes one AU payload (without its CRC) and appends its PCM to `out`.
    // False when the decoder could not be set up or rejected the AU (its
    // samples are then missing from `out`).
    bool Decode(const dabplus::AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                PcmBlock* out);

private:
    bool SetUp(const dabplus::AudioParameters& audio);
    void* handle_ = nullptr;           // the libfaad2 handle
    dabplus::AudioParameters audio_;   // what the decoder was set up for
    bool setUp_ = false;               // handle_ is set up for audio_
};
