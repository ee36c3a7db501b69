#include "demodulation/interference_excision.h"

#include <cmath>

#include "receiver/receiver_state.h"

namespace mvdab {

float CarrierWeights[2 * kMaxCarriers];
InterferenceExcision interferenceExcision;

void ResetExcision() {
    interferenceExcision.excisionWarmup = 0;
    interferenceExcision.excisionPhase = 0;
    for (float& a : interferenceExcision.PowerAverage) a = 0.0f;
    for (float& r : interferenceExcision.ExcisionReference) r = 0.0f;
    for (float& w : CarrierWeights) w = receiverSettings.carrierWeightOne;
}

// Decides whether this frame is examined: every frame of the warm-up, then
// one in kExcisionPacing.
static bool ExaminesThisFrame() {
    InterferenceExcision& x = interferenceExcision;
    if (x.excisionWarmup < kExcisionWarmupFrames) {
        ++x.excisionWarmup;
        return true;
    }
    if (x.excisionPhase % kExcisionPacing != 0) {
        ++x.excisionPhase;
        return false;
    }
    x.excisionPhase = 1;
    return true;
}

void ExciseInterference(const float* carriers, double energy) {
    if (receiverSettings.excisionEnabled != 1 || mode.transmissionMode != 0) return;
    if (carriers == nullptr) return;
    const int32_t carrierCount = mode.parameters.carrierCount;
    if (carrierCount <= 2 * kExcisionHalfWindow || carrierCount > kMaxCarriers) return;
    if (!ExaminesThisFrame()) return;

    InterferenceExcision& x = interferenceExcision;
    // The average runs over the examined frames: the mean of all of them
    // during the warm-up, an exponential average afterwards.
    const bool warmingUp = x.excisionPhase == 0;
    const float newShare = warmingUp ? 1.0f / static_cast<float>(x.excisionWarmup) : kExcisionAveraging;
    for (int32_t i = 0; i < carrierCount; ++i) {
        const float re = carriers[2 * i];
        const float im = carriers[2 * i + 1];
        const float power = re * re + im * im;
        x.CarrierPower[i] = power;
        x.PowerAverage[i] += newShare * (power - x.PowerAverage[i]);
        x.ExcisionReference[i] = std::fmin(x.PowerAverage[i], power);
    }

    // Every examination starts from a clean table, so a carrier that has
    // recovered is back in use.
    const float one = receiverSettings.carrierWeightOne;
    for (int32_t j = 0; j < 2 * carrierCount; ++j) CarrierWeights[j] = one;

    // Neighbourhood of carrier k: the 32 carriers k-16 .. k+15 in carrier
    // order (the missing centre carrier is not a gap there), kept as a
    // sliding sum. The sum is held in double so that adding and removing
    // values of very different size leaves no drift.
    const float meanPower = static_cast<float>(energy / carrierCount);
    double windowSum = 0.0;
    for (int32_t i = 0; i < 2 * kExcisionHalfWindow; ++i) windowSum += x.CarrierPower[i];
    for (int32_t k = kExcisionHalfWindow; k <= carrierCount - kExcisionHalfWindow; ++k) {
        if (k > kExcisionHalfWindow) {
            windowSum += x.CarrierPower[k + kExcisionHalfWindow - 1];
            windowSum -= x.CarrierPower[k - kExcisionHalfWindow - 1];
        }
        const float neighbourhood =
            kExcisionPowerRatio * static_cast<float>(windowSum) / (2 * kExcisionHalfWindow);
        const float reference = x.ExcisionReference[k];
        if (reference > neighbourhood && reference > meanPower) {
            CarrierWeights[2 * k] = 0.0f;
            CarrierWeights[2 * k + 1] = 0.0f;
        }
    }
}

}  // namespace mvdab
