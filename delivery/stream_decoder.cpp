#include "delivery/stream_decoder.h"

#include <cstdlib>
#include <cstring>

#include "delivery/reed_solomon.h"
#include "delivery/worker.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "receiver/sync_objects.h"
#include "services/service_component.h"

namespace mvdab {

StreamRing streamRing;
StreamState streamState;

namespace {

StreamState& st = streamState;

// Rows one call of the row writer may add: a full slot. topRow is at most
// 204 when a block starts, so the rows written stay below 204 + 1,844 = 2,048.
constexpr int32_t kMaxBlockRows = kStreamSlotBytes / kStreamBranches;  // 1,844
static_assert(kStreamFirstTopRow + kStreamWordRows + kMaxBlockRows <= kStreamDeinterleaveRows);

uint8_t* Row(int32_t row) { return st.deinterleaveBuffer + row * kStreamBranches; }

// Decodes the word at `word` and hands its transport packet to the host.
void DeliverWord(uint8_t* word) {
    const int32_t failed = DecodeRs204Packet(word, word + kStreamPacketBytes) != 0;
    if (MVDAB_StreamDataCallBack callback = streamDataCallback.load()) {
        callback(word, kStreamPacketBytes, int32_t(st.subChannelId) | (failed ? kStreamRsFailedFlag : 0));
    }
}

// Writes `rows` rows of 12 bytes, decodes what is complete and moves the
// rows still being filled to the start of the buffer. rows <= 1,844.
void DeinterleaveRows(const uint8_t* bytes, int32_t rows) {
    // Branch b of input row k belongs 17*b rows before branch 0 of the same
    // row: branch 0 has the greatest delay left to wait, branch 11 none.
    for (int32_t b = 0; b < kStreamBranches; ++b) {
        uint8_t* out = Row(st.topRow - kStreamWordRows * b) + b;
        const uint8_t* in = bytes + b;
        for (int32_t k = 0; k < rows; ++k) out[k * kStreamBranches] = in[k * kStreamBranches];
    }
    // Rows below topRow + rows - 187 have all 12 branches.
    int32_t pending = st.topRow + rows - (kStreamFirstTopRow + 1);
    int32_t wordRow = 0;
    while (pending >= kStreamWordRows) {
        if (st.warmedUp == 0) {
            // The rows below the first one the sync filled hold no whole word.
            if (++st.warmUpWords >= kStreamWarmUpWords) st.warmedUp = 1;
        } else {
            DeliverWord(Row(wordRow));
        }
        wordRow += kStreamWordRows;
        pending -= kStreamWordRows;
    }
    // The rows from the word pointer up to the highest one written
    // (pending + 188 of them) go to the start; pending >= -1 here, since
    // topRow never falls below 187. Not one row more: after a full slot
    // from topRow 204 that row would lie past the buffer's end.
    std::memmove(Row(0), Row(wordRow), size_t(pending + kStreamFirstTopRow + 1) * kStreamBranches);
    st.topRow = pending + kStreamFirstTopRow + 1;
}

// The worker's resynchronisation: a new search, the warm-up again.
void RestartSync() {
    st.topRow = kStreamFirstTopRow;
    st.streamSynced = 0;
    st.warmedUp = 0;
    st.warmUpWords = 0;
}

}  // namespace

int32_t AllocateStreamBuffers() {
    StreamRing& ring = streamRing;
    if (ring.streamRingBuffer == nullptr) ring.streamRingBuffer = static_cast<uint8_t*>(std::calloc(kStreamRingBytes, 1));
    if (ring.streamRingBuffer == nullptr) return 0;
    if (st.deinterleaveBuffer == nullptr) st.deinterleaveBuffer = static_cast<uint8_t*>(std::calloc(kStreamDeinterleaveBytes, 1));
    if (st.deinterleaveBuffer == nullptr) return 0;
    ring.droppedFrames = 0;
    ring.streamFrameBytes = 0;
    ring.streamSubChannelId = 0;
    ResetStreamState();
    return 1;
}

void FreeStreamBuffers() {
    std::free(streamRing.streamRingBuffer);
    streamRing.streamRingBuffer = nullptr;
    std::free(st.deinterleaveBuffer);
    st.deinterleaveBuffer = nullptr;
}

void QueueStreamFrame(const ServiceComponent* component) {
    if (component->decodedBytes == nullptr) return;
    const int32_t length = mode.parameters.cifsPerFrame * component->bitsPerCif / 8;
    QueueStreamBytes(component->subChannelId, component->decodedBytes, length);
}

void QueueStreamBytes(int32_t subChannelId, const uint8_t* bytes, int32_t length) {
    WorkerHandOver& h = workerHandOver;
    StreamRing& ring = streamRing;
    if (h.flushState != 3 || ring.streamRingBuffer == nullptr || bytes == nullptr) return;
    if (length <= 0 || length > kStreamSlotBytes) return;
    if (h.flushRequest == 1) {
        h.workerMode = 2;
        ring.streamFrameBytes = length;
        ring.streamSubChannelId = subChannelId;
    } else if (h.workerMode != 2 || length != ring.streamFrameBytes || subChannelId != ring.streamSubChannelId) {
        // Another decoder or other sizes than the worker runs with: it
        // restarts, and the first frame after its answer starts it anew.
        FlushWorker();
        return;
    }
    EnterIfInitialised(&workerLock);
    const int32_t next = (ring.streamWrite + 1) % kStreamSlots;
    if (next == ring.streamRead) {
        // The worker decodes the slot after streamRead and four more wait:
        // this frame is lost, and the worker learns of the gap.
        ring.droppedFrames += 1;
        ring.gapPending = 1;
    } else {
        ring.streamWrite = next;
        std::memcpy(ring.streamRingBuffer + next * length, bytes, size_t(length));
        ring.gapBefore[next] = ring.gapPending;
        ring.gapPending = 0;
    }
    LeaveIfInitialised(&workerLock);
    h.flushRequest = 0;
    platform::SetEvent(&workerEvent);
}

void ResetStreamState() {
    RestartSync();
    StreamRing& ring = streamRing;
    EnterIfInitialised(&workerLock);
    ring.streamWrite = 0;
    ring.streamRead = 0;
    ring.gapPending = 0;
    std::memset(ring.gapBefore, 0, sizeof ring.gapBefore);
    LeaveIfInitialised(&workerLock);
}

void LoadStreamParameters() {
    st.workerFrameBytes = streamRing.streamFrameBytes;
    st.subChannelId = uint8_t(streamRing.streamSubChannelId);
}

void DrainStreamRing() {
    StreamRing& ring = streamRing;
    for (int32_t pass = 0; pass < kStreamSlots; ++pass) {
        if (workerHandOver.flushRequest == 1) {
            // Answered (flushState 3) at the next wake-up.
            ResetStreamState();
            workerHandOver.workerActive = 0;
            return;
        }
        EnterIfInitialised(&workerLock);
        if (ring.streamRead == ring.streamWrite) {
            LeaveIfInitialised(&workerLock);
            return;
        }
        ring.streamRead = (ring.streamRead + 1) % kStreamSlots;
        const int32_t slot = ring.streamRead;
        const uint8_t gap = ring.gapBefore[slot];
        LeaveIfInitialised(&workerLock);
        // After a lost frame the rows no longer join up: search again.
        if (gap != 0) RestartSync();
        DecodeStreamFrame(ring.streamRingBuffer + slot * st.workerFrameBytes, st.workerFrameBytes);
    }
}

void DecodeStreamFrame(const uint8_t* bytes, int32_t length) {
    const int32_t rest = FindStreamSync(bytes, length);
    if (rest != 0) DeinterleaveStreamBlock(bytes + (length - rest), rest);
}

int32_t FindStreamSync(const uint8_t* bytes, int32_t length) {
    if (st.streamSynced == 1) return length;
    // Both bytes of a pair lie in this frame; 204 being a multiple of 12,
    // they lie on the same branch.
    for (int32_t i = 0; i + kStreamWordBytes < length; ++i) {
        if (bytes[i] == kStreamSyncByte && bytes[i + kStreamWordBytes] == kStreamSyncByte) {
            st.streamSynced = 1;
            return length - i;
        }
    }
    return 0;
}

void DeinterleaveStreamBlock(const uint8_t* bytes, int32_t length) {
    // Fewer than 12 bytes add no row: topRow stays and nothing is decoded.
    if (st.deinterleaveBuffer == nullptr || length <= 0) return;
    // A block longer than a slot is taken in slot-sized pieces of whole rows:
    // the interleaver runs on across them as across frames.
    int32_t rows = length / kStreamBranches;
    while (rows > 0) {
        const int32_t piece = rows < kMaxBlockRows ? rows : kMaxBlockRows;
        DeinterleaveRows(bytes, piece);
        bytes += piece * kStreamBranches;
        rows -= piece;
    }
}

}  // namespace mvdab
