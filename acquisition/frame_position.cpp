#include "acquisition/frame_position.h"

namespace mvdab {

int32_t ConfirmFramePosition() { return 0; }

}  // namespace mvdab
