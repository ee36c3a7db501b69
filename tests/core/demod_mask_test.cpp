// DemodulateFrame and SymbolMask: which symbols are transformed, which rows
// of FrameCarriers are written, what a skipped symbol does to the phase, and
// the frames it refuses. The samples are noise: these
// tests are about bookkeeping, not about the quality of the soft values.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "demod_setup.h"
#include "demodulation/symbol_demodulator.h"

namespace {

using namespace mvdab;

using namespace demodtest;

class DemodMask : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override {
        ASSERT_TRUE(demodtest::SetUpMode(GetParam()));
        std::mt19937 rng(11 + GetParam());
        std::uniform_int_distribution<int> byte(97, 158);
        for (int64_t i = 0; i < demodtest::HistoryBytes(); ++i) workBlocks.historyBase[i] = static_cast<uint8_t>(byte(rng));
        FillFrameCarriers();
        pipeline.frameSamples = 1000;
    }
};

// With the FIC-only mask exactly the phase reference and the FIC symbols are
// transformed: the phase advances once per transformed symbol and not for
// the skipped ones, the FIC rows are written and no other row is touched.
TEST_P(DemodMask, FicOnlyMaskWritesFicRowsAndAdvancesPhasePerTransformedSymbol) {
    receiverSettings.frequencyLoopGain = 0.0f;  // keep the increment fixed
    frequencyCorrection.samplePhase = 6.2;
    frequencyCorrection.samplePhaseIncrement = 0.00123;
    const int32_t fic = mode.parameters.firstMscSymbol;
    ASSERT_EQ(DemodulateFrame(), 1);

    double phase = 6.2;
    for (int32_t i = 0; i < fic; ++i) {
        phase += mode.parameters.symbolLength * 0.00123;
        if (phase >= kTwoPi) phase -= kTwoPi;
    }
    EXPECT_DOUBLE_EQ(frequencyCorrection.samplePhase, phase);
    for (int32_t l = 0; l < mode.parameters.symbolsPerFrame; ++l)
        EXPECT_EQ(RowUntouched(l), l == 0 || l >= fic) << "row " << l;
}

// A frame that would run past either end of the history, or a plan that does
// not fit the mode, is refused without touching anything; the last frame that
// still fits is accepted.
TEST_P(DemodMask, RefusesFramesOutsideThePoolAndMismatchedPlans) {
    frequencyCorrection.samplePhase = 1.0;
    const ModeParameters& m = mode.parameters;
    const int32_t lastFitting = static_cast<int32_t>(demodtest::HistoryBytes()) - m.frameBytes + 2 * m.nullLength;
    pipeline.frameSamples = lastFitting + 2;
    EXPECT_EQ(DemodulateFrame(), 0);
    pipeline.frameSamples = static_cast<int32_t>(-(workBlocks.historyBase - workBlocks.workingPool)) - 2 * m.guardLength - 2;
    EXPECT_EQ(DemodulateFrame(), 0);
    pipeline.frameSamples = 0;
    const int32_t length = dftPlan.length;
    dftPlan.length = length == 2048 ? 256 : 2048;
    EXPECT_EQ(DemodulateFrame(), 0);
    dftPlan.length = length;
    EXPECT_EQ(frequencyCorrection.samplePhase, 1.0);
    for (int32_t l = 0; l < m.symbolsPerFrame; ++l) EXPECT_TRUE(RowUntouched(l));
    pipeline.frameSamples = lastFitting;
    EXPECT_EQ(DemodulateFrame(), 1);
}

INSTANTIATE_TEST_SUITE_P(AllModes, DemodMask, ::testing::Values(0, 1, 2, 3), demodtest::ModeName);

}  // namespace
