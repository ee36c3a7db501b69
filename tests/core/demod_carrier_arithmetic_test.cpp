// The per-carrier arithmetic: the SSE2 forms agree with their plain twins bit
// for bit, on any length and on awkward values.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "demodulation/carrier_arithmetic.h"
#include "demodulation/symbol_demodulator.h"

namespace {

using namespace mvdab;

// Normal values with signed zeros, a huge, a tiny and a not-a-number value
// among them.
std::vector<float> RandomValues(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> v(0.0f, 1.0f);
    std::vector<float> out(n);
    for (float& x : out) x = v(rng);
    const float awkward[] = {0.0f, -0.0f, 3.0e38f, 1.0e-40f, std::numeric_limits<float>::quiet_NaN(), -0.0f};
    const size_t at[] = {0, 1, 4, 7, 9, 10};
    for (int i = 0; i < 6 && n >= 12; ++i) out[at[i]] = awkward[i];
    return out;
}

TEST(DemodCarrierArithmetic, SimdAndPlainFormsAgreeBitForBit) {
    for (int32_t count : {0, 1, 2, 3, 4, 5, 7, 192, 383, 384, 768, 1536}) {
        const std::vector<float> current = RandomValues(2 * count + 2, 1 + count);
        const std::vector<float> previous = RandomValues(2 * count + 2, 1000 + count);
        std::vector<float> fast(2 * count + 2, 7.0f), plain(2 * count + 2, 7.0f);
        DifferentialProducts(current.data(), previous.data(), fast.data(), count, 0.37f);
        DifferentialProductsPlain(current.data(), previous.data(), plain.data(), count, 0.37f);
        EXPECT_EQ(std::memcmp(fast.data(), plain.data(), fast.size() * sizeof(float)), 0) << "count " << count;
        EXPECT_EQ(fast[2 * count], 7.0f) << "wrote past the end, count " << count;

        // Without the NaN the detector's sums are comparable numbers.
        std::vector<float> products = current;
        if (products.size() > 9) products[9] = 0.5f;
        const double a = FrequencyError(products.data(), count);
        const double b = FrequencyErrorPlain(products.data(), count);
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << "count " << count << ": " << a << " vs " << b;
    }
}

// The quality figure with its divisions two carriers at a time keeps the
// bits of the one-carrier-at-a-time form: every carrier count of the modes
// and odd ones (a scalar tail), carriers without power, and scales.
TEST(SignalQuality, VectorFormKeepsTheBits) {
    std::mt19937 rng(7);
    std::normal_distribution<float> noise(0.0f, 0.3f);
    for (int32_t count : {1536, 384, 768, 192, 7}) {
        std::vector<float> products(2 * count), carriers(2 * count), values(2 * count);
        for (int32_t i = 0; i < 2 * count; ++i) {
            products[i] = (i % 3 == 0 ? -0.7071f : 0.7071f) * 3.7e5f + noise(rng) * 1e5f;
            carriers[i] = noise(rng) * 40.0f;
        }
        carriers[2] = carriers[3] = 0.0f;  // a carrier without power
        carriers[2 * count - 2] = carriers[2 * count - 1] = 0.0f;
        for (double scale : {3.7e5, 1.0, 12345.678}) {
            const float vector = SignalQualityOf(products.data(), carriers.data(), count, scale);
            const float scalar = SignalQualityOfScalar(products.data(), carriers.data(), count, scale, values.data());
            uint32_t a, b;
            std::memcpy(&a, &vector, 4);
            std::memcpy(&b, &scalar, 4);
            EXPECT_EQ(a, b) << count << " " << scale << ": " << vector << " " << scalar;
            EXPECT_TRUE(std::isfinite(vector)) << count;
        }
    }
}

}  // namespace
