// The per-carrier arithmetic: the SSE2 forms agree with their plain twins bit
// for bit, on any length and on awkward values, and the phase detector
// responds to a common phase turn as the frequency loop expects.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "demodulation/carrier_arithmetic.h"

namespace {

using namespace mvdab;

std::vector<float> RandomValues(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> v(0.0f, 1.0f);
    std::vector<float> out(n);
    for (float& x : out) x = v(rng);
    // Signed zeros, a huge, a tiny and a not-a-number value among them.
    if (n >= 12) {
        out[0] = 0.0f;
        out[1] = -0.0f;
        out[4] = 3.0e38f;
        out[7] = 1.0e-40f;
        out[9] = std::numeric_limits<float>::quiet_NaN();
        out[10] = -0.0f;
    }
    return out;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(DemodCarrierArithmetic, SimdAndPlainFormsAgreeBitForBit) {
    for (int32_t count : {0, 1, 2, 3, 4, 5, 7, 192, 383, 384, 768, 1536}) {
        const std::vector<float> current = RandomValues(2 * count + 2, 1 + count);
        const std::vector<float> previous = RandomValues(2 * count + 2, 1000 + count);
        std::vector<float> fast(2 * count + 2, 7.0f);
        std::vector<float> plain(2 * count + 2, 7.0f);
        DifferentialProducts(current.data(), previous.data(), fast.data(), count, 0.37f);
        DifferentialProductsPlain(current.data(), previous.data(), plain.data(), count, 0.37f);
        EXPECT_TRUE(SameBits(fast, plain)) << "count " << count;
        EXPECT_EQ(fast[2 * count], 7.0f) << "wrote past the end, count " << count;

        // Without the NaN the detector's sums are comparable numbers.
        std::vector<float> products = current;
        if (products.size() > 9) products[9] = 0.5f;
        const double a = FrequencyError(products.data(), count);
        const double b = FrequencyErrorPlain(products.data(), count);
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << "count " << count << ": " << a << " vs " << b;
    }
}

// Over the four QPSK points turned by theta the detector gives
// 0.7071 * sin(theta): positive for a positive turn, so that the loop lowers
// the increment.
TEST(DemodCarrierArithmetic, PhaseDetectorFollowsTheSineOfACommonTurn) {
    for (double theta : {-0.6, -0.1, 0.0, 0.05, 0.3, 0.7}) {
        std::vector<float> products;
        for (int q = 0; q < 4; ++q) {
            const double angle = M_PI / 4 + q * M_PI / 2 + theta;
            products.push_back(static_cast<float>(std::cos(angle)));
            products.push_back(static_cast<float>(std::sin(angle)));
        }
        EXPECT_NEAR(FrequencyError(products.data(), 4), std::sqrt(0.5) * std::sin(theta), 1e-6) << theta;
    }
}

}  // namespace
