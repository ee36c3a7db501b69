// MSC sub-channel decoding of one selected service: soft nibbles, time
// de-interleaving, depuncturing, Viterbi decoding and energy dispersal, CIF by
// CIF, and delivery of one transmission frame's bytes.
//
// The time de-interleaver is done on the write side. The record's timeStore
// holds 16 slots of S x 64 bytes (S capacity units), one byte per coded bit:
//
//   timeStore: | slot 0 | slot 1 | ... | slot 15 |      slot = S x 64 bytes
//
// Coded bit j of a CIF goes to offset j of slot (delay[j mod 16] + timeIndex)
// mod 16; slot timeIndex then holds a complete de-interleaved CIF and is read
// straight through.
#pragma once

#include <cstdint>

#include "channel/soft_word.h"

namespace mvdab {

struct ServiceComponent;

// Receiver delay in CIFs of coded bit j, by j mod 16: 15 minus the bit
// reversal of j mod 16, so that with the transmitter's delay every bit is
// late by 15 CIFs.
constexpr int32_t kTimeInterleaveDelays[16] = {15, 7, 11, 3, 13, 5, 9, 1, 14, 6, 10, 2, 12, 4, 8, 0};

// Puncturing vector PI (1..24) as a 32-bit word, position 0 in the top bit:
// a set bit is a sent mother-code bit. Index 0 unused.
constexpr uint32_t kPunctureVectors[25] = {
    0,          0xC8888888, 0xC888C888, 0xC8C8C888, 0xC8C8C8C8, 0xCCC8C8C8, 0xCCC8CCC8, 0xCCCCCCC8, 0xCCCCCCCC,
    0xECCCCCCC, 0xECCCECCC, 0xECECECCC, 0xECECECEC, 0xEEECECEC, 0xEEECEEEC, 0xEEEEEEEC, 0xEEEEEEEE,
    0xFEEEEEEE, 0xFEEEFEEE, 0xFEFEFEEE, 0xFEFEFEFE, 0xFFFEFEFE, 0xFFFEFFFE, 0xFFFFFFFE, 0xFFFFFFFF,
};

// One puncturing run of a sub-channel: `blocks` blocks of 128 mother-code
// bits, punctured with vector `puncture`.
struct PunctureRunDesc {
    int32_t blocks;    // blocks of 32 decoded bits; 0 or less: no run
    int32_t puncture;  // 1..24
};

// The runs of a record's protection, in order: up to four for the short
// form, two for the long form. Returns how many entries of `runs` are used.
int32_t SubChannelRuns(const ServiceComponent& record, PunctureRunDesc runs[4]);

// Coded bits per CIF that the runs and the 12 tail bits occupy.
int32_t SubChannelCodedBits(const ServiceComponent& record);

// Rebuilds the mother code of one CIF from the de-interleaved nibbles at
// `src`: bitsPerCif words from the runs, then the 6 tail words. Returns the
// number of words written.
int32_t DepunctureSubChannel(const PunctureRunDesc* runs, int32_t runCount, const uint8_t* src, SoftWord* words);

// Decodes the record's CIFs of the transmission frame in FrameCarriers and
// delivers the frame once the time de-interleaver has been filled. The
// result is not looked at.
int32_t DecodeSubChannel(ServiceComponent* service);

}  // namespace mvdab
