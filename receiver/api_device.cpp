// Exported device control.
#include "device/tuning.h"
#include "mvxdab.h"
#include "receiver/receiver_lifecycle.h"

extern "C" {

MVDAB_API int32_t MVDAB_CALL MVDAB_OpenDevice(void) { return mvdab::OpenReceiver(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_CloseDevice(void) { return mvdab::CloseReceiver(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_Start(void) { return mvdab::StartSamples(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_Stop(void) { return mvdab::StopSamples(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_SetFreqAndBW(int32_t frequencyKhz) { return mvdab::SetFrequency(frequencyKhz); }

}  // extern "C"
