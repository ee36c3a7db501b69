// A compact complex FFT for the builds that have no FFTW (the Windows cross
// build): iterative radix-2, decimation in time, in place, natural order on
// both sides, unscaled, on the receiver's four lengths. FFTW stays the
// transform of the Linux build; a test holds the two to the same results.
//
// Layout of a transform buffer: `length` complex values, 32-bit floats,
//   [re0 im0 re1 im1 ... re(N-1) im(N-1)]
#pragma once

#include <cstdint>

namespace mvdab {

constexpr int32_t kCompactFftMaxLength = 2048;

struct CompactFft {
    int32_t length;                                  // complex points: 256, 512, 1024 or 2048
    float twiddle[kCompactFftMaxLength];             // e^(-2 pi j k / length), k < length/2, re/im pairs
    uint16_t reversed[kCompactFftMaxLength];         // bit-reversed index of each position
};

// Fills the tables for `length`. 1, or 0 for a length other than the four.
int32_t PrepareCompactFft(CompactFft* fft, int32_t length);
// Forward: X[k] = sum x[n] e^(-2 pi j n k / N); backward: the same with +j.
void RunCompactFft(const CompactFft* fft, float* buffer, bool forward);

}  // namespace mvdab
