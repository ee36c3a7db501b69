// State 0 of acquisition: finds the transmission mode from the power of the
// raw samples alone.
#pragma once

#include <cstdint>

namespace mvdab {

// Runs on the newest IqFrame. 1 when a mode has been decided and the mode
// parameters are filled, else 0.
int32_t CoarseFrameSearch();
// Puts the search state (power averages, dips, votes, null positions,
// prefilter history) to its start values; part of ResetAcquisition.
void ResetCoarseSearch();

}  // namespace mvdab
