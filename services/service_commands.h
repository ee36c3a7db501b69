// The host's service commands. They only change the lists of ReceiverStatus,
// under requestMailbox; the demodulation thread takes the requests over at
// the next IqFrame.
#pragma once

#include <cstdint>

namespace mvdab {

// Parameters of a sub-channel as the host describes it (FIG 0/1).
struct ServiceRequest {
    int8_t type;             // 0 plain, 3 DAB+
    int8_t subChannelId;
    int16_t startAddress;    // capacity units
    int8_t longForm;         // 0 short form, else long form
    int8_t tableIndex;       // short form: low 6 bits are taken
    int8_t optionAndLevel;   // long form: bit 2 option, bits 1..0 protection level
    int16_t subChannelSize;  // long form: capacity units
    int8_t fecScheme;        // low 2 bits are stored
};

// Results of the commands.
constexpr int32_t kServiceAccepted = 1;
constexpr int32_t kServiceRefused = 0;
constexpr int32_t kServiceAlreadyRequested = 5;
constexpr int32_t kServiceNotFound = 4;

// 1 accepted; 5 this sub-channel is already requested; 0 refused.
int32_t AddServiceRequest(const ServiceRequest& request);
// 1 deleted; 4 no such record or the lock wasn't to be had; 0 a tuning
// request is waiting.
int32_t DeleteServiceRequest(int8_t subChannelId);
// Announces a change of an active sub-channel's organisation at the CIF
// whose count modulo 250 is changeCif. 1 announced; 0 refused.
int32_t ChangeServiceOrganisation(const ServiceRequest& request, uint8_t changeCif);

}  // namespace mvdab
