// Classic DAB audio from an MPEG layer II file. The sub-channel carries the
// audio frames back to back: at 48 kHz one frame per logical frame, at 24 kHz
// one frame per two. Every frame must have the sub-channel's bit rate and no
// padding, so that the frame grid stays on the logical frame grid.
#include <algorithm>
#include <cstring>

#include "generator/pad_encoder.h"
#include "generator/payload_file.h"
#include "generator/payload_sources.h"

namespace gen {
namespace {

// Bit rates in kbit/s by bit rate index 1..14, layer II.
constexpr int kRatesMpeg1[15] = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
constexpr int kRatesMpeg2[15] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};

struct FrameHeader {
    int bitrateKbps;  // kbit/s
    int sampleRate;   // Hz: 48000 or 24000
    size_t bytes;     // frame length in bytes
};

// Parses the 4-byte header of a layer II frame at 48 or 24 kHz; false for
// anything else (no sync, other layer, other rate, free format, padding).
bool ParseHeader(const uint8_t* h, FrameHeader* out, std::string* why) {
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0) return *why = "no frame sync", false;
    const bool mpeg1 = (h[1] & 0x18) == 0x18;
    const bool mpeg2 = (h[1] & 0x18) == 0x10;
    if (!mpeg1 && !mpeg2) return *why = "not MPEG-1 or MPEG-2 audio", false;
    if ((h[1] & 0x06) != 0x04) return *why = "not layer II", false;
    const int rateIndex = h[2] >> 4, fsIndex = (h[2] >> 2) & 3;
    if (rateIndex == 0 || rateIndex == 15) return *why = "free-format or invalid bit rate", false;
    if (fsIndex != 1) return *why = "sampling rate is not 48 or 24 kHz", false;
    if (h[2] & 0x02) return *why = "padded frame", false;
    out->bitrateKbps = mpeg1 ? kRatesMpeg1[rateIndex] : kRatesMpeg2[rateIndex];
    out->sampleRate = mpeg1 ? 48000 : 24000;
    out->bytes = static_cast<size_t>(144 * out->bitrateKbps * 1000 / out->sampleRate);
    return true;
}

class Mp2Payload final : public PayloadSource {
public:
    Mp2Payload(std::string path, std::vector<uint8_t> bytes, size_t frames, int bitrate, int sampleRate)
        : path_(std::move(path)), bytes_(std::move(bytes)), frames_(frames), bitrate_(bitrate), rate_(sampleRate) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        if (length != static_cast<size_t>(3 * bitrate_)) {
            std::memset(out, 0, length);
            return;
        }
        const uint8_t* from = bytes_.data() + pos_;
        if (pad_) {
            const size_t frameBytes = static_cast<size_t>(144 * bitrate_ * 1000 / rate_);
            const size_t inFrame = pos_ % frameBytes;
            if (inFrame == 0) AddPad(bytes_.data() + pos_, frameBytes);
            from = frame_.data() + inFrame;
        }
        std::memcpy(out, from, length);
        pos_ += length;
        if (pos_ >= bytes_.size()) pos_ = 0;
    }
    bool AttachPad(std::shared_ptr<PadEncoder> pad) override {
        pad_ = std::move(pad);
        return true;
    }
    std::string Describe() const override {
        return std::string(pad_ ? "PAD in " : "") + "MP2 file " + path_ + " (" + std::to_string(frames_) + " frames, " + std::to_string(bitrate_) +
               " kbit/s, " + std::to_string(rate_ / 1000) + " kHz, looping)";
    }

private:
    // Copies the frame at `frame` and overwrites its end with the next PAD
    // field: the X-PAD takes the place of the last audio bytes before the
    // ScF-CRC, which is left as it was. The frame's audio data is cut short
    // by the X-PAD's length (at most 56 bytes); a decoder reads the bits it
    // finds there as the end of the frame's samples.
    void AddPad(const uint8_t* frame, size_t frameBytes) {
        frame_.assign(frame, frame + frameBytes);
        const bool mono = (frame[3] >> 6) == 3;
        const int perChannel = mono ? bitrate_ : bitrate_ / 2;
        // The ScF-CRC has 2 bytes at 48 kHz below 56 kbit/s per channel, else 4.
        const int scfCrc = rate_ == 48000 && perChannel < 56 ? 2 : 4;
        const int maxXpad = std::min(56, static_cast<int>(frameBytes / 4));
        const PadField field = pad_->Next(maxXpad);
        PadEncoder::Write(field, scfCrc, frame_.data() + frameBytes);
    }

    std::shared_ptr<PadEncoder> pad_;
    std::vector<uint8_t> frame_;  // the current frame with its PAD
    std::string path_;
    std::vector<uint8_t> bytes_;  // whole frames only
    size_t frames_;
    int bitrate_, rate_;
    size_t pos_ = 0;
};

}  // namespace

PayloadPtr MakeMp2Payload(const std::string& path, int bitrateKbps, std::string* error) {
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, &bytes, error)) return nullptr;
    size_t pos = 0, frames = 0;
    int sampleRate = 0;
    while (pos + 4 <= bytes.size()) {
        FrameHeader h{};
        std::string why;
        if (!ParseHeader(&bytes[pos], &h, &why) || h.bitrateKbps != bitrateKbps ||
            (sampleRate != 0 && h.sampleRate != sampleRate) || pos + h.bytes > bytes.size()) {
            if (why.empty())
                why = h.bitrateKbps != bitrateKbps
                          ? std::to_string(h.bitrateKbps) + " kbit/s where the sub-channel has " + std::to_string(bitrateKbps)
                          : pos + h.bytes > bytes.size() ? "truncated frame" : "sampling rate changes";
            if (error) *error = path + ": frame " + std::to_string(frames) + " at byte " + std::to_string(pos) + ": " + why;
            return nullptr;
        }
        sampleRate = h.sampleRate;
        pos += h.bytes;
        ++frames;
    }
    // At 24 kHz a frame spans two logical frames: loop on an even count.
    if (sampleRate == 24000 && frames % 2 == 1) --frames, pos -= static_cast<size_t>(6 * bitrateKbps);
    if (frames == 0) {
        if (error) *error = path + ": no MPEG layer II frames";
        return nullptr;
    }
    bytes.resize(pos);
    return std::make_unique<Mp2Payload>(path, std::move(bytes), frames, bitrateKbps, sampleRate);
}

}  // namespace gen
