// Puts the receiver into the tracking state for one transmission mode without
// running acquisition: settings, WorkingPool with its mode regions and DFT
// plan, the full history, and the loops at their start values. Shared by the
// demodulation, tracking and excision tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
#include "demodulation/interference_excision.h"
#include "demodulation/tracking_loops.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"
#include "services/symbol_mask.h"

namespace demodtest {

// The pool lives for the whole test program; each set-up lays it out anew.
inline std::vector<uint8_t>& Pool() {
    static std::vector<uint8_t> pool(mvdab::kWorkingPoolBytes);
    return pool;
}

// Mode `m` (0..3) decided and configured, history at full depth, tracking
// loops and excision at their start values, FIC-only mask, phase and
// frequency correction 0. Returns false if the DFT service failed.
inline bool SetUpMode(int32_t m) {
    using namespace mvdab;
    WriteReceiverSettings();
    std::vector<uint8_t>& pool = Pool();
    workBlocks = WorkBlocks{};
    workBlocks.workingPool = pool.data();
    workBlocks.newestSlot = pool.data() + kNewestSlotOffset;
    const bool firstTime = dftPlan.forward == nullptr;
    mode.transmissionMode = m;
    mode.parameters = kModeTable[m];
    if (ConfigureModeBuffers(firstTime ? 1 : 0) != 1) return false;
    mode.configuredMode = m;
    SwitchOnHistory(m);
    ResetTrackingLoops();
    ResetExcision();
    trackingLoops.clockHoldoff = receiverSettings.clockCorrectionPeriod;
    frequencyCorrection = FrequencyCorrection{};
    ResetSymbolMask();
    pipeline.frameSamples = 0;
    pipeline.framePositionExact = 0.0f;
    return true;
}

// Bytes available behind historyBase up to the end of the pool.
inline int64_t HistoryBytes() {
    return static_cast<int64_t>(mvdab::kWorkingPoolBytes) - (mvdab::workBlocks.historyBase - mvdab::workBlocks.workingPool);
}

// FrameCarriers rows, and the value that marks a row not written.
constexpr float kSentinel = -12345.0f;
inline float* Row(int32_t l) {
    return mvdab::modeBuffers.frameCarriers + int64_t(l) * 2 * mvdab::mode.parameters.carrierCount;
}
inline void FillFrameCarriers() { std::fill(Row(0), Row(mvdab::mode.parameters.symbolsPerFrame), kSentinel); }
inline bool RowUntouched(int32_t l) {
    return std::all_of(Row(l), Row(l + 1), [](float v) { return v == kSentinel; });
}

// Test names for suites run over the four modes.
inline std::string ModeName(const ::testing::TestParamInfo<int32_t>& info) {
    const char* const names[4] = {"ModeI", "ModeII", "ModeIII", "ModeIV"};
    return names[info.param];
}

}  // namespace demodtest
