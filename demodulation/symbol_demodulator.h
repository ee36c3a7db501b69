// OFDM demodulation of the symbols of one transmission frame into soft values.
//
// For every symbol that SymbolMask selects: unpack the useful part, rotate it
// by the frequency correction, DFT, keep the K active carriers. The phase
// reference symbol then sets the frame's amplitude scale, feeds the
// interference check and, through the inverse DFT of its carriers against the
// known reference, gives the impulse response for the timing loop. Each
// demodulated symbol gives the differential product with the symbol before,
// weighted and frequency de-interleaved into its row of FrameCarriers, and
// one step of the frequency loop.
#pragma once

#include <cstdint>

namespace mvdab {

// Demodulates the transmission frame at pipeline.frameSamples from
// workBlocks.historyBase, honouring SymbolMask, in the regions of modeBuffers
// (carrier order everywhere: carriers -K/2..-1, then +1..+K/2, no centre
// carrier). Writes FrameCarriers, samplePhase, samplePhaseIncrement,
// signalQualityDb, and through the timing loop framePositionExact. 1, or 0 without touching anything when the frame
// does not lie inside WorkingPool or the buffers or the DFT plan do not fit
// the mode in force.
int32_t DemodulateFrame();

// The steps, exposed for measurement and tests.

// Bytes b of `count` complex samples to floats b - 127.5, I then Q.
void UnpackSamples(const uint8_t* bytes, float* samples, int32_t count);
// DFT bins N-K/2..N-1 to carriers 0..K/2-1, bins 1..K/2 to K/2..K-1.
void ExtractCarriers(const float* bins, float* carriers, int32_t fftSize, int32_t carrierCount);
// Signal-to-noise ratio in dB from the scaled products of one symbol and the
// carriers of the symbol before, each product equalised by that carrier's
// power and compared with the nearest ideal +-0.707107, weighted by power.
float SignalQualityOf(const float* products, const float* previousCarriers, int32_t carrierCount,
                      double frameScale);
// The same one carrier at a time, the twin that the vector form must equal;
// `values` (2 carrierCount floats) receives the equalised products.
float SignalQualityOfScalar(const float* products, const float* previousCarriers, int32_t carrierCount,
                            double frameScale, float* values);

}  // namespace mvdab
