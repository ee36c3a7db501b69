// State 2 of acquisition: measures the frequency error of the first frame.
#pragma once

#include <cstdint>

namespace mvdab {

// Reads the transmission frame at pipeline.frameSamples and sets the
// frequency correction. The result is not looked at.
int32_t EnterFirstFrame();
// Clears the filter history of the entry estimate; part of ResetAcquisition.
void ResetFrameEntry();

}  // namespace mvdab
