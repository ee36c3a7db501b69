// The per-carrier arithmetic of every demodulated symbol: the differential
// product and the phase detector of the frequency loop. Each has an SSE2
// form, used on x86-64, and a plain twin that gives the same result bit for
// bit (same operations, same order of summation), used elsewhere and as the
// reference in tests.
#pragma once

#include <cstdint>

namespace mvdab {

// out[i] = current[i] * conj(previous[i]) * scale for i < count complex
// values (float pairs, real part first). Real part (cr*pr + ci*pi) * scale,
// imaginary part (ci*pr - cr*pi) * scale.
void DifferentialProducts(const float* current, const float* previous, float* out, int32_t count, float scale);
void DifferentialProductsPlain(const float* current, const float* previous, float* out, int32_t count,
                               float scale);

// Largest share of one carrier in the frequency detector. A clean carrier's
// product has magnitude about 0.7071, so its share stays inside; a strong
// narrow-band interferer puts products of hundreds on the few carriers it
// covers, all turning by its own offset from the carrier grid, and without
// the clip those few outweigh the whole ensemble and pull the loop off.
constexpr float kDetectorClip = 1.0f;

// Mean over `count` products (x, y) of the phase detector
// e = (x >= 0 ? y : 0) - (y >= 0 ? x : 0): y - x in the first quadrant, -x in
// the second, 0 in the third, y in the fourth; over the four QPSK points it
// averages to 0.7071 * sin of their common phase turn. Each carrier's e is
// held to +-kDetectorClip. Carrier i is summed in double in partial sum
// i mod 4; the sums are combined as (s0 + s1) + (s2 + s3). 0.0 for a count
// of 0 or less.
double FrequencyError(const float* products, int32_t count);
double FrequencyErrorPlain(const float* products, int32_t count);

}  // namespace mvdab
