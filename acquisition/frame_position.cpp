#include "acquisition/frame_position.h"

#include <cstdlib>
#include <cstring>

#include "acquisition/coarse_frame_search.h"
#include "acquisition/mode_buffers.h"
#include "receiver/receiver_state.h"

namespace mvdab {

namespace {

// Lays out the buffers if the mode is new, switches the history on and fixes
// the frame position. 0 if the DFT service failed.
int32_t FinishFramePosition(int32_t remainingSamples) {
    const int32_t m = mode.transmissionMode;
    if (m != mode.configuredMode) {
        const int32_t firstTime = mode.configuredMode == -1 ? 1 : 0;
        if (ConfigureModeBuffers(firstTime) != 1) {
            // Without a plan no later stage may run: forget the layout and
            // have the frame step restart the search from scratch.
            mode.configuredMode = -1;
            pipeline.resyncRequest = 1;
            return 0;
        }
        mode.configuredMode = m;
    }
    SwitchOnHistory(m);
    pipeline.framePosition = FramePositionFromNull(NullPositions[0], m, remainingSamples);
    return 1;
}

}  // namespace

int32_t NullPositionPairAgrees(int32_t a, int32_t b, int32_t framePeriod, int32_t tolerance) {
    // 64-bit, since fresh entries are far apart sentinels.
    const int64_t d = std::llabs(static_cast<int64_t>(a) - b);
    if (d < tolerance) return 1;
    if (std::llabs(d - framePeriod) < tolerance) return 1;
    return 0;
}

int32_t NullPositionsAgree() {
    const int32_t period = mode.parameters.framePeriod;
    const int32_t tolerance = receiverSettings.nullAgreementTolerance;
    return NullPositionPairAgrees(NullPositions[0], NullPositions[1], period, tolerance) &&
                   NullPositionPairAgrees(NullPositions[1], NullPositions[2], period, tolerance)
               ? 1
               : 0;
}

int32_t FramePositionFromNull(int32_t nullPosition, int32_t transmissionMode, int32_t remainingSamples) {
    const int32_t backoff = receiverSettings.timingBackoffBytes[transmissionMode & 3];
    return 2 * nullPosition - backoff - 2 * remainingSamples + HistoryDepth(transmissionMode) * kIqFrameBytes;
}

int32_t ConfirmFramePosition() {
    float* envelope = workBlocks.powerEnvelope;
    const uint8_t* samples = workBlocks.newestSlot;
    if (envelope == nullptr || samples == nullptr) return 0;
    const int32_t nullLength = mode.parameters.nullLength;
    const int32_t period = mode.parameters.framePeriod;
    if (nullLength <= 0 || period <= 0) return 0;
    CoarseSearch& s = coarseSearch;
    // A scan in progress must fit PowerEnvelope; anything else starts afresh.
    if (s.scanFill < 0 || s.scanNeed <= 0 || s.scanFill + s.scanNeed != period ||
        nullLength + period > kPowerEnvelopeFloats) {
        s.scanFill = 0;
        s.scanNeed = period;
    }

    int32_t remaining = kIqFrameSamples;
    while (remaining > 0) {
        const int32_t n = remaining < s.scanNeed ? remaining : s.scanNeed;
        ComputePowerEnvelope(samples + 2 * (kIqFrameSamples - remaining), n, envelope + nullLength + s.scanFill);
        remaining -= n;
        s.scanNeed -= n;
        s.scanFill += n;
        if (s.scanNeed != 0) continue;

        ScanNullPosition(envelope);
        s.scanNeed = period;
        // The last nullLength values overlap the next scan window.
        std::memmove(envelope, envelope + period, nullLength * sizeof(float));
        if (NullPositionsAgree()) return FinishFramePosition(remaining);
        s.scanFill = 0;
    }
    return 0;
}

}  // namespace mvdab
