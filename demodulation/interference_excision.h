// Narrow-band interference check on the phase reference symbol.
//
// A narrow-band interferer shows up as a few carriers with far more power
// than their neighbours. In mode I the check looks at the phase reference
// symbol of the first 20 frames after a restart and then of one frame in
// four, and blanks such carriers: their two weights go to 0.0, so that their
// differential products reach the soft-bit conversion as 0.0, the middle of
// its scale. The weights stand until the next examination.
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kMaxCarriers = 1536;          // carrierCount of mode I, the largest
constexpr int32_t kExcisionWarmupFrames = 20;   // frames examined one by one after a restart
constexpr int32_t kExcisionPacing = 4;          // afterwards one frame in this many
constexpr int32_t kExcisionHalfWindow = 16;     // the neighbourhood runs k-16 .. k+15
constexpr float kExcisionPowerRatio = 4.0f;     // blank above this many times the neighbourhood mean

// Weight of each carrier's real and imaginary part, in carrier order
// (carriers -K/2..-1, then +1..+K/2); entries 2i and 2i+1 belong to carrier i.
// Unitless: 1.0 (carrierWeightOne) passes a carrier, 0.0 blanks it.
extern float CarrierWeights[2 * kMaxCarriers];

struct InterferenceExcision {
    int32_t excisionWarmup;  // examinations since the restart, up to kExcisionWarmupFrames
    int32_t excisionPhase;   // paces the examinations after the warm-up (frames)
    // Power |c|^2 of each carrier of the phase reference symbol of the
    // examined frame, in carrier order (squared sample units).
    float CarrierPower[kMaxCarriers];
    // Mean power of each carrier over the examined frames: cumulative during
    // the warm-up, an exponential average afterwards (squared sample units).
    float PowerAverage[kMaxCarriers];
    // Per-carrier figure the detector compares with its neighbourhood, on the
    // scale of CarrierPower: the smaller of PowerAverage and the carrier's
    // power in the examined frame. A carrier is thus blanked only while it is
    // strong both on average and now: a noise peak in one frame does not
    // blank it, and a line that has gone frees it at the next examination.
    // 0.0 after a restart, so that nothing is blanked before it is filled.
    float ExcisionReference[kMaxCarriers];
};
extern InterferenceExcision interferenceExcision;

// Weight of a new power value in PowerAverage once the warm-up is over.
// With one frame in four examined in mode I (a frame is 96 ms) the average
// follows a change within a few seconds, and a single noisy frame moves it by
// a quarter only.
constexpr float kExcisionAveraging = 0.25f;

// Clears the excision state and sets every carrier weight to
// carrierWeightOne; part of ResetAcquisition.
void ResetExcision();

// Examines the phase reference symbol: `carriers` holds its K carriers as
// complex floats in carrier order, `energy` the sum of their squared
// magnitudes, so energy / K is the mean carrier power. Acts in mode I only;
// in the other modes the weights are left as they are.
void ExciseInterference(const float* carriers, double energy);

}  // namespace mvdab
