// Layout of the mode-dependent regions at the start of WorkingPool, and the
// switch of IqHistory to its full depth once the frame position is known.
//
// Regions, each directly behind the one before (N = fftSize, K = carrierCount,
// complex values are float pairs, real part first):
//
//   referenceSymbol    N + K + 1 complex   phase reference, bin-indexed (below)
//   timingWeights      N floats            discriminator of the timing loop
//   frameCarriers      symbolsPerFrame rows of 2K floats
//   dftWork            N complex
//   weightedProducts   N complex
//   previousCarriers   K complex
//   currentCarriers    K complex
//   ficSoftBits        ficCodedBits bytes
//   ficWords           ficDecodedBits + 2 16-bit words
//   ficBytes           ficBytesPerCif * cifsPerFrame bytes
//   scratch            the rest below historyBase
#pragma once

#include <cstdint>

namespace mvdab {

struct ModeBuffers {
    float* referenceSymbol;      // entry K/2 + b: reference of DFT bin b; K/2 + s + b: shifted by s bins
    float* timingWeights;        // N weights over circular delay, dimensionless
    float* frameCarriers;        // soft output, row l = symbol l: K real parts then K imaginary parts
    float* dftWork;              // N complex, the symbol being transformed
    float* weightedProducts;     // N complex, differential products after the carrier weights
    float* previousCarriers;     // K complex, carrier order; swapped with currentCarriers by reference
    float* currentCarriers;      // K complex, carrier order
    uint8_t* ficSoftBits;        // ficCodedBits soft nibbles, one per byte
    uint16_t* ficWords;          // ficDecodedBits + 2 trellis words
    uint8_t* ficBytes;           // decoded FIBs of one transmission frame
    uint8_t* scratchStart;       // first free byte behind ficBytes
    int32_t scratchBytes;        // bytes free from scratchStart up to the oldest history slot in use
    const int32_t* frequencyDeinterleave;  // K float offsets, the mode's slice of the table
};
extern ModeBuffers modeBuffers;

// IqHistory depth once the frame position is known: 3 slots in mode I, 2 else.
int32_t HistoryDepth(int32_t transmissionMode);

// Writes the N + K + 1 complex entries of the mode's phase reference into
// `out`: carriers -K/2..-1 at 0..K/2-1, zero at K/2, carriers 1..K/2 at
// K/2+1..K, zeros up to N-1, then a copy of entries 0..K at N..N+K.
void BuildReferenceSymbol(int32_t transmissionMode, float* out);

// Writes the N timing weights of the mode: a ramp from -0.5 by 1/guardLength
// over the guard, 5.0 over the next trunc(0.444444 (N - guardLength)), -4.0 after.
void FillTimingWeights(int32_t transmissionMode, float* out);

// Lays out WorkingPool for mode.transmissionMode and makes the DFT plan of its
// length; the former plan is freed first unless `firstTime`. 1 on success,
// 0 if the DFT service failed (the plan is then empty).
int32_t ConfigureModeBuffers(int32_t firstTime);

// Puts the middle slot (and in mode I the oldest) in use and points
// historyBase at the oldest slot in use.
void SwitchOnHistory(int32_t transmissionMode);

}  // namespace mvdab
