// The compact FFT of the builds without FFTW against FFTW itself: the two
// must agree to within 1e-5 of the output's RMS on every bin, both
// directions, on each of the receiver's lengths.
#include <gtest/gtest.h>

#include <fftw3.h>

#include <cmath>
#include <random>
#include <vector>

#include "demodulation/compact_fft.h"

namespace mvdab {
namespace {

constexpr double kTolerance = 1e-5;  // of the output's RMS

// Bins further than the tolerance from the reference; a NaN counts as far.
int32_t BinsOff(const std::vector<float>& ours, const std::vector<float>& reference) {
    double power = 0.0;
    for (float v : reference) power += double(v) * v;
    const double limit = kTolerance * std::sqrt(power / double(ours.size() / 2));
    int32_t off = 0;
    for (size_t i = 0; i < ours.size(); i += 2)
        off += !(std::hypot(double(ours[i]) - reference[i], double(ours[i + 1]) - reference[i + 1]) <= limit);
    return off;
}

TEST(CompactFft, AgreesWithFftwOnEveryLengthBothDirections) {
    CompactFft fft;
    for (int32_t n : {256, 512, 1024, 2048}) {
        ASSERT_EQ(PrepareCompactFft(&fft, n), 1);
        std::mt19937 rng{static_cast<uint32_t>(n)};
        std::normal_distribution<float> dist(0.0f, 30.0f);
        std::vector<float> input(2 * n);
        for (float& x : input) x = dist(rng);
        // A strong tone on one bin beside the noise, as a locked symbol has.
        input[2 * 5] += 4000.0f;

        for (bool forward : {true, false}) {
            std::vector<float> ours = input;
            std::vector<float> reference = input;
            fftwf_complex* data = reinterpret_cast<fftwf_complex*>(reference.data());
            fftwf_plan plan = fftwf_plan_dft_1d(n, data, data, forward ? FFTW_FORWARD : FFTW_BACKWARD,
                                                FFTW_ESTIMATE);
            ASSERT_NE(plan, nullptr);
            fftwf_execute(plan);
            fftwf_destroy_plan(plan);
            RunCompactFft(&fft, ours.data(), forward);
            EXPECT_EQ(BinsOff(ours, reference), 0)
                << "length " << n << (forward ? " forward" : " backward");
        }
    }
    EXPECT_EQ(PrepareCompactFft(&fft, 4096), 0);
    EXPECT_EQ(PrepareCompactFft(&fft, 1000), 0);
}

}  // namespace
}  // namespace mvdab
