// Exported service commands.
#include "mvxdab.h"
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
    return mvdab::AddServiceRequest(
        Request(type, subChannelId, startAddress, longForm, tableIndex, optionAndLevel, subChannelSize, fecScheme));
}

MVDAB_API int32_t MVDAB_CALL MVDAB_DelServiceCom(int32_t /*type*/, int8_t subChannelId, int16_t /*packetAddress*/) {
    return mvdab::DeleteServiceRequest(subChannelId);
}

MVDAB_API int32_t MVDAB_CALL MVDAB_ChangeSCOrg(int8_t /*type*/, int8_t subChannelId, int16_t startAddress, int8_t longForm,
                                    int8_t tableIndex, int8_t optionAndLevel, int16_t subChannelSize,
                                    int16_t /*packetAddress*/, int8_t fecScheme, int8_t /*changeCifHigh*/,
                                    int8_t changeCifLow) {
    // The type is inherited from the record being changed; only the low part
    // of the CIF count is used.
    return mvdab::ChangeServiceOrganisation(
        Request(0, subChannelId, startAddress, longForm, tableIndex, optionAndLevel, subChannelSize, fecScheme),
        uint8_t(changeCifLow));
}

}  // extern "C"
