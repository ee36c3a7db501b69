// The modulator's phase reference and frequency interleaving tables against
// published check values, for every mode.
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <vector>

#include "generator/frame_bits.h"
#include "generator/ofdm_modulator.h"

namespace {

struct PhaseCheck {
    int mode;
    std::array<int, 16> first;  // k = -K/2 upwards
    std::array<int, 16> last;   // ending at k = K/2
    std::array<int, 4> counts;  // how many carriers have 0, 1, 2, 3
    int sum;
};

const PhaseCheck kPhaseChecks[] = {
    {1, {1, 3, 1, 1, 1, 1, 2, 2, 3, 1, 1, 1, 3, 3, 2, 2}, {1, 0, 3, 0, 1, 2, 0, 1, 3, 2, 3, 0, 3, 0, 0, 1}, {364, 404, 356, 412}, 2352},
    {2, {2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {3, 2, 1, 2, 3, 0, 2, 3, 1, 0, 1, 2, 1, 2, 2, 3}, {96, 80, 128, 80}, 576},
    {3, {2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {2, 1, 0, 1, 2, 3, 1, 2, 0, 3, 0, 1, 0, 1, 1, 2}, {56, 36, 64, 36}, 272},
    {4, {0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1}, {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0}, {232, 176, 184, 176}, 1072},
};

TEST(OfdmTables, PhaseReferenceMatchesCheckValues) {
    for (const PhaseCheck& c : kPhaseChecks) {
        SCOPED_TRACE(c.mode);
        const int k2 = gen::Geometry(c.mode).carriers / 2;
        std::vector<int> v;
        for (int k = -k2; k <= k2; ++k)
            if (k != 0) v.push_back(gen::PhaseReferenceQuarterTurns(c.mode, k));
        ASSERT_EQ(v.size(), static_cast<size_t>(2 * k2));
        std::array<int, 4> counts{};
        int sum = 0;
        for (int x : v) {
            ASSERT_GE(x, 0);
            ASSERT_LE(x, 3);
            ++counts[static_cast<size_t>(x)];
            sum += x;
        }
        EXPECT_EQ(std::vector<int>(v.begin(), v.begin() + 16), std::vector<int>(c.first.begin(), c.first.end()));
        EXPECT_EQ(std::vector<int>(v.end() - 16, v.end()), std::vector<int>(c.last.begin(), c.last.end()));
        EXPECT_EQ(counts, c.counts);
        EXPECT_EQ(sum, c.sum);
        // Outside the band and the centre carrier there is nothing.
        EXPECT_EQ(gen::PhaseReferenceQuarterTurns(c.mode, 0), -1);
        EXPECT_EQ(gen::PhaseReferenceQuarterTurns(c.mode, k2 + 1), -1);
        EXPECT_EQ(gen::PhaseReferenceQuarterTurns(c.mode, -k2 - 1), -1);
    }
}

struct InterleaveCheck {
    int mode;
    std::array<int, 12> first;
    std::array<int, 4> last;
};

const InterleaveCheck kInterleaveChecks[] = {
    {1, {-513, -14, 329, 692, -733, 13, 680, 273, -36, 43, 85, -432}, {641, 652, 606, 197}},
    {2, {-129, -14, -55, -76, 163, 141, -88, 7, -111, -85, 46, -176}, {-116, 155, 94, -187}},
    {3, {-65, -14, 52, -29, -58, 77, 40, 71, -38, 81, 92, -21}, {12, -37, 94, 5}},
    {4, {-257, -14, 73, 180, 198, -243, 168, 218, 17, 299, 46, -171}, {10, 140, 27, -59}},
};

TEST(OfdmTables, FrequencyInterleavingMatchesCheckValuesAndIsAPermutation) {
    for (const InterleaveCheck& c : kInterleaveChecks) {
        SCOPED_TRACE(c.mode);
        const int k = gen::Geometry(c.mode).carriers;
        for (int n = 0; n < 12; ++n) EXPECT_EQ(gen::InterleavedCarrier(c.mode, n), c.first[static_cast<size_t>(n)]) << n;
        for (int n = 0; n < 4; ++n) EXPECT_EQ(gen::InterleavedCarrier(c.mode, k - 4 + n), c.last[static_cast<size_t>(n)]) << n;
        std::set<int> seen;
        for (int n = 0; n < k; ++n) {
            const int carrier = gen::InterleavedCarrier(c.mode, n);
            EXPECT_NE(carrier, 0);
            EXPECT_LE(std::abs(carrier), k / 2);
            seen.insert(carrier);
        }
        EXPECT_EQ(seen.size(), static_cast<size_t>(k));
    }
}

}  // namespace
