#include "delivery/superframe_sync.h"

#include <cstdlib>
#include <cstring>

#include "delivery/reed_solomon.h"
#include "delivery/worker.h"
#include "receiver/callback_slots.h"
#include "receiver/sync_objects.h"

namespace mvdab {

SubChannelParameters subChannelParameters;
SubChannelRing subChannelRing;
SuperframeState superframeState;

namespace {

constexpr int32_t kSearchColumns = 11;  // the columns that hold bytes 0..10
constexpr int32_t kBadSuperframesToUnlock = 4;
constexpr uint16_t kFirecodeReversed = 0xF41E;  // x^16 + x^14 + x^13 + x^12 + x^11 + x^5 + x^3 + x^2 + x + 1, bit-reversed

SuperframeState& sf = superframeState;

uint8_t* LogicalFrame(int32_t index) { return sf.superframeBuffer + index * sf.logicalFrameBytes; }

// Copies `count` logical frames from `source` to L(first)...
void PutLogicalFrames(int32_t first, const uint8_t* source, int32_t count) {
    std::memmove(LogicalFrame(first), source, size_t(count) * sf.logicalFrameBytes);
}

void Deliver(uint8_t* superframe, uint8_t flags) {
    if (MVDAB_DataCallBack callback = mscCallback.load()) callback(superframe, sf.audioBytes, int32_t(flags));
}

// A search hit at L(index): the superframe goes out as found.
void DeliverFound(int32_t index) { Deliver(LogicalFrame(index), sf.subChannelId); }

int32_t SearchModeI(const uint8_t* frame) {
    if (sf.searchFill == 0) {
        PutLogicalFrames(0, frame, 4);
        sf.searchFill = 1;
        return 0;
    }
    PutLogicalFrames(4, frame, 4);
    for (int32_t i = 0; i < 4; ++i) {
        if (TestSuperframeAt(LogicalFrame(i)) == 1) {
            DeliverFound(i);
            // The 3 - i logical frames behind the superframe begin the next one.
            PutLogicalFrames(0, LogicalFrame(i + 5), 3 - i);
            sf.logicalFramesHeld = int8_t(3 - i);
            return 1;
        }
    }
    PutLogicalFrames(0, LogicalFrame(4), 4);
    return 0;
}

int32_t SearchModeIV(const uint8_t* frame) {
    if (sf.searchFill == 2) {
        PutLogicalFrames(4, frame, 2);
        if (TestSuperframeAt(LogicalFrame(0)) == 1) {
            DeliverFound(0);
            PutLogicalFrames(0, LogicalFrame(5), 1);
            sf.logicalFramesHeld = 1;
            return 1;
        }
        if (TestSuperframeAt(LogicalFrame(1)) == 1) {
            DeliverFound(1);
            sf.logicalFramesHeld = 0;
            return 1;
        }
    } else {
        sf.searchFill = int8_t(sf.searchFill + 1);
    }
    PutLogicalFrames(0, LogicalFrame(2), 2);
    PutLogicalFrames(2, frame, 2);
    return 0;
}

int32_t SearchOneCifModes(const uint8_t* frame) {
    if (sf.searchFill == 4) {
        PutLogicalFrames(4, frame, 1);
        if (TestSuperframeAt(LogicalFrame(0)) == 1) {
            DeliverFound(0);
            sf.logicalFramesHeld = 0;
            return 1;
        }
    } else {
        sf.searchFill = int8_t(sf.searchFill + 1);
    }
    PutLogicalFrames(0, LogicalFrame(1), 3);
    PutLogicalFrames(3, frame, 1);
    return 0;
}

}  // namespace

int32_t AllocateSuperframeBuffers() {
    SubChannelRing& ring = subChannelRing;
    if (ring.ringBuffer == nullptr) ring.ringBuffer = static_cast<uint8_t*>(std::calloc(kRingBufferBytes, 1));
    if (ring.ringBuffer == nullptr) return 0;
    if (sf.superframeBuffer == nullptr) sf.superframeBuffer = static_cast<uint8_t*>(std::calloc(kSuperframeBufferBytes, 1));
    if (sf.superframeBuffer == nullptr) return 0;
    ring.droppedFrames = 0;
    WorkerHandOver& h = workerHandOver;
    h.flushRequest = 1;
    h.flushState = 3;
    h.workerMode = 0;
    h.workerActive = 0;
    ResetSuperframeState();
    return 1;
}

void FreeSuperframeBuffers() {
    std::free(subChannelRing.ringBuffer);
    subChannelRing.ringBuffer = nullptr;
    std::free(sf.superframeBuffer);
    sf.superframeBuffer = nullptr;
}

void ResetSuperframeState() {
    sf.locked = 0;
    sf.searchFill = 0;
    SubChannelRing& ring = subChannelRing;
    EnterIfInitialised(&workerLock);
    ring.ringWrite = 0;
    ring.ringRead = 0;
    ring.gapPending = 0;
    std::memset(ring.gapBefore, 0, sizeof ring.gapBefore);
    LeaveIfInitialised(&workerLock);
}

void LoadSuperframeParameters() {
    const SubChannelParameters& p = subChannelParameters;
    sf.subChannelId = uint8_t(p.subChannelId);
    sf.ringStride = p.ringFrameBytes;
    sf.transmissionMode = p.transmissionMode;
    sf.columns = p.columns;
    sf.logicalFrameBytes = 24 * p.columns;
    sf.audioBytes = 110 * p.columns;
    const int32_t logicalFrames = p.transmissionMode == 0 ? 4 : (p.transmissionMode == 3 ? 2 : 1);
    sf.chunkBytes = logicalFrames * sf.logicalFrameBytes;
}

void DrainSuperframeRing() {
    SubChannelRing& ring = subChannelRing;
    for (int32_t pass = 0; pass < kRingSlots; ++pass) {
        if (workerHandOver.flushRequest == 1) {
            // The flush is answered (flushState 3) at the next wake-up, which
            // the signal of FlushWorker brings.
            ResetSuperframeState();
            workerHandOver.workerActive = 0;
            return;
        }
        EnterIfInitialised(&workerLock);
        if (ring.ringRead == ring.ringWrite) {
            LeaveIfInitialised(&workerLock);
            return;
        }
        ring.ringRead = (ring.ringRead + 1) % kRingSlots;
        const int32_t slot = ring.ringRead;
        const uint8_t gap = ring.gapBefore[slot];
        LeaveIfInitialised(&workerLock);
        if (gap != 0) {
            // Frames were lost before this one: what the search or the
            // tracking holds no longer joins up with it.
            sf.locked = 0;
            sf.searchFill = 0;
        }
        SuperframeStep(ring.ringBuffer + slot * sf.ringStride);
    }
}

void SuperframeStep(uint8_t* frame) {
    if (sf.locked == 0) {
        if (SearchSuperframe(frame) == 1) {
            sf.locked = 1;
            sf.badCount = 0;
        }
    } else if (TrackSuperframe(frame) == -1) {
        sf.locked = 0;
        sf.searchFill = 0;
    }
}

int32_t SearchSuperframe(uint8_t* frame) {
    switch (sf.transmissionMode) {
        case 0: return SearchModeI(frame);
        case 3: return SearchModeIV(frame);
        default: return SearchOneCifModes(frame);
    }
}

int32_t TrackSuperframe(uint8_t* frame) {
    const int32_t h = sf.logicalFramesHeld;
    const int32_t lf = sf.logicalFrameBytes;
    switch (sf.transmissionMode) {
        case 0:
            if (h == 0) {
                PutLogicalFrames(0, frame, 4);
                sf.logicalFramesHeld = 4;
                return 0;
            }
            PutLogicalFrames(h, frame, 5 - h);
            if (FinishSuperframe(sf.superframeBuffer) == -1) return -1;
            PutLogicalFrames(0, frame + (5 - h) * lf, h - 1);
            sf.logicalFramesHeld = int8_t(h - 1);
            return 0;
        case 3:
            if (h == 3) {
                PutLogicalFrames(3, frame, 2);
                if (FinishSuperframe(sf.superframeBuffer) == -1) return -1;
                sf.logicalFramesHeld = 0;
            } else if (h == 4) {
                PutLogicalFrames(4, frame, 1);
                if (FinishSuperframe(sf.superframeBuffer) == -1) return -1;
                PutLogicalFrames(0, frame + lf, 1);
                sf.logicalFramesHeld = 1;
            } else {
                PutLogicalFrames(h, frame, 2);
                sf.logicalFramesHeld = int8_t(h + 2);
            }
            return 0;
        default:
            PutLogicalFrames(h, frame, 1);
            sf.logicalFramesHeld = int8_t(h + 1);
            if (sf.logicalFramesHeld < 5) return 0;
            if (FinishSuperframe(sf.superframeBuffer) == -1) return -1;
            sf.logicalFramesHeld = 0;
            return 0;
    }
}

int32_t FinishSuperframe(uint8_t* superframe) {
    uint8_t failed[kMaxColumns];
    const int32_t s = sf.columns;
    if (DecodeRs120Columns(superframe, failed, s, s) == 0) {
        sf.badCount = 0;
    } else {
        int32_t good = 0;
        for (int32_t c = 0; c < s; ++c) good += failed[c] == 0;
        // A superframe is bad only if fewer than 2 columns decoded.
        if (good >= 2) {
            sf.badCount = 0;
        } else if (++sf.badCount >= kBadSuperframesToUnlock) {
            return -1;
        }
    }
    const uint8_t flags = FirecodeRemainder(superframe) == 0 ? sf.subChannelId : uint8_t(sf.subChannelId | kFirecodeFailedFlag);
    Deliver(superframe, flags);
    return 0;
}

int32_t TestSuperframeAt(uint8_t* superframe) {
    // Only the columns holding the firecode and what it protects are decoded;
    // their corrections stay in the buffer, also when the test fails.
    uint8_t failed[kMaxColumns];
    const int32_t s = sf.columns;
    DecodeRs120Columns(superframe, failed, s, s < kSearchColumns ? s : kSearchColumns);
    // All 16 bits of the firecode, as for a tracked superframe. A test of the
    // low 8 bits alone lets one wrong start in 256 through, and a search
    // tries up to three wrong starts before the right one: about one start
    // of a service in a hundred would lock onto a wrong boundary and hand
    // the host a superframe of misplaced bytes as good, then three flagged
    // ones before the search begins anew. A superframe that passes after the
    // correction of its first columns passes either test.
    return FirecodeRemainder(superframe) == 0 ? 1 : 0;
}

uint16_t FirecodeRemainder(const uint8_t* superframe) {
    static constexpr int32_t kOrder[11] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 1};
    uint32_t reg = 0;
    for (int32_t index : kOrder) {
        const uint32_t byte = superframe[index];
        for (int32_t bit = 7; bit >= 0; --bit) {
            const uint32_t f = ((byte >> bit) ^ reg) & 1;
            reg >>= 1;
            if (f != 0) reg ^= kFirecodeReversed;
        }
    }
    return uint16_t(reg);
}

}  // namespace mvdab
