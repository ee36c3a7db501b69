#include "acquisition/mode_buffers.h"

#include "acquisition/mode_tables.h"
#include "demodulation/dft_service.h"
#include "receiver/receiver_state.h"

namespace mvdab {

ModeBuffers modeBuffers;

namespace {

// The exact complex values of the four phases 0, pi/2, pi, 3pi/2.
constexpr float kPhaseRe[4] = {1.0f, 0.0f, -1.0f, 0.0f};
constexpr float kPhaseIm[4] = {0.0f, 1.0f, 0.0f, -1.0f};

bool ValidMode(int32_t transmissionMode) { return transmissionMode >= 0 && transmissionMode <= 3; }

}  // namespace

int32_t HistoryDepth(int32_t transmissionMode) { return transmissionMode == 0 ? 3 : 2; }

void BuildReferenceSymbol(int32_t transmissionMode, float* out) {
    if (!ValidMode(transmissionMode) || out == nullptr) return;
    const int32_t n = kModeTable[transmissionMode].fftSize;
    const int32_t k = kModeTable[transmissionMode].carrierCount;
    const uint8_t* phases = kPhaseReferenceTable.data() + kModeCarrierOffset[transmissionMode];
    for (int32_t j = 0; j < n; ++j) {
        float re = 0.0f;
        float im = 0.0f;
        // Entries 0..K/2-1 hold carriers -K/2..-1, entries K/2+1..K carriers
        // 1..K/2; the phase table skips the centre carrier at entry K/2.
        int32_t carrierIndex = -1;
        if (j < k / 2) carrierIndex = j;
        else if (j > k / 2 && j <= k) carrierIndex = j - 1;
        if (carrierIndex >= 0) {
            re = kPhaseRe[phases[carrierIndex]];
            im = kPhaseIm[phases[carrierIndex]];
        }
        out[2 * j] = re;
        out[2 * j + 1] = im;
    }
    // One period more, so that a shifted read never wraps.
    for (int32_t j = 0; j <= k; ++j) {
        out[2 * (n + j)] = out[2 * j];
        out[2 * (n + j) + 1] = out[2 * j + 1];
    }
}

void FillTimingWeights(int32_t transmissionMode, float* out) {
    if (!ValidMode(transmissionMode) || out == nullptr) return;
    const int32_t n = kModeTable[transmissionMode].fftSize;
    const int32_t guard = kModeTable[transmissionMode].guardLength;
    const float step = 1.0f / static_cast<float>(guard);
    const int32_t late = static_cast<int32_t>(0.444444 * static_cast<double>(n - guard));
    out[0] = -0.5f;
    for (int32_t i = 1; i < guard; ++i) out[i] = out[i - 1] + step;
    for (int32_t i = guard; i < guard + late; ++i) out[i] = 5.0f;
    for (int32_t i = guard + late; i < n; ++i) out[i] = -4.0f;
}

int32_t ConfigureModeBuffers(int32_t firstTime) {
    const int32_t m = mode.transmissionMode;
    if (!ValidMode(m) || workBlocks.workingPool == nullptr) return 0;
    const ModeParameters& p = kModeTable[m];
    const int32_t n = p.fftSize;
    const int32_t k = p.carrierCount;

    // Regions from the start of the pool, each behind the one before.
    uint8_t* cursor = workBlocks.workingPool;
    auto take = [&cursor](int32_t bytes) {
        uint8_t* region = cursor;
        cursor += bytes;
        return region;
    };
    modeBuffers.referenceSymbol = reinterpret_cast<float*>(take(8 * (n + k + 1)));
    modeBuffers.timingWeights = reinterpret_cast<float*>(take(4 * n));
    modeBuffers.frameCarriers = reinterpret_cast<float*>(take(8 * p.symbolsPerFrame * k));
    modeBuffers.dftWork = reinterpret_cast<float*>(take(8 * n));
    modeBuffers.weightedProducts = reinterpret_cast<float*>(take(8 * n));
    modeBuffers.previousCarriers = reinterpret_cast<float*>(take(8 * k));
    modeBuffers.currentCarriers = reinterpret_cast<float*>(take(8 * k));
    modeBuffers.ficSoftBits = take(p.ficCodedBits);
    modeBuffers.ficWords = reinterpret_cast<uint16_t*>(take(2 * p.ficDecodedBits + 4));
    modeBuffers.ficBytes = take(p.ficBytesPerCif * p.cifsPerFrame);
    modeBuffers.scratchStart = cursor;
    const int32_t used = static_cast<int32_t>(cursor - workBlocks.workingPool);
    modeBuffers.scratchBytes = kWorkingPoolBytes - HistoryDepth(m) * kIqFrameBytes - used;

    BuildReferenceSymbol(m, modeBuffers.referenceSymbol);
    FillTimingWeights(m, modeBuffers.timingWeights);
    modeBuffers.frequencyDeinterleave = kFrequencyDeinterleaveTable.data() + kModeCarrierOffset[m];

    if (firstTime == 0 && !DftSucceeded(FreeDftPlan(&dftPlan))) return 0;
    // A plan that is still standing (a first lay-out after the plan was left
    // behind by a failed attempt) is replaced as well.
    if (dftPlan.forward != nullptr || dftPlan.backward != nullptr) FreeDftPlan(&dftPlan);
    if (!DftSucceeded(CreateDftPlan(&dftPlan, n))) return 0;
    if (!DftSucceeded(CommitDftPlan(&dftPlan))) {
        FreeDftPlan(&dftPlan);
        return 0;
    }
    return 1;
}

void SwitchOnHistory(int32_t transmissionMode) {
    uint8_t* pool = workBlocks.workingPool;
    workBlocks.middleSlot = pool + kMiddleSlotOffset;
    workBlocks.oldestSlot = HistoryDepth(transmissionMode) == 3 ? pool + kOldestSlotOffset : nullptr;
    workBlocks.historyBase = workBlocks.oldestSlot != nullptr ? workBlocks.oldestSlot : workBlocks.middleSlot;
}

}  // namespace mvdab
