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
    EnterIfInitialised(&handOverLock);
    if (captureBuffers.handOverBuffer != nullptr) {
        std::memcpy(captureBuffers.handOverBuffer, frame, kIqFrameBytes);
    }
    LeaveIfInitialised(&handOverLock);
    platform::SetEvent(&frameEvent);
}

void TakeHandOverFrame(uint8_t* destination) {
    EnterIfInitialised(&handOverLock);
    if (captureBuffers.handOverBuffer != nullptr && destination != nullptr) {
        std::memcpy(destination, captureBuffers.handOverBuffer, kIqFrameBytes);
    }
    LeaveIfInitialised(&handOverLock);
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
    return GatherIqBytes(&c, c.readBuffer, count, HandOverIqFrame);
}

}  // namespace mvdab
