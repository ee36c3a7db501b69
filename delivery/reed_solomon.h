// GF(256) tables and the Reed-Solomon decoders of the outer codes.
#pragma once

#include <cstdint>

namespace mvdab {

int32_t BuildGfTables();
void FreeGfTables();
int32_t InitRs120();
void FreeRs120();

}  // namespace mvdab
