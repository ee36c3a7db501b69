// State 2 of acquisition: measures the frequency error of the first frame
// after the frame position is known. The fraction of a carrier spacing comes
// from the cyclic prefix of the first symbols, the whole carriers from a
// correlation of the phase reference symbol with the known reference; both go
// into the sample rotation of the frequency correction.
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kEntryFilterTaps = 15;
// Largest frequency error the integer search corrects, in Hz: beyond it the
// 1.536 MHz ensemble no longer fits into the 2.048 MHz sampled, and its edge
// folds over to the other side.
constexpr int32_t kCaptureRangeHz = 256000;
constexpr int32_t kSampleRateHz = 2048000;
// Passed as the excluded shift when no shift is excluded.
constexpr int32_t kNoShiftExcluded = 1 << 30;

struct FrameEntry {
    float delayI[kEntryFilterTaps];  // filter delay line of I, newest input first (sample units)
    float delayQ[kEntryFilterTaps];  // filter delay line of Q, newest input first
    float fractionalError;           // filtered cyclic-prefix angle of the last entry, rad per useful part
    int32_t integerShift;            // best shift of the last entry, DFT bins
    int32_t entered;                 // 1 once this acquisition has measured its frame
    int32_t ficConfirmed;            // 1 once a frame after that entry reached syncState 4
    int32_t rejectedShift;           // DFT bins: shift of an entry whose FIC never passed
    int32_t rejectedShiftValid;      // 1 while rejectedShift stands; survives restarts, not re-tunes
};
extern FrameEntry frameEntry;

// Reads the transmission frame at pipeline.frameSamples and sets the
// frequency correction. The result is always 1 and is not looked at.
int32_t EnterFirstFrame();
// Clears the filter history of the entry estimate; part of ResetAcquisition.
// The rejected shift stays.
void ResetFrameEntry();

// A wrong integer shift decodes nothing, yet the differential products look
// clean, so the restart by FIC errors alone would enter the same shift again
// and again. The frame step reports each FIC result (NoteFicResult) and each
// restart (NoteRestart): a restart after an entry whose FIC never reached
// syncState 4 rejects that entry's shift for the next entry, which takes the
// best of the others; a restart after a good lock clears the rejection.
// A re-tune clears it too (ForgetRejectedShift).
void NoteFicResult(int32_t syncState);
void NoteRestart();
void ForgetRejectedShift();

// One step of the fractional estimate: 0.75 of the running value `smoothed`
// plus 0.25 of the cyclic-prefix angle of the next symbol (rad), the angle
// taken on the branch (+-2 pi) nearest the running value.
float SmoothPrefixAngle(float smoothed, double angle);

// Metric of shift s: with A[b] = X[b] conj(R[K/2 + s + b]), the squared
// magnitude of the sum of A[b+1] conj(A[b]) over the N bins. `bins` holds N
// complex values, `reference` the N + K + 1 entries of the mode's reference.
double IntegerShiftMetric(const float* bins, const float* reference, int32_t fftSize, int32_t carrierCount,
                          int32_t shift);

// Largest shift of the integer search in the mode, DFT bins: the capture
// range over the carrier spacing (I 256, II 64, III 32, IV 128).
int32_t LargestShift(int32_t transmissionMode);

// The integer search on the spectrum `bins` of the phase reference symbol:
// the shift of greatest metric from -LargestShift to +LargestShift, leaving
// out `excludedShift`; 0 when no metric exceeds 0.
int32_t SearchIntegerShift(const float* bins, const float* reference, int32_t transmissionMode,
                           int32_t excludedShift = kNoShiftExcluded);

}  // namespace mvdab
