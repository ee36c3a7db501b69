#include "acquisition/frame_entry.h"

namespace mvdab {

int32_t EnterFirstFrame() { return 1; }
void ResetFrameEntry() {}

}  // namespace mvdab
