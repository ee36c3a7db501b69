// Exported device control. Open and close follow the lifecycle rule of
// receiver_lifecycle.h; the other calls run under its guard and give their
// closed answer while the receiver is closed, opening or closing.
#include "device/tuning.h"
#include "mvxdab.h"
#include "receiver/receiver_lifecycle.h"
#include "receiver/sync_objects.h"

extern "C" {

MVDAB_API int32_t MVDAB_CALL MVDAB_OpenDevice(void) { return mvdab::OpenReceiver(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_CloseDevice(void) { return mvdab::CloseReceiver(); }
MVDAB_API int32_t MVDAB_CALL MVDAB_Start(void) { return mvdab::WhileOpen(0, mvdab::StartSamples); }
MVDAB_API int32_t MVDAB_CALL MVDAB_Stop(void) {
    // Refused inside a callback in every state, a closing one included.
    if (mvdab::OnReceiverThread()) return 0;
    return mvdab::WhileOpen(1, mvdab::StopSamples);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_SetFreqAndBW(int32_t frequencyKhz) {
    return mvdab::WhileOpen(0, [frequencyKhz] { return mvdab::SetFrequency(frequencyKhz); });
}

}  // extern "C"
