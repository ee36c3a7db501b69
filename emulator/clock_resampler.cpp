#include "emulator/clock_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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

uint8_t ToByte(float v) {
    const float b = std::floor(v + 127.5f + 0.5f);
    return uint8_t(b < 0.0f ? 0.0f : (b > 255.0f ? 255.0f : b));
}

}  // namespace

ClockResampler::ClockResampler() : kernel_(size_t(kPhases + 1) * kTaps) {
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
        for (int32_t t = 0; t < kTaps; ++t) kernel_[size_t(p) * kTaps + t] = float(row[t] / sum);
    }
    Reset();
}

void ClockResampler::Reset() {
    input_.clear();
    base_ = 0;
    integer_ = 0;
    fraction_ = 0.0;
}

bool ClockResampler::Fill(SampleSource* source, int64_t last) {
    const int64_t have = base_ + int64_t(input_.size() / 2);
    if (last < have) return true;
    // Read in blocks of at least 8,192 samples to keep calls few.
    const int64_t want = std::max<int64_t>(last + 1 - have, 8192);
    const size_t old = input_.size();
    input_.resize(old + size_t(want) * 2);
    const size_t got = source->Read(input_.data() + old, size_t(want) * 2) & ~size_t(1);
    input_.resize(old + got);
    return last < base_ + int64_t(input_.size() / 2);
}

size_t ClockResampler::Produce(SampleSource* source, double ppm, uint8_t* out, size_t samples) {
    const double step = 1.0 / (1.0 + ppm * 1.0e-6);
    size_t produced = 0;
    if (ppm == 0.0 && fraction_ == 0.0) {
        // Plain copy of the source's bytes.
        while (produced < samples) {
            const int64_t need = integer_ + int64_t(samples - produced) - 1;
            const bool complete = Fill(source, need);
            const int64_t available = base_ + int64_t(input_.size() / 2) - integer_;
            const int64_t n = std::min<int64_t>(available, int64_t(samples - produced));
            if (n > 0) {
                std::memcpy(out + produced * 2, input_.data() + (integer_ - base_) * 2, size_t(n) * 2);
                produced += size_t(n);
                integer_ += n;
            }
            if (!complete) break;
        }
    } else {
        while (produced < samples) {
            // Input needed for the next output, with the kernel's reach.
            const int64_t first = integer_ - kLead + 1;
            if (!Fill(source, integer_ + kTaps - kLead)) break;
            int32_t phase = int32_t(std::lround(fraction_ * kPhases));
            const float* k = &kernel_[size_t(phase) * kTaps];
            float i = 0.0f;
            float q = 0.0f;
            for (int32_t t = 0; t < kTaps; ++t) {
                const int64_t index = first + t;
                if (index < base_) continue;  // before the source's first sample: silence
                const uint8_t* s = &input_[size_t(index - base_) * 2];
                i += k[t] * (float(s[0]) - 127.5f);
                q += k[t] * (float(s[1]) - 127.5f);
            }
            out[produced * 2] = ToByte(i);
            out[produced * 2 + 1] = ToByte(q);
            ++produced;
            fraction_ += step;
            const double whole = std::floor(fraction_);
            integer_ += int64_t(whole);
            fraction_ -= whole;
        }
    }
    // Drop input that no later output can reach.
    const int64_t keepFrom = integer_ - kLead + 1;
    if (keepFrom - base_ > 65536) {
        const size_t drop = size_t(keepFrom - base_) * 2;
        input_.erase(input_.begin(), input_.begin() + ptrdiff_t(drop));
        base_ = keepFrom;
    }
    return produced;
}

}  // namespace emu
