// FIC decoding: the soft values of the FIC symbols of one transmission frame
// to FIBs, their CRC check, the reception state that follows from it, and the
// hand-over of all FIBs of the frame to the host's FIC callbacks.
#pragma once

#include <cstdint>

#include "channel/soft_word.h"

namespace mvdab {

// State of the FIC stage, demodulation thread only.
struct FicDecoderState {
    // Sum of the running failed-FIB totals of the CIFs since the last clean
    // CIF; 72 or more restarts acquisition. Cleared by ResetAcquisition.
    int32_t ficErrorCount;
    uint8_t cifCountValid;      // 1: latestCifCountLow comes from FIG 0/0 of this frame
    uint8_t latestCifCountLow;  // CIF count low part from FIG 0/0, 0..249
    uint16_t ficFlags;          // flags handed over with the last frame's FIBs
    // How the stage reaches the device's good-reception line; SetGoodReceptionLine
    // unless a test puts its own observer here. Returns 1 on success.
    int32_t (*setReceptionLine)(int32_t level);
};
extern FicDecoderState ficDecoder;

// Failed FIBs tolerated in one frame before syncState falls to 3, by mode I..IV.
constexpr int32_t kTolerableFibErrors[4] = {4, 1, 1, 2};
// Shift of the 32-bit CRC mask into ficFlags, by mode: the first FIB lands in bit 15.
constexpr int32_t kFicFlagShift[4] = {4, 13, 12, 10};
// ficErrorCount at which acquisition restarts.
constexpr int32_t kFicErrorLimit = 72;
// Good CIFs in a row before the reception line goes on, and the signal
// quality in dB below which a good CIF does not count.
constexpr int32_t kGoodReceptionCifs = 40;
constexpr float kGoodReceptionQualityDb = 4.8f;

// Decodes the FIC of the transmission frame that DemodulateFrame left in
// FrameCarriers (from row 1 on), sets syncState, ficErrorCount and perhaps
// resyncRequest, drives the reception line while ledMode is on, calls the FIC
// and MW FIC callbacks with all FIBs, and while cifCountWanted is 1 looks up
// the CIF count. Always returns 1. Does nothing while the mode's buffers are
// not laid out.
int32_t DecodeFic();

// ficErrorCount = 0; part of ResetAcquisition.
void ResetFicDecoder();

// Checks the CRC of the fibsPerCif FIBs of 32 bytes at `bytes` (one CIF of
// the mode in force); each FIB shifts one bit into *goodMask, 1 for a good
// CRC. Returns the number of failed FIBs.
int32_t CheckFibCrc(const uint8_t* bytes, uint32_t* goodMask);

// Looks for FIG 0/0 in the good FIBs of a frame. `flags` as handed to the
// callbacks: its low 3 bits give the mode and so the number of FIBs, bit
// 15 - i says whether FIB i is good. Returns 1 and the CIF count low part in
// *cifCountLow for the first FIG 0/0 found, and the index of its FIB in
// *fibIndex if that is not null; else 0.
int32_t FindEnsembleInfo(const uint8_t* fibs, uint16_t flags, uint8_t* cifCountLow, int32_t* fibIndex = nullptr);

// Builds the trellis words of one CIF of the FIC from its coded soft nibbles,
// undoing the FIC's puncturing: 32 words per puncturing block, then 6 tail
// words. Returns the number of words, 32 * punctureBlocks + 6.
int32_t AssembleFicWords(const uint8_t* nibbles, int32_t punctureBlocks, SoftWord* words);

}  // namespace mvdab
