#include "emulator/sample_stream.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/platform.h"

namespace emu {

namespace {
using Clock = std::chrono::steady_clock;
constexpr int32_t kLargestTransfer = 65536;
// How far the producer may fall behind its schedule (a loaded machine)
// before it gives up catching up and starts a new schedule from now.
constexpr std::chrono::milliseconds kLateLimit(250);
}  // namespace

int32_t NextTransferSize(uint32_t* state) {
    *state = *state * 1664525u + 1013904223u;
    return 2 * (2048 + int32_t((*state >> 8) % 30721u));
}

SampleStream::SampleStream(const StreamSettings& settings, RegisterFile* registers)
    : settings_(settings),
      registers_(registers),
      buffer_(size_t(std::max<int64_t>(settings.bufferBytes, kLargestTransfer)) & ~size_t(1)),
      settleNoise_(settings.seed ^ 0x5E771Eull, settings.noiseRms) {}

SampleStream::~SampleStream() { Stop(); }

void SampleStream::Tune(TunedSource source, bool settle) {
    std::lock_guard<std::mutex> hold(lock_);
    pending_ = std::move(source);
    hasPending_ = true;
    pendingSettle_ = settle;
    wake_.notify_all();
}

int32_t SampleStream::Start(intptr_t eventFd) {
    Stop();
    {
        std::lock_guard<std::mutex> hold(lock_);
        eventFd_ = eventFd;
        head_ = 0;
        size_ = 0;
    }
    stopping_ = false;
    try {
        thread_ = std::thread([this] { Run(); });
    } catch (...) {
        return 0;
    }
    running_ = true;
    return 1;
}

void SampleStream::Stop() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        wake_.notify_all();
    }
    thread_.join();
    running_ = false;
    std::lock_guard<std::mutex> hold(lock_);
    head_ = 0;
    size_ = 0;
    eventFd_ = -1;
}

int32_t SampleStream::Read(uint8_t* buffer, int32_t capacity) {
    if (buffer == nullptr || capacity < kBytesPerSample) return 0;
    std::lock_guard<std::mutex> hold(lock_);
    const int64_t cap = int64_t(buffer_.size());
    const int64_t n = std::min<int64_t>(size_, capacity & ~int32_t(1));
    const int64_t first = std::min<int64_t>(n, cap - head_);
    std::memcpy(buffer, buffer_.data() + head_, size_t(first));
    std::memcpy(buffer + first, buffer_.data(), size_t(n - first));
    head_ = (head_ + n) % cap;
    size_ -= n;
    if (n > 0) wake_.notify_all();
    // More than one read's worth was held: signal again, so that the rest
    // is fetched even if no further transfer comes (a source at its end).
    if (size_ > 0 && eventFd_ >= 0) Signal();
    return int32_t(n);
}

void SampleStream::Push(const uint8_t* bytes, int32_t count) {
    std::lock_guard<std::mutex> hold(lock_);
    const int64_t cap = int64_t(buffer_.size());
    if (size_ + count > cap) {
        // The reader is behind: lose the oldest bytes, as the hardware would.
        const int64_t drop = size_ + count - cap;
        head_ = (head_ + drop) % cap;
        size_ -= drop;
        const int64_t before = dropped_.fetch_add(drop);
        if (settings_.verbose && before / 4096000 != (before + drop) / 4096000)
            std::fprintf(stderr, "emulator: reader too slow, %lld bytes dropped so far\n",
                         (long long)(before + drop));
    }
    const int64_t tail = (head_ + size_) % cap;
    const int64_t first = std::min<int64_t>(count, cap - tail);
    std::memcpy(buffer_.data() + tail, bytes, size_t(first));
    std::memcpy(buffer_.data(), bytes + first, size_t(count - first));
    size_ += count;
    produced_ += count;
}

void SampleStream::Signal() {
#if defined(_WIN32)
    ::SetEvent(reinterpret_cast<HANDLE>(eventFd_));
#else
    const uint64_t one = 1;
    // A full counter only means the event is set already.
    if (write(int(eventFd_), &one, sizeof one) < 0) return;
#endif
}

int32_t SampleStream::Produce(uint8_t* out, int32_t bytes) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (hasPending_) {
            current_ = std::move(pending_);
            pending_ = TunedSource{};
            hasPending_ = false;
            resampler_.Reset();
            settleLeft_ = pendingSettle_ ? settings_.settleSamples : 0;
            ended_ = false;
        }
    }
    const size_t samples = size_t(bytes / kBytesPerSample);
    size_t done = 0;
    if (settleLeft_ > 0) {
        const size_t n = size_t(std::min<int64_t>(settleLeft_, int64_t(samples)));
        settleNoise_.Read(out, n * kBytesPerSample);
        settleLeft_ -= int64_t(n);
        done = n;
    }
    if (done < samples && current_.source != nullptr && !ended_) {
        // The register adjusts the converter's rate: a negative value slows a
        // clock that runs fast, so the receiver writes minus the error it
        // measured.
        const double correction = registers_->SampleRateCorrectionPpm();
        if (settings_.verbose && correction != lastCorrection_)
            std::fprintf(stderr, "emulator: sample-rate offset %+.2f ppm, clock error of %s now %+.2f ppm\n",
                         correction, current_.name.c_str(), current_.clockPpm + correction);
        lastCorrection_ = correction;
        const double ppm = current_.clockPpm + correction;
        const size_t got = resampler_.Produce(current_.source.get(), ppm, out + done * kBytesPerSample,
                                              samples - done);
        done += got;
        if (done < samples && !stopping_) {
            ended_ = true;
            if (settings_.verbose) std::fprintf(stderr, "emulator: %s has ended\n", current_.name.c_str());
        }
    }
    return int32_t(done * kBytesPerSample);
}

void SampleStream::Run() {
    platform::SetCurrentThreadName("mvc900-stream");
    std::vector<uint8_t> transfer(kLargestTransfer);
    uint32_t sizeState = 0x1234567u;
    const double bytesPerSecond = settings_.speed * kSampleRate * kBytesPerSample;
    Clock::time_point start = Clock::now();
    int64_t scheduled = 0;  // bytes of the schedule since `start`
    int64_t delivered = 0;  // bytes of this stream, for the stop fault
    auto due = [&](int64_t bytes) {
        return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bytes / bytesPerSecond));
    };
    while (!stopping_) {
        int32_t size = NextTransferSize(&sizeState);
        if (settings_.stopAfterBytes >= 0) {
            size = int32_t(std::min<int64_t>(size, settings_.stopAfterBytes - delivered));
            if (size <= 0) {
                if (settings_.verbose) std::fprintf(stderr, "emulator: stream stopped by fault\n");
                std::unique_lock<std::mutex> hold(lock_);
                wake_.wait(hold, [&] { return stopping_.load(); });
                break;
            }
        }
        {
            std::unique_lock<std::mutex> hold(lock_);
            if (bytesPerSecond > 0.0) {
                const Clock::time_point when = due(scheduled + size);
                if (Clock::now() - when > kLateLimit) {
                    start = Clock::now();
                    scheduled = 0;
                } else {
                    wake_.wait_until(hold, when, [&] { return stopping_.load(); });
                }
            } else {
                wake_.wait(hold, [&] {
                    return stopping_.load() || int64_t(buffer_.size()) - size_ >= size;
                });
            }
            if (stopping_) break;
        }
        const int32_t n = Produce(transfer.data(), size);
        if (n > 0) {
            Push(transfer.data(), n);
            Signal();
            delivered += n;
        }
        scheduled += size;
        if (n < size) {
            // The source has ended: nothing more until a tuning brings another.
            std::unique_lock<std::mutex> hold(lock_);
            wake_.wait(hold, [&] { return stopping_.load() || hasPending_; });
            start = Clock::now();
            scheduled = 0;
        }
    }
}

}  // namespace emu
