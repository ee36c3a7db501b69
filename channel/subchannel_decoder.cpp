#include "channel/subchannel_decoder.h"

namespace mvdab {

int32_t DecodeSubChannel(ServiceComponent*) { return 1; }

}  // namespace mvdab
