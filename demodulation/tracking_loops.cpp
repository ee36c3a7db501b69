#include "demodulation/tracking_loops.h"

#include "receiver/receiver_state.h"

namespace mvdab {

TrackingLoops trackingLoops;

void ResetTrackingLoops() {
    trackingLoops.timingIntegrator = 0.0f;
    trackingLoops.timingIntegralGain = receiverSettings.timingIntegralGains[0];
    trackingLoops.timingProportionalGain = receiverSettings.timingProportionalGains[0];
    trackingLoops.trackedFrames = 0;
}

}  // namespace mvdab
