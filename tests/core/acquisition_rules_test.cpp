// The receiver's mode tables against the published check values, and the
// rules of the search, confirmation and entry stages that are easy to get
// subtly wrong: vote borders and the lead rule, the null scan, agreement
// across the window edge, the position arithmetic, and the integer search.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "acquisition/coarse_frame_search.h"
#include "acquisition/frame_entry.h"
#include "acquisition/frame_position.h"
#include "acquisition/mode_buffers.h"
#include "acquisition/mode_tables.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"

namespace mvdab {
namespace {

constexpr int kNone = -1, kModeI = 0, kModeII = 1, kModeIII = 2, kModeIV = 3;

// Published check values of each mode: the phase reference (in units of
// pi/2) of the first and last 16 carriers and the count of each value; the
// carriers of the first twelve and the last four interleaved positions.
struct ModeCheck {
    std::vector<int> firstPhases, lastPhases, phaseCounts, firstCarriers, lastCarriers;
};
const ModeCheck kModeChecks[4] = {
    {{1, 3, 1, 1, 1, 1, 2, 2, 3, 1, 1, 1, 3, 3, 2, 2}, {1, 0, 3, 0, 1, 2, 0, 1, 3, 2, 3, 0, 3, 0, 0, 1}, {364, 404, 356, 412},
     {-513, -14, 329, 692, -733, 13, 680, 273, -36, 43, 85, -432}, {641, 652, 606, 197}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {3, 2, 1, 2, 3, 0, 2, 3, 1, 0, 1, 2, 1, 2, 2, 3}, {96, 80, 128, 80},
     {-129, -14, -55, -76, 163, 141, -88, 7, -111, -85, 46, -176}, {-116, 155, 94, -187}},
    {{2, 0, 2, 2, 2, 2, 3, 3, 0, 2, 2, 2, 0, 0, 3, 3}, {2, 1, 0, 1, 2, 3, 1, 2, 0, 3, 0, 1, 0, 1, 1, 2}, {56, 36, 64, 36},
     {-65, -14, 52, -29, -58, 77, 40, 71, -38, 81, 92, -21}, {12, -37, 94, 5}},
    {{0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1}, {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0}, {232, 176, 184, 176},
     {-257, -14, 73, 180, 198, -243, 168, 218, 17, 299, 46, -171}, {10, 140, 27, -59}},
};

TEST(ModeTables, MatchPublishedCheckValuesAndInterleaveEveryCarrierOnce) {
    for (int m = 0; m < 4; ++m) {
        SCOPED_TRACE(::testing::Message() << "mode " << m + 1);
        const int32_t k = kModeCarriers[m];
        const uint8_t* phases = kPhaseReferenceTable.data() + kModeCarrierOffset[m];
        std::vector<int> counts(4, 0);
        for (int32_t i = 0; i < k; ++i) {
            ASSERT_LT(phases[i], 4);
            counts[phases[i]]++;
        }
        EXPECT_EQ(std::vector<int>(phases, phases + 16), kModeChecks[m].firstPhases);
        EXPECT_EQ(std::vector<int>(phases + k - 16, phases + k), kModeChecks[m].lastPhases);
        EXPECT_EQ(counts, kModeChecks[m].phaseCounts);
        // Carrier of each interleaved position, back from its float offset.
        const int32_t* offsets = kFrequencyDeinterleaveTable.data() + kModeCarrierOffset[m];
        std::vector<int> carriers;
        for (int32_t i = 0; i < k; ++i) carriers.push_back(offsets[i] / 2 - k / 2 + (offsets[i] / 2 < k / 2 ? 0 : 1));
        EXPECT_EQ(std::vector<int>(carriers.begin(), carriers.begin() + 12), kModeChecks[m].firstCarriers);
        EXPECT_EQ(std::vector<int>(carriers.end() - 4, carriers.end()), kModeChecks[m].lastCarriers);
        std::vector<int32_t> sorted(offsets, offsets + k);
        std::sort(sorted.begin(), sorted.end());
        for (int32_t i = 0; i < k; ++i) ASSERT_EQ(sorted[i], 2 * i) << "every carrier once";
    }
}

TEST(DipVote, IntervalAndNullLengthBorders) {
    // Near 49152 the dip length tells mode III (296..394) from mode II.
    const int32_t cases[][3] = {
        {196608, 2000, kModeI},         {196608 + 2047, 2000, kModeI}, {196608 - 2047, 2000, kModeI},
        {196608 + 2048, 2000, kNone},   {196608 - 2048, 2000, kNone},  {49152, 295, kModeII},
        {49152, 296, kModeIII},         {49152, 394, kModeIII},        {49152, 395, kModeII},
        {49152 + 511, 345, kModeIII},   {49152 - 511, 600, kModeII},   {49152 + 512, 345, kNone},
        {98304 + 1023, 1300, kModeIV},  {98304 - 1024, 1300, kNone},   {0, 0, kNone},
    };
    for (const auto& c : cases) EXPECT_EQ(ClassifyDipInterval(c[0], c[1]), c[2]) << c[0] << " / " << c[1];
}

// A lead of two votes over every other mode, of three between modes II and
// III; the result is the mode number from 1, 0 for no decision. Where
// modes II and III together lead by two but neither alone by three, the
// result is the pair (5), for the null width to decide.
TEST(ModeDecision, NeedsALeadOfTwoAndOfThreeBetweenModesIIAndIII) {
    const int32_t cases[][5] = {
        {0, 0, 0, 0, 0}, {1, 0, 0, 0, 0}, {2, 0, 0, 0, 1}, {3, 1, 0, 0, 1}, {3, 2, 0, 0, 0}, {0, 2, 0, 0, 5},
        {0, 3, 0, 0, 2}, {0, 3, 1, 0, 5}, {0, 4, 1, 0, 2}, {0, 1, 3, 0, 5}, {0, 0, 3, 0, 3}, {2, 0, 3, 0, 0},
        {0, 0, 0, 2, 4}, {0, 0, 2, 3, 0}, {0, 0, 1, 3, 4}, {5, 5, 0, 0, 0}, {1, 1, 1, 0, 0}, {0, 1, 1, 0, 5},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DecideTransmissionMode(c), c[4]) << c[0] << " " << c[1] << " " << c[2] << " " << c[3];
}

class SearchState : public ::testing::Test {
protected:
    void SetUp() override {
        WriteReceiverSettings();  // backoffs 480, 120, 60, 240 bytes; tolerance 80
        ResetCoarseSearch();
    }
    static void UseMode(int m) {
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
    }
    // Power of a signal whose nulls (power 0, `nullLength` long) recur every
    // `period` samples from `offset` on, fed in IQ frames; returns the frame
    // in which a mode was decided, or -1.
    static int32_t FeedNulls(int32_t frames, int32_t period, int32_t nullLength, int32_t offset) {
        std::vector<float> p(frames * kIqFrameSamples, 5000.0f);
        for (int32_t start = offset; start < static_cast<int32_t>(p.size()); start += period)
            for (int32_t i = start; i < start + nullLength && i < static_cast<int32_t>(p.size()); ++i) p[i] = 0.0f;
        for (int32_t f = 0; f < frames; ++f)
            if (DetectTransmissionMode(p.data() + f * kIqFrameSamples, kIqFrameSamples) == 1) return f;
        return -1;
    }
};

// Dips end near 52,900, 249,500 and 446,100: the third lies in frame 3. The
// first interval runs from the restart and counts nothing; intervals of no
// mode get no vote.
TEST_F(SearchState, ModeIIsAnnouncedInTheIqFrameOfItsSecondVote) {
    EXPECT_EQ(FeedNulls(6, 196608, 2656, 50000), 3);
    EXPECT_EQ(coarseSearch.modeVotes[0], 2);
    ResetCoarseSearch();
    EXPECT_EQ(FeedNulls(4, 70000, 300, 1000), -1);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(coarseSearch.modeVotes[i], 0);
}

TEST_F(SearchState, NullScanFindsTheQuietestWindowEarliestFirst) {
    UseMode(kModeII);
    const int32_t l = 664, t = 49152;
    auto scan = [&](std::vector<int32_t> nullStarts) {
        std::vector<float> power(l + t, 100.0f);
        for (int32_t s : nullStarts) std::fill(power.begin() + s, power.begin() + s + l, 0.0f);
        ScanNullPosition(power.data());
        return NullPositions[0];
    };
    EXPECT_EQ(scan({1001, 30001}), 1000) << "of two equal nulls the earlier stands";
    EXPECT_EQ(NullPositions[1], -10000000) << "older entries move down";
    EXPECT_EQ(scan({0}), 0) << "the sum of the first nullLength values is no candidate";
    EXPECT_EQ(scan({t}), t - 1) << "a window at the very end of the scan";
}

// No window is quieter than another: the positions must never agree.
TEST_F(SearchState, AStrongConstantInputGivesPositionsThatNeverAgree) {
    UseMode(kModeIV);
    const std::vector<float> power(1328 + 98304, 20000.0f);
    for (int i = 0; i < 5; ++i) {
        ScanNullPosition(power.data());
        EXPECT_GE(NullPositions[0], 0);
        EXPECT_LT(NullPositions[0], 98304);
        EXPECT_EQ(NullPositionsAgree(), 0) << "scan " << i;
    }
}

TEST_F(SearchState, AgreementToleranceAndTheWindowEdge) {
    mode.parameters = kModeTable[kModeI];
    // newest, second, third, expected; the second row is a null drifting
    // across the window edge, the last needs both pairs to agree.
    const int32_t cases[][4] = {{5, 84, 5, 1},        {5, 85, 5, 0},           {85, 5, 5, 0},
                                {3, 196608 - 3, 3, 1}, {40, 196608 - 40, 40, 0}, {100, 100, 20000, 0}};
    for (const auto& c : cases) {
        NullPositions[0] = c[0];
        NullPositions[1] = c[1];
        NullPositions[2] = c[2];
        NullPositions[3] = 123456;
        EXPECT_EQ(NullPositionsAgree(), c[3]) << c[0] << " " << c[1] << " " << c[2];
    }
    ResetCoarseSearch();
    EXPECT_EQ(NullPositionsAgree(), 0) << "fresh sentinels";
    NullPositions[0] = NullPositions[1] = 0;
    EXPECT_EQ(NullPositionsAgree(), 0) << "two scans after a restart are not enough";
}

// The next unconsumed sample lies at depth * 240,640 - 2r bytes; the phase
// reference of the next frame opens 2p + 2 bytes after it, and the frame
// position stands the backoff and one sample before that.
TEST_F(SearchState, FramePositionStandsBackoffAndOneSampleBeforeThePhaseReference) {
    EXPECT_EQ(FramePositionFromNull(1234, kModeI, 5678), 3 * 240640 - 2 * 5678 + 2 * 1234 + 2 - 480 - 2);
    EXPECT_EQ(FramePositionFromNull(1234, kModeIII, 5678), 2 * 240640 - 2 * 5678 + 2 * 1234 + 2 - 60 - 2);
    EXPECT_EQ(FramePositionFromNull(0, kModeI, kIqFrameSamples), 3 * 240640 - 480 - 240640);
    EXPECT_EQ(FramePositionFromNull(49151, kModeII, 0), 2 * 49151 - 120 + 2 * 240640);
}

// Half a carrier spacing off, noise puts the prefix angles on both sides of
// pi: the smoothed angle must stay near pi, not cancel towards 0.
TEST(FractionalEstimate, AnglesAcrossPlusMinusPiDoNotCancel) {
    const double angles[] = {-3.0, 3.1, -3.05, 3.08, 3.0, -3.1, 3.12, -3.0, 3.05, -3.12, 3.1};
    float e = 0.0f;
    for (double a : angles) e = SmoothPrefixAngle(e, a);
    EXPECT_GT(std::abs(e), 2.8f);
    // Angles closer than pi to the running value are taken as they come, the
    // others are brought within pi of it first.
    EXPECT_FLOAT_EQ(SmoothPrefixAngle(-1.0f, 2.0), static_cast<float>(0.75 * -1.0 + 0.25 * 2.0));
    EXPECT_FLOAT_EQ(SmoothPrefixAngle(-1.0f, 2.2), static_cast<float>(0.75 * -1.0 + 0.25 * (2.2 - kTwoPi)));
}

// The phase reference received `shift` bins too low (carrier k in bin
// k - shift), with the linear phase of a window that starts some samples
// early: every shift up to +-256 kHz is found (mode I lost everything beyond
// -224..199 bins), none just outside the range, an excluded shift gives way to
// the next best, and an empty spectrum leaves the shift at 0.
TEST(IntegerSearch, FindsEveryShiftOfTheCaptureRangeAndNoneJustOutside) {
    const int32_t highest[4] = {256, 64, 32, 128};
    const int32_t lowest[4] = {-256, -64, -32, -128};
    const int32_t delay[4] = {241, 61, 31, 121};
    for (int m = 0; m < 4; ++m) {
        const int32_t n = kModeTable[m].fftSize;
        const int32_t k = kModeTable[m].carrierCount;
        const uint8_t* phases = kPhaseReferenceTable.data() + kModeCarrierOffset[m];
        std::vector<float> ref(2 * (n + k + 1));
        BuildReferenceSymbol(m, ref.data());
        auto search = [&](int32_t shift, int32_t excluded = kNoShiftExcluded) {
            std::vector<float> x(2 * n, 0.0f);
            for (int32_t i = 0; i < k; ++i) {
                const int32_t carrier = i < k / 2 ? i - k / 2 : i - k / 2 + 1;
                const int32_t bin = ((carrier - shift) % n + n) % n;
                const double angle = M_PI / 2 * phases[i] - 2.0 * M_PI * bin * delay[m] / n;
                x[2 * bin] = static_cast<float>(100.0 * std::cos(angle));
                x[2 * bin + 1] = static_cast<float>(100.0 * std::sin(angle));
            }
            return SearchIntegerShift(x.data(), ref.data(), m, excluded);
        };
        // Mode I: every seventh shift of the range, 200, and its upper border.
        for (int32_t s = lowest[m]; s <= highest[m]; s += m == kModeI ? 7 : 1) ASSERT_EQ(search(s), s) << "mode " << m;
        if (m == kModeI) {
            EXPECT_EQ(search(200), 200);
            EXPECT_EQ(search(highest[m]), highest[m]);
        }
        for (int32_t s : {lowest[m] - 1, highest[m] + 1}) EXPECT_NE(search(s), s) << "mode " << m << " shift " << s;
        EXPECT_EQ(search(5, 6), 5) << "mode " << m;
        EXPECT_NE(search(5, 5), 5) << "mode " << m;
        const std::vector<float> zeros(2 * n, 0.0f);
        EXPECT_EQ(SearchIntegerShift(zeros.data(), ref.data(), m), 0) << "mode " << m;
    }
}

}  // namespace
}  // namespace mvdab
