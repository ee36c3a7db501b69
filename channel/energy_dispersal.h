// Removal of the energy dispersal scrambling from decoded bytes.
#pragma once

#include <cstdint>

namespace mvdab {

// XORs the scrambling sequence onto `byteCount` bytes in place, first bit in
// time in the top bit of each byte. The sequence starts afresh with every
// call (one CIF of the FIC or of a sub-channel). A null pointer or a count of
// 0 or less does nothing. Applying it twice restores the block.
void EnergyDisperse(uint8_t* bytes, int32_t byteCount);

}  // namespace mvdab
