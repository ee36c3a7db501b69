// Narrow-band interference check on the phase reference symbol.
#pragma once

#include <cstdint>

namespace mvdab {

// Clears the excision state and sets every carrier weight to
// carrierWeightOne; part of ResetAcquisition.
void ResetExcision();

}  // namespace mvdab
