#include "delivery/gf_tables.h"

#include <cstdlib>

namespace mvdab {

GfTables gfTables = {kExpTable.data(), kLogTable.data(), nullptr, nullptr, nullptr};

namespace {

void Release(uint8_t** table) {
    std::free(*table);
    *table = nullptr;
}

}  // namespace

int32_t BuildGfTables() {
    GfTables& g = gfTables;
    g.expTable = kExpTable.data();
    g.logTable = kLogTable.data();
    if (g.mulTable == nullptr) g.mulTable = static_cast<uint8_t*>(std::malloc(kGfTableBytes));
    if (g.mulTable == nullptr) return 0;
    if (g.powerProductTable == nullptr) g.powerProductTable = static_cast<uint8_t*>(std::malloc(kGfTableBytes));
    if (g.powerProductTable == nullptr) return 0;
    if (g.divTable == nullptr) g.divTable = static_cast<uint8_t*>(std::malloc(kGfTableBytes));
    if (g.divTable == nullptr) return 0;

    for (int32_t a = 0; a < 256; ++a) {
        for (int32_t b = 0; b < 256; ++b) {
            uint8_t product = 0;
            uint8_t quotient = 0;
            if (a != 0 && b != 0) {
                const int32_t la = kLogTable[a];
                const int32_t lb = kLogTable[b];
                product = kExpTable[la + lb < 255 ? la + lb : la + lb - 255];
                quotient = kExpTable[la - lb >= 0 ? la - lb : la - lb + 255];
            }
            g.mulTable[a * 256 + b] = product;
            g.divTable[a * 256 + b] = quotient;
        }
    }
    for (int32_t i = 0; i < 16; ++i) {
        for (int32_t v = 0; v < 256; ++v) {
            for (int32_t j = 0; j < 16; ++j) {
                g.powerProductTable[i * 4096 + v * 16 + j] = g.mulTable[v * 256 + kExpTable[(i * j) % 255]];
            }
        }
    }
    return 1;
}

void FreeGfTables() {
    Release(&gfTables.powerProductTable);
    Release(&gfTables.divTable);
    Release(&gfTables.mulTable);
}

}  // namespace mvdab
