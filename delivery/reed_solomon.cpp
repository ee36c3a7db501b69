#include "delivery/reed_solomon.h"

namespace mvdab {

int32_t BuildGfTables() { return 1; }
void FreeGfTables() {}
int32_t InitRs120() { return 1; }
void FreeRs120() {}

}  // namespace mvdab
