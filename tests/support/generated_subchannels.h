// What a generated ensemble sends in its sub-channels, as a host learns it
// from the FIC (the parameters of FIG 0/1) and as the transmitter's payload
// sources produce it. Depends on the generator only, so that the black-box
// tests of the shared library can use it too.
#pragma once

#include <cstdint>
#include <vector>

#include "generator/ensemble_description.h"

namespace mvdab::test {

// The arguments of MVDAB_AddServiceCom for one sub-channel.
struct SubChannelParameters {
    int16_t startAddress;   // capacity units
    int8_t longForm;        // 0 short form, 1 long form
    int8_t tableIndex;      // short form: row 0..63
    int8_t optionAndLevel;  // long form: bit 2 set B, bits 1..0 level - 1
    int16_t size;           // capacity units
};

// The parameters of sub-channel `id` of `d` (start addresses resolved, as
// gen::Multiplex::Description() gives them); with `afterChange`, those after
// the description's reconfiguration. False if there is no such sub-channel.
bool DescribeSubChannel(const gen::EnsembleDescription& d, int32_t id, bool afterChange, SubChannelParameters* out);

// The first `logicalFrames` logical frames of sub-channel `id`'s payload,
// back to back, as the transmitter's payload source makes them; empty if
// there is no such sub-channel.
std::vector<uint8_t> SentPayload(const gen::EnsembleDescription& d, int32_t id, int64_t logicalFrames);

}  // namespace mvdab::test
