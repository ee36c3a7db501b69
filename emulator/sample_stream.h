// The device's stream: a thread of its own produces transfers of varying
// size from the tuned source, through the converter clock, at 2.048 MS/s
// paced in real time (or a multiple of it), into a bounded buffer, and
// signals the receiver's event after each transfer. MVA_GetData takes out
// everything buffered, up to its capacity.
//
// Overflow: when the reader falls behind by more than the buffer holds, the
// oldest bytes are dropped (whole samples) and counted, as a device whose
// host stops reading loses samples. With speed 0 there is no pacing and no
// loss: the producer waits until the reader has made room.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "emulator/clock_resampler.h"
#include "emulator/register_file.h"
#include "emulator/sample_sources.h"

namespace emu {

struct StreamSettings {
    double speed = 1.0;            // multiple of real time; 0 = as fast as the reader takes it
    int64_t bufferBytes = 1 << 20; // capacity of the device buffer, bytes
    int64_t settleSamples = 0;     // noise samples delivered after each tuning
    int64_t stopAfterBytes = -1;   // the stream ends for good after this many bytes; -1 never
    double noiseRms = 20.0;        // rms of the settling noise, byte units per rail
    uint64_t seed = 1;             // seed of the settling noise
    bool verbose = false;          // report on stderr
};

// Sizes of successive transfers, bytes: even, from 4,096 to 65,536, in a
// fixed pseudo-random order, so that reads never line up with the
// receiver's gathering.
int32_t NextTransferSize(uint32_t* state);

class SampleStream {
public:
    SampleStream(const StreamSettings& settings, RegisterFile* registers);
    ~SampleStream();
    SampleStream(const SampleStream&) = delete;
    SampleStream& operator=(const SampleStream&) = delete;

    // Any thread: from the next transfer on, `settleSamples` of noise (when
    // `settle`) and then `source`. The stream restarts if its source had ended.
    void Tune(TunedSource source, bool settle = true);
    // Starts the producer, signalling descriptor `eventFd`; a running stream
    // is stopped first. 1 started, 0 when the thread can't be created.
    int32_t Start(intptr_t eventFd);
    // Stops the producer and waits for it: once this returns the event is not
    // signalled any more. Buffered bytes are discarded.
    void Stop();
    // Copies up to `capacity` buffered bytes (whole samples) to `buffer`;
    // returns the count, 0 when nothing is buffered or the stream is stopped.
    int32_t Read(uint8_t* buffer, int32_t capacity);

    // Flag that is set while the stream is being stopped (for sources that wait).
    const std::atomic<bool>* stopFlag() const { return &stopping_; }
    bool running() const { return running_.load(); }
    int64_t droppedBytes() const { return dropped_.load(); }    // lost to overflow
    int64_t producedBytes() const { return produced_.load(); }  // put into the buffer

private:
    void Run();
    // Fills `out` with up to `bytes` bytes of the current source; 0 at its end.
    int32_t Produce(uint8_t* out, int32_t bytes);
    void Push(const uint8_t* bytes, int32_t count);
    void Signal();

    const StreamSettings settings_;
    RegisterFile* const registers_;

    std::mutex lock_;                 // guards the buffer, the pending tuning and the wake-ups
    std::condition_variable wake_;    // stop, tuning, room in the buffer
    std::vector<uint8_t> buffer_;     // ring of bufferBytes
    int64_t head_ = 0;                // index of the oldest byte
    int64_t size_ = 0;                // bytes held
    TunedSource pending_;             // tuning not yet taken up by the producer
    bool hasPending_ = false;
    bool pendingSettle_ = false;      // the pending tuning starts with settling noise

    std::thread thread_;
    intptr_t eventFd_ = -1;  // eventfd descriptor (Windows: event HANDLE); -1 none
    std::atomic<bool> stopping_{false};
    std::atomic<bool> running_{false};
    std::atomic<int64_t> dropped_{0};
    std::atomic<int64_t> produced_{0};

    // Producer thread only.
    TunedSource current_;
    ClockResampler resampler_;
    NoiseSource settleNoise_;
    int64_t settleLeft_ = 0;         // settling samples still to deliver
    bool ended_ = false;             // the current source has ended
    double lastCorrection_ = 0.0;    // sample-rate correction of the last transfer, ppm (for reports)
};

}  // namespace emu
