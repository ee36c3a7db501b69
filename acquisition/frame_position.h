// State 1 of acquisition: confirms the frame position from agreeing null scans
// and lays out the mode-dependent buffers.
#pragma once

#include <cstdint>

namespace mvdab {

// Runs on the newest IqFrame. 1 when the frame position is known:
// pipeline.framePosition, workBlocks.historyBase, the older history slots and
// the WorkingPool layout are then valid; else 0. When the DFT service fails
// to make a plan for the new mode the result is 0, no plan and no layout are
// claimed (configuredMode is -1) and pipeline.resyncRequest asks the frame
// step for a clean restart of the search.
int32_t ConfirmFramePosition();

// 1 when the three newest NullPositions agree pairwise (newest with second,
// second with third), else 0.
int32_t NullPositionsAgree();

// Two scan results agree when they differ by less than `tolerance`, or by
// less than `tolerance` from a whole frame period (a null that drifted across
// the edge of the scan window).
int32_t NullPositionPairAgrees(int32_t a, int32_t b, int32_t framePeriod, int32_t tolerance);

// Byte offset from historyBase of the next transmission frame, from the
// newest null position p (samples), with `remainingSamples` of the newest
// IqFrame not yet scanned and the history depth of the mode:
// 2p - timingBackoffBytes[mode] - 2 remainingSamples + depth * 240,640.
int32_t FramePositionFromNull(int32_t nullPosition, int32_t transmissionMode, int32_t remainingSamples);

}  // namespace mvdab
