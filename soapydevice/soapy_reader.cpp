// The reader thread: readStream, conversion, clock correction, the ring and
// the receiver's event.
#include <pthread.h>
#include <unistd.h>

#include <SoapySDR/Errors.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "emulator/clock_resampler.h"
#include "soapydevice/soapy_device.h"

namespace soapydev {

namespace {

using Clock = std::chrono::steady_clock;

// Longest wait of one readStream, so that a stop is seen soon.
constexpr long kReadTimeoutUs = 100000;
// Errors in a row (not time-outs or overflows) after which the device counts as lost.
constexpr int32_t kErrorsToLose = 3;

// Hands the resampler the bytes of one transfer, then reports its end, so
// that the resampler produces all it can and keeps the rest for the next one.
class TransferSource : public emu::SampleSource {
public:
    void Set(const uint8_t* bytes, size_t count) {
        bytes_ = bytes;
        left_ = count;
    }
    size_t Read(uint8_t* out, size_t count) override {
        const size_t n = std::min(count, left_) & ~size_t(1);
        std::memcpy(out, bytes_, n);
        bytes_ += n;
        left_ -= n;
        return n;
    }

private:
    const uint8_t* bytes_ = nullptr;
    size_t left_ = 0;
};

void Signal(int fd) {
    const uint64_t one = 1;
    // A full counter only means the event is set already.
    if (write(fd, &one, sizeof one) < 0) return;
}

void Push(SoapyDevice* d, const uint8_t* bytes, size_t count) {
    std::lock_guard<std::mutex> hold(d->ringLock);
    const size_t capacity = d->ring.size();
    if (count > capacity) {
        bytes += count - capacity;
        d->droppedBytes += int64_t(count - capacity);
        count = capacity;
    }
    if (d->ringSize + count > capacity) {
        // The receiver is behind: the oldest bytes go, as on a device whose host doesn't fetch in time.
        const size_t drop = d->ringSize + count - capacity;
        d->ringHead = (d->ringHead + drop) % capacity;
        d->ringSize -= drop;
        d->droppedBytes += int64_t(drop);
    }
    const size_t tail = (d->ringHead + d->ringSize) % capacity;
    const size_t first = std::min(count, capacity - tail);
    std::memcpy(d->ring.data() + tail, bytes, first);
    std::memcpy(d->ring.data(), bytes + first, count - first);
    d->ringSize += count;
    d->deliveredBytes += int64_t(count);
    if (d->eventFd >= 0) Signal(d->eventFd);
}

// Passes a new register value on to the device's frequency correction. The
// register is a rate correction (negative slows the clock); SoapySDR takes
// the error of the device's reference in ppm (positive: it runs fast), which
// the device then takes out: the opposite sign.
void ApplyDeviceCorrection(SoapyDevice* d, double ppm) {
    std::lock_guard<std::mutex> hold(d->controlLock);
    if (SoapySDRDevice_setFrequencyCorrection(d->device, SOAPY_SDR_RX, size_t(d->settings.channel), -ppm) != 0)
        std::fprintf(stderr, "soapydevice: frequency correction of %+.2f ppm failed: %s\n", -ppm,
                     SoapySDRDevice_lastError());
    else if (d->settings.verbose)
        std::fprintf(stderr, "soapydevice: sample-rate offset %+.2f ppm, device correction %+.2f ppm\n", ppm, -ppm);
}

void RunReader(SoapyDevice* d) {
    pthread_setname_np(pthread_self(), "soapy-reader");
    const size_t n = d->readSamples;
    std::vector<uint8_t> raw(n * size_t(d->format.bytesPerSample));
    std::vector<uint8_t> bytes(n * kBytesPerSample);
    // The resampler may give a few samples more than it takes (up to 488 ppm
    // of the register's range, and the kernel's history).
    std::vector<uint8_t> resampled((n + n / 256 + 64) * kBytesPerSample);
    emu::ClockResampler resampler;
    TransferSource transfer;
    const double gain = std::pow(10.0, d->settings.levelDb / 20.0);
    double applied = 0.0;  // register value in force, ppm
    if (d->deviceCorrection) ApplyDeviceCorrection(d, 0.0);
    Clock::time_point lastData = Clock::now();
    int32_t errors = 0;
    while (!d->stopping && !d->lost) {
        const double ppm = d->registers.SampleRateCorrectionPpm();
        if (d->deviceCorrection && ppm != applied) ApplyDeviceCorrection(d, ppm);
        applied = ppm;
        void* buffers[1] = {raw.data()};
        int flags = 0;
        long long timeNs = 0;
        const int got = SoapySDRDevice_readStream(d->device, d->stream, buffers, n, &flags, &timeNs, kReadTimeoutUs);
        if (got > 0) {
            errors = 0;
            lastData = Clock::now();
            ConvertToBytes(d->format, gain, raw.data(), size_t(got), bytes.data());
            if (d->resample) {
                transfer.Set(bytes.data(), size_t(got) * kBytesPerSample);
                const size_t out = resampler.Produce(&transfer, ppm, resampled.data(), resampled.size() / 2);
                Push(d, resampled.data(), out * kBytesPerSample);
            } else {
                Push(d, bytes.data(), size_t(got) * kBytesPerSample);
            }
        } else if (got == SOAPY_SDR_OVERFLOW) {
            // Samples were lost inside the device or its driver; the stream goes on.
            const int64_t count = ++d->overflows;
            if (d->settings.verbose && (count & (count - 1)) == 0)
                std::fprintf(stderr, "soapydevice: %lld overflows reported by the device\n", (long long)count);
        } else if (got == SOAPY_SDR_TIMEOUT || got == 0) {
            const auto quiet = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastData);
            if (quiet.count() >= d->settings.stallMs) {
                char reason[96];
                std::snprintf(reason, sizeof reason, "no samples for %lld ms", (long long)quiet.count());
                MarkLost(d, reason);
            }
        } else if (++errors >= kErrorsToLose) {
            char reason[160];
            std::snprintf(reason, sizeof reason, "reading the stream failed: %s", SoapySDR_errToStr(got));
            MarkLost(d, reason);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // One last signal, so that a waiting reader calls MVA_GetData and learns of the loss.
    std::lock_guard<std::mutex> hold(d->ringLock);
    if (d->lost && d->eventFd >= 0) Signal(d->eventFd);
}

}  // namespace

int32_t StartStreaming(SoapyDevice* d, int eventFd) {
    StopStreaming(d);
    if (d->lost || d->device == nullptr) return 0;
    {
        std::lock_guard<std::mutex> hold(d->ringLock);
        d->ringHead = 0;
        d->ringSize = 0;
        d->eventFd = eventFd;
    }
    if (SoapySDRDevice_activateStream(d->device, d->stream, 0, 0, 0) != 0) {
        std::fprintf(stderr, "soapydevice: starting the stream failed: %s\n", SoapySDRDevice_lastError());
        std::lock_guard<std::mutex> hold(d->ringLock);
        d->eventFd = -1;
        return 0;
    }
    d->stopping = false;
    try {
        d->reader = std::thread(RunReader, d);
    } catch (...) {
        SoapySDRDevice_deactivateStream(d->device, d->stream, 0, 0);
        std::lock_guard<std::mutex> hold(d->ringLock);
        d->eventFd = -1;
        return 0;
    }
    return 1;
}

void StopStreaming(SoapyDevice* d) {
    if (!d->reader.joinable()) return;
    d->stopping = true;
    d->reader.join();
    SoapySDRDevice_deactivateStream(d->device, d->stream, 0, 0);
    std::lock_guard<std::mutex> hold(d->ringLock);
    d->ringHead = 0;
    d->ringSize = 0;
    d->eventFd = -1;
}

int32_t TakeBytes(SoapyDevice* d, uint8_t* buffer, int32_t capacity) {
    if (buffer == nullptr || capacity < kBytesPerSample) return 0;
    std::lock_guard<std::mutex> hold(d->ringLock);
    const size_t size = d->ring.size();
    if (size == 0) return 0;
    const size_t n = std::min(d->ringSize, size_t(capacity) & ~size_t(1));
    const size_t first = std::min(n, size - d->ringHead);
    std::memcpy(buffer, d->ring.data() + d->ringHead, first);
    std::memcpy(buffer + first, d->ring.data(), n - first);
    d->ringHead = (d->ringHead + n) % size;
    d->ringSize -= n;
    // More than one read's worth was held: signal again, so that the rest is
    // fetched even if no further transfer comes (a device that was lost).
    if (d->ringSize > 0 && d->eventFd >= 0) Signal(d->eventFd);
    return int32_t(n);
}

}  // namespace soapydev
