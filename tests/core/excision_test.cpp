// ExciseInterference on synthetic phase reference carriers: which carriers a
// strong narrow-band line blanks, the pacing of the examinations, recovery,
// and the modes in which the check never runs.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "demodulation/interference_excision.h"
#include "receiver/receiver_state.h"

namespace {

using namespace mvdab;
using Lines = std::vector<int32_t>;

class Excision : public ::testing::Test {
protected:
    void SetUp() override { UseMode(0); }

    void UseMode(int32_t m) {
        receiverSettings.excisionEnabled = 1;
        receiverSettings.carrierWeightOne = 1.0f;
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        ResetExcision();
    }
    int32_t K() const { return mode.parameters.carrierCount; }

    // Examines carriers of unit power with a random phase, plus lines of the
    // given power on the listed carriers.
    void Examine(const Lines& lines = {}, float linePower = 0.0f) {
        std::vector<float> c(2 * K());
        for (int32_t i = 0; i < K(); ++i) {
            const double a = phase_(rng_);
            c[2 * i] = static_cast<float>(std::cos(a));
            c[2 * i + 1] = static_cast<float>(std::sin(a));
        }
        for (int32_t k : lines) {
            c[2 * k] = std::sqrt(linePower);
            c[2 * k + 1] = 0.0f;
        }
        double energy = 0.0;
        for (float v : c) energy += static_cast<double>(v) * v;
        ExciseInterference(c.data(), energy);
    }

    // The blanked carriers; every other weight must be exactly 1.
    Lines Blanked() const {
        Lines out;
        for (int32_t i = 0; i < K(); ++i) {
            const float re = CarrierWeights[2 * i];
            EXPECT_EQ(re, CarrierWeights[2 * i + 1]) << "carrier " << i;
            if (re == 0.0f) out.push_back(i);
            else EXPECT_EQ(re, 1.0f) << "carrier " << i;
        }
        return out;
    }

    std::mt19937 rng_{5};
    std::uniform_real_distribution<double> phase_{0.0, 6.283185307179586};
};

// A line 20 dB above the carriers is blanked, and only it; a line of twice
// the carrier power is not. The neighbourhood window runs from k-16 to k+15,
// so carriers 0..15 and K-15..K-1 are never blanked, while 16 and K-16 can be.
TEST_F(Excision, BlanksStrongLinesInsideTheWindowRangeAndNothingElse) {
    Examine({700, 1200}, 100.0f);
    EXPECT_EQ(Blanked(), (Lines{700, 1200}));
    ResetExcision();
    Examine({700}, 2.0f);
    EXPECT_TRUE(Blanked().empty());
    ResetExcision();
    const int32_t k = K();
    Examine({0, 15, 16, k - 16, k - 15, k - 1}, 1000.0f);
    EXPECT_EQ(Blanked(), (Lines{16, k - 16}));
}

// The first 20 frames after a restart are all examined, then frame 21, 25,
// 29, ... Each frame's line sits on a carrier of its own; CarrierPower shows
// whether the frame was looked at. Frames between examinations keep the
// weights of the last one; a line gone by the next examination frees its
// carrier, and a restart clears the weights and the reference.
TEST_F(Excision, PacingHoldRecoveryAndRestart) {
    Lines examined, expected;
    for (int32_t frame = 1; frame <= 33; ++frame) {
        Examine({100 + frame}, 50.0f);
        if (interferenceExcision.CarrierPower[100 + frame] == 50.0f) examined.push_back(frame);
    }
    for (int32_t f = 1; f <= 21; ++f) expected.push_back(f);
    expected.insert(expected.end(), {25, 29, 33});
    EXPECT_EQ(examined, expected);

    ResetExcision();
    for (int32_t frame = 1; frame <= 21; ++frame) Examine({900}, 1000.0f);
    for (int32_t frame = 22; frame <= 24; ++frame) {
        Examine();
        EXPECT_EQ(Blanked(), (Lines{900})) << "frame " << frame;
    }
    Examine();
    EXPECT_TRUE(Blanked().empty());

    for (int32_t frame = 1; frame <= 5; ++frame) Examine({300}, 1000.0f);
    ASSERT_FALSE(Blanked().empty());
    ResetExcision();
    EXPECT_TRUE(Blanked().empty());
    Examine();
    EXPECT_TRUE(Blanked().empty()) << "the first examination after a restart sees only the new frame";
}

// In modes II, III and IV, and with the check switched off, nothing runs:
// the weights stay at one whatever the carriers hold.
TEST_F(Excision, OtherModesAndSwitchedOffLeaveTheWeightsAlone) {
    for (int32_t m = 1; m <= 3; ++m) {
        UseMode(m);
        for (int32_t frame = 0; frame < 25; ++frame) Examine({K() / 2}, 10000.0f);
        EXPECT_TRUE(Blanked().empty()) << "mode " << m;
        EXPECT_EQ(interferenceExcision.excisionWarmup, 0);
    }
    UseMode(0);
    receiverSettings.excisionEnabled = 0;
    Examine({600}, 10000.0f);
    EXPECT_TRUE(Blanked().empty());
}

}  // namespace
