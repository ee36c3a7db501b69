// The one word of the tuning that acquisition reads: the bandwidth code
// handed to the device, which decides whether the power envelope is
// prefiltered (every code but 1).
#pragma once

#include <cstdint>

namespace mvdab {

// Bandwidth code of the current tuning; read without a lock, the host's
// thread writes it.
int32_t CurrentBandwidthCode();

}  // namespace mvdab
