// SymbolMask: which symbols of a transmission frame are transformed and which
// are demodulated into FrameCarriers.
//
//   value 0     skip the symbol
//   0x10        transform only (reference of the next symbol)
//   0x11        transform and demodulate
//   0x01        demodulate (the symbol is transformed anyway)
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kMaskReference = 0x10;
constexpr int32_t kMaskData = 0x01;

// Writes the FIC-only form for the mode in force: entry 0 (phase reference)
// 0x10, entries 1 .. firstMscSymbol-2 0x11, firstMscSymbol-1 0x01, rest 0.
void ResetSymbolMask();

}  // namespace mvdab
