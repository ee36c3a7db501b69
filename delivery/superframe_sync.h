// DAB+ superframes on the worker thread: the ring that carries a sub-channel's
// bytes from the demodulation thread, the search for the superframe boundary
// with the firecode, tracking, Reed-Solomon correction and delivery of the
// audio part to the MSC callback.
//
// s is the sub-channel size in units of 8 kbit/s (1..24). A logical frame
// (one CIF) is 24*s bytes, a superframe five logical frames, 120*s bytes:
// 120 rows of s bytes, column c being one RS(120,110) word (bytes c, c+s,
// c+2s, ...). Rows 0..109 are the audio superframe, rows 110..119 parity.
// Bytes 0 and 1 are the firecode over bytes 2..10.
//
// Ring, 5 slots of ringFrameBytes (one transmission frame: 96*s bytes in
// mode I, 48*s in mode IV, 24*s in modes II and III; at most 2,304):
//
//   ringBuffer  | slot 0 | slot 1 | slot 2 | slot 3 | slot 4 |   11,520 bytes
//                 ringWrite: last slot written, ringRead: last slot taken;
//                 empty when equal. At most 4 frames wait beside the one
//                 the worker is decoding; a fifth is refused and counted.
//
// superframeBuffer, seen as logical frames of 24*s bytes (23,040 bytes):
//
//   | L0 | L1 | L2 | L3 | L4 | L5 | L6 | L7 | ...
//     searching, mode I:  L0..L3 the previous frame, L4..L7 the newest;
//                         a superframe is tested at L0, L1, L2, L3
//     tracking:           logicalFramesHeld frames at L0.., the superframe
//                         is decoded in place at L0..L4
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kMaxColumns = 24;                         // s at most: 192 kbit/s
constexpr int32_t kRingSlots = 5;
constexpr int32_t kRingSlotBytes = 96 * kMaxColumns;        // 2,304
constexpr int32_t kRingBufferBytes = kRingSlots * kRingSlotBytes;  // 11,520
constexpr int32_t kSuperframeBufferBytes = 23040;
constexpr uint8_t kFirecodeFailedFlag = 0x80;               // flags bit 7 of a tracked superframe

// What the demodulation thread hands the worker at the first delivery after
// a flush; written only while the worker is idle.
struct SubChannelParameters {
    int32_t subChannelId;       // the component's sub-channel id
    int32_t transmissionMode;   // 0..3 for modes I..IV
    int32_t ringFrameBytes;     // sub-channel bytes of one transmission frame; the ring's stride
    int32_t columns;            // s
};
extern SubChannelParameters subChannelParameters;

// Shared by both threads; indices and the copy into a slot under workerLock.
struct SubChannelRing {
    uint8_t* ringBuffer;        // kRingBufferBytes, owned from open to close
    int32_t ringWrite;          // last slot written, 0..4
    int32_t ringRead;           // last slot taken, 0..4
    int32_t droppedFrames;      // transmission frames refused on a full ring since open
    uint8_t gapPending;         // 1: a frame was refused since the last one written
    uint8_t gapBefore[kRingSlots];  // 1: frames were lost just before this slot's frame
};
extern SubChannelRing subChannelRing;

// The worker's decoder state.
struct SuperframeState {
    uint8_t subChannelId;       // low byte of the id, the flags of every delivery
    int32_t ringStride;         // bytes of one transmission frame in the ring
    int32_t transmissionMode;   // 0..3, selects the assembly rule
    int32_t columns;            // s
    int32_t logicalFrameBytes;  // 24*s
    int32_t chunkBytes;         // one transmission frame: 96*s (I), 48*s (IV), 24*s (II, III)
    int32_t audioBytes;         // 110*s, the length delivered
    uint8_t locked;             // 0 searching, 1 tracking
    int8_t searchFill;          // transmission frames held during the search
    int8_t logicalFramesHeld;   // logical frames at the start of superframeBuffer while tracking, 0..4
    int32_t badCount;           // consecutive bad superframes
    uint8_t* superframeBuffer;  // kSuperframeBufferBytes, owned from open to close
};
extern SuperframeState superframeState;

// Open and close. Allocate: the ring, then the superframe buffer, then the
// hand-over's start values and ResetSuperframeState; 1, or 0 if an
// allocation fails. Free skips what is not there.
int32_t AllocateSuperframeBuffers();
void FreeSuperframeBuffers();

// Worker thread.
void ResetSuperframeState();
void LoadSuperframeParameters();
void DrainSuperframeRing();
void SuperframeStep(uint8_t* frame);
int32_t SearchSuperframe(uint8_t* frame);
int32_t TrackSuperframe(uint8_t* frame);
int32_t FinishSuperframe(uint8_t* superframe);
int32_t TestSuperframeAt(uint8_t* superframe);
uint16_t FirecodeRemainder(const uint8_t* superframe);

}  // namespace mvdab
