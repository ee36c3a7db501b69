// The rules of the search, confirmation and entry stages that are easy to get
// subtly wrong: vote borders and the lead rule, the null scan, agreement
// across the window edge, the position arithmetic, and the integer search.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "acquisition/coarse_frame_search.h"
#include "acquisition/frame_entry.h"
#include "acquisition/frame_position.h"
#include "acquisition/mode_buffers.h"
#include "acquisition/mode_tables.h"
#include "receiver/receiver_state.h"

namespace mvdab {
namespace {

constexpr int kNone = -1, kModeI = 0, kModeII = 1, kModeIII = 2, kModeIV = 3;

TEST(DipVote, IntervalAndNullLengthBorders) {
    EXPECT_EQ(ClassifyDipInterval(196608, 2000), kModeI);
    EXPECT_EQ(ClassifyDipInterval(196608 + 2047, 2000), kModeI);
    EXPECT_EQ(ClassifyDipInterval(196608 - 2047, 2000), kModeI);
    EXPECT_EQ(ClassifyDipInterval(196608 + 2048, 2000), kNone);
    EXPECT_EQ(ClassifyDipInterval(196608 - 2048, 2000), kNone);

    // Near 49152 the dip length tells mode III (296..394) from mode II.
    EXPECT_EQ(ClassifyDipInterval(49152, 295), kModeII);
    EXPECT_EQ(ClassifyDipInterval(49152, 296), kModeIII);
    EXPECT_EQ(ClassifyDipInterval(49152, 394), kModeIII);
    EXPECT_EQ(ClassifyDipInterval(49152, 395), kModeII);
    EXPECT_EQ(ClassifyDipInterval(49152 + 511, 345), kModeIII);
    EXPECT_EQ(ClassifyDipInterval(49152 - 511, 600), kModeII);
    EXPECT_EQ(ClassifyDipInterval(49152 + 512, 345), kNone);

    EXPECT_EQ(ClassifyDipInterval(98304 + 1023, 1300), kModeIV);
    EXPECT_EQ(ClassifyDipInterval(98304 - 1024, 1300), kNone);
    EXPECT_EQ(ClassifyDipInterval(0, 0), kNone);
}

TEST(ModeDecision, NeedsALeadOfTwoAndOfThreeBetweenModesIIAndIII) {
    auto decide = [](int32_t c1, int32_t c2, int32_t c3, int32_t c4) {
        const int32_t votes[4] = {c1, c2, c3, c4};
        return DecideTransmissionMode(votes);
    };
    EXPECT_EQ(decide(0, 0, 0, 0), 0);
    EXPECT_EQ(decide(1, 0, 0, 0), 0) << "a lead of one vote is never enough";
    EXPECT_EQ(decide(2, 0, 0, 0), 1);
    EXPECT_EQ(decide(3, 1, 0, 0), 1);
    EXPECT_EQ(decide(3, 2, 0, 0), 0);
    EXPECT_EQ(decide(0, 2, 0, 0), 0) << "mode II must lead mode III by three";
    EXPECT_EQ(decide(0, 3, 0, 0), 2);
    EXPECT_EQ(decide(0, 3, 1, 0), 0) << "c2 = c3 + 2 is not a lead between II and III";
    EXPECT_EQ(decide(0, 4, 1, 0), 2);
    EXPECT_EQ(decide(0, 1, 3, 0), 0);
    EXPECT_EQ(decide(0, 0, 3, 0), 3);
    EXPECT_EQ(decide(2, 0, 3, 0), 0) << "c3 > c1 + 1 must hold as well";
    EXPECT_EQ(decide(0, 0, 0, 2), 4);
    EXPECT_EQ(decide(0, 0, 2, 3), 0);
    EXPECT_EQ(decide(0, 0, 1, 3), 4);
    EXPECT_EQ(decide(5, 5, 0, 0), 0);
}

// Power values of a signal whose nulls (power 0, `nullLength` long) recur
// every `period` samples, starting `offset` samples in.
std::vector<float> NullPattern(int32_t count, int32_t period, int32_t nullLength, int32_t offset, float level) {
    std::vector<float> p(count, level);
    for (int32_t start = offset; start < count; start += period) {
        for (int32_t i = start; i < start + nullLength && i < count; ++i) p[i] = 0.0f;
    }
    return p;
}

class SearchState : public ::testing::Test {
protected:
    void SetUp() override {
        receiverSettings.fastPowerFactor = std::pow(2.0f, -8.0f);
        receiverSettings.slowPowerFactor = std::pow(2.0f, -11.0f);
        receiverSettings.dipEntryRatio = 0.6f;
        receiverSettings.dipExitRatio = 0.7f;
        receiverSettings.nullAgreementTolerance = 80;
        const int32_t backoff[4] = {480, 120, 60, 240};
        for (int i = 0; i < 4; ++i) receiverSettings.timingBackoffBytes[i] = backoff[i];
        ResetCoarseSearch();
    }
};

TEST_F(SearchState, ModeIIsAnnouncedInTheIqFrameOfItsSecondVote) {
    const int32_t frames = 6;
    const std::vector<float> power = NullPattern(frames * kIqFrameSamples, 196608, 2656, 50000, 5000.0f);
    int32_t decidedIn = -1;
    for (int32_t f = 0; f < frames && decidedIn < 0; ++f) {
        if (DetectTransmissionMode(power.data() + f * kIqFrameSamples, kIqFrameSamples) == 1) decidedIn = f;
    }
    // Dips end near 52,900, 249,500 and 446,100: the third lies in frame 3.
    EXPECT_EQ(decidedIn, 3);
    EXPECT_EQ(coarseSearch.modeVotes[0], 2) << "the first interval runs from the restart and counts nothing";
}

TEST_F(SearchState, IntervalsOfNoModeGetNoVote) {
    const std::vector<float> power = NullPattern(4 * kIqFrameSamples, 70000, 300, 1000, 5000.0f);
    for (int32_t f = 0; f < 4; ++f) {
        EXPECT_EQ(DetectTransmissionMode(power.data() + f * kIqFrameSamples, kIqFrameSamples), 0);
    }
    for (int i = 0; i < 4; ++i) EXPECT_EQ(coarseSearch.modeVotes[i], 0);
}

TEST_F(SearchState, NullScanFindsTheQuietestWindowEarliestFirst) {
    mode.transmissionMode = kModeII;
    mode.parameters = kModeTable[kModeII];
    const int32_t l = 664, t = 49152;
    std::vector<float> power(l + t, 100.0f);
    // Two equal nulls: the earlier one stands.
    for (int32_t i = 1001; i <= 1000 + l; ++i) power[i] = 0.0f;
    for (int32_t i = 30001; i <= 30000 + l; ++i) power[i] = 0.0f;
    ScanNullPosition(power.data());
    EXPECT_EQ(NullPositions[0], 1000);
    EXPECT_EQ(NullPositions[1], -10000000) << "older entries move down";

    // The sum of the first nullLength values is no candidate.
    std::fill(power.begin(), power.end(), 100.0f);
    for (int32_t i = 0; i < l; ++i) power[i] = 0.0f;
    ScanNullPosition(power.data());
    EXPECT_EQ(NullPositions[0], 0);

    // A window at the very end of the scan.
    std::fill(power.begin(), power.end(), 100.0f);
    for (int32_t i = t; i < t + l; ++i) power[i] = 0.0f;
    ScanNullPosition(power.data());
    EXPECT_EQ(NullPositions[0], t - 1);
}

TEST_F(SearchState, AStrongConstantInputGivesPositionsThatNeverAgree) {
    mode.transmissionMode = kModeIV;
    mode.parameters = kModeTable[kModeIV];
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
    auto agree = [](int32_t newest, int32_t second, int32_t third) {
        NullPositions[0] = newest;
        NullPositions[1] = second;
        NullPositions[2] = third;
        NullPositions[3] = 123456;
        return NullPositionsAgree();
    };
    EXPECT_EQ(agree(5, 84, 5), 1);
    EXPECT_EQ(agree(5, 85, 5), 0);
    EXPECT_EQ(agree(85, 5, 5), 0);
    EXPECT_EQ(agree(3, 196608 - 3, 3), 1) << "a null drifting across the window edge";
    EXPECT_EQ(agree(40, 196608 - 40, 40), 0);
    EXPECT_EQ(agree(100, 100, 20000), 0) << "both pairs must agree";
    ResetCoarseSearch();
    EXPECT_EQ(NullPositionsAgree(), 0) << "fresh sentinels";
    NullPositions[0] = 0;
    NullPositions[1] = 0;
    EXPECT_EQ(NullPositionsAgree(), 0) << "two scans after a restart are not enough";
}

TEST_F(SearchState, FramePositionStandsBackoffAndOneSampleBeforeThePhaseReference) {
    for (int m = 0; m < 4; ++m) {
        const int32_t depth = m == kModeI ? 3 : 2;
        const int32_t p = 1234, remaining = 5678;
        // Next unconsumed sample at depth * 240,640 - 2r; the phase reference
        // of the next frame opens 2p + 2 bytes after it.
        const int32_t phaseReference = depth * kIqFrameBytes - 2 * remaining + 2 * p + 2;
        EXPECT_EQ(FramePositionFromNull(p, m, remaining),
                  phaseReference - receiverSettings.timingBackoffBytes[m] - 2)
            << "mode " << m;
    }
    EXPECT_EQ(FramePositionFromNull(0, kModeI, kIqFrameSamples), 3 * 240640 - 480 - 240640);
    EXPECT_EQ(FramePositionFromNull(49151, kModeII, 0), 2 * 49151 - 120 + 2 * kIqFrameBytes);
}

TEST(FractionalEstimate, AnglesAcrossPlusMinusPiDoNotCancel) {
    // Eleven symbols at a constant angle: 1 - 0.75^11 of it, either sign.
    for (double angle : {0.4, -1.3, 3.0, -3.1}) {
        float e = 0.0f;
        for (int r = 0; r < 11; ++r) e = SmoothPrefixAngle(e, angle);
        EXPECT_NEAR(e, angle * (1.0 - std::pow(0.75, 11)), 1e-5) << angle;
    }
    // Half a carrier spacing off: noise puts the angles on both sides of pi.
    // They must add up near pi, not near 0.
    const double angles[11] = {-3.0, 3.1, -3.05, 3.08, 3.0, -3.1, 3.12, -3.0, 3.05, -3.12, 3.1};
    float e = 0.0f;
    for (double a : angles) e = SmoothPrefixAngle(e, a);
    EXPECT_GT(std::abs(e), 2.8f);
    // Angles closer than pi to the running value are taken as they come.
    EXPECT_FLOAT_EQ(SmoothPrefixAngle(-1.0f, 2.0), static_cast<float>(0.75 * -1.0 + 0.25 * 2.0));
    EXPECT_FLOAT_EQ(SmoothPrefixAngle(-1.0f, 2.2), static_cast<float>(0.75 * -1.0 + 0.25 * (2.2 - kTwoPi)));
}

TEST(IntegerSearch, SecondStageOrderAndFixedStep) {
    int32_t shifts[kMaxSecondStageShifts];
    auto list = [&](int32_t m, int32_t best) {
        const int32_t n = SecondStageShifts(m, best, shifts, kMaxSecondStageShifts);
        return std::vector<int32_t>(shifts, shifts + n);
    };
    EXPECT_EQ(list(kModeI, -32), (std::vector<int32_t>{-224, -160, -96, -32, 32, 96, 160}));
    EXPECT_EQ(list(kModeI, 31), (std::vector<int32_t>{-161, -97, -33, 31, 95, 159}));
    EXPECT_EQ(list(kModeII, 31), (std::vector<int32_t>{-33, 31}));
    EXPECT_EQ(list(kModeII, -32), (std::vector<int32_t>{-96, -32, 32}));
    EXPECT_EQ(list(kModeIII, 0), (std::vector<int32_t>{}));
    EXPECT_EQ(list(kModeIV, 31), (std::vector<int32_t>{-33, 31, 95}));
    EXPECT_EQ(SecondStageShifts(kModeI, -32, shifts, 3), 3) << "never beyond the room given";
}

// Spectrum of the phase reference received `shift` bins too low (carrier k in
// bin k - shift), with the linear phase of a window that starts `delay`
// samples early.
std::vector<float> ShiftedReferenceSpectrum(int m, int32_t shift, int32_t delay) {
    const int32_t n = kModeTable[m].fftSize;
    const int32_t k = kModeTable[m].carrierCount;
    const uint8_t* phases = kPhaseReferenceTable.data() + kModeCarrierOffset[m];
    std::vector<float> x(2 * n, 0.0f);
    for (int32_t i = 0; i < k; ++i) {
        const int32_t carrier = i < k / 2 ? i - k / 2 : i - k / 2 + 1;
        const int32_t bin = ((carrier - shift) % n + n) % n;
        const double angle = M_PI / 2 * phases[i] - 2.0 * M_PI * bin * delay / n;
        x[2 * bin] = static_cast<float>(100.0 * std::cos(angle));
        x[2 * bin + 1] = static_cast<float>(100.0 * std::sin(angle));
    }
    return x;
}

TEST(IntegerSearch, FindsEveryReachableShiftAndNoneJustOutside) {
    const int32_t lowest[4] = {-224, -96, -32, -96};
    const int32_t highest[4] = {199, 49, 31, 99};
    const int32_t delay[4] = {241, 61, 31, 121};
    for (int m = 0; m < 4; ++m) {
        const int32_t n = kModeTable[m].fftSize;
        const int32_t k = kModeTable[m].carrierCount;
        std::vector<float> ref(2 * (n + k + 1));
        BuildReferenceSymbol(m, ref.data());
        // Mode I: every seventh shift of the range, and its upper border.
        const int32_t step = m == kModeI ? 7 : 1;
        std::vector<int32_t> tried;
        for (int32_t s = lowest[m]; s <= highest[m]; s += step) tried.push_back(s);
        tried.push_back(highest[m]);
        for (int32_t s : tried) {
            const std::vector<float> x = ShiftedReferenceSpectrum(m, s, delay[m]);
            ASSERT_EQ(SearchIntegerShift(x.data(), ref.data(), m), s) << "mode " << m;
        }
        for (int32_t s : {lowest[m] - 1, highest[m] + 1}) {
            const std::vector<float> x = ShiftedReferenceSpectrum(m, s, delay[m]);
            EXPECT_NE(SearchIntegerShift(x.data(), ref.data(), m), s) << "mode " << m << " shift " << s;
        }
    }
}

TEST(IntegerSearch, EmptySpectrumLeavesShiftZero) {
    const int32_t n = 2048, k = 1536;
    std::vector<float> ref(2 * (n + k + 1));
    BuildReferenceSymbol(kModeI, ref.data());
    const std::vector<float> zeros(2 * n, 0.0f);
    EXPECT_EQ(SearchIntegerShift(zeros.data(), ref.data(), kModeI), 0);
}

}  // namespace
}  // namespace mvdab
