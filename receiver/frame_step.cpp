#include "receiver/frame_step.h"

#include <cmath>
#include <cstring>

#include "acquisition/coarse_frame_search.h"
#include "acquisition/frame_entry.h"
#include "acquisition/frame_position.h"
#include "channel/fic_decoder.h"
#include "channel/subchannel_decoder.h"
#include "delivery/worker.h"
#include "demodulation/interference_excision.h"
#include "demodulation/symbol_demodulator.h"
#include "demodulation/tracking_loops.h"
#include "receiver/capture.h"
#include "receiver/receiver_state.h"
#include "receiver/request_mailbox.h"
#include "receiver/sync_objects.h"
#include "services/service_requests.h"
#include "services/symbol_mask.h"

namespace mvdab {

namespace {

// Bytes kept below the next frame's position: more than its fraction and the
// rounding down to an even byte, so also the 64-byte alignment of the start.
constexpr int32_t kKeptBelowFrame = 128;

// Offset from the history's start of the first byte that a later read can
// still reach; everything below it is dead. While tracking, the next frame
// starts at framePositionExact, and every read of that frame and of those
// after it lies at or above that position: the symbols are read forwards from
// the frame's start, and each later frame starts a frame period further on
// (the timing loop moves it by a few samples, never by a period). In any other
// state the whole history is live.
int64_t FirstLiveByte(const uint8_t* historyStart) {
    const FramePipeline& p = pipeline;
    if (p.acquisitionState != 3 || workBlocks.historyBase != historyStart) return 0;
    const float position = p.framePositionExact;
    // A position outside the history makes the next step start again; it is
    // not trusted to bound anything.
    if (!(position >= 0.0f) || !(position < float(3 * kIqFrameBytes))) return 0;
    const int64_t first = int64_t(position) - kKeptBelowFrame;
    return first <= 0 ? 0 : first & ~int64_t(63);
}

}  // namespace

// The older slots move one slot back: the middle slot's bytes to the oldest,
// the newest's to the middle. They lie next to one another, so this is one
// move of the whole history less its oldest slot. Only the bytes at or above
// FirstLiveByte are moved: in mode I the next frame often starts well inside
// the middle slot or beyond it, and the bytes below it would be thrown away
// unread. What the next frame steps read is therefore byte for byte what a
// move of whole slots leaves there; the dead bytes keep stale samples.
void RotateHistory() {
    WorkBlocks& w = workBlocks;
    if (w.newestSlot == nullptr) return;
    if (w.middleSlot != nullptr) {
        uint8_t* start = w.oldestSlot != nullptr ? w.oldestSlot : w.middleSlot;
        const int64_t end = w.newestSlot + kIqFrameBytes - start;
        int64_t from = FirstLiveByte(start);
        if (from < kIqFrameBytes) from = kIqFrameBytes;
        if (from < end) std::memmove(start + from - kIqFrameBytes, start + from, size_t(end - from));
    }
    TakeHandOverFrame(w.newestSlot);
}

namespace {

// The fields of ResetAcquisition; a hold-off that runs out keeps
// resyncRequest and historyBase.
void ResetAcquisitionFields(bool keepResyncAndBase) {
    FramePipeline& p = pipeline;
    const ReceiverSettings& s = receiverSettings;
    p.acquisitionState = 0;
    if (!keepResyncAndBase) p.resyncRequest = 0;
    p.searchTimeout = s.searchTimeoutFrames;
    p.confirmTimeout = s.confirmTimeoutFrames;
    p.framePosition = 0;
    p.framePositionExact = 0.0f;
    frequencyCorrection.samplePhaseIncrement = 0.0;
    frequencyCorrection.samplePhase = 0.0;
    workBlocks.middleSlot = nullptr;
    workBlocks.oldestSlot = nullptr;
    if (!keepResyncAndBase) workBlocks.historyBase = nullptr;
    // The stages put their own state back: power averages, dips, votes,
    // null positions and prefilter history; the entry filter; the timing
    // loop; the interference check and carrier weights; the FIC error count.
    ResetCoarseSearch();
    ResetFrameEntry();
    ResetTrackingLoops();
    ResetExcision();
    ResetFicDecoder();
}

void TrackFrames();

// State 2: the measured frame moves towards the oldest slot.
void WaitForFirstFrame() {
    FramePipeline& p = pipeline;
    p.framePosition -= kIqFrameBytes;
    if (p.framePosition >= kIqFrameBytes) return;
    p.frameSamples = p.framePosition;
    EnterFirstFrame();
    trackingLoops.clockHoldoff = receiverSettings.clockCorrectionPeriod;
    receiverStatus.syncState = 3;
    p.acquisitionState = 3;
    const int32_t frameBytes = mode.parameters.frameBytes;
    if (frameBytes <= 0) return;
    if (p.framePosition >= 0) {
        // The measured frame lies whole in the history: demodulate it now
        // instead of waiting a frame period for the next one (96 ms sooner
        // to syncState 4 in mode I). Only a frame that starts below the
        // history waits, as TrackFrames would refuse it.
        p.framePositionExact = float(p.framePosition + kIqFrameBytes);
        TrackFrames();
        return;
    }
    while (p.framePosition < kIqFrameBytes) p.framePosition += frameBytes;
    p.framePositionExact = float(p.framePosition);
}

constexpr int32_t kMaxFramesPerStep = 8;

// State 3: every transmission frame that starts in the oldest slot.
void TrackFrames() {
    FramePipeline& p = pipeline;
    const int32_t frameBytes = mode.parameters.frameBytes;
    p.framePositionExact -= float(kIqFrameBytes);
    if (frameBytes <= 0) return;
    // Mode II and III put at most three transmission frames into a step; the
    // cap only guards against a position that a fault has thrown far back.
    for (int32_t frames = 0; p.framePositionExact < float(kIqFrameBytes); ++frames) {
        if (!(p.framePositionExact >= 0.0f) || frames == kMaxFramesPerStep) {
            // The frame would start before the history: start again.
            p.resyncRequest = 1;
            return;
        }
        if (p.servicesDirty) {
            ResetSymbolMask();
            for (int32_t i = 0; i < p.selectedCount; ++i) SetUpSubChannel(p.selectedServices[i], 0, 1);
            p.servicesDirty = 0;
        }
        p.framePosition = int32_t(2.0 * std::floor(double(p.framePositionExact) * 0.5));
        p.frameSamples = p.framePosition;
        DemodulateFrame();
        DecodeFic();
        NoteFicResult(receiverStatus.syncState);
        for (int32_t i = 0; i < p.selectedCount; ++i) DecodeSubChannel(p.selectedServices[i]);
        p.framePositionExact += float(frameBytes);
    }
}

}  // namespace

void ResetAcquisition() { ResetAcquisitionFields(false); }

int32_t RunAcquisitionStep() {
    FramePipeline& p = pipeline;
    const ReceiverSettings& s = receiverSettings;
    switch (p.acquisitionState) {
        case -1:
            p.restartHoldoff -= 1;
            if (p.restartHoldoff <= 0) ResetAcquisitionFields(true);
            break;
        case 0:
            if (CoarseFrameSearch() == 1) {
                receiverStatus.signalPresent = 1;
                receiverStatus.syncState = 1;
                p.acquisitionState = 1;
            } else if (s.searchTimeoutEnabled && --p.searchTimeout <= 0) {
                receiverStatus.syncState = 0;
                receiverStatus.signalPresent = -1;
                p.restartHoldoff = s.restartHoldoffFrames;
                p.acquisitionState = -1;
            }
            break;
        case 1:
            if (ConfirmFramePosition() == 1) {
                receiverStatus.syncState = 2;
                p.acquisitionState = 2;
            } else if (s.confirmTimeoutEnabled && --p.confirmTimeout <= 0) {
                receiverStatus.syncState = 0;
                p.restartHoldoff = s.restartHoldoffFrames;
                p.acquisitionState = -1;
            }
            break;
        case 2: WaitForFirstFrame(); break;
        case 3: TrackFrames(); break;
        default: break;  // parked
    }
    return 1;
}

int32_t RunFrameStep() {
    RotateHistory();
    int32_t result = 1;
    // The mailbox can only be missing while the device is closed; then no
    // request can be waiting either.
    if (TakeRequestMailbox() == 1) {
        ReceiverStatus& st = receiverStatus;
        if (st.serviceResetRequest != 0) {
            st.serviceResetRequest = 0;
            st.signalPresent = 1;
            ReleaseAllServices();
            FlushWorker();
            ResetSymbolMask();
            pipeline.selectedCount = 0;
            pipeline.servicesDirty = 0;
        } else if (st.retuneRequest != 0) {
            st.retuneRequest = 0;
            ReleaseAllServices();
            FlushWorker();
            pipeline.servicesDirty = 0;
            ForgetRejectedShift();
            ResetAcquisition();
        } else if (mode.configuredMode != -1) {
            // A failed set-up has already dropped its record; the lock is
            // given back below in any case.
            result = ApplyServiceRequests();
        }
        GiveRequestMailbox();
    }
    if (pipeline.resyncRequest == 1) {
        NoteRestart();
        FlushWorker();
        pipeline.servicesDirty = 1;
        ResetAcquisition();
    }
    RunAcquisitionStep();
    return result;
}

void StopReceiver() {
    EnterIfInitialised(&frameStepLock);
    if (TakeRequestMailbox() == 1) {
        ReleaseAllServices();
        GiveRequestMailbox();
    } else {
        ReleaseAllServices();
    }
    FlushWorker();  // no superframes of the dropped services after the stop
    // The selection pointed at the records just freed.
    pipeline.selectedCount = 0;
    pipeline.acquisitionState = -2;
    pipeline.servicesDirty = 0;
    workBlocks.middleSlot = nullptr;
    workBlocks.oldestSlot = nullptr;
    workBlocks.historyBase = nullptr;
    pipeline.resyncRequest = 0;
    LeaveIfInitialised(&frameStepLock);
}

}  // namespace mvdab
