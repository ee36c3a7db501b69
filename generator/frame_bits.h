// The meeting point of the transmitter's two layers: the multiplex (FIC and
// MSC coding) produces the channel bits of each transmission frame, and the
// OFDM modulator turns them into samples. Numbers from EN 300 401 clause 14,
// at 2.048 MS/s; `mode` is 1..4 for transmission modes I..IV throughout the
// transmitter.
//
// Channel bits of one transmission frame, one bit per byte (0 or 1):
//
//   +--------------------------+---------------------------------------------+
//   | FIC: ficBitsPerFrame     | MSC: cifsPerFrame x 55,296 (CIF 0, CIF 1..) |
//   +--------------------------+---------------------------------------------+
//   = (symbolsPerFrame - 1) x 2K bits, cut into 2K-bit data symbols in order:
//   symbol l = 2 .. 1+ficSymbols carry the FIC, the rest the MSC.
#pragma once

#include <cstdint>
#include <vector>

namespace gen {

struct ModeGeometry {
    int mode;              // 1..4
    int frameSamples;      // T_F, samples per transmission frame
    int nullSamples;       // T_NULL
    int symbolSamples;     // T_S = T_U + T_G
    int fftSize;           // T_U = N
    int guardSamples;      // T_G
    int carriers;          // K
    int carrierSpacingHz;  // Hz
    int symbolsPerFrame;   // L, phase reference included, null excluded
    int cifsPerFrame;      // CIFs per transmission frame
    int fibsPerFrame;      // FIBs per transmission frame
    int ficSymbols;        // data symbols carrying the FIC
    int mscSymbols;        // data symbols carrying the MSC
    int ficBitsPerFrame;   // coded FIC bits per frame = ficSymbols x 2K

    int BitsPerSymbol() const { return 2 * carriers; }
    int DataBitsPerFrame() const { return (symbolsPerFrame - 1) * 2 * carriers; }
};

constexpr int kCifBits = 55296;  // 864 CU of 64 bits
constexpr int kCapacityUnits = 864;

constexpr ModeGeometry kModeGeometry[4] = {
    {1, 196608, 2656, 2552, 2048, 504, 1536, 1000, 76, 4, 12, 3, 72, 9216},
    {2, 49152, 664, 638, 512, 126, 384, 4000, 76, 1, 3, 3, 72, 2304},
    {3, 49152, 345, 319, 256, 63, 192, 8000, 153, 1, 4, 8, 144, 3072},
    {4, 98304, 1328, 1276, 1024, 252, 768, 2000, 76, 2, 6, 3, 72, 4608},
};

// `mode` 1..4; any other value is treated as mode I.
inline const ModeGeometry& Geometry(int mode) {
    return kModeGeometry[(mode >= 1 && mode <= 4) ? mode - 1 : 0];
}

// Supplies the channel bits of consecutive transmission frames.
class FrameBitSource {
public:
    virtual ~FrameBitSource() = default;
    // Replaces `bits` with the next frame's DataBitsPerFrame() bits, laid out
    // as drawn above.
    virtual void NextFrame(std::vector<uint8_t>& bits) = 0;
};

}  // namespace gen
