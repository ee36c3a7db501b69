// State 2 of acquisition: measures the frequency error of the first frame
// after the frame position is known. The fraction of a carrier spacing comes
// from the cyclic prefix of the first symbols, the whole carriers from a
// correlation of the phase reference symbol with the known reference; both go
// into the sample rotation of the frequency correction.
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kEntryFilterTaps = 15;
// Shifts of the first stage of the integer search, in DFT bins.
constexpr int32_t kFirstStageLowest = -32;
constexpr int32_t kFirstStageHighest = 31;
// Step of the second stage, in DFT bins.
constexpr int32_t kSecondStageStep = 64;
// Most shifts the second stage of any mode can try.
constexpr int32_t kMaxSecondStageShifts = 8;

struct FrameEntry {
    float delayI[kEntryFilterTaps];  // filter delay line of I, newest input first (sample units)
    float delayQ[kEntryFilterTaps];  // filter delay line of Q, newest input first
    float fractionalError;           // filtered cyclic-prefix angle of the last entry, rad per useful part
    int32_t integerShift;            // best shift of the last entry, DFT bins
};
extern FrameEntry frameEntry;

// Reads the transmission frame at pipeline.frameSamples and sets the
// frequency correction. The result is always 1 and is not looked at.
int32_t EnterFirstFrame();
// Clears the filter history of the entry estimate; part of ResetAcquisition.
void ResetFrameEntry();

// One step of the fractional estimate: 0.75 of the running value `smoothed`
// plus 0.25 of the cyclic-prefix angle of the next symbol (rad), the angle
// taken on the branch (+-2 pi) nearest the running value.
float SmoothPrefixAngle(float smoothed, double angle);

// Shifts the second stage of the integer search tries, in order, after a
// first-stage best of `firstStageBest`; writes at most `capacity` to
// `shifts` and returns their number (0 in mode III).
int32_t SecondStageShifts(int32_t transmissionMode, int32_t firstStageBest, int32_t* shifts, int32_t capacity);

// Metric of shift s: with A[b] = X[b] conj(R[K/2 + s + b]), the squared
// magnitude of the sum of A[b+1] conj(A[b]) over the N bins. `bins` holds N
// complex values, `reference` the N + K + 1 entries of the mode's reference.
double IntegerShiftMetric(const float* bins, const float* reference, int32_t fftSize, int32_t carrierCount,
                          int32_t shift);

// Both stages of the integer search on the spectrum `bins` of the phase
// reference symbol; the best shift in bins.
int32_t SearchIntegerShift(const float* bins, const float* reference, int32_t transmissionMode);

}  // namespace mvdab
