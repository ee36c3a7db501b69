#include "demodulation/symbol_demodulator.h"

#include <cmath>
#include <cstring>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "acquisition/mode_buffers.h"
#include "demodulation/carrier_arithmetic.h"
#include "demodulation/dft_service.h"
#include "demodulation/interference_excision.h"
#include "demodulation/tracking_loops.h"
#include "receiver/receiver_state.h"

namespace mvdab {

namespace {

constexpr float kByteCentre = 127.5f;           // an unsigned sample byte b stands for b - 127.5
constexpr int32_t kQualitySymbol = 3;           // symbol whose products give the SNR estimate
constexpr float kQpskComponent = 0.707107f;     // ideal product component on a clean carrier

// Wraps a phase into [0, kTwoPi) by whole subtractions, then additions.
double WrapPhase(double phase) {
    while (phase >= kTwoPi) phase -= kTwoPi;
    while (phase < 0.0) phase += kTwoPi;
    return phase;
}

bool BuffersReady(const ModeBuffers& b) {
    return b.referenceSymbol != nullptr && b.timingWeights != nullptr && b.frameCarriers != nullptr &&
           b.dftWork != nullptr && b.weightedProducts != nullptr && b.previousCarriers != nullptr &&
           b.currentCarriers != nullptr && b.frequencyDeinterleave != nullptr;
}

// The frame's bytes, from the first useful sample of symbol 0 to the end of
// the last symbol, must lie inside WorkingPool: the history is contiguous,
// and a frame may start a little below historyBase.
bool FrameInsidePool(const ModeParameters& m) {
    const uint8_t* pool = workBlocks.workingPool;
    const uint8_t* base = workBlocks.historyBase;
    if (pool == nullptr || base == nullptr) return false;
    const int64_t baseOffset = base - pool;
    const int64_t first = baseOffset + pipeline.frameSamples + 2 * static_cast<int64_t>(m.guardLength);
    const int64_t end = baseOffset + pipeline.frameSamples +
                        2 * static_cast<int64_t>(m.symbolLength) * m.symbolsPerFrame;
    return first >= 0 && end <= kWorkingPoolBytes;
}

bool ModeUsable(const ModeParameters& m) {
    if (mode.transmissionMode < 0 || mode.transmissionMode > 3) return false;
    const ModeParameters& table = kModeTable[mode.transmissionMode];
    return m.fftSize == table.fftSize && m.carrierCount == table.carrierCount &&
           m.symbolsPerFrame == table.symbolsPerFrame && m.symbolLength == table.symbolLength &&
           m.guardLength == table.guardLength && m.carrierCount <= kMaxCarriers &&
           dftPlan.committed == 1 && dftPlan.length == m.fftSize;
}

// Phase reference symbol, after its DFT and extraction into previousCarriers:
// frame scale, interference check, impulse response and timing loop. Returns
// the frame scale, K over the energy of the carriers.
double HandlePhaseReference(const ModeBuffers& b, const ModeParameters& m) {
    const int32_t n = m.fftSize;
    const int32_t k = m.carrierCount;
    double energy = 0.0;
    for (int32_t j = 0; j < 2 * k; ++j) {
        const double v = b.previousCarriers[j];
        energy += v * v;
    }
    // A frame without energy on its carriers gives an infinite scale; such a
    // frame can only end in bad soft values, which the FIC stage notices.
    const double frameScale = static_cast<double>(k) / energy;

    ExciseInterference(b.previousCarriers, energy);

    // Against the known reference: bin b times conj(reference of bin b). The
    // reference is zero outside the active carriers and at the centre.
    const float* reference = b.referenceSymbol + 2 * (k / 2);
    for (int32_t bin = 0; bin < n; ++bin) {
        const float xr = b.dftWork[2 * bin];
        const float xi = b.dftWork[2 * bin + 1];
        const float rr = reference[2 * bin];
        const float ri = reference[2 * bin + 1];
        b.dftWork[2 * bin] = xr * rr + xi * ri;
        b.dftWork[2 * bin + 1] = xi * rr - xr * ri;
    }
    DftSucceeded(BackwardDft(&dftPlan, b.dftWork));
    TrackFrameTiming();
    return frameScale;
}

// Weights, then frequency de-interleaving into row `symbol` of FrameCarriers:
// element n of the interleaving sequence gives float n (real part, bit n) and
// float K + n (imaginary part, bit K + n).
void WriteSoftRow(const ModeBuffers& b, int32_t carrierCount, int32_t symbol) {
    for (int32_t j = 0; j < 2 * carrierCount; ++j) b.weightedProducts[j] = b.dftWork[j] * CarrierWeights[j];
    float* row = b.frameCarriers + static_cast<int64_t>(symbol) * 2 * carrierCount;
    const int32_t limit = 2 * carrierCount - 2;
    for (int32_t n = 0; n < carrierCount; ++n) {
        int32_t t = b.frequencyDeinterleave[n];
        if (t < 0 || t > limit) t = 0;  // a broken table yields bad bits, never a stray read
        row[n] = b.weightedProducts[t];
        row[carrierCount + n] = b.weightedProducts[t + 1];
    }
}

}  // namespace

void UnpackSamples(const uint8_t* bytes, float* samples, int32_t count) {
    for (int32_t i = 0; i < 2 * count; ++i) samples[i] = static_cast<float>(bytes[i]) - kByteCentre;
}

void ExtractCarriers(const float* bins, float* carriers, int32_t fftSize, int32_t carrierCount) {
    const int32_t half = carrierCount / 2;
    std::memcpy(carriers, bins + 2 * (fftSize - half), sizeof(float) * 2 * half);
    std::memcpy(carriers + 2 * half, bins + 2, sizeof(float) * 2 * half);
}

namespace {

// The sums of SignalQualityOf from the equalised values v (both parts of
// carrier i at 2 i), in carrier order.
float QualityFromValues(const float* values, const float* previousCarriers, int32_t carrierCount) {
    double signal = 0.0;
    double distortion = 0.0;
    for (int32_t i = 0; i < carrierCount; ++i) {
        const float pr = previousCarriers[2 * i];
        const float pi = previousCarriers[2 * i + 1];
        const float w = pr * pr + pi * pi;
        // A carrier without power has no weight in either sum.
        if (!(w > 0.0f)) continue;
        for (int32_t part = 0; part < 2; ++part) {
            // v + c for a negative v is v - (-c) to the bit; the table lookup
            // keeps a branch on the data's sign, a coin toss, out of the loop.
            static constexpr float kNearest[2] = {kQpskComponent, -kQpskComponent};
            const float v = values[2 * i + part];
            const float d = v - kNearest[v < 0.0f ? 1 : 0];
            signal += static_cast<double>(v) * v * w;
            distortion += static_cast<double>(d) * d * w;
        }
    }
    return static_cast<float>(10.0 * std::log10(signal / distortion));
}

// Undoes the frame scale and equalises by the previous symbol's power,
// carriers from..carrierCount-1.
void EqualiseValues(const float* products, const float* previousCarriers, int32_t from, int32_t carrierCount,
                    double frameScale, float* values) {
    for (int32_t i = from; i < carrierCount; ++i) {
        const float pr = previousCarriers[2 * i];
        const float pi = previousCarriers[2 * i + 1];
        const float w = pr * pr + pi * pi;
        for (int32_t part = 0; part < 2; ++part)
            values[2 * i + part] = static_cast<float>(products[2 * i + part] / frameScale) / w;
    }
}

}  // namespace

float SignalQualityOfScalar(const float* products, const float* previousCarriers, int32_t carrierCount,
                            double frameScale, float* values) {
    EqualiseValues(products, previousCarriers, 0, carrierCount, frameScale, values);
    return QualityFromValues(values, previousCarriers, carrierCount);
}

float SignalQualityOf(const float* products, const float* previousCarriers, int32_t carrierCount,
                      double frameScale) {
    // The divisions, two carriers at a time, are the cost; the sums stay in
    // carrier order, so the figure keeps its bits. A carrier without power
    // gets a value that the sums skip.
    static float values[2 * kMaxCarriers];
    if (carrierCount > kMaxCarriers) return 0.0f;
    int32_t i = 0;
#if defined(__SSE2__)
    const __m128d scale = _mm_set1_pd(frameScale);
    for (; i + 2 <= carrierCount; i += 2) {
        const __m128 carriers = _mm_loadu_ps(previousCarriers + 2 * i);
        const __m128 squares = _mm_mul_ps(carriers, carriers);
        // r^2 + i^2 in both lanes of a carrier.
        const __m128 w = _mm_add_ps(squares, _mm_shuffle_ps(squares, squares, _MM_SHUFFLE(2, 3, 0, 1)));
        const __m128 p = _mm_loadu_ps(products + 2 * i);
        const __m128 low = _mm_cvtpd_ps(_mm_div_pd(_mm_cvtps_pd(p), scale));
        const __m128 high = _mm_cvtpd_ps(_mm_div_pd(_mm_cvtps_pd(_mm_movehl_ps(p, p)), scale));
        _mm_storeu_ps(values + 2 * i, _mm_div_ps(_mm_movelh_ps(low, high), w));
    }
#endif
    EqualiseValues(products, previousCarriers, i, carrierCount, frameScale, values);
    return QualityFromValues(values, previousCarriers, carrierCount);
}

int32_t DemodulateFrame() {
    ModeBuffers& b = modeBuffers;
    const ModeParameters& m = mode.parameters;
    if (!BuffersReady(b) || !ModeUsable(m) || !FrameInsidePool(m)) return 0;
    if (m.symbolsPerFrame > kMaxSymbolsPerFrame) return 0;

    const int32_t n = m.fftSize;
    const int32_t k = m.carrierCount;
    const float frequencyLoopGain = receiverSettings.frequencyLoopGain;
    FrequencyCorrection& f = frequencyCorrection;
    const uint8_t* frame = workBlocks.historyBase + pipeline.frameSamples + 2 * m.guardLength;
    double frameScale = 0.0;

    for (int32_t l = 0; l < m.symbolsPerFrame; ++l) {
        const int32_t word = SymbolMask[l];
        // A skipped symbol leaves everything alone, samplePhase included: only
        // products of neighbours are used, and both are always extracted.
        if (word == 0) continue;

        // The useful part only: the window starts at the end of the guard.
        UnpackRotateSamples(frame + 2 * static_cast<int64_t>(m.symbolLength) * l, b.dftWork, n, f.samplePhase,
                            f.samplePhaseIncrement);
        f.samplePhase = WrapPhase(f.samplePhase + m.symbolLength * f.samplePhaseIncrement);
        DftSucceeded(ForwardDft(&dftPlan, b.dftWork));

        if (l == 0) {
            // The phase reference stays in previousCarriers as the first
            // differential reference.
            ExtractCarriers(b.dftWork, b.previousCarriers, n, k);
            frameScale = HandlePhaseReference(b, m);
            continue;
        }

        ExtractCarriers(b.dftWork, b.currentCarriers, n, k);
        if ((word & 0x01) != 0) {
            // The only amplitude normalisation of the chain: by the frame's
            // phase reference energy, so a clean carrier gives about +-0.7071.
            DifferentialProducts(b.currentCarriers, b.previousCarriers, b.dftWork, k,
                                 static_cast<float>(frameScale));
            if (l == kQualitySymbol) {
                receiverStatus.signalQualityDb = SignalQualityOf(b.dftWork, b.previousCarriers, k, frameScale);
            }
            WriteSoftRow(b, k, l);
            // First-order frequency loop on the unweighted products; it acts
            // from the next selected symbol on.
            f.samplePhaseIncrement -= frequencyLoopGain * FrequencyError(b.dftWork, k);
        }
        std::swap(b.previousCarriers, b.currentCarriers);
    }
    return 1;
}

}  // namespace mvdab
