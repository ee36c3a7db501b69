// OFDM modulator of the transmitter: one transmission frame of channel bits
// (frame_bits.h) in, one frame of complex baseband samples at 2.048 MS/s out.
//
//   gen::OfdmModulator mod(1);                       // mode I
//   const gen::ModeGeometry& g = mod.Geometry();
//   std::vector<uint8_t> bits(g.DataBitsPerFrame());  // 0/1 per byte
//   std::vector<std::complex<float>> frame(g.frameSamples);
//   mod.ModulateFrame(bits.data(), frame.data());
//   double power = mod.MeanFramePower();             // for ChannelModel
//
// A frame is: the null symbol (zeros), the phase reference symbol, then the
// data symbols l = 2 .. L, each carrying 2K bits by QPSK, frequency
// interleaving and differential modulation against the previous symbol, as
// the inverse DFT of size N preceded by a cyclic prefix of its last T_G
// samples. Every frame starts again from the phase reference symbol, so
// frames are independent of each other.
//
// Output scale: every active carrier has magnitude 1 and the inverse DFT is
// scaled by 1/sqrt(K), so the mean |x|^2 over the N useful samples of any
// symbol is exactly 1 (cyclic prefix about the same), 0 in the null symbol.
// The mean power over a whole frame is therefore L x T_S / T_F
// (MeanFramePower()), which is what ChannelModel wants as signalPower.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "generator/frame_bits.h"

namespace gen {

// (h + n) mod 4 of the phase reference symbol on carrier k of `mode`:
// the carrier sends exp(j pi/2 x value). k in -K/2 .. K/2, k != 0; -1 for a
// carrier outside that range (or k = 0).
int PhaseReferenceQuarterTurns(int mode, int k);

// Carrier k = F(n) that sends the n-th QPSK symbol of a data symbol,
// n = 0 .. K-1; 0 for n outside.
int InterleavedCarrier(int mode, int n);

class OfdmModulator {
public:
    // `mode` 1..4 (anything else is mode I, as Geometry()).
    explicit OfdmModulator(int mode);
    ~OfdmModulator();
    OfdmModulator(const OfdmModulator&) = delete;
    OfdmModulator& operator=(const OfdmModulator&) = delete;

    const ModeGeometry& Geometry() const { return geometry_; }

    // `bits`: DataBitsPerFrame() values 0/1 (any non-zero counts as 1), the
    // bits of data symbol l at offset (l-2) x 2K. `out`: frameSamples samples.
    void ModulateFrame(const uint8_t* bits, std::complex<float>* out);

    // Mean |x|^2 over whole frames, null symbol included: L x T_S / T_F.
    double MeanFramePower() const;

    // When on, ModulateFrame keeps a copy of the bits it sent: RecordedBits()
    // holds the 2K bits of data symbol l at offset (l-2) x 2K, one 0/1 per
    // byte, of the last frame. Off by default (no copy).
    void SetRecording(bool on) { recording_ = on; }
    const std::vector<uint8_t>& RecordedBits() const { return recorded_; }

private:
    void InverseDft(std::complex<float>* out);

    const ModeGeometry& geometry_;
    bool recording_ = false;
    std::vector<uint8_t> recorded_;
    std::vector<uint8_t> phase_;                  // eighth turns per carrier slot (k + K/2, centre skipped)
    std::vector<std::complex<double>> bins_;      // N DFT bins of the symbol being built
    std::vector<std::complex<double>> twiddles_;  // exp(+j 2 pi m / N), m = 0 .. N/2-1
    std::vector<uint32_t> bitReverse_;            // index permutation of the radix-2 transform
};

}  // namespace gen
