// MSC sub-channel decoding of one selected service.
#pragma once

#include <cstdint>

namespace mvdab {

struct ServiceComponent;

// Delivers the sub-channel's data of this transmission frame. The result
// is not looked at.
int32_t DecodeSubChannel(ServiceComponent* service);

}  // namespace mvdab
