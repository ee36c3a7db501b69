#include "demodulation/carrier_arithmetic.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace mvdab {

namespace {

// One carrier's share of the frequency detector, held to +-kDetectorClip.
// Written as max then min with the comparisons of the SSE instructions, so
// that both paths agree bit for bit, NaN included (it becomes -clip).
inline float ClipDetector(float e) {
    const float raised = e > -kDetectorClip ? e : -kDetectorClip;
    return raised < kDetectorClip ? raised : kDetectorClip;
}

}  // namespace

void DifferentialProductsPlain(const float* current, const float* previous, float* out, int32_t count,
                               float scale) {
    for (int32_t i = 0; i < count; ++i) {
        const float cr = current[2 * i];
        const float ci = current[2 * i + 1];
        const float pr = previous[2 * i];
        const float pi = previous[2 * i + 1];
        out[2 * i] = (cr * pr + ci * pi) * scale;
        out[2 * i + 1] = (ci * pr + -(cr * pi)) * scale;
    }
}

double FrequencyErrorPlain(const float* products, int32_t count) {
    if (count <= 0) return 0.0;
    double sums[4] = {0.0, 0.0, 0.0, 0.0};
    for (int32_t i = 0; i < count; ++i) {
        const float x = products[2 * i];
        const float y = products[2 * i + 1];
        const float fromY = x >= 0.0f ? y : 0.0f;
        const float fromX = y >= 0.0f ? x : 0.0f;
        sums[i & 3] += static_cast<double>(ClipDetector(fromY - fromX));
    }
    return ((sums[0] + sums[1]) + (sums[2] + sums[3])) / count;
}

#if defined(__SSE2__)

void DifferentialProducts(const float* current, const float* previous, float* out, int32_t count, float scale) {
    const __m128 scales = _mm_set1_ps(scale);
    const __m128 negateImaginary = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0));
    int32_t i = 0;
    for (; i + 2 <= count; i += 2) {
        const __m128 c = _mm_loadu_ps(current + 2 * i);    // cr0 ci0 cr1 ci1
        const __m128 p = _mm_loadu_ps(previous + 2 * i);   // pr0 pi0 pr1 pi1
        const __m128 pReal = _mm_shuffle_ps(p, p, _MM_SHUFFLE(2, 2, 0, 0));
        const __m128 pImag = _mm_shuffle_ps(p, p, _MM_SHUFFLE(3, 3, 1, 1));
        const __m128 cSwapped = _mm_shuffle_ps(c, c, _MM_SHUFFLE(2, 3, 0, 1));  // ci0 cr0 ci1 cr1
        const __m128 cross = _mm_xor_ps(_mm_mul_ps(cSwapped, pImag), negateImaginary);  // ci*pi, -(cr*pi)
        _mm_storeu_ps(out + 2 * i, _mm_mul_ps(_mm_add_ps(_mm_mul_ps(c, pReal), cross), scales));
    }
    if (i < count) DifferentialProductsPlain(current + 2 * i, previous + 2 * i, out + 2 * i, count - i, scale);
}

double FrequencyError(const float* products, int32_t count) {
    if (count <= 0) return 0.0;
    const __m128 zero = _mm_setzero_ps();
    const __m128 lowest = _mm_set1_ps(-kDetectorClip);
    const __m128 highest = _mm_set1_ps(kDetectorClip);
    __m128d sums01 = _mm_setzero_pd();
    __m128d sums23 = _mm_setzero_pd();
    int32_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const __m128 a = _mm_loadu_ps(products + 2 * i);      // x0 y0 x1 y1
        const __m128 b = _mm_loadu_ps(products + 2 * i + 4);  // x2 y2 x3 y3
        const __m128 x = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 y = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
        const __m128 fromY = _mm_and_ps(_mm_cmpge_ps(x, zero), y);
        const __m128 fromX = _mm_and_ps(_mm_cmpge_ps(y, zero), x);
        const __m128 e = _mm_min_ps(_mm_max_ps(_mm_sub_ps(fromY, fromX), lowest), highest);
        sums01 = _mm_add_pd(sums01, _mm_cvtps_pd(e));
        sums23 = _mm_add_pd(sums23, _mm_cvtps_pd(_mm_movehl_ps(e, e)));
    }
    double sums[4];
    _mm_storeu_pd(sums, sums01);
    _mm_storeu_pd(sums + 2, sums23);
    // The carriers left over continue in the lanes they would have had.
    for (int32_t j = 0; i < count; ++i, ++j) {
        const float x = products[2 * i];
        const float y = products[2 * i + 1];
        const float fromY = x >= 0.0f ? y : 0.0f;
        const float fromX = y >= 0.0f ? x : 0.0f;
        sums[j] += static_cast<double>(ClipDetector(fromY - fromX));
    }
    return ((sums[0] + sums[1]) + (sums[2] + sums[3])) / count;
}

#else

void DifferentialProducts(const float* current, const float* previous, float* out, int32_t count, float scale) {
    DifferentialProductsPlain(current, previous, out, count, scale);
}

double FrequencyError(const float* products, int32_t count) { return FrequencyErrorPlain(products, count); }

#endif

}  // namespace mvdab
