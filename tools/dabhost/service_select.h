// From the ensemble the FIC described to the receiver's service commands:
// which service the user means, the sub-channel of its primary component,
// the arguments that request it, and when an announced change of the
// multiplex has to be passed on.
#pragma once

#include <cstdint>
#include <string>

#include "service_output.h"
#include "tools/ficparse/ensemble.h"

struct ServiceChoice {
    uint32_t serviceId = 0;
    std::string label;              // empty for a service without one
    ServiceKind kind = ServiceKind::Data;
    ficparse::SubChannel subChannel;
};

// Finds the service named by `wanted`: its label (case and surrounding
// spaces ignored), else its id in hex with or without "0x". Takes the primary
// component (the first one if none is marked). False, with the reason, when
// no service matches, the component has no sub-channel (FIDC) or the
// sub-channel's organisation is not known (yet).
bool ChooseService(const ficparse::Ensemble& ensemble, const std::string& wanted, ServiceChoice* out,
                   std::string* why);

// The arguments of MVDAB_AddServiceCom and MVDAB_ChangeSCOrg for a sub-channel.
struct ServiceRequest {
    int8_t type = 0;            // 0 plain sub-channel, 3 DAB+
    int8_t subChannelId = 0;
    int16_t startAddress = 0;   // CU
    int8_t longForm = 0;
    int8_t tableIndex = 0;      // short form
    int8_t optionAndLevel = 0;  // long form: option in bit 2, level - 1 in bits 1..0
    int16_t size = 0;           // long form: CU
};
ServiceRequest RequestFor(ServiceKind kind, const ficparse::SubChannel& subChannel);

// True when two descriptions of a sub-channel put it at the same place with
// the same protection.
bool SameOrganisation(const ficparse::SubChannel& a, const ficparse::SubChannel& b);

// Watches the FIC for an announced change of the selected sub-channel: the
// change flags of FIG 0/0 say the sub-channel organisation changes at the
// occurrence change, and FIG 0/1 of the next configuration describes the
// sub-channel as it will be. Each announcement is passed on once.
class ReconfigurationFollower {
public:
    struct Change {
        ficparse::SubChannel next;  // the sub-channel after the change
        int cifCountHigh = 0;       // CIF count of the change: high part 0..19
        int cifCountLow = 0;        // low part 0..249
    };
    // The sub-channel as selected; forgets earlier announcements.
    void Select(const ficparse::SubChannel& current);
    // True, with `change` filled, when an announcement for the selected
    // sub-channel has to be passed on now. Once passed on (Passed), the
    // follower takes the next organisation as the current one.
    bool Due(const ficparse::Ensemble& ensemble, Change* change) const;
    void Passed(const Change& change);
    const ficparse::SubChannel& current() const { return current_; }
    int changesPassed() const { return passed_; }

private:
    ficparse::SubChannel current_;
    int passed_ = 0;
};
