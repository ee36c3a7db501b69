#include "receiver/receiver_memory.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "acquisition/mode_buffers.h"
#include "channel/soft_bits.h"
#include "delivery/packet_extraction.h"
#include "delivery/reed_solomon.h"
#include "delivery/stream_decoder.h"
#include "delivery/worker.h"
#include "demodulation/dft_service.h"
#include "receiver/receiver_state.h"
#include "services/service_requests.h"

namespace mvdab {

namespace {

float PowerOfTwo(int32_t exponent) { return float(std::pow(2.0, double(exponent))); }

void* AllocateBlock(size_t bytes) {
    // Both sizes are multiples of 64, as the aligned allocation requires.
#if defined(_WIN32)
    void* block = _aligned_malloc(bytes, 64);  // Windows has no aligned_alloc
#else
    void* block = std::aligned_alloc(64, bytes);
#endif
    if (block != nullptr) std::memset(block, 0, bytes);
    return block;
}

void FreeBlock(void* block) {
#if defined(_WIN32)
    _aligned_free(block);
#else
    std::free(block);
#endif
}

}  // namespace

void WriteReceiverSettings() {
    ReceiverSettings& s = receiverSettings;
    s.searchTimeoutEnabled = 1;
    s.searchTimeoutFrames = 7;
    s.confirmTimeoutEnabled = 1;
    s.confirmTimeoutFrames = 7;
    s.restartHoldoffFrames = 4;
    s.resyncOnFicErrors = 1;
    s.fastPowerFactor = PowerOfTwo(-8);
    s.slowPowerFactor = PowerOfTwo(-11);
    s.dipEntryRatio = 0.6f;
    s.dipExitRatio = 0.7f;
    s.nullAgreementTolerance = 80;
    const int32_t backoff[4] = {480, 120, 60, 240};
    for (int32_t i = 0; i < 4; ++i) s.timingBackoffBytes[i] = backoff[i];
    s.entrySymbols = 11;
    s.frequencyLoopGain = PowerOfTwo(-14);
    s.timingIntegralGains[0] = 0.01f;
    s.timingIntegralGains[1] = 0.005f;
    s.timingIntegralGains[2] = 0.005f;
    s.timingProportionalGains[0] = 0.1f;
    s.timingProportionalGains[1] = 1.0f / 15.0f;
    s.timingProportionalGains[2] = 1.0f / 15.0f;
    s.timingGainStepFrames[0] = 100;
    s.timingGainStepFrames[1] = 200;
    s.clockCorrectionEnabled = 1;
    s.clockCorrectionPeriod = 150;
    s.impulseScales[0] = PowerOfTwo(-34);
    s.impulseScales[1] = PowerOfTwo(-30);
    s.impulseScales[2] = PowerOfTwo(-28);
    s.impulseScales[3] = PowerOfTwo(-32);
    s.excisionEnabled = 1;
    s.carrierWeightOne = 1.0f;
    s.softBitMode = 2;
    s.softBitMap = kDefaultSoftBitMap.data();
}

int32_t InitReceiverState() {
    WorkBlocks& w = workBlocks;
    w = WorkBlocks{};
    w.workingPool = static_cast<uint8_t*>(AllocateBlock(kWorkingPoolBytes));
    if (w.workingPool == nullptr) return 0;
    w.deinterleaveStore = static_cast<uint8_t*>(AllocateBlock(kDeinterleaveStoreBytes));
    if (w.deinterleaveStore == nullptr) {
        FreeBlock(w.workingPool);
        w.workingPool = nullptr;
        return 0;
    }
    w.newestSlot = w.workingPool + kNewestSlotOffset;
    w.middleSlot = nullptr;
    w.oldestSlot = nullptr;
    w.historyBase = nullptr;
    w.powerEnvelope = reinterpret_cast<float*>(w.workingPool + kPowerEnvelopeOffset);
    w.filterI = reinterpret_cast<float*>(w.deinterleaveStore + kFilterIOffset);
    w.filterQ = reinterpret_cast<float*>(w.deinterleaveStore + kFilterQOffset);

    WriteReceiverSettings();
    mode.configuredMode = -1;
    pipeline = FramePipeline{};
    pipeline.acquisitionState = -2;
    pipeline.servicesDirty = 0;
    pipeline.resyncRequest = 0;

    if (BuildGfTables() != 1) return 0;
    if (InitRs120() != 1) return 0;
    if (AllocateSuperframeBuffers() != 1) return 0;
    // The T-DMB stream decoder and the packet decoders: ready from the first
    // delivery on, whatever calls them.
    if (InitRs204() != 1) return 0;
    if (AllocateStreamBuffers() != 1) return 0;
    if (AllocatePacketDecoders() != 1) return 0;
    return 1;
}

void FreeReceiverState() {
    ReleaseAllServices();
    pipeline.selectedCount = 0;
    modeBuffers = ModeBuffers{};
    FreeDftPlan(&dftPlan);
    WorkBlocks& w = workBlocks;
    w.newestSlot = w.middleSlot = w.oldestSlot = w.historyBase = nullptr;
    w.powerEnvelope = nullptr;
    w.filterI = w.filterQ = nullptr;
    FreeBlock(w.workingPool);
    FreeBlock(w.deinterleaveStore);
    w.workingPool = nullptr;
    w.deinterleaveStore = nullptr;
    pipeline.acquisitionState = -2;
    mode.configuredMode = -1;
    FreePacketDecoders();
    FreeStreamBuffers();
    FreeRs204();
    FreeRs120();
    FreeSuperframeBuffers();
    FreeGfTables();
}

}  // namespace mvdab
