// Exported service commands, under the lifecycle guard: while the receiver
// is not open they give their closed answers (0, 4 and 0) without touching
// the lists or the lock that a close frees.
#include "mvxdab.h"
#include "receiver/receiver_lifecycle.h"
#include "services/service_commands.h"

namespace {
mvdab::ServiceRequest Request(int8_t type, int8_t subChannelId, int16_t startAddress, int8_t longForm,
                              int8_t tableIndex, int8_t optionAndLevel, int16_t subChannelSize, int8_t fecScheme) {
    return {type, subChannelId, startAddress, longForm, tableIndex, optionAndLevel, subChannelSize, fecScheme};
}
}  // namespace

extern "C" {

MVDAB_API int32_t MVDAB_CALL MVDAB_AddServiceCom(int8_t type, int8_t subChannelId, int16_t startAddress, int8_t longForm,
                                      int8_t tableIndex, int8_t optionAndLevel, int16_t subChannelSize,
                                      int16_t /*packetAddress*/, int8_t fecScheme) {
    const mvdab::ServiceRequest q =
        Request(type, subChannelId, startAddress, longForm, tableIndex, optionAndLevel, subChannelSize, fecScheme);
    return mvdab::WhileOpen(mvdab::kServiceRefused, [&q] { return mvdab::AddServiceRequest(q); });
}

MVDAB_API int32_t MVDAB_CALL MVDAB_DelServiceCom(int32_t /*type*/, int8_t subChannelId, int16_t /*packetAddress*/) {
    return mvdab::WhileOpen(mvdab::kServiceNotFound, [subChannelId] { return mvdab::DeleteServiceRequest(subChannelId); });
}

MVDAB_API int32_t MVDAB_CALL MVDAB_ChangeSCOrg(int8_t /*type*/, int8_t subChannelId, int16_t startAddress, int8_t longForm,
                                    int8_t tableIndex, int8_t optionAndLevel, int16_t subChannelSize,
                                    int16_t /*packetAddress*/, int8_t fecScheme, int8_t /*changeCifHigh*/,
                                    int8_t changeCifLow) {
    // The type is inherited from the record being changed; only the low part
    // of the CIF count is used.
    const mvdab::ServiceRequest q =
        Request(0, subChannelId, startAddress, longForm, tableIndex, optionAndLevel, subChannelSize, fecScheme);
    return mvdab::WhileOpen(mvdab::kServiceRefused,
                            [&q, changeCifLow] { return mvdab::ChangeServiceOrganisation(q, uint8_t(changeCifLow)); });
}

}  // extern "C"
