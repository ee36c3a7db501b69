// The host's view of the receiver: queries over ReceiverStatus and the tuning,
// and the debug command. They take no lock; each reads single words.
#pragma once

#include <cstdint>

namespace mvdab {

// Each returns 0 without writing while the device is closed or when the
// out-argument is null.

// Writes signalPresent (-1, 0, 1). 1.
int32_t QuerySignalPresent(int32_t* present);
// signalPresent -1: writes 0; signalPresent 1 with syncState 4 or 5: writes
// 1; else writes nothing. 1 if it wrote, else 0.
int32_t QuerySignalLock(int32_t* locked);
// The quality staircase while signalPresent is 1, else 0. 1.
int32_t QuerySignalQuality(int32_t* quality);
// currentFrequency and the bandwidth constant 1. 1.
int32_t QueryFreqAndBW(int32_t* frequency, int32_t* bandwidth);
// Tuner type 1: 168, type 2: 1016, else nothing. 1 if it wrote, else 0.
int32_t QueryTunerRange(int32_t* range);
// Code 12 switches the good-reception line mode (value 1 on, 0 off and line
// off, other values nothing): 1 in every state of the receiver; while it
// isn't open only the mode is written. Any other code, or no value: 0.
int32_t RunDebugCommand(int32_t code, const int32_t* value);

// The staircase over signalQualityDb: above 10 dB 100, above 8 dB 80, above
// 5 dB 50, else 30; compared in double precision.
int32_t QualityStep(float signalQualityDb);

}  // namespace mvdab
