// DAB+ audio superframes: header, AU start addresses, AU CRCs, firecode and
// RS(120,110) parity with its column interleaving.
#pragma once

#include <cstdint>
#include <vector>

#include "generator/payload_sources.h"

namespace gen {

struct DabPlusLayout {
    int numAus;        // access units per superframe: 2, 3, 4 or 6
    int firstAuStart;  // bytes of the header, where AU 0 starts: 5, 6, 8 or 11
};
DabPlusLayout DabPlusLayoutFor(const DabPlusAudio& audio);

// Builds one superframe of 120 * s bytes into `out` from exactly numAus AU
// payloads (without their CRC). The last payload is padded with zero bytes so
// that the last AU ends at byte 110 * s. False, with `out` untouched, if the
// count is wrong, s is outside 1..37 or the payloads do not fit.
bool BuildDabPlusSuperframe(const DabPlusAudio& audio, int s, const std::vector<std::vector<uint8_t>>& payloads,
                            uint8_t* out);

// Adds the RS(120,110) parity (bytes 110 * s onwards) to a superframe whose
// first 110 * s bytes are complete.
void AddSuperframeParity(uint8_t* superframe, int s);

}  // namespace gen
