#include "emulator/clock_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace emu {

namespace {

// Modified Bessel function of the first kind, order 0 (series), for the Kaiser window.
double BesselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
    }
    return sum;
}

constexpr double kPi = 3.14159265358979323846;
constexpr double kKaiserBeta = 6.0;  // error below -60 dB up to 0.375 cycles per sample
// Taps before the interpolation point: the kernel covers samples
// integer - kLead + 1 .. integer + kTaps - kLead.
constexpr int32_t kLead = ClockResampler::kTaps / 2;

// Nearest byte of x + 127.5, clipped.
uint8_t ToByte(float x) {
    const float b = x + 128.0f;
    return uint8_t(b < 0.0f ? 0.0f : (b >= 255.0f ? 255.0f : b));
}

// One output sample: the kernel row `k` (each coefficient twice, for I and
// Q) against kTaps interleaved samples from `s`.
inline void Convolve(const float* k, const float* s, float* i, float* q) {
#if defined(__SSE2__)
    // Two sums, so that the additions don't wait for each other.
    __m128 even = _mm_setzero_ps();
    __m128 odd = _mm_setzero_ps();
    for (int32_t t = 0; t < 2 * ClockResampler::kTaps; t += 8) {
        even = _mm_add_ps(even, _mm_mul_ps(_mm_loadu_ps(k + t), _mm_loadu_ps(s + t)));
        odd = _mm_add_ps(odd, _mm_mul_ps(_mm_loadu_ps(k + t + 4), _mm_loadu_ps(s + t + 4)));
    }
    __m128 acc = _mm_add_ps(even, odd);
    // Lanes hold I, Q, I, Q: add the upper pair onto the lower.
    acc = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
    float lanes[4];
    _mm_storeu_ps(lanes, acc);
    *i = lanes[0];
    *q = lanes[1];
#else
    float a = 0.0f;
    float b = 0.0f;
    for (int32_t t = 0; t < 2 * ClockResampler::kTaps; t += 2) {
        a += k[t] * s[t];
        b += k[t + 1] * s[t + 1];
    }
    *i = a;
    *q = b;
#endif
}

}  // namespace

ClockResampler::ClockResampler() : kernel_(size_t(kPhases + 1) * kTaps * 2) {
    // Row p interpolates at fraction p / kPhases: tap t weighs sample
    // integer + t - kLead + 1, at distance (t - kLead + 1) - fraction.
    const double half = kTaps / 2.0;
    const double i0Beta = BesselI0(kKaiserBeta);
    for (int32_t p = 0; p <= kPhases; ++p) {
        const double fraction = double(p) / kPhases;
        double sum = 0.0;
        double row[kTaps];
        for (int32_t t = 0; t < kTaps; ++t) {
            const double x = double(t - kLead + 1) - fraction;
            const double sinc = x == 0.0 ? 1.0 : std::sin(kPi * x) / (kPi * x);
            const double r = x / half;
            const double window = r * r >= 1.0 ? 0.0 : BesselI0(kKaiserBeta * std::sqrt(1.0 - r * r)) / i0Beta;
            row[t] = sinc * window;
            sum += row[t];
        }
        for (int32_t t = 0; t < kTaps; ++t) {
            kernel_[(size_t(p) * kTaps + t) * 2] = float(row[t] / sum);
            kernel_[(size_t(p) * kTaps + t) * 2 + 1] = float(row[t] / sum);
        }
    }
    Reset();
}

void ClockResampler::Reset() {
    // Silence (0.0 is a byte of 127.5) before the source's first sample, so
    // that the kernel always finds input under it.
    input_.assign(size_t(kLead - 1) * 2, 0.0f);
    base_ = -(kLead - 1);
    integer_ = 0;
    fraction_ = 0.0;
}

bool ClockResampler::Fill(SampleSource* source, int64_t last) {
    const int64_t have = base_ + int64_t(input_.size() / 2);
    if (last < have) return true;
    // Read in blocks of at least 8,192 samples to keep calls few.
    const int64_t want = std::max<int64_t>(last + 1 - have, 8192);
    bytes_.resize(size_t(want) * 2);
    const size_t got = source->Read(bytes_.data(), bytes_.size()) & ~size_t(1);
    const size_t old = input_.size();
    input_.resize(old + got);
    for (size_t i = 0; i < got; ++i) input_[old + i] = float(bytes_[i]) - 127.5f;
    return last < base_ + int64_t(input_.size() / 2);
}

size_t ClockResampler::Produce(SampleSource* source, double ppm, uint8_t* out, size_t samples) {
    const double step = 1.0 / (1.0 + ppm * 1.0e-6);
    size_t produced = 0;
    if (ppm == 0.0 && fraction_ == 0.0) {
        // The source's bytes as they are (x + 127.5 is exact for x = byte - 127.5).
        while (produced < samples) {
            const bool complete = Fill(source, integer_ + int64_t(samples - produced) - 1);
            const int64_t available = base_ + int64_t(input_.size() / 2) - integer_;
            const int64_t n = std::min<int64_t>(available, int64_t(samples - produced));
            const float* s = &input_[size_t(integer_ - base_) * 2];
            for (int64_t i = 0; i < 2 * n; ++i) out[produced * 2 + size_t(i)] = uint8_t(s[i] + 127.5f);
            if (n > 0) {
                produced += size_t(n);
                integer_ += n;
            }
            if (!complete) break;
        }
    } else {
        while (produced < samples) {
            // The kernel reaches from integer - kLead + 1 to integer + kTaps - kLead.
            if (!Fill(source, integer_ + kTaps - kLead)) break;
            const int64_t limit = base_ + int64_t(input_.size() / 2) - (kTaps - kLead);
            while (produced < samples && integer_ < limit) {
                const int32_t phase = int32_t(fraction_ * kPhases + 0.5);
                const float* k = &kernel_[size_t(phase) * kTaps * 2];
                const float* s = &input_[size_t(integer_ - kLead + 1 - base_) * 2];
                float i = 0.0f;
                float q = 0.0f;
                Convolve(k, s, &i, &q);
                out[produced * 2] = ToByte(i);
                out[produced * 2 + 1] = ToByte(q);
                ++produced;
                fraction_ += step;
                if (fraction_ >= 1.0) {
                    const double whole = std::floor(fraction_);
                    integer_ += int64_t(whole);
                    fraction_ -= whole;
                }
            }
        }
    }
    // Drop input that no later output can reach.
    const int64_t keepFrom = integer_ - kLead + 1;
    if (keepFrom - base_ > 65536) {
        input_.erase(input_.begin(), input_.begin() + ptrdiff_t(keepFrom - base_) * 2);
        base_ = keepFrom;
    }
    return produced;
}

}  // namespace emu
