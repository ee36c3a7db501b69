// T-DMB stream decoding on the worker thread: 204-byte words (a 188-byte
// transport packet and 16 parity bytes of RS(204,188)) that the transmitter
// passed through a convolutional interleaver of 12 branches, branch b
// delaying by 17*b cells of 12 bytes. The sub-channel bytes of each
// transmission frame come through a ring of five slots; the worker finds the
// packet alignment on a pair of 0x47 bytes 204 apart, undoes the
// interleaving, corrects each word and hands its 188 bytes to the stream
// data callback.
//
// Ring, 5 slots of streamFrameBytes (cifsPerFrame x bitsPerCif / 8, at most
// 22,128):
//
//   streamRingBuffer | slot 0 | slot 1 | slot 2 | slot 3 | slot 4 |  110,640 bytes
//                      streamWrite: last slot written, streamRead: last
//                      taken; empty when equal. A frame that would overwrite
//                      the slot being read is refused and counted.
//
// deinterleaveBuffer, 2,048 rows of 12 bytes, column b = branch b:
//
//   row 0          word pointer: a word is 17 consecutive rows (204 bytes)
//   ...
//   row topRow     where branch 0 writes next (187 at the start, then
//                  188..204 at the start of every block); branch b writes
//                  17*b rows lower, so a row is complete once branch 0 has
//                  passed it by 187 rows
//   row 2,047      the last row a block of 1,844 rows can reach
#pragma once

#include <atomic>
#include <cstdint>

namespace mvdab {

struct ServiceComponent;

constexpr int32_t kStreamSlots = 5;
constexpr int32_t kStreamSlotBytes = 22128;                               // 1,844 rows of 12 bytes
constexpr int32_t kStreamRingBytes = kStreamSlots * kStreamSlotBytes;     // 110,640
constexpr int32_t kStreamBranches = 12;
constexpr int32_t kStreamWordBytes = 204;
constexpr int32_t kStreamPacketBytes = 188;
constexpr int32_t kStreamWordRows = kStreamWordBytes / kStreamBranches;   // 17
constexpr int32_t kStreamDeinterleaveRows = 2048;
constexpr int32_t kStreamDeinterleaveBytes = kStreamDeinterleaveRows * kStreamBranches;  // 24,576
constexpr int32_t kStreamFirstTopRow = 187;                               // 11 branches x 17 rows of delay
constexpr int32_t kStreamWarmUpWords = 11;
constexpr uint8_t kStreamSyncByte = 0x47;
constexpr int32_t kStreamRsFailedFlag = 0x80;                             // flags bit 7: the word failed RS(204,188)

// Shared by both threads; indices and the copy into a slot under workerLock.
// streamFrameBytes and streamSubChannelId are written only while the worker
// is idle (flushRequest 1, flushState 3).
struct StreamRing {
    uint8_t* streamRingBuffer;      // kStreamRingBytes, owned from open to close
    int32_t streamWrite;            // last slot written, 0..4
    int32_t streamRead;             // last slot taken, 0..4
    int32_t streamFrameBytes;       // bytes of one transmission frame; the ring's stride
    int32_t streamSubChannelId;     // the component's sub-channel id
    int32_t droppedFrames;          // frames refused on a full ring since open
    uint8_t gapPending;             // 1: a frame was refused since the last one written
    uint8_t gapBefore[kStreamSlots];  // 1: frames were lost just before this slot's frame
};
extern StreamRing streamRing;

// The worker's decoder state.
struct StreamState {
    int32_t workerFrameBytes;       // the worker's copy of streamFrameBytes
    uint8_t subChannelId;           // low byte of the id, the flags of every delivery
    uint8_t streamSynced;           // 0 until the sync search has succeeded
    int32_t topRow;                 // the row at which branch 0 writes next
    uint8_t warmedUp;               // 0 during the first 11 words after a sync, then 1
    uint8_t warmUpWords;            // words withheld so far
    uint8_t* deinterleaveBuffer;    // kStreamDeinterleaveBytes, owned from open to close
};
extern StreamState streamState;

// Open and close. Allocate: the ring, then the de-interleaver, then
// ResetStreamState; 1, or 0 if an allocation fails (what exists stays until
// the free). Free skips what is not there.
int32_t AllocateStreamBuffers();
void FreeStreamBuffers();

// Demodulation thread, at the end of DecodeSubChannel for a T-DMB stream:
// queues the frame's decoded bytes (cifsPerFrame CIFs) and wakes the worker.
void QueueStreamFrame(const ServiceComponent* component);
// The same for `length` bytes of sub-channel `subChannelId`. The frame is
// dropped while a flush is pending, when it is empty or longer than a slot,
// and on a full ring (counted in droppedFrames). A frame of another length
// or sub-channel than the worker runs with starts a flush instead. The
// first frame after a flush sets workerMode 2.
void QueueStreamBytes(int32_t subChannelId, const uint8_t* bytes, int32_t length);

// Worker thread.
void ResetStreamState();
void LoadStreamParameters();
void DrainStreamRing();
void DecodeStreamFrame(const uint8_t* bytes, int32_t length);
// Bytes left in the frame from the sync on (all of them once synced); 0 if
// the frame holds no pair of 0x47 bytes 204 apart.
int32_t FindStreamSync(const uint8_t* bytes, int32_t length);
// De-interleaves `length` bytes (the last length mod 12 are not used),
// decodes and delivers every word that is complete. Any length >= 0.
void DeinterleaveStreamBlock(const uint8_t* bytes, int32_t length);

}  // namespace mvdab
