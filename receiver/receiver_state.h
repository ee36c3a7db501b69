// The receiver's shared records: the control block between the host's calls
// and the demodulation thread, the constants of acquisition and tracking, the
// sizes of the transmission mode in force, and the frame pipeline's fields.
// All are static-lifetime records; one receiver per process.
#pragma once

#include <atomic>
#include <cstdint>

namespace mvdab {

// ---------------------------------------------------------------------------
// Sizes of the sample pipeline.
constexpr int32_t kIqFrameBytes = 240640;          // one IqFrame: 120,320 complex samples, 58.75 ms
constexpr int32_t kIqFrameSamples = kIqFrameBytes / 2;
constexpr int32_t kReadBufferBytes = 240648;       // one device read: 8 more than an IqFrame
constexpr int32_t kWorkingPoolBytes = 2000000;
constexpr int32_t kDeinterleaveStoreBytes = 884736;  // 864 capacity units x 1,024 bytes
constexpr int32_t kMaxSymbolsPerFrame = 153;
constexpr int32_t kCifFrameCarrierBytes = 221184;  // one CIF of FrameCarriers in every mode

// WorkingPool layout, fixed part at its end (offsets in bytes):
//
//   0                 962,304          1,278,080   1,518,720   1,759,360  2,000,000
//   |  mode regions    |  PowerEnvelope (states 0,1: 199,264 floats)               |
//   |  (states 2,3)    |                 | oldest slot| middle slot| newest slot |
//                                          (mode I)    (all modes)  (always)
//
// PowerEnvelope overlies the two older history slots: it is used only until
// the frame position is confirmed, and the older slots only after that.
constexpr int32_t kPowerEnvelopeOffset = 962304;
constexpr int32_t kPowerEnvelopeFloats = 199264;   // nullLength + framePeriod of mode I
constexpr int32_t kOldestSlotOffset = kWorkingPoolBytes - 3 * kIqFrameBytes;  // 1,278,080
constexpr int32_t kMiddleSlotOffset = kWorkingPoolBytes - 2 * kIqFrameBytes;  // 1,518,720
constexpr int32_t kNewestSlotOffset = kWorkingPoolBytes - kIqFrameBytes;      // 1,759,360

// DeinterleaveStore in states 0 and 1: scratch of the sample prefilter,
//   I array at 0, Q array at 240,800; each 6 history floats + 60,160 floats.
constexpr int32_t kFilterIOffset = 0;
constexpr int32_t kFilterQOffset = 240800;

// ---------------------------------------------------------------------------
struct ServiceComponent;  // services/service_component.h

// Control block between the host's calls and the demodulation thread. Request
// words and lists are guarded by requestMailbox; signalPresent, syncState and
// signalQualityDb are single words written by the demodulation thread and read
// by the status queries without a lock, hence atomic: a
// reader takes what it finds.
struct ReceiverStatus {
    int32_t serviceCount;        // records in addedServices and activeServices
    int32_t addAllowed;          // 1 while no primary service is requested
    int32_t primaryPresent;      // 1 while a service of type 0 or 3 is requested
    int32_t freeSlots;           // 2 at start; type 0 takes one, type 3 both
    ServiceComponent* activeServices;   // being decoded
    ServiceComponent* addedServices;    // requested, not yet taken over
    ServiceComponent* removedServices;  // withdrawn, to be freed by the demodulation thread
    int32_t retuneRequest;       // 1: drop all services, restart acquisition
    std::atomic<int32_t> signalPresent;  // -1 no DAB signal, 0 undecided, 1 frame structure found
    std::atomic<int32_t> syncState;      // 0..5, how far the receiver has come
    std::atomic<float> signalQualityDb;  // SNR estimate in dB, per demodulated transmission frame
    int32_t serviceResetRequest; // 1: drop all services, keep sync
};
extern ReceiverStatus receiverStatus;

// ---------------------------------------------------------------------------
// Fixed constants of acquisition and tracking, written once at open.
struct ReceiverSettings {
    uint8_t searchTimeoutEnabled;        // state 0 may time out
    int32_t searchTimeoutFrames;         // IqFrames allowed in state 0 (7)
    uint8_t confirmTimeoutEnabled;       // state 1 may time out
    int32_t confirmTimeoutFrames;        // IqFrames allowed in state 1 (7)
    int32_t restartHoldoffFrames;        // IqFrames of state -1 (4)
    uint8_t resyncOnFicErrors;           // too many FIC errors restart acquisition
    float fastPowerFactor;               // 2^-8, averaging factor of fastPower
    float slowPowerFactor;               // 2^-11, averaging factor of slowPower
    float dipEntryRatio;                 // 0.6 of slowPower opens a dip
    float dipExitRatio;                  // 0.7 of slowPower closes it
    int32_t nullAgreementTolerance;      // samples by which null scans may differ (80)
    int32_t timingBackoffBytes[4];       // per mode, bytes before the measured null position
    int32_t entrySymbols;                // symbols in the fractional frequency estimate (11)
    float frequencyLoopGain;             // 2^-14, share of the phase error per symbol
    float timingIntegralGains[3];        // by stage: 0.01, 0.005, 0.005
    float timingProportionalGains[3];    // by stage: 0.1, 1/15, 1/15
    int32_t timingGainStepFrames[2];     // trackedFrames at which stages 2 and 3 begin (100, 200)
    uint8_t clockCorrectionEnabled;      // the loop may correct the sample clock
    int32_t clockCorrectionPeriod;       // transmission frames between clock corrections (150)
    float impulseScales[4];              // per mode: 2^-34, 2^-30, 2^-28, 2^-32
    uint8_t excisionEnabled;             // narrow-band interference check
    float carrierWeightOne;              // 1.0, weight of a carrier that passes
    uint8_t softBitMode;                 // 1 linear soft values, else through softBitMap
    const uint8_t* softBitMap;           // 64-entry soft value table
};
extern ReceiverSettings receiverSettings;

// ---------------------------------------------------------------------------
// Sizes of the transmission mode in force; lengths in samples at 2.048 MS/s.
struct ModeParameters {
    int32_t symbolLength;      // guard + useful part
    int32_t nullLength;        // null symbol
    int32_t framePeriod;       // one transmission frame
    int32_t frameBytes;        // the same in bytes of IqFrame data
    int32_t fftSize;           // useful part, DFT length
    int32_t carrierCount;      // active carriers K
    int32_t symbolsPerFrame;   // null not counted
    int32_t guardLength;       // guard interval
    int16_t cifsPerFrame;      // CIFs per transmission frame
    int32_t firstMscSymbol;    // first symbol after phase reference and FIC
    int32_t mscSymbolsPerCif;  // MSC symbols of one CIF
    uint8_t fibsPerCif;        // FIBs per CIF
    int16_t ficPunctureBlocks; // puncturing blocks of the FIC per CIF
    int16_t ficCodedBits;      // coded FIC bits per CIF
    int16_t ficDecodedBits;    // decoded FIC bits per CIF, tail included
    int16_t ficBytesPerCif;    // FIC bytes per CIF
};

// The tables by mode, in the order I, II, III, IV (transmissionMode 0..3).
constexpr ModeParameters kModeTable[4] = {
    {2552, 2656, 196608, 393216, 2048, 1536, 76, 504, 4, 4, 18, 3, 24, 2304, 774, 96},
    {638, 664, 49152, 98304, 512, 384, 76, 126, 1, 4, 72, 3, 24, 2304, 774, 96},
    {319, 345, 49152, 98304, 256, 192, 153, 63, 1, 9, 144, 4, 32, 3072, 1030, 128},
    {1276, 1328, 98304, 196608, 1024, 768, 76, 252, 2, 4, 36, 3, 24, 2304, 774, 96},
};
// Each mode obeys these identities; a wrong table entry fails to compile.
constexpr bool ModeTableConsistent() {
    for (const ModeParameters& m : kModeTable) {
        if (m.symbolLength != m.fftSize + m.guardLength) return false;
        if (m.symbolsPerFrame * m.symbolLength + m.nullLength != m.framePeriod) return false;
        if (m.frameBytes != 2 * m.framePeriod) return false;
        if (m.mscSymbolsPerCif * m.carrierCount * 8 != kCifFrameCarrierBytes) return false;
        if (m.firstMscSymbol + m.cifsPerFrame * m.mscSymbolsPerCif != m.symbolsPerFrame) return false;
    }
    return true;
}
static_assert(ModeTableConsistent(), "transmission mode table");

// Mode decided last (0..3 for modes I..IV), its parameters, and the mode for
// which WorkingPool was last laid out (-1: never).
struct TransmissionMode {
    int32_t transmissionMode;     // 0..3
    ModeParameters parameters;    // copy of kModeTable[transmissionMode]
    int32_t configuredMode;       // -1 until ConfigureModeBuffers first ran
};
extern TransmissionMode mode;

// ---------------------------------------------------------------------------
// The two work blocks and the fixed places in them.
struct WorkBlocks {
    uint8_t* workingPool;        // kWorkingPoolBytes
    uint8_t* deinterleaveStore;  // kDeinterleaveStoreBytes
    float* powerEnvelope;        // in workingPool, states 0 and 1
    float* filterI;              // in deinterleaveStore, states 0 and 1
    float* filterQ;
    uint8_t* newestSlot;         // IqHistory, always in use
    uint8_t* middleSlot;         // null while out of use
    uint8_t* oldestSlot;         // null while out of use (mode I only)
    uint8_t* historyBase;        // start of the oldest slot in use; null: none
};
extern WorkBlocks workBlocks;

// One word per symbol: 0 skip; non-zero transform; bit 0 also demodulate.
extern int32_t SymbolMask[kMaxSymbolsPerFrame];

// ---------------------------------------------------------------------------
// Fields of the frame pipeline and acquisition state machine; demodulation
// thread only.
struct FramePipeline {
    int32_t acquisitionState;    // -2 parked, -1 hold-off, 0 search, 1 confirm, 2 wait, 3 track
    int32_t restartHoldoff;      // IqFrames left in state -1
    int32_t searchTimeout;       // IqFrames left in state 0
    int32_t confirmTimeout;      // IqFrames left in state 1
    int32_t framePosition;       // byte offset from historyBase of the next transmission frame
    float framePositionExact;    // the same with its fraction (state 3)
    int32_t frameSamples;        // byte offset from historyBase of the frame a stage reads
    int32_t resyncRequest;       // 1: restart acquisition at the next IqFrame
    uint8_t servicesDirty;       // 1: SymbolMask and CIF pointers must be rebuilt
    ServiceComponent* selectedServices[2];  // records being decoded
    int32_t selectedCount;
};
extern FramePipeline pipeline;

// Carrier phase of the frequency correction, shared by frame entry, symbol
// demodulation and tracking. Radians per sample and radians.
struct FrequencyCorrection {
    double samplePhaseIncrement;  // rotation per sample, rad
    double samplePhase;           // phase at the next sample to be rotated, rad
};
extern FrequencyCorrection frequencyCorrection;

// The device's good-reception output line. DecodeFic drives it while ledMode
// is on; MVDAB_DebugCMD and MVDAB_SetFreqAndBW switch it off. Written from the
// host's thread and the demodulation thread, hence atomic.
struct ReceptionLine {
    std::atomic<int32_t> ledMode;             // 1: the FIC stage drives the line; 0 at load
    std::atomic<int32_t> goodReceptionCount;  // CIFs in a row with a clean FIC, 0..40
};
extern ReceptionLine receptionLine;

// Value used for 2*pi in all wraps and scalings.
constexpr double kTwoPi = 6.283185307179;

}  // namespace mvdab
