// The receiver's own mode tables against the published check values, and the
// timing weights built from them. (The reference symbol's layout is checked
// by the integer search, which finds every reachable shift with it.)
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "acquisition/mode_buffers.h"
#include "acquisition/mode_tables.h"
#include "receiver/receiver_state.h"

namespace mvdab {
namespace {

struct PhaseCheck {
    int first[16];
    int last[16];
    int counts[4];
};
// Phase in units of pi/2 for carriers -K/2.. (first) and ..K/2 (last).
constexpr PhaseCheck kPhaseChecks[4] = {
    {{1, 3, 1, 1, 1, 1, 2, 2, 3, 1, 1, 1, 3, 3, 2, 2}, {1, 0, 3, 0, 1, 2, 0, 1, 3, 2, 3, 0, 3, 0, 0, 1}, {364, 404, 356, 412}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {3, 2, 1, 2, 3, 0, 2, 3, 1, 0, 1, 2, 1, 2, 2, 3}, {96, 80, 128, 80}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {2, 1, 0, 1, 2, 3, 1, 2, 0, 3, 0, 1, 0, 1, 1, 2}, {56, 36, 64, 36}},
    {{0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1}, {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0}, {232, 176, 184, 176}},
};

TEST(PhaseReferenceTable, MatchesPublishedCheckValuesOfEveryMode) {
    for (int m = 0; m < 4; ++m) {
        const int32_t k = kModeCarriers[m];
        const uint8_t* slice = kPhaseReferenceTable.data() + kModeCarrierOffset[m];
        int counts[4] = {0, 0, 0, 0};
        for (int32_t i = 0; i < k; ++i) {
            ASSERT_LT(slice[i], 4);
            counts[slice[i]]++;
        }
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(slice[i], kPhaseChecks[m].first[i]) << "mode " << m << " index " << i;
            EXPECT_EQ(slice[k - 16 + i], kPhaseChecks[m].last[i]) << "mode " << m << " index " << k - 16 + i;
        }
        for (int v = 0; v < 4; ++v) EXPECT_EQ(counts[v], kPhaseChecks[m].counts[v]) << "mode " << m << " value " << v;
    }
}

TEST(FrequencyDeinterleaveTable, MatchesPublishedCarriersAndIsAPermutation) {
    const std::vector<std::vector<int32_t>> firstTwelve = {
        {-513, -14, 329, 692, -733, 13, 680, 273, -36, 43, 85, -432},
        {-129, -14, -55, -76, 163, 141, -88, 7, -111, -85, 46, -176},
        {-65, -14, 52, -29, -58, 77, 40, 71, -38, 81, 92, -21},
        {-257, -14, 73, 180, 198, -243, 168, 218, 17, 299, 46, -171},
    };
    const std::vector<std::vector<int32_t>> lastFour = {
        {641, 652, 606, 197}, {-116, 155, 94, -187}, {12, -37, 94, 5}, {10, 140, 27, -59}};
    for (int m = 0; m < 4; ++m) {
        const int32_t k = kModeCarriers[m];
        const int32_t* slice = kFrequencyDeinterleaveTable.data() + kModeCarrierOffset[m];
        // Carrier of element n, back from the stored float offset.
        auto CarrierOf = [](int32_t offset, int32_t k) { return offset / 2 - k / 2 + (offset / 2 < k / 2 ? 0 : 1); };
        for (int i = 0; i < 12; ++i) EXPECT_EQ(CarrierOf(slice[i], k), firstTwelve[m][i]) << "mode " << m << " n " << i;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(CarrierOf(slice[k - 4 + i], k), lastFour[m][i]) << "mode " << m;
        std::vector<int32_t> sorted(slice, slice + k);
        std::sort(sorted.begin(), sorted.end());
        for (int32_t i = 0; i < k; ++i) ASSERT_EQ(sorted[i], 2 * i) << "mode " << m << ": every carrier once";
    }
}

TEST(TimingWeights, RampOverTheGuardThenLateAndEarlyRuns) {
    const int32_t lateRun[4] = {686, 171, 85, 343};
    for (int m = 0; m < 4; ++m) {
        const int32_t n = kModeTable[m].fftSize;
        const int32_t g = kModeTable[m].guardLength;
        std::vector<float> w(n);
        FillTimingWeights(m, w.data());
        EXPECT_EQ(w[0], -0.5f);
        EXPECT_NEAR(w[g - 1], 0.5f - 1.0f / g, 1e-4f);
        EXPECT_EQ(std::count(w.begin(), w.end(), 5.0f), lateRun[m]) << "mode " << m;
        EXPECT_EQ(w[g], 5.0f);
        EXPECT_EQ(w[g + lateRun[m]], -4.0f);
    }
}

}  // namespace
}  // namespace mvdab
