#include "acquisition/frame_entry.h"

#include <cmath>
#include <cstring>

#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
#include "receiver/receiver_state.h"

namespace mvdab {

FrameEntry frameEntry;

namespace {

// Symmetric low-pass applied before the cyclic-prefix correlation only.
constexpr float AcquisitionFilterTaps[kEntryFilterTaps] = {
    0.0331838019f, 0.00259015709f, -0.0409330614f, 0.0550406426f, 0.000958132965f,
    -0.132238597f, 0.270846009f,   0.668089271f,   0.270846009f,  -0.132238597f,
    0.000958132965f, 0.0550406426f, -0.0409330614f, 0.00259015709f, 0.0331838019f,
};

constexpr int32_t kMaxFftSize = 2048;
constexpr double kPi = kTwoPi / 2.0;
constexpr int32_t kMaxSymbolLength = 2552;


// Filter input of one symbol: 15 older samples, then the symbol.
float filterInputI[kEntryFilterTaps + kMaxSymbolLength];
float filterInputQ[kEntryFilterTaps + kMaxSymbolLength];
// The products of the shift in hand, real and imaginary parts.
float productsRe[kMaxFftSize];
float productsIm[kMaxFftSize];

// Filters `count` samples from `bytes` into `out` (complex), continuing the
// delay lines: y[n] = sum of taps[t] * x[n - 1 - t].
void FilterSymbol(const uint8_t* bytes, int32_t count, float* out) {
    FrameEntry& f = frameEntry;
    // filterInput[m] holds x[m - 15]; the delay line is x[n-1], x[n-2], ...
    for (int32_t t = 0; t < kEntryFilterTaps; ++t) {
        filterInputI[kEntryFilterTaps - 1 - t] = f.delayI[t];
        filterInputQ[kEntryFilterTaps - 1 - t] = f.delayQ[t];
    }
    for (int32_t n = 0; n < count; ++n) {
        filterInputI[kEntryFilterTaps + n] = static_cast<float>(bytes[2 * n]) - 127.5f;
        filterInputQ[kEntryFilterTaps + n] = static_cast<float>(bytes[2 * n + 1]) - 127.5f;
    }
    for (int32_t n = 0; n < count; ++n) {
        float yi = 0.0f;
        float yq = 0.0f;
        for (int32_t t = 0; t < kEntryFilterTaps; ++t) {
            yi += AcquisitionFilterTaps[t] * filterInputI[n + kEntryFilterTaps - 1 - t];
            yq += AcquisitionFilterTaps[t] * filterInputQ[n + kEntryFilterTaps - 1 - t];
        }
        out[2 * n] = yi;
        out[2 * n + 1] = yq;
    }
    for (int32_t t = 0; t < kEntryFilterTaps; ++t) {
        f.delayI[t] = filterInputI[count + kEntryFilterTaps - 1 - t];
        f.delayQ[t] = filterInputQ[count + kEntryFilterTaps - 1 - t];
    }
}

// Angle of the guard interval against the end of the symbol it repeats.
double CyclicPrefixAngle(const float* y, int32_t guardLength, int32_t fftSize) {
    float re = 0.0f;
    float im = 0.0f;
    for (int32_t i = 0; i < guardLength; ++i) {
        const float ar = y[2 * i], ai = y[2 * i + 1];
        const float br = y[2 * (i + fftSize)], bi = y[2 * (i + fftSize) + 1];
        re += ar * br + ai * bi;
        im += ar * bi - ai * br;
    }
    return std::atan2(static_cast<double>(im), static_cast<double>(re));
}

void WrapPhase(double& phase) {
    while (phase >= kTwoPi) phase -= kTwoPi;
    while (phase < 0.0) phase += kTwoPi;
}

}  // namespace

float SmoothPrefixAngle(float smoothed, double angle) {
    // An offset near half a carrier spacing puts the angles of single
    // symbols on both sides of +-pi; taken as they come they would cancel
    // and leave an estimate near 0, a full half spacing off. Each angle is
    // therefore taken on the branch nearest the running value: the estimate
    // may then pass +-pi, and the integer search takes the whole carrier.
    const double previous = static_cast<double>(smoothed);
    if (angle - previous > kPi) angle -= kTwoPi;
    else if (angle - previous < -kPi) angle += kTwoPi;
    return static_cast<float>(0.75 * previous + 0.25 * angle);
}

void ResetFrameEntry() {
    for (int32_t t = 0; t < kEntryFilterTaps; ++t) {
        frameEntry.delayI[t] = 0.0f;
        frameEntry.delayQ[t] = 0.0f;
    }
    frameEntry.fractionalError = 0.0f;
    frameEntry.integerShift = 0;
    frameEntry.entered = 0;
    frameEntry.ficConfirmed = 0;
}

void NoteFicResult(int32_t syncState) {
    if (syncState >= 4) frameEntry.ficConfirmed = 1;
}

void NoteRestart() {
    if (frameEntry.entered == 0) return;
    if (frameEntry.ficConfirmed == 0) {
        frameEntry.rejectedShift = frameEntry.integerShift;
        frameEntry.rejectedShiftValid = 1;
    } else {
        frameEntry.rejectedShiftValid = 0;
    }
}

void ForgetRejectedShift() {
    frameEntry.rejectedShift = 0;
    frameEntry.rejectedShiftValid = 0;
}

double IntegerShiftMetric(const float* bins, const float* reference, int32_t fftSize, int32_t carrierCount,
                          int32_t shift) {
    const float* r = reference + 2 * (carrierCount / 2 + shift);
    for (int32_t b = 0; b < fftSize; ++b) {
        const float xr = bins[2 * b], xi = bins[2 * b + 1];
        const float rr = r[2 * b], ri = r[2 * b + 1];
        productsRe[b] = xr * rr + xi * ri;
        productsIm[b] = xi * rr - xr * ri;
    }
    double dr = 0.0;
    double di = 0.0;
    for (int32_t b = 0; b + 1 < fftSize; ++b) {
        const double ar = productsRe[b + 1], ai = productsIm[b + 1];
        const double br = productsRe[b], bi = productsIm[b];
        dr += ar * br + ai * bi;
        di += ai * br - ar * bi;
    }
    return dr * dr + di * di;
}

int32_t LargestShift(int32_t transmissionMode) {
    if (transmissionMode < 0 || transmissionMode > 3) return 0;
    return kCaptureRangeHz / (kSampleRateHz / kModeTable[transmissionMode].fftSize);
}

int32_t SearchIntegerShift(const float* bins, const float* reference, int32_t transmissionMode,
                           int32_t excludedShift) {
    if (bins == nullptr || reference == nullptr || transmissionMode < 0 || transmissionMode > 3) return 0;
    const int32_t n = kModeTable[transmissionMode].fftSize;
    const int32_t k = kModeTable[transmissionMode].carrierCount;
    // Every shift that leaves the whole ensemble inside the sampled band, in
    // rising order; the earliest of equal metrics stands. A search limited to
    // -32..31 and to multiples of 64 around that stage's best reaches only
    // part of this range (mode I: -224..199 bins) and takes a wrong shift
    // just beyond it; the full search costs about 2 ms once per lock.
    // At the ends of the range the low-pass of the entry filter (flat to
    // about +-500 kHz, -9 dB at 700, -23 dB at 768) weakens the outer
    // quarter of the carriers in this spectrum. A tuner's own channel filter,
    // centred on its tuning and barely wider than the ensemble, cuts those
    // carriers at such an offset too. The receiver keeps its filter: the
    // carriers that pass decide the shift as surely (every shift to +-256 kHz
    // locks at 15 dB with every FIB good), and demodulation after entry runs
    // on unfiltered samples, so nothing is lost once locked.
    const int32_t largest = LargestShift(transmissionMode);
    double bestMetric = 0.0;
    int32_t bestShift = 0;
    for (int32_t s = -largest; s <= largest; ++s) {
        if (s == excludedShift) continue;
        const double metric = IntegerShiftMetric(bins, reference, n, k, s);
        if (metric > bestMetric) {
            bestMetric = metric;
            bestShift = s;
        }
    }
    return bestShift;
}

int32_t EnterFirstFrame() {
    const int32_t m = mode.transmissionMode;
    const ModeParameters& p = mode.parameters;
    if (m < 0 || m > 3 || m != mode.configuredMode) return 1;
    if (workBlocks.historyBase == nullptr || modeBuffers.scratchStart == nullptr) return 1;
    const int32_t symbolLength = p.symbolLength;
    const int32_t fftSize = p.fftSize;
    const int32_t guard = p.guardLength;
    if (symbolLength > kMaxSymbolLength || fftSize > kMaxFftSize) return 1;
    // Two buffers of one symbol each: the filtered symbol, and a private copy
    // of the useful part of the first one.
    if (modeBuffers.scratchBytes < 16 * symbolLength) return 1;
    float* filtered = reinterpret_cast<float*>(modeBuffers.scratchStart);
    float* copy = filtered + 2 * symbolLength;

    // The reads must stay inside WorkingPool: the frame may start a little
    // below historyBase, and the symbols end well inside the history.
    const uint8_t* frame = workBlocks.historyBase + pipeline.frameSamples;
    const int32_t symbols = receiverSettings.entrySymbols;
    const uint8_t* poolEnd = workBlocks.workingPool + kWorkingPoolBytes;
    if (symbols <= 0 || frame < workBlocks.workingPool || frame + 2 * symbols * symbolLength > poolEnd) return 1;

    // Fraction of a carrier spacing: cyclic prefix angle, smoothed over the
    // symbols with weight 1/4 for the newest.
    float e = 0.0f;
    for (int32_t r = 0; r < symbols; ++r) {
        FilterSymbol(frame + 2 * r * symbolLength, symbolLength, filtered);
        if (r == 0) std::memcpy(copy + 2 * guard, filtered + 2 * guard, 2 * fftSize * sizeof(float));
        e = SmoothPrefixAngle(e, CyclicPrefixAngle(filtered, guard, fftSize));
    }
    frameEntry.fractionalError = e;

    FrequencyCorrection& fc = frequencyCorrection;
    fc.samplePhaseIncrement -= static_cast<double>(e / static_cast<float>(fftSize));
    float* useful = copy + 2 * guard;
    RotateSamples(useful, fftSize, fc.samplePhase, fc.samplePhaseIncrement);
    fc.samplePhase += symbolLength * fc.samplePhaseIncrement;
    WrapPhase(fc.samplePhase);

    // Whole carriers: only with a plan of this mode's length.
    frameEntry.integerShift = 0;
    if (dftPlan.committed != 1 || dftPlan.length != fftSize) return 1;
    (void)ForwardDft(&dftPlan, useful);
    // A shift that the FIC has just proved wrong at this tuning is not taken
    // again; the next best one is.
    const int32_t excluded = frameEntry.rejectedShiftValid != 0 ? frameEntry.rejectedShift : kNoShiftExcluded;
    const int32_t shift = SearchIntegerShift(useful, modeBuffers.referenceSymbol, m, excluded);
    frameEntry.integerShift = shift;
    frameEntry.entered = 1;
    frameEntry.ficConfirmed = 0;
    fc.samplePhaseIncrement += shift * kTwoPi / fftSize;
    return 1;
}

}  // namespace mvdab
