// What the host does with the bytes of the selected sub-channel: hand-over
// from the receiver's threads (MscQueue), then recording and decoding into
// WAV (ServiceOutput).
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "audio_decoders.h"
#include "tools/pad/pad_decoder.h"
#include "superframe.h"
#include "wav_writer.h"

// The MSC callback runs on the demodulation thread (plain sub-channels) or on
// the worker thread (DAB+), and over a change of service on both: it only
// copies the delivery into a queue under a short lock. Deliveries for other
// sub-channels than the one expected, and those beyond the queue's room,
// are counted and dropped.
class MscQueue {
public:
    static constexpr size_t kMaxQueued = 512;  // deliveries: 20 s of mode I, 60 s of superframes

    struct Delivery {
        std::vector<uint8_t> bytes;
        int32_t flags = 0;
    };
    struct Counts {
        uint64_t deliveries = 0;  // callbacks for the expected sub-channel
        uint64_t bytes = 0;       // their bytes
        uint64_t foreign = 0;     // callbacks for another sub-channel
        uint64_t dropped = 0;     // lost because the host fell behind
    };

    // Sub-channel whose deliveries are kept; -1 keeps none. Clears the queue.
    void Expect(int subChannelId);
    void Push(const uint8_t* bytes, int32_t length, int32_t flags);  // callback side
    std::vector<Delivery> Take();                                   // host side, oldest first
    Counts counts() const;

private:
    mutable std::mutex mutex_;
    int expected_ = -1;
    std::deque<Delivery> queue_;
    Counts counts_;
};

enum class ServiceKind {
    Mp2,      // MPEG layer II audio in a plain sub-channel
    DabPlus,  // DAB+ audio superframes
    Data,     // any other stream: recorded as it comes, nothing decoded
};
const char* ServiceKindText(ServiceKind kind);

struct ServiceCounts {
    uint64_t deliveries = 0;        // MSC callbacks handled
    uint64_t bytes = 0;             // their bytes
    uint64_t audioFrames = 0;       // MP2 frames decoded, or DAB+ AUs decoded
    // DAB+ only.
    uint64_t superframes = 0;       // audio superframes received
    uint64_t firecodeFailures = 0;  // delivered with bit 7: the receiver's firecode check failed
    uint64_t headersUnusable = 0;   // AU start addresses that do not fit the superframe
    uint64_t aus = 0;               // AUs found
    uint64_t auCrcFailures = 0;     // AUs whose CRC failed: neither decoded nor recorded
    uint64_t decodeFailures = 0;    // AUs (or MP2 deliveries) the decoder rejected
    uint64_t slides = 0;            // slideshow pictures completed (and saved with a folder)
    bool writeFailed = false;       // the record or WAV file refused a write
};

class ServiceOutput {
public:
    // `record` (may be null) gets the sub-channel as it comes for MP2 and
    // data, and the AUs as LOAS frames for DAB+ (ADTS with `adts`). `wav`
    // (may be null) gets the decoded audio. Neither is owned.
    ServiceOutput(ServiceKind kind, std::FILE* record, bool adts, WavWriter* wav);
    // Saves each slideshow picture as it completes into `dir` (no folder: none
    // saved), under its MOT content name, or slide-ID.jpg/.png without one.
    void SaveSlidesTo(std::string dir) { slidesDir_ = std::move(dir); }
    // Hands every block of decoded audio to `sink` as well (the web page's
    // MP3 stream); an empty function hands it to nobody.
    void SetPcmSink(std::function<void(const PcmBlock&)> sink) { pcmSink_ = std::move(sink); }
    // The latest slideshow picture completed; its body is empty before the first.
    const pad::MotObject& latestSlide() const { return latestSlide_; }
    // The current Dynamic Label, UTF-8; empty if none.
    const std::string& label() const { return pad_.label(); }
    const pad::PadCounts& padCounts() const { return pad_.counts(); }
    // One delivery of the MSC callback.
    void Push(const uint8_t* bytes, int length, int32_t flags);
    const ServiceCounts& counts() const { return counts_; }
    // The last superframe's audio parameters (DAB+), e.g. "HE-AAC v2 32 kHz".
    std::string AudioText() const;

private:
    void PushSuperframe(const uint8_t* bytes, int length, int32_t flags);
    void Write(const uint8_t* bytes, size_t length);
    void Play(const PcmBlock& pcm);
    void ReadMp2Pad(const uint8_t* bytes, size_t length);
    void SaveSlides();

    ServiceKind kind_;
    std::FILE* record_;
    bool adts_;
    WavWriter* wav_;
    Mp2Decoder mp2_;
    AacDecoder aac_;
    dabplus::Superframe last_;
    bool anySuperframe_ = false;
    std::vector<uint8_t> frame_;  // one LOAS or ADTS frame
    pad::PadDecoder pad_;
    std::vector<uint8_t> mp2Pending_;  // MP2 bytes not yet in a whole frame (24 kHz frames span two deliveries)
    std::string slidesDir_;
    std::function<void(const PcmBlock&)> pcmSink_;
    pad::MotObject latestSlide_;
    ServiceCounts counts_;
};
