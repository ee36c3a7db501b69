#include "receiver/capture.h"

#include <cstdlib>
#include <cstring>

#include "device/access_library.h"
#include "receiver/receiver_state.h"
#include "receiver/sync_objects.h"

namespace mvdab {

CaptureBuffers captureBuffers;

int32_t AllocCaptureBuffers() {
    CaptureBuffers& c = captureBuffers;
    c.readBuffer = static_cast<uint8_t*>(std::calloc(kReadBufferBytes, 1));
    c.gatheringBuffer = static_cast<uint8_t*>(std::calloc(kIqFrameBytes, 1));
    c.handOverBuffer = static_cast<uint8_t*>(std::calloc(kIqFrameBytes, 1));
    c.remaining = kIqFrameBytes;
    if (c.readBuffer == nullptr || c.gatheringBuffer == nullptr || c.handOverBuffer == nullptr) {
        FreeCaptureBuffers();
        return 0;
    }
    return 1;
}

void FreeCaptureBuffers() {
    CaptureBuffers& c = captureBuffers;
    std::free(c.readBuffer);
    std::free(c.gatheringBuffer);
    std::free(c.handOverBuffer);
    c = CaptureBuffers{};
}

int32_t GatherIqBytes(CaptureBuffers* c, const uint8_t* bytes, int32_t count, IqFrameSink sink) {
    if (c == nullptr || c->gatheringBuffer == nullptr || bytes == nullptr || count <= 0) return 0;
    if (c->remaining <= 0 || c->remaining > kIqFrameBytes) c->remaining = kIqFrameBytes;
    int32_t finished = 0;
    while (count > 0) {
        const int32_t n = count < c->remaining ? count : c->remaining;
        std::memcpy(c->gatheringBuffer + (kIqFrameBytes - c->remaining), bytes, size_t(n));
        bytes += n;
        count -= n;
        c->remaining -= n;
        if (c->remaining == 0) {
            if (sink != nullptr) sink(c->gatheringBuffer);
            c->remaining = kIqFrameBytes;
            ++finished;
        }
    }
    return finished;
}

void HandOverIqFrame(const uint8_t* frame) {
    CaptureBuffers& c = captureBuffers;
    EnterIfInitialised(&handOverLock);
    if (c.handOverBuffer != nullptr && frame == c.gatheringBuffer) {
        // The demodulation thread reads the hand-over buffer only under the
        // lock, so the exchange gives it the newest IqFrame without a copy.
        uint8_t* finished = c.gatheringBuffer;
        c.gatheringBuffer = c.handOverBuffer;
        c.handOverBuffer = finished;
    } else if (c.handOverBuffer != nullptr) {
        std::memcpy(c.handOverBuffer, frame, kIqFrameBytes);
    }
    ++c.framesHandedOver;
    LeaveIfInitialised(&handOverLock);
    platform::SetEvent(&frameEvent);
}

int32_t TakeHandOverFrame(uint8_t* destination) {
    CaptureBuffers& c = captureBuffers;
    EnterIfInitialised(&handOverLock);
    if (c.handOverBuffer != nullptr && destination != nullptr) {
        std::memcpy(destination, c.handOverBuffer, kIqFrameBytes);
    }
    const uint32_t since = c.framesHandedOver - c.framesTaken;
    c.framesTaken = c.framesHandedOver;
    LeaveIfInitialised(&handOverLock);
    return since > 1 ? int32_t(since - 1) : 0;
}

int32_t CaptureDeviceData() {
    CaptureBuffers& c = captureBuffers;
    if (accessLibrary.getData == nullptr || c.readBuffer == nullptr) return 0;
    int32_t count = 0;
    int32_t reserved = 0;  // set to 0 before the call; nothing reads it afterwards
    accessLibrary.getData(c.readBuffer, kReadBufferBytes, &count, &reserved);
    // A count outside the buffer is a device fault: take what the buffer can
    // hold, never more.
    if (count < 0) count = 0;
    if (count > kReadBufferBytes) count = kReadBufferBytes;
    GatherIqBytes(&c, c.readBuffer, count, HandOverIqFrame);
    return count;
}

int32_t NextCaptureHold(CapturePacing* pacing, int32_t readBytes, int32_t remainingBytes, int64_t nowMs) {
    constexpr int32_t kRealTimeBytesPerMs = 4096;  // 2,048 samples of 2 bytes
    CapturePacing& p = *pacing;
    if (p.windowStartMs < 0) p.windowStartMs = nowMs;
    p.windowBytes += readBytes;
    const int64_t elapsed = nowMs - p.windowStartMs;
    if (elapsed >= kCaptureRateWindowMs) {
        p.bytesPerMs = int32_t(p.windowBytes / elapsed);
        p.windowStartMs = nowMs;
        p.windowBytes = 0;
    }
    if (p.bytesPerMs == 0 || readBytes >= kReadBufferBytes) return 0;
    // A device slower than real time (or paused) is counted at real time:
    // the holds are then shorter than they could be, never longer.
    const int32_t rate = p.bytesPerMs > kRealTimeBytesPerMs ? p.bytesPerMs : kRealTimeBytesPerMs;
    const int32_t missingMs = remainingBytes / rate;
    if (missingMs < kShortestCaptureHoldMs) return 0;
    int32_t hold = missingMs + kCaptureHoldMarginMs;
    const int32_t fillMs = 3 * (kReadBufferBytes / 4) / rate;
    if (hold > fillMs) hold = fillMs;
    return hold < kLongestCaptureHoldMs ? hold : kLongestCaptureHoldMs;
}

}  // namespace mvdab
