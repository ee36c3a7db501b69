#include "services/symbol_mask.h"

#include "receiver/receiver_state.h"

namespace mvdab {

int32_t SymbolMask[kMaxSymbolsPerFrame];

void ResetSymbolMask() {
    const ModeParameters& m = mode.parameters;
    for (int32_t i = 0; i < kMaxSymbolsPerFrame; ++i) SymbolMask[i] = 0;
    SymbolMask[0] = kMaskReference;
    for (int32_t i = 1; i <= m.firstMscSymbol - 2; ++i) SymbolMask[i] = kMaskReference | kMaskData;
    if (m.firstMscSymbol >= 2) SymbolMask[m.firstMscSymbol - 1] = kMaskData;
}

}  // namespace mvdab
