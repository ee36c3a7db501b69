// Timing, frequency and sample-clock tracking of a locked transmission.
#pragma once

#include <cstdint>

namespace mvdab {

struct TrackingLoops {
    float timingIntegrator;        // integral path of the timing loop, bytes
    float timingIntegralGain;      // gain of the integral path in the current stage
    float timingProportionalGain;  // gain of the proportional path in the current stage
    int32_t trackedFrames;         // transmission frames tracked since the last restart
    int32_t clockHoldoff;          // transmission frames until the next clock check
};
extern TrackingLoops trackingLoops;

// Start values of the loops; part of ResetAcquisition.
void ResetTrackingLoops();

}  // namespace mvdab
