#include "acquisition/tuning_input.h"

#include "device/tuning.h"

namespace mvdab {

int32_t CurrentBandwidthCode() { return TunedBandwidthCode(); }

}  // namespace mvdab
