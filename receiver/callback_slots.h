// The host's callback slots, null at load. Written by the host's thread,
// read once per call by the stage that delivers (hence atomic); a slot can be
// replaced, never emptied, and survives stop and close.
#pragma once

#include <atomic>

#include "mvxdab.h"

namespace mvdab {

extern std::atomic<MVDAB_DataCallBack> ficCallback;              // all FIBs of a transmission frame
extern std::atomic<MVDAB_DataCallBack> mwFicCallback;            // the same, right after the FIC slot
extern std::atomic<MVDAB_DataCallBack> mscCallback;              // sub-channel bytes or DAB+ superframes
extern std::atomic<MVDAB_PacketCallBack> packetCallback;         // packets of a packet-mode sub-channel
extern std::atomic<MVDAB_StreamDataCallBack> streamDataCallback; // corrected transport packets of a T-DMB stream

}  // namespace mvdab
