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

int32_t RotateHistory() {
    WorkBlocks& w = workBlocks;
    if (w.newestSlot == nullptr) return 0;
    if (w.oldestSlot != nullptr && w.middleSlot != nullptr) std::memcpy(w.oldestSlot, w.middleSlot, kIqFrameBytes);
    if (w.middleSlot != nullptr) std::memcpy(w.middleSlot, w.newestSlot, kIqFrameBytes);
    return TakeHandOverFrame(w.newestSlot);
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
    const int32_t lostIqFrames = RotateHistory();
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
    // An IqFrame that the capture thread handed over while this thread was
    // still busy with the one before is lost, and the history jumps by a
    // block. With a frame position held (states 2 and 3), the next frames
    // would be read across the gap: wrong symbols, and a plain
    // sub-channel's bytes that were never sent, until the FIC's error count
    // ended it. Acquisition starts again at once instead, as for a failing
    // FIC, except that the gap tells nothing against the frequency shift of
    // the entry.
    const bool historyGap = lostIqFrames > 0 && pipeline.acquisitionState >= 2;
    if (pipeline.resyncRequest == 1 || historyGap) {
        if (pipeline.resyncRequest == 1) NoteRestart();
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
