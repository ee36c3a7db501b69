#include "acquisition/coarse_frame_search.h"

namespace mvdab {

// Placeholder until the search lands: no decision, so state 0 times out
// exactly as it does on noise.
int32_t CoarseFrameSearch() { return 0; }
void ResetCoarseSearch() {}

}  // namespace mvdab
