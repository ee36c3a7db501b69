#include "demodulation/compact_fft.h"

#include <cmath>
#include <utility>

namespace mvdab {

int32_t PrepareCompactFft(CompactFft* fft, int32_t length) {
    if (fft == nullptr) return 0;
    if (length != 256 && length != 512 && length != 1024 && length != 2048) return 0;
    fft->length = length;
    // Twiddles from double-precision sine and cosine, rounded once to float,
    // so that their error does not grow with the index.
    const double step = -2.0 * 3.14159265358979323846 / double(length);
    for (int32_t k = 0; k < length / 2; ++k) {
        fft->twiddle[2 * k] = static_cast<float>(std::cos(step * k));
        fft->twiddle[2 * k + 1] = static_cast<float>(std::sin(step * k));
    }
    int32_t bits = 0;
    while ((1 << bits) < length) ++bits;
    for (int32_t i = 0; i < length; ++i) {
        int32_t r = 0;
        for (int32_t b = 0; b < bits; ++b) r |= ((i >> b) & 1) << (bits - 1 - b);
        fft->reversed[i] = static_cast<uint16_t>(r);
    }
    return 1;
}

void RunCompactFft(const CompactFft* fft, float* buffer, bool forward) {
    const int32_t n = fft->length;
    for (int32_t i = 0; i < n; ++i) {
        const int32_t r = fft->reversed[i];
        if (r > i) {
            std::swap(buffer[2 * i], buffer[2 * r]);
            std::swap(buffer[2 * i + 1], buffer[2 * r + 1]);
        }
    }
    // The backward transform uses the conjugate twiddles.
    const float sign = forward ? 1.0f : -1.0f;
    for (int32_t half = 1; half < n; half *= 2) {
        const int32_t stride = n / (2 * half);  // twiddle index step at this stage
        for (int32_t start = 0; start < n; start += 2 * half) {
            float* a = buffer + 2 * start;
            float* b = a + 2 * half;
            for (int32_t k = 0; k < half; ++k) {
                const float wr = fft->twiddle[2 * k * stride];
                const float wi = sign * fft->twiddle[2 * k * stride + 1];
                const float br = b[2 * k] * wr - b[2 * k + 1] * wi;
                const float bi = b[2 * k] * wi + b[2 * k + 1] * wr;
                const float ar = a[2 * k];
                const float ai = a[2 * k + 1];
                a[2 * k] = ar + br;
                a[2 * k + 1] = ai + bi;
                b[2 * k] = ar - br;
                b[2 * k + 1] = ai - bi;
            }
        }
    }
}

}  // namespace mvdab
