#include "mp3_stream.h"

#include <algorithm>

#include <lame.h>

namespace {
lame_global_flags* Lame(void* handle) { return static_cast<lame_global_flags*>(handle); }

// Offset of the first header of an MPEG-1 layer III frame in `bytes` (sync,
// a valid bit rate and rate index), or `length` if there is none.
size_t FirstFrameHeader(const uint8_t* bytes, size_t length) {
    for (size_t i = 0; i + 3 <= length; ++i)
        if (bytes[i] == 0xFF && (bytes[i + 1] & 0xFE) == 0xFA && (bytes[i + 2] & 0xF0) != 0xF0 &&
            (bytes[i + 2] & 0xF0) != 0 && (bytes[i + 2] & 0x0C) != 0x0C)
            return i;
    return length;
}
}  // namespace

Mp3Encoder::~Mp3Encoder() {
    if (lame_ != nullptr) lame_close(Lame(lame_));
}

bool Mp3Encoder::SetUp(int inputRateHz) {
    if (lame_ != nullptr) lame_close(Lame(lame_));
    lame_ = lame_init();
    inputRateHz_ = 0;
    if (lame_ == nullptr) return false;
    lame_global_flags* l = Lame(lame_);
    lame_set_num_channels(l, 2);
    lame_set_in_samplerate(l, inputRateHz);
    lame_set_out_samplerate(l, kOutputRateHz);
    lame_set_brate(l, kBitRateKbps);
    lame_set_mode(l, JOINT_STEREO);
    lame_set_quality(l, 7);  // fast: the stream is for listening, not archiving
    lame_set_write_id3tag_automatic(l, 0);
    lame_set_bWriteVbrTag(l, 0);
    if (lame_init_params(l) < 0) {
        lame_close(l);
        lame_ = nullptr;
        return false;
    }
    inputRateHz_ = inputRateHz;
    return true;
}

bool Mp3Encoder::Encode(const PcmBlock& pcm, std::vector<uint8_t>* out) {
    if (pcm.channels < 1 || pcm.channels > 2 || pcm.rateHz <= 0 || pcm.samples.empty()) return false;
    if (pcm.rateHz != inputRateHz_) {
        // A new input rate takes a new encoder. The old one's last frames
        // go out first; a player reads on across the change as one run of
        // frames, since the output format stays the same.
        if (lame_ != nullptr) {
            buffer_.resize(7200);
            const int n = lame_encode_flush(Lame(lame_), buffer_.data(), int(buffer_.size()));
            if (n > 0) out->insert(out->end(), buffer_.begin(), buffer_.begin() + n);
        }
        if (!SetUp(pcm.rateHz)) return false;
    }
    const size_t frames = pcm.samples.size() / size_t(pcm.channels);
    const int16_t* samples = pcm.samples.data();
    if (pcm.channels == 1) {
        stereo_.resize(2 * frames);
        for (size_t i = 0; i < frames; ++i) stereo_[2 * i] = stereo_[2 * i + 1] = pcm.samples[i];
        samples = stereo_.data();
    }
    // The encoder's own bound on its output for `frames` input frames.
    buffer_.resize(frames + frames / 4 + 7200);
    const int n = lame_encode_buffer_interleaved(Lame(lame_), const_cast<short*>(samples), int(frames),
                                                 buffer_.data(), int(buffer_.size()));
    if (n < 0) return false;
    out->insert(out->end(), buffer_.begin(), buffer_.begin() + n);
    return true;
}

std::shared_ptr<Mp3Broadcast::Listener> Mp3Broadcast::Join() {
    auto listener = std::make_shared<Listener>();
    std::lock_guard<std::mutex> lock(mutex_);
    listeners_.push_back(listener);
    ++figures_.listeners;
    return listener;
}

void Mp3Broadcast::Leave(const std::shared_ptr<Listener>& listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = std::find(listeners_.begin(), listeners_.end(), listener);
    if (it == listeners_.end()) return;
    listeners_.erase(it);
    --figures_.listeners;
}

void Mp3Broadcast::Publish(const uint8_t* bytes, size_t length) {
    if (length == 0) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        figures_.bytes += length;
        const size_t header = FirstFrameHeader(bytes, length);
        for (const std::shared_ptr<Listener>& l : listeners_) {
            if (l->queuedBytes + length > kMaxBacklogBytes) {
                ++l->dropped;
                ++figures_.droppedChunks;
                l->inFrame = false;
                continue;
            }
            const size_t from = l->inFrame ? 0 : header;
            if (from == length) continue;
            l->chunks.emplace_back(bytes + from, bytes + length);
            l->queuedBytes += length - from;
            l->inFrame = true;
        }
    }
    ready_.notify_all();
}

bool Mp3Broadcast::Take(Listener& listener, std::vector<uint8_t>* out, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait_for(lock, timeout, [&] { return closed_ || !listener.chunks.empty(); });
    if (closed_) return false;
    for (const std::vector<uint8_t>& c : listener.chunks) out->insert(out->end(), c.begin(), c.end());
    listener.chunks.clear();
    listener.queuedBytes = 0;
    return true;
}

void Mp3Broadcast::Close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    ready_.notify_all();
}

Mp3Broadcast::Figures Mp3Broadcast::figures() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return figures_;
}
