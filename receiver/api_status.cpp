// Exported status queries and the debug command.
#include "mvxdab.h"
#include "receiver/status_queries.h"

extern "C" {

MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalPresent(int32_t* present) { return mvdab::QuerySignalPresent(present); }
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalLock(int32_t* locked) { return mvdab::QuerySignalLock(locked); }
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalQuality(int32_t* quality) { return mvdab::QuerySignalQuality(quality); }
// There is no level measurement behind this query.
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalStrength(int32_t*) { return 0; }
MVDAB_API int32_t MVDAB_CALL MVDAB_GetFreqAndBW(int32_t* frequencyKhz, int32_t* bandwidth) {
    return mvdab::QueryFreqAndBW(frequencyKhz, bandwidth);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_GetTunerRange(int32_t* range) { return mvdab::QueryTunerRange(range); }
MVDAB_API int32_t MVDAB_CALL MVDAB_DebugCMD(int32_t code, int32_t* value) { return mvdab::RunDebugCommand(code, value); }

}  // extern "C"
