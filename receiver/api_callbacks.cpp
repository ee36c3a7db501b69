// Exported callback installation. A null pointer is refused and the slot
// keeps what it had; slots survive stop and close.
#include <atomic>

#include "mvxdab.h"
#include "receiver/callback_slots.h"

namespace {
template <typename Callback>
int32_t Install(std::atomic<Callback>& slot, Callback callback) {
    if (callback == nullptr) return 0;
    slot = callback;
    return 1;
}
}  // namespace

extern "C" {

MVDAB_API int32_t MVDAB_CALL MVDAB_SetFICCallBack(MVDAB_DataCallBack callback) {
    return Install(mvdab::ficCallback, callback);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_SetMWFICCallBack(MVDAB_DataCallBack callback) {
    return Install(mvdab::mwFicCallback, callback);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_SetMSCCallBack(MVDAB_DataCallBack callback) {
    return Install(mvdab::mscCallback, callback);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_SetPacketCallBack(MVDAB_PacketCallBack callback) {
    return Install(mvdab::packetCallback, callback);
}
MVDAB_API int32_t MVDAB_CALL MVDAB_SetStreamDataCallBack(MVDAB_StreamDataCallBack callback) {
    return Install(mvdab::streamDataCallback, callback);
}

}  // extern "C"
