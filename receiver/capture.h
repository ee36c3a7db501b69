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
    uint32_t framesHandedOver; // IqFrames handed over since open (wraps)
    uint32_t framesTaken;      // framesHandedOver at the demodulation thread's last take
};
extern CaptureBuffers captureBuffers;

// Read buffer, gathering buffer, hand-over buffer. 1, or 0 (nothing kept).
int32_t AllocCaptureBuffers();
// Harmless when nothing is allocated.
void FreeCaptureBuffers();

// Called for each finished IqFrame with the gathering buffer.
using IqFrameSink = void (*)(const uint8_t* frame);

// Appends `count` bytes to the IqFrame being gathered. Every finished IqFrame
// goes to `sink`, and gathering goes on at the start of whatever
// `gatheringBuffer` is after the sink (which may exchange it). A count
// beyond what fits into the remainder of the IqFrame loses nothing: as many
// IqFrames are finished as the bytes make. Returns the number finished.
int32_t GatherIqBytes(CaptureBuffers* buffers, const uint8_t* bytes, int32_t count, IqFrameSink sink);

// The capture thread's sink: makes the IqFrame the hand-over buffer (under
// handOverLock) and sets frameEvent. An IqFrame in captureBuffers' gathering
// buffer is not copied: the two buffers change places, and gathering goes
// on in the former hand-over buffer. Any other frame is copied.
void HandOverIqFrame(const uint8_t* frame);
// The demodulation thread's side: copies the hand-over buffer to `destination`
// under the same lock. Returns the IqFrames that were handed over since the
// previous take and written over before this thread took them: 0 while it
// keeps up (also when the buffer was filled by other means than
// HandOverIqFrame, as the thread-less test harness does).
int32_t TakeHandOverFrame(uint8_t* destination);

// One pass of the capture thread after deviceEvent: one read of the device,
// gathered. Returns the bytes read.
int32_t CaptureDeviceData();

// Pacing of the capture thread's reads. The device signals every transfer,
// a few milliseconds apart; waking for each costs more than the copying.
// After a read the thread therefore holds for the time the device needs for
// the bytes still missing in the IqFrame, plus kCaptureHoldMarginMs for the
// transfer that carries the last of them, and then reads them all at once:
// it wakes about twice per IqFrame instead of once per transfer. The
// IqFrame reaches the demodulation thread a few milliseconds later than it
// could, which costs it nothing: its budget per IqFrame stays the same.
//
// The hold follows the device's rate, measured over windows of at least
// kCaptureRateWindowMs (no hold before the first), so that a device that
// runs faster than real time is not left to pile up samples: a hold lets it
// gather at most three quarters of what one read takes. More would come
// back as one read that finishes two IqFrames, the first of which the
// demodulation thread never sees.
struct CapturePacing {
    int64_t windowStartMs;  // start of the rate measurement in progress; -1 before the first read
    int64_t windowBytes;    // bytes read since then
    int32_t bytesPerMs;     // the device's rate over the last window; 0 not measured yet
};
constexpr CapturePacing kCapturePacingStart = {-1, 0, 0};
constexpr int32_t kCaptureRateWindowMs = 100;
constexpr int32_t kLongestCaptureHoldMs = 50;  // at real time the device buffers 205 kB meanwhile
constexpr int32_t kCaptureHoldMarginMs = 4;
constexpr int32_t kShortestCaptureHoldMs = 2;  // less missing than this: wait for the device at once
// After a read of `readBytes` at `nowMs`, with `remainingBytes` missing in
// the IqFrame: the hold before the next wait for the device, ms; 0 none.
int32_t NextCaptureHold(CapturePacing* pacing, int32_t readBytes, int32_t remainingBytes, int64_t nowMs);

}  // namespace mvdab
