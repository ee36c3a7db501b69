#include "demodulation/tracking_loops.h"

#include <cmath>

#include "acquisition/mode_buffers.h"
#include "device/tuning.h"
#include "receiver/receiver_state.h"

namespace mvdab {

TrackingLoops trackingLoops;

void ResetTrackingLoops() {
    trackingLoops.timingIntegrator = 0.0f;
    trackingLoops.timingIntegralGain = receiverSettings.timingIntegralGains[0];
    trackingLoops.timingProportionalGain = receiverSettings.timingProportionalGains[0];
    trackingLoops.trackedFrames = 0;
}

float TimingErrorOf(const float* impulse, const float* weights, int32_t length, float impulseScale) {
    // Each delay's power is clipped by itself, before its weight, so that one
    // strong path cannot outweigh the rest without bound. The sum is kept in
    // double: the terms run from -4*255 to +5*255 over up to 2048 delays.
    double sum = 0.0;
    for (int32_t n = 0; n < length; ++n) {
        const float re = impulse[2 * n];
        const float im = impulse[2 * n + 1];
        const float power = std::fmin(kImpulsePowerClip, (re * re + im * im) * impulseScale);
        sum += static_cast<double>(power * weights[n]);
    }
    return static_cast<float>(sum);
}

void TrackFrameTiming() {
    const ModeBuffers& b = modeBuffers;
    const ModeParameters& m = mode.parameters;
    if (b.dftWork == nullptr || b.timingWeights == nullptr) return;
    if (mode.transmissionMode < 0 || mode.transmissionMode > 3) return;
    TrackingLoops& t = trackingLoops;

    const float impulseScale = receiverSettings.impulseScales[mode.transmissionMode];
    const float error = TimingErrorOf(b.dftWork, b.timingWeights, m.fftSize, impulseScale);
    t.timingError = error;

    // Positive error: energy late in the window, so the window moves later.
    const float proportional = t.timingProportionalGain * error;
    t.timingIntegrator += t.timingIntegralGain * error;
    pipeline.framePositionExact += t.timingIntegrator + proportional;

    // The integrator is the drift in bytes over one frame of frameBytes, so
    // its ratio to frameBytes is the clock error; a window that has to run
    // ahead means a device clock that is too fast, hence the minus sign.
    const float frameBytes = static_cast<float>(m.frameBytes);
    t.clockOffsetPpm = -1000000.0f * t.timingIntegrator / frameBytes;
    t.clockStepPpm = -1000000.0f * proportional / frameBytes;

    CorrectSampleClock();

    // Gains are loaded only at the moment the count reaches a step, so they
    // act from the next frame on.
    t.trackedFrames += 1;
    const ReceiverSettings& s = receiverSettings;
    if (t.trackedFrames == s.timingGainStepFrames[0]) {
        t.timingIntegralGain = s.timingIntegralGains[1];
        t.timingProportionalGain = s.timingProportionalGains[1];
    } else if (t.trackedFrames == s.timingGainStepFrames[1]) {
        t.timingIntegralGain = s.timingIntegralGains[2];
        t.timingProportionalGain = s.timingProportionalGains[2];
    }
}

int32_t CorrectSampleClock() {
    TrackingLoops& t = trackingLoops;
    const ReceiverSettings& s = receiverSettings;
    if (s.clockCorrectionEnabled == 0) return 1;
    if (t.clockHoldoff != 0) {
        t.clockHoldoff -= 1;
        return 1;
    }
    // A correction is taken only while the proportional term is small, and
    // only one per tuning can change the register. The step truncated
    // towards zero is below the limit exactly when its magnitude is; the
    // comparison also holds a step that is not a number.
    const bool stepSmall = std::fabs(t.clockStepPpm) < static_cast<float>(kClockStepLimitPpm);
    if (clockWritten.load() != 0 || !stepSmall) {
        t.clockHoldoff = s.clockCorrectionPeriod;
        return 1;
    }
    RecordLearnedClockOffset(t.clockOffsetPpm);
    // Out of range (or not a number): not applied, the hold-off stays 0 and
    // the test is made again with the next frame, while the timing loop alone
    // follows the drift.
    if (!(std::fabs(t.clockOffsetPpm) <= kClockOffsetLimitPpm)) return 0;
    // A failed register access is retried with the next frame in the same way.
    if (ApplySampleRateOffset(true, t.clockOffsetPpm) == 0) return 0;
    t.timingIntegrator = 0.0f;
    t.clockHoldoff = s.clockCorrectionPeriod;
    return 1;
}

}  // namespace mvdab
