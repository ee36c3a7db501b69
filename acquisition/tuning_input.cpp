#include "acquisition/tuning_input.h"

namespace mvdab {

// Until the tuning record is in place every tuning counts as the normal
// bandwidth, for which the prefilter runs.
int32_t CurrentBandwidthCode() { return 6; }

}  // namespace mvdab
