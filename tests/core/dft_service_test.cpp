// The DFT service against a direct transform, its refusals, and the sample
// rotation against direct sine and cosine.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "demodulation/dft_service.h"

namespace mvdab {
namespace {

using cd = std::complex<double>;

std::vector<float> RandomSignal(int32_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, 30.0f);
    std::vector<float> v(2 * n);
    for (float& x : v) x = dist(rng);
    return v;
}

// Forward (unscaled, natural bin order: negative frequencies in the upper
// half) against the direct sum, then backward, which must multiply by N. The
// buffer is 8- but not 16-byte aligned, as regions in the pool may be.
class DftLength : public ::testing::TestWithParam<int32_t> {};

TEST_P(DftLength, MatchesDirectTransformInPlaceOnUnalignedBuffer) {
    const int32_t n = GetParam();
    DftPlan plan{};
    ASSERT_TRUE(DftSucceeded(CreateDftPlan(&plan, n)));
    ASSERT_TRUE(DftSucceeded(CommitDftPlan(&plan)));
    const std::vector<float> input = RandomSignal(n, 7u + n);
    std::vector<float> storage(2 * n + 2);
    float* buffer = storage.data() + 2 * (reinterpret_cast<uintptr_t>(storage.data()) % 16 == 0 ? 1 : 0);
    std::copy(input.begin(), input.end(), buffer);

    ASSERT_TRUE(DftSucceeded(ForwardDft(&plan, buffer)));
    double worst = 0.0;
    for (int32_t b = 0; b < n; ++b) {
        cd sum = 0.0;
        for (int32_t i = 0; i < n; ++i)
            sum += cd(input[2 * i], input[2 * i + 1]) *
                   std::polar(1.0, -2.0 * M_PI * static_cast<double>((static_cast<int64_t>(b) * i) % n) / n);
        worst = std::max(worst, std::abs(cd(buffer[2 * b], buffer[2 * b + 1]) - sum));
    }
    EXPECT_LT(worst, 1e-4 * 30.0 * n);

    ASSERT_TRUE(DftSucceeded(BackwardDft(&plan, buffer)));
    worst = 0.0;
    for (int32_t i = 0; i < 2 * n; ++i) worst = std::max(worst, std::abs(buffer[i] - n * static_cast<double>(input[i])));
    EXPECT_LT(worst, 1e-4 * 30.0 * n);
    FreeDftPlan(&plan);
}

INSTANTIATE_TEST_SUITE_P(ModeLengths, DftLength, ::testing::Values(2048, 512, 256, 1024));

TEST(DftPlanLifecycle, RefusesWhatItCannotServe) {
    DftPlan plan{};
    std::vector<float> buffer(4096);
    EXPECT_TRUE(DftSucceeded(FreeDftPlan(&plan))) << "freeing the empty plan is harmless";
    EXPECT_FALSE(DftSucceeded(ForwardDft(&plan, buffer.data()))) << "empty plan";
    EXPECT_FALSE(DftSucceeded(CommitDftPlan(&plan)));
    EXPECT_FALSE(DftSucceeded(CreateDftPlan(&plan, 1000)));
    EXPECT_FALSE(DftSucceeded(CreateDftPlan(&plan, 4096)));
    EXPECT_FALSE(DftSucceeded(CreateDftPlan(nullptr, 2048)));

    ASSERT_TRUE(DftSucceeded(CreateDftPlan(&plan, 512)));
    EXPECT_FALSE(DftSucceeded(ForwardDft(&plan, buffer.data()))) << "created but not committed";
    EXPECT_FALSE(DftSucceeded(CreateDftPlan(&plan, 256))) << "a standing plan is freed first";
    ASSERT_TRUE(DftSucceeded(CommitDftPlan(&plan)));
    EXPECT_FALSE(DftSucceeded(BackwardDft(&plan, nullptr)));
    EXPECT_TRUE(DftSucceeded(BackwardDft(&plan, buffer.data())));

    EXPECT_TRUE(DftSucceeded(FreeDftPlan(&plan)));
    EXPECT_TRUE(DftSucceeded(FreeDftPlan(&plan)));
}

// Sample n must come out multiplied by e^(j(phase + n inc)), to single
// precision, over the longest block (2048 samples, 511 recurrence steps).
TEST(RotateSamples, FollowsDirectSineAndCosineOver2048Samples) {
    const int32_t n = 2048;
    const std::vector<float> input = RandomSignal(n, 3);
    const double cases[][2] = {
        {1.0, 2.0e-5}, {5.9, -0.0031}, {0.25, 2.0943951}, {6.2, -3.1}, {2.0, 1.0e-9},
    };
    for (const auto& c : cases) {
        std::vector<float> rotated = input;
        RotateSamples(rotated.data(), n, c[0], c[1]);
        double worst = 0.0;
        for (int32_t i = 0; i < n; ++i) {
            const cd expected = cd(input[2 * i], input[2 * i + 1]) * std::polar(1.0, c[0] + i * c[1]);
            const double error = std::abs(cd(rotated[2 * i], rotated[2 * i + 1]) - expected);
            worst = std::max(worst, error / std::max(1.0, std::abs(expected)));
        }
        EXPECT_LT(worst, 2e-4) << "phase " << c[0] << " increment " << c[1];

        // The vector path and the fused unpacking keep the plain loop's bits.
        std::vector<float> plain = input;
        RotateSamplesScalar(plain.data(), n, c[0], c[1]);
        EXPECT_EQ(0, std::memcmp(plain.data(), rotated.data(), plain.size() * sizeof(float)));
        std::vector<uint8_t> bytes(2 * n);
        std::vector<float> unpacked(2 * n);
        for (int32_t i = 0; i < 2 * n; ++i) {
            bytes[i] = static_cast<uint8_t>(i * 37 + (i >> 5));
            unpacked[i] = static_cast<float>(bytes[i]) - 127.5f;
        }
        RotateSamplesScalar(unpacked.data(), n, c[0], c[1]);
        std::vector<float> fused(2 * n);
        UnpackRotateSamples(bytes.data(), fused.data(), n, c[0], c[1]);
        EXPECT_EQ(0, std::memcmp(unpacked.data(), fused.data(), fused.size() * sizeof(float)));
    }
    // Missing buffers or no samples: nothing is touched.
    std::vector<uint8_t> bytes(64, 200);
    std::vector<float> samples(64, 7.0f);
    UnpackRotateSamples(bytes.data(), nullptr, 32, 0.0, 0.1);
    UnpackRotateSamples(nullptr, samples.data(), 32, 0.0, 0.1);
    UnpackRotateSamples(bytes.data(), samples.data(), 0, 0.0, 0.1);
    EXPECT_EQ(samples, std::vector<float>(64, 7.0f));
}

}  // namespace
}  // namespace mvdab
