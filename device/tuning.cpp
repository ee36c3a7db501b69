#include "device/tuning.h"

#include <cmath>
#include <cstdlib>
#include <new>

#include "device/access_library.h"
#include "device/demodulator_init.h"
#include "receiver/receiver_lifecycle.h"
#include "receiver/receiver_state.h"
#include "receiver/request_mailbox.h"
#include "receiver/sync_objects.h"

namespace mvdab {

TuningRecord tuningStorage;
std::atomic<TuningRecord*> tuningRecord;
FrequencyCache frequencyCache;
std::atomic<int32_t> clockWritten;
std::atomic<float> clockOffsetTotalPpm;

namespace {
// The chip's reference clock is 28.8 MHz; the frequency word has 2^22 steps
// per 28.8 MHz, the sample-rate offset 2^24 steps per 10^6.
constexpr double kFrequencyWordPerKhz = 4194.304 / 28.8;
constexpr double kSampleRateCodePerPpm = 16.777216;

constexpr int32_t kTuneDone = 3;
constexpr int32_t kTuneSetFailed = 1;
constexpr int32_t kTuneUpdateFailed = 2;
}  // namespace

int32_t TunedBandwidthCode() {
    const TuningRecord* t = tuningRecord.load(std::memory_order_acquire);
    return t != nullptr && t->bandwidthCode != 0 ? t->bandwidthCode.load() : 6;
}

int32_t SampleRateOffsetCode(float ppm) {
    const double scaled = std::floor(double(ppm) * kSampleRateCodePerPpm);
    // Offsets beyond the register's reach wrap like the register does.
    const int64_t code = std::isfinite(scaled) && std::fabs(scaled) < 1e15 ? int64_t(scaled) : 0;
    return int32_t(uint64_t(code) & 0x3FFF);
}

int32_t FrequencyOffsetWord(float offsetKhz) {
    const double scaled = std::floor(double(offsetKhz) * kFrequencyWordPerKhz);
    const int64_t word = std::isfinite(scaled) && std::fabs(scaled) < 1e15 ? int64_t(scaled) : 0;
    return int32_t(uint64_t(word) & 0x3FFFFF);
}

int32_t TuneDevice(int32_t frequency, int32_t bandwidthCode) {
    const AccessLibrary& a = accessLibrary;
    if (a.setFrequency == nullptr || a.setBandwidth == nullptr || a.deviceUpdate == nullptr) return kTuneSetFailed;
    if (a.setFrequency(frequency) == 0) return kTuneSetFailed;
    if (a.setBandwidth(bandwidthCode) == 0) return kTuneSetFailed;
    if (a.deviceUpdate() == 0) return kTuneUpdateFailed;
    return kTuneDone;
}

int32_t PulseSoftReset() {
    uint8_t control = 0;
    if (ReadDemodRegisters(1, 0x01, 1, &control) != 1) return 0;
    if (WriteDemodRegister(1, 0x01, uint8_t(control | 0x04)) != 1) return 0;
    return WriteDemodRegister(1, 0x01, uint8_t(control & ~0x04));
}

int32_t SetDemodulatorOffsets(float offsetKhz, float ppm) {
    const int32_t word = FrequencyOffsetWord(offsetKhz);
    const uint8_t frequencyBytes[3] = {uint8_t((word >> 16) & 0x3F), uint8_t(word >> 8), uint8_t(word)};
    const int32_t code = SampleRateOffsetCode(ppm);
    const uint8_t rateBytes[2] = {uint8_t((code >> 8) & 0x3F), uint8_t(code)};
    int32_t ok = WriteDemodRegisters(1, 0x16, 3, frequencyBytes);
    ok &= WriteDemodRegisters(1, 0x3E, 2, rateBytes);
    ok &= PulseSoftReset();
    if (ok != 1) return 0;
    clockWritten = 0;
    return 1;
}

int32_t ApplySampleRateOffset(bool relative, float ppm) {
    uint8_t b[2] = {0, 0};
    if (ReadDemodRegisters(1, 0x3E, 2, b) != 1) return 0;
    const int32_t current = relative ? (b[0] & 0x3F) * 256 + b[1] : 0;
    const int32_t n = current + SampleRateOffsetCode(ppm);
    const uint8_t high = uint8_t((n >> 8) & 0x3F);
    const uint8_t low = uint8_t(n & 0xFF);
    if (b[0] != high) {
        if (WriteDemodRegister(1, 0x3E, high) != 1) return 0;
        clockWritten = 1;
    }
    if (b[1] != low) {
        if (WriteDemodRegister(1, 0x3F, low) != 1) return 0;
        clockWritten = 1;
    }
    return 1;
}

int32_t SetGoodReceptionLine(int32_t level) {
    constexpr uint8_t kLineBit = 0x04;
    uint8_t b = 0;
    if (ReadSystemRegister(4, &b) != 1 || WriteSystemRegister(4, uint8_t(b & ~kLineBit)) != 1) return 0;
    if (ReadSystemRegister(3, &b) != 1 || WriteSystemRegister(3, uint8_t(b | kLineBit)) != 1) return 0;
    if (ReadSystemRegister(1, &b) != 1) return 0;
    return WriteSystemRegister(1, level != 0 ? uint8_t(b | kLineBit) : uint8_t(b & ~kLineBit));
}

// ---------------------------------------------------------------------------

CachedFrequency* FindCachedFrequency(int32_t frequency) {
    for (CachedFrequency* r = frequencyCache.head.load(std::memory_order_acquire); r != nullptr; r = r->next) {
        if (r->frequency == frequency) return r;
    }
    return nullptr;
}

namespace {
void Learn(CachedFrequency* record, float clockOffsetPpm) {
    const float total = clockOffsetTotalPpm + clockOffsetPpm;
    clockOffsetTotalPpm = total;
    record->learnedPpm.store(total, std::memory_order_relaxed);
    record->learned.store(1, std::memory_order_release);
    record->applied = 0;
}
}  // namespace

void RecordLearnedClockOffset(float clockOffsetPpm) {
    CachedFrequency* record = frequencyCache.currentEntry.load(std::memory_order_acquire);
    if (record == nullptr) record = frequencyCache.madeThisTuning.load(std::memory_order_acquire);
    if (record != nullptr) {
        if (record->learned.load(std::memory_order_acquire) == 0) Learn(record, clockOffsetPpm);
        return;
    }
    const TuningRecord* t = tuningRecord.load(std::memory_order_acquire);
    if (t == nullptr) return;
    record = new (std::nothrow) CachedFrequency{};
    if (record == nullptr) return;
    record->frequency = t->currentFrequency;
    record->tunedFrequency = t->tunedFrequency;
    record->bandwidthCode = t->bandwidthCode;
    Learn(record, clockOffsetPpm);
    record->next = frequencyCache.head.load(std::memory_order_relaxed);
    // Complete before it is linked: a walker on the host's thread sees either
    // the old head or the finished record.
    frequencyCache.head.store(record, std::memory_order_release);
    frequencyCache.madeThisTuning.store(record, std::memory_order_release);
}

void FreeFrequencyCache() {
    CachedFrequency* r = frequencyCache.head.exchange(nullptr);
    while (r != nullptr) {
        CachedFrequency* next = r->next;
        delete r;
        r = next;
    }
    frequencyCache.currentEntry = nullptr;
    frequencyCache.madeThisTuning = nullptr;
    clockOffsetTotalPpm = 0.0f;
}

// ---------------------------------------------------------------------------

int32_t SetFrequency(int32_t frequency) {
    if (receiverRunning == 0) return 0;
    TuningRecord* t = tuningRecord.load();
    if (t == nullptr) return 0;
    if (deviceEventRegistered == 0 && ResumeSamples() != 1) return 0;

    CachedFrequency* entry = FindCachedFrequency(frequency);
    frequencyCache.currentEntry.store(entry, std::memory_order_release);
    frequencyCache.madeThisTuning.store(nullptr, std::memory_order_release);

    if (frequency != t->currentFrequency && TunerTypeKnown(tunerType) == 1) {
        const int32_t tuned = entry != nullptr ? entry->tunedFrequency : frequency;
        const int32_t bandwidth = BandwidthCodeFor(tunerType);
        const int32_t result = TuneDevice(tuned, bandwidth);
        if (result == kTuneSetFailed) return 0;
        if (result == kTuneUpdateFailed) {
            // The next call tunes in any case.
            t->currentFrequency = -1;
            return 0;
        }
        t->currentFrequency = frequency;
        t->tunedFrequency = tuned;
        t->bandwidthCode = bandwidth;
        const float ppm = entry != nullptr && entry->learned.load(std::memory_order_acquire) != 0
                              ? entry->learnedPpm.load(std::memory_order_relaxed)
                              : clockOffsetTotalPpm.load();
        if (SetDemodulatorOffsets(0.0f, ppm) != 1) return 0;
        if (entry != nullptr) entry->applied = 1;
        PostRetune();
    } else if (entry != nullptr && entry->learned.load(std::memory_order_acquire) != 0 && entry->applied == 0) {
        if (SetDemodulatorOffsets(0.0f, entry->learnedPpm.load(std::memory_order_relaxed)) != 1) return 0;
        entry->applied = 1;
        PostRetune();
    } else if (receiverStatus.syncState == 4) {
        // Same frequency with a clean FIC: keep sync, drop the services.
        PostServiceReset();
    } else {
        PostRetune();
    }
    SetGoodReceptionLine(0);
    receptionLine.goodReceptionCount = 0;
    return 1;
}

}  // namespace mvdab
