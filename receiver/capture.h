// Gathering of the device's reads into IqFrames, and the hand-over of each
// finished IqFrame to the demodulation thread.
#pragma once

#include <cstdint>

namespace mvdab {

struct CaptureBuffers {
    uint8_t* readBuffer;       // kReadBufferBytes: each device read lands here
    uint8_t* gatheringBuffer;  // kIqFrameBytes: the IqFrame being put together
    uint8_t* handOverBuffer;   // kIqFrameBytes: the last finished IqFrame
    int32_t remaining;         // bytes still missing in the gathering buffer
};
extern CaptureBuffers captureBuffers;

// Read buffer, gathering buffer, hand-over buffer. 1, or 0 (nothing kept).
int32_t AllocCaptureBuffers();
// Harmless when nothing is allocated.
void FreeCaptureBuffers();

// Called for each finished IqFrame with the gathering buffer.
using IqFrameSink = void (*)(const uint8_t* frame);

// Appends `count` bytes to the IqFrame being gathered. Every finished IqFrame
// goes to `sink`, and gathering goes on at the start of the buffer. A count
// beyond what fits into the remainder of the IqFrame loses nothing: as many
// IqFrames are finished as the bytes make. Returns the number finished.
int32_t GatherIqBytes(CaptureBuffers* buffers, const uint8_t* bytes, int32_t count, IqFrameSink sink);

// The capture thread's sink: copies the IqFrame into the hand-over buffer
// (under handOverLock) and sets frameEvent.
void HandOverIqFrame(const uint8_t* frame);
// The demodulation thread's side: copies the hand-over buffer to `destination`
// under the same lock.
void TakeHandOverFrame(uint8_t* destination);

// One pass of the capture thread after deviceEvent: one read of the device,
// gathered. Returns the IqFrames finished.
int32_t CaptureDeviceData();

}  // namespace mvdab
