// OFDM demodulation of the symbols of one transmission frame into soft values.
#pragma once

#include <cstdint>

namespace mvdab {

// Demodulates the transmission frame at pipeline.frameSamples, honouring
// SymbolMask; its timing loop may move pipeline.framePositionExact.
int32_t DemodulateFrame();

}  // namespace mvdab
