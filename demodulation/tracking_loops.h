// Timing and sample-clock tracking of a locked transmission.
//
// The timing loop runs once per transmission frame on the channel impulse
// response of the phase reference symbol and moves framePositionExact so that
// the response stays inside the guard window. Its integral path learns the
// frame-to-frame drift, which is the sample-clock error; the clock loop hands
// that over to the device's sample-rate register once it has settled, and then
// clears the integrator. (The frequency loop lives in the symbol demodulator.)
#pragma once

#include <cstdint>

namespace mvdab {

struct TrackingLoops {
    float timingIntegrator;        // integral path: drift of the timing, bytes per transmission frame
    float timingIntegralGain;      // integral gain of the stage in force (unitless)
    float timingProportionalGain;  // proportional gain of the stage in force (unitless)
    int32_t trackedFrames;         // phase reference symbols handled since the last restart
    int32_t clockHoldoff;          // transmission frames until the clock loop looks again
    float clockOffsetPpm;          // timingIntegrator as a sample-clock error, ppm
    float clockStepPpm;            // the latest proportional correction in the same unit, ppm
    float timingError;             // detector output of the latest frame (weighted power, unitless)
};
extern TrackingLoops trackingLoops;

// Limit of a sample-clock correction handed to the device, ppm.
constexpr float kClockOffsetLimitPpm = 200.0f;
// The clock correction is taken only while the proportional term, truncated
// to a whole ppm, stays below this.
constexpr int32_t kClockStepLimitPpm = 10;
// Each delay's power is clipped to this before it is weighted.
constexpr float kImpulsePowerClip = 255.0f;

// Start values of the loops (integrator, gains, trackedFrames); part of
// ResetAcquisition. clockHoldoff is set by the state machine on entry to
// tracking, the clock offsets are not read before they are set.
void ResetTrackingLoops();

// Timing error of an impulse response: the sum over delays n of
// min(255, |h[n]|^2 * impulseScale) * weights[n]. `impulse` holds `length`
// complex floats.
float TimingErrorOf(const float* impulse, const float* weights, int32_t length, float impulseScale);

// Runs the timing loop on the impulse response left in the demodulator's DFT
// buffer, moves pipeline.framePositionExact, runs the clock loop and loads
// the next gain stage when trackedFrames reaches its step.
void TrackFrameTiming();

// Hands the learned sample-clock error to the device once it has settled:
// records it in the frequency cache and writes it to the sample-rate
// register relative to its present value. 1, or 0 when the offset is out of
// range or the register access failed (then the test is repeated with the
// next frame).
int32_t CorrectSampleClock();

}  // namespace mvdab
