// Tuning, the sample-rate offset of the demodulator, the learned sample-clock
// offsets per frequency, and the good-reception output line.
//
// Register formats (demodulator page 1):
//   0x16..0x18  frequency offset word: 22 bits, high byte first, top two bits
//               of the first byte 0; floor(kHz x 4194.304 / 28.8)
//   0x3E, 0x3F  sample-rate offset: 14-bit two's complement, high byte first;
//               floor(ppm x 16.777216) = ppm x 2^24 / 10^6
//   0x01        bit 2: soft reset, pulsed
// System registers of the output line: bit 2 of addr 4, 3 and 1.
#pragma once

#include <atomic>
#include <cstdint>

namespace mvdab {

// The tuning in force; exists while the device is open.
struct TuningRecord {
    std::atomic<int32_t> currentFrequency;  // kHz, as the host tuned it; 0 after open/stop, -1 after a failed update
    std::atomic<int32_t> tunedFrequency;    // kHz, as handed to the tuner
    std::atomic<int32_t> bandwidthCode;     // 6, or 1 for tuner type 2
};
extern TuningRecord tuningStorage;
// Points at tuningStorage while the device is open, else null.
extern std::atomic<TuningRecord*> tuningRecord;

// Bandwidth code of the tuning in force, 6 while nothing is tuned. Read by
// acquisition on the demodulation thread without a lock.
int32_t TunedBandwidthCode();

// One learned sample-clock offset. A record is complete before it is linked
// at the head of the list; records are never removed while the device is
// open, so the host's thread may walk the list while the demodulation thread
// links a new one.
struct CachedFrequency {
    int32_t frequency;                // key: currentFrequency when made, kHz
    int32_t tunedFrequency;           // copied from the tuning record, kHz
    int32_t bandwidthCode;            // copied from the tuning record
    std::atomic<float> learnedPpm;    // clockOffsetTotalPpm when filled, ppm of the sample clock
    std::atomic<uint8_t> learned;     // learnedPpm is valid
    std::atomic<uint8_t> applied;     // learnedPpm was written at a tuning
    CachedFrequency* next;            // older record
};

struct FrequencyCache {
    std::atomic<CachedFrequency*> head;          // newest first
    std::atomic<CachedFrequency*> currentEntry;  // record of the frequency in hand, set at each tuning
    // Record made by the clock loop during the tuning in hand; it becomes the
    // current entry only at the next tuning. The clock loop fills it once
    // instead of adding a record at each look, so the list holds one record
    // per frequency and tuning and the lookup still finds the newest value.
    std::atomic<CachedFrequency*> madeThisTuning;
};
extern FrequencyCache frequencyCache;

// Set when ApplySampleRateOffset really changed the register; cleared by a
// tuning that writes the offsets.
extern std::atomic<int32_t> clockWritten;
// Sum of the offsets learned so far, ppm; cleared at close.
extern std::atomic<float> clockOffsetTotalPpm;

// Register formats.
// 14-bit sample-rate code of an offset in ppm (two's complement).
int32_t SampleRateOffsetCode(float ppm);
// 22-bit frequency offset word of an offset in kHz.
int32_t FrequencyOffsetWord(float offsetKhz);

// MVA_Set_Frequency, MVA_Set_Bandwidth, MVA_DeviceUpdate in this order.
// 3 all succeeded; 1 one of the first two failed (the update isn't tried);
// 2 the update failed.
int32_t TuneDevice(int32_t frequency, int32_t bandwidthCode);
// Writes the frequency offset word and the sample-rate offset, then pulses
// the soft reset; all attempted. 1 (and clockWritten cleared) or 0.
int32_t SetDemodulatorOffsets(float offsetKhz, float ppm);
// Read, set bit 2, clear bit 2 of page 1, 0x01; stops at the first failure.
int32_t PulseSoftReset();
// Changes the sample-rate offset by `ppm` (relative) or sets it (absolute),
// writing only the bytes that change; sets clockWritten when it wrote. No
// soft reset follows. 1, or 0 when an access failed.
int32_t ApplySampleRateOffset(bool relative, float ppm);
// Drives the good-reception output line: clear bit 2 of system register 4,
// set bit 2 of 3, set or clear bit 2 of 1. 1, or 0 at the first failure.
int32_t SetGoodReceptionLine(int32_t level);

// The clock loop's record of a learned offset: fills the current entry, or
// the record made earlier in this tuning, or makes a new one, adding the
// offset to clockOffsetTotalPpm; a record already learned takes nothing. A
// failed allocation only skips the recording.
void RecordLearnedClockOffset(float clockOffsetPpm);
// First record with this frequency (the newest), or null.
CachedFrequency* FindCachedFrequency(int32_t frequency);
// Frees every record and clears the head, the current entry and the total.
void FreeFrequencyCache();

// MVDAB_SetFreqAndBW: tunes when the frequency changed, writes the learned
// offsets and posts a retune, or posts a service reset when the host re-tuned
// the clean frequency in hand. 1, or 0 on failure.
int32_t SetFrequency(int32_t frequency);

}  // namespace mvdab
