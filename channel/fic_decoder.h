// FIC decoding: soft values of the FIC symbols to FIBs, CRC check, delivery.
#pragma once

#include <cstdint>

namespace mvdab {

// Decodes the FIC of the transmission frame that DemodulateFrame left in
// FrameCarriers, writes receiverStatus.syncState, may set resyncRequest.
int32_t DecodeFic();
// ficErrorCount = 0; part of ResetAcquisition.
void ResetFicDecoder();

}  // namespace mvdab
