// The selected service's audio for the web page: decoded PCM encoded as MP3
// (libmp3lame) and handed to any number of HTTP listeners.
//
// MP3 because every current browser plays it in an <audio> element straight
// from a chunked HTTP response: the stream is a plain run of frames and needs
// no container. The stream keeps one format whatever the service sends, 48 kHz
// stereo at 128 kbit/s: the encoder resamples other rates (DAB+ at 32 kHz,
// MP2 at 24 kHz) and doubles mono, so a change of service never changes the
// format under a playing browser.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "audio_decoders.h"

class Mp3Encoder {
public:
    static constexpr int kOutputRateHz = 48000;
    static constexpr int kBitRateKbps = 128;

    Mp3Encoder() = default;
    ~Mp3Encoder();
    Mp3Encoder(const Mp3Encoder&) = delete;
    Mp3Encoder& operator=(const Mp3Encoder&) = delete;

    // Appends the MP3 frames completed by `pcm` (1 or 2 channels, any rate
    // the encoder takes) to `out`. False when the block cannot be encoded.
    bool Encode(const PcmBlock& pcm, std::vector<uint8_t>* out);

private:
    bool SetUp(int inputRateHz);
    void* lame_ = nullptr;      // the libmp3lame handle
    int inputRateHz_ = 0;       // Hz; what lame_ was set up for
    std::vector<int16_t> stereo_;
    std::vector<uint8_t> buffer_;
};

// Fan-out of the MP3 bytes. The producer (the host's main loop) never waits
// for a listener: each listener has a bounded backlog, and a chunk that does
// not fit is dropped for that listener alone and counted. The encoder's
// chunks are not cut at frames, so a listener that joins, or has lost a
// chunk, goes on at the next frame header: a browser that sniffs the format
// from the first bytes sees a frame there.
class Mp3Broadcast {
public:
    static constexpr size_t kMaxBacklogBytes = 64 * 1024;  // 4 s of 128 kbit/s

    struct Listener {
        bool inFrame = false;  // its bytes so far end on a whole frame; false: start at the next frame header
        std::deque<std::vector<uint8_t>> chunks;
        size_t queuedBytes = 0;
        uint64_t dropped = 0;  // chunks lost because the listener fell behind
    };
    struct Figures {
        int listeners = 0;
        uint64_t bytes = 0;          // published
        uint64_t droppedChunks = 0;  // over all listeners, past and present
    };

    std::shared_ptr<Listener> Join();
    void Leave(const std::shared_ptr<Listener>& listener);
    // Producer side: a short lock, never a wait.
    void Publish(const uint8_t* bytes, size_t length);
    // Listener side: moves the queued chunks into `out` (appending), waiting
    // up to `timeout` for some. False once the broadcast is closed.
    bool Take(Listener& listener, std::vector<uint8_t>* out, std::chrono::milliseconds timeout);
    // Wakes every listener and makes Take return false.
    void Close();
    Figures figures() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::vector<std::shared_ptr<Listener>> listeners_;
    Figures figures_;
    bool closed_ = false;
};
