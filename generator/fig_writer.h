// Encoders of the FIGs the multiplex sends, each returned whole: header byte
// (type and length) then data field.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "generator/ensemble_description.h"
#include "generator/protection_profiles.h"

namespace gen {

using Fig = std::vector<uint8_t>;

// Largest FIG the multiplex builds (header included): a FIB group's first FIB
// also holds the ensemble information (7 bytes at most) before it.
constexpr size_t kMaxFigBytes = 23;

// FIG 0/0. `changeFlags` 0..3; `occurrenceChange` (low part of the CIF count
// of the change) is sent only when the flags are not 0.
Fig EnsembleInformationFig(uint16_t eid, int changeFlags, bool alarm, int cifCount, int occurrenceChange);

// One sub-channel as signalled in FIG 0/1.
struct SubChannelOrganisation {
    int id = 0;              // SubChId
    int startCu = 0;         // capacity units
    SubChannelProfile profile;
    Protection protection;
};
// FIG 0/1 for all sub-channels, split into FIGs of at most kMaxFigBytes;
// `next` sets C/N (the organisation announced for after a change).
std::vector<Fig> SubChannelOrganisationFigs(const std::vector<SubChannelOrganisation>& subChannels, bool next);

// FIG 0/2: one list for the 16-bit and one for the 32-bit service ids.
std::vector<Fig> ServiceOrganisationFigs(const std::vector<ServiceDesc>& services);
// FIG 0/3 for every packet-mode component.
std::vector<Fig> PacketComponentFigs(const std::vector<ServiceDesc>& services);

// FIG 1/0 and FIG 1/1: charset 0, 16 characters padded with spaces.
Fig EnsembleLabelFig(uint16_t eid, const std::string& label, uint16_t characterFlags);
Fig ServiceLabelFig(uint16_t sid, const std::string& label, uint16_t characterFlags);

}  // namespace gen
