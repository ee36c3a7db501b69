// Turning the 16 bytes of a FIG type 1 label into UTF-8 text.
#pragma once

#include <cstdint>

#include "tools/ficparse/ensemble.h"

namespace ficparse {

// Fills `label` from the raw bytes, the character set and the character flag
// field of a label FIG. Character set 0 is EBU Latin (ebu_latin.h), its
// control codes shown as '?'; 15 is UTF-8, invalid sequences become '?'; 6 is
// UCS-2, eight big-endian code units. Any other set is shown like 0.
// The short label takes the characters whose flag bit is set, bit 15 for the
// first character.
void DecodeLabel(const uint8_t raw[16], int charset, uint16_t shortMask, Label& label);

}  // namespace ficparse
