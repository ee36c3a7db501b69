// State 1 of acquisition: confirms the frame position from agreeing null scans
// and lays out the mode-dependent buffers.
#pragma once

#include <cstdint>

namespace mvdab {

// Runs on the newest IqFrame. 1 when the frame position is known:
// pipeline.framePosition, workBlocks.historyBase, the older history slots and
// the WorkingPool layout are then valid; else 0.
int32_t ConfirmFramePosition();

}  // namespace mvdab
