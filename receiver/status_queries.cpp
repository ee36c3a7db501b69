#include "receiver/status_queries.h"

#include "device/demodulator_init.h"
#include "device/tuning.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_lifecycle.h"
#include "receiver/receiver_state.h"
#include "receiver/sync_objects.h"

namespace mvdab {

std::atomic<MVDAB_DataCallBack> ficCallback;
std::atomic<MVDAB_DataCallBack> mwFicCallback;
std::atomic<MVDAB_DataCallBack> mscCallback;
std::atomic<MVDAB_PacketCallBack> packetCallback;
std::atomic<MVDAB_StreamDataCallBack> streamDataCallback;

namespace {
bool Open() { return receiverRunning != 0; }

constexpr int32_t kDebugReceptionLine = 12;
constexpr int32_t kTunerRangeType1 = 168;
constexpr int32_t kTunerRangeType2 = 1016;
}  // namespace

int32_t QualityStep(float signalQualityDb) {
    const double db = signalQualityDb;
    if (db > 10.0) return 100;
    if (db > 8.0) return 80;
    if (db > 5.0) return 50;
    return 30;
}

int32_t QuerySignalPresent(int32_t* present) {
    if (present == nullptr || !Open()) return 0;
    *present = receiverStatus.signalPresent;
    return 1;
}

int32_t QuerySignalLock(int32_t* locked) {
    if (locked == nullptr || !Open()) return 0;
    // Both words are read once: the demodulation thread may change them.
    const int32_t present = receiverStatus.signalPresent;
    const int32_t sync = receiverStatus.syncState;
    if (present == -1) {
        *locked = 0;
        return 1;
    }
    if (present == 1 && sync > 3) {
        *locked = 1;
        return 1;
    }
    return 0;
}

int32_t QuerySignalQuality(int32_t* quality) {
    if (quality == nullptr || !Open()) return 0;
    *quality = receiverStatus.signalPresent == 1 ? QualityStep(receiverStatus.signalQualityDb) : 0;
    return 1;
}

int32_t QueryFreqAndBW(int32_t* frequency, int32_t* bandwidth) {
    if (frequency == nullptr || bandwidth == nullptr || !Open()) return 0;
    const TuningRecord* t = tuningRecord.load();
    if (t == nullptr) return 0;
    *frequency = t->currentFrequency;
    *bandwidth = 1;
    return 1;
}

int32_t QueryTunerRange(int32_t* range) {
    if (range == nullptr || !Open()) return 0;
    const int32_t type = tunerType;  // a close may clear it meanwhile
    if (type == 1) {
        *range = kTunerRangeType1;
        return 1;
    }
    if (type == 2) {
        *range = kTunerRangeType2;
        return 1;
    }
    return 0;
}

int32_t RunDebugCommand(int32_t code, const int32_t* value) {
    if (code != kDebugReceptionLine || value == nullptr) return 0;
    // The switch is a static word and answers in every state; the line
    // itself exists only on an open device, so it is switched off only
    // under the lifecycle guard.
    if (*value == 1) {
        receptionLine.ledMode = 1;
        receptionLine.goodReceptionCount = 0;
    } else if (*value == 0) {
        receptionLine.ledMode = 0;
        WhileOpen(0, [] { return SetGoodReceptionLine(0); });
        receptionLine.goodReceptionCount = 0;
    }
    return 1;
}

}  // namespace mvdab
