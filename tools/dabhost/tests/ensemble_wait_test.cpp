// dabhost's decision when to show the ensemble: complete and settled, partial
// at the timeout or at a stop, no lock, no signal after its grace time, and
// the scan's early stops.
#include <gtest/gtest.h>

#include "ensemble_wait.h"
#include "test_ensembles.h"
#include "tools/ficparse/fic_parser.h"

namespace {

ficparse::Ensemble Parsed(bool ensembleLabel, bool serviceLabels) {
    ficparse::FicParser parser;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(ensembleLabel, serviceLabels), &flags);
    parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    return parser.ensemble();
}

WaitPoll Locked(double t, uint64_t frames) { return WaitPoll{t, 1, true, true, frames, 1}; }
WaitPoll Unlocked(double t, int32_t present, bool lockKnown = false) { return WaitPoll{t, present, lockKnown}; }

TEST(EnsembleWait, CompleteOnlyAfterItStaysUnchangedForTheSettleTime) {
    EnsembleWait wait(WaitRule{20.0, 1.0});  // 1 s: 11 frames of mode I
    const ficparse::Ensemble full = Parsed(true, true);
    ASSERT_TRUE(full.Complete());
    // One service only looks complete as well; the second service arriving
    // restarts the settle count.
    ficparse::Ensemble one = full;
    one.services.erase(0xC222);
    ASSERT_TRUE(one.Complete());
    EXPECT_EQ(wait.Update(Locked(0.5, 1), one), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(1.0, 8), one), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(1.1, 9), full), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(2.0, 19), full), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(2.1, 20), full), WaitOutcome::Complete);
    EXPECT_DOUBLE_EQ(wait.lockSeconds(), 0.5);
    EXPECT_DOUBLE_EQ(wait.decidedSeconds(), 2.1);
    // The decision sticks.
    EXPECT_EQ(wait.Update(Locked(3.0, 30), ficparse::Ensemble{}), WaitOutcome::Complete);
}

TEST(EnsembleWait, TimeoutGivesPartialNoEnsembleOrNoLock) {
    // Missing service labels wait until the timeout.
    EnsembleWait partial(WaitRule{5.0});
    const ficparse::Ensemble noServiceLabels = Parsed(true, false);
    EXPECT_EQ(partial.Update(Locked(1.0, 10), noServiceLabels), WaitOutcome::Waiting);
    EXPECT_EQ(partial.Update(Locked(4.9, 50), noServiceLabels), WaitOutcome::Waiting);
    EXPECT_EQ(partial.Update(Locked(5.0, 51), noServiceLabels), WaitOutcome::Partial);
    EXPECT_TRUE(HasEnsemble(WaitOutcome::Partial));
    // Without an ensemble label, lock tells the two failures apart.
    EnsembleWait locked(WaitRule{2.0});
    EXPECT_EQ(locked.Update(Locked(2.5, 20), Parsed(false, true)), WaitOutcome::NoEnsemble);
    EnsembleWait searching(WaitRule{2.0});  // frame structure found, FIC never clean
    EXPECT_EQ(searching.Update(Unlocked(1.0, 1), {}), WaitOutcome::Waiting);
    EXPECT_EQ(searching.Update(Unlocked(2.0, 1), {}), WaitOutcome::NoLock);
    EXPECT_LT(searching.lockSeconds(), 0.0);
    EXPECT_FALSE(HasEnsemble(WaitOutcome::NoLock));
}

TEST(EnsembleWait, NoSignalMustHoldForItsGraceTime) {
    EnsembleWait wait(WaitRule{20.0, 1.0, 1.0});
    EXPECT_EQ(wait.Update(Unlocked(0.8, -1), {}), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Unlocked(1.0, 0), {}), WaitOutcome::Waiting);  // a new search restarts the grace time
    EXPECT_EQ(wait.Update(Unlocked(1.5, -1), {}), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Unlocked(2.5, -1), {}), WaitOutcome::NoSignal);
}

TEST(EnsembleWait, ScanStopsAtTheLabelAndAtOnceOnNoSignal) {
    const WaitRule rule{20.0, 1.0, 0.0, true};
    EnsembleWait found(rule), empty(rule);
    EXPECT_EQ(found.Update(Locked(0.7, 3), Parsed(false, true)), WaitOutcome::Waiting);
    EXPECT_EQ(found.Update(Locked(0.8, 4), Parsed(true, false)), WaitOutcome::LabelFound);
    EXPECT_EQ(empty.Update(Unlocked(0.9, -1, true), {}), WaitOutcome::NoSignal);
    // A weak signal lost after the ensemble was read is not "no signal".
    EnsembleWait lost(WaitRule{2.0, 1.0, 0.0, false});
    EXPECT_EQ(lost.Update(Unlocked(0.9, -1, true), Parsed(true, false)), WaitOutcome::Waiting);
}

TEST(EnsembleWait, StopDecidesAsATimeoutWould) {
    EnsembleWait wait(WaitRule{}), unsettled(WaitRule{});
    EXPECT_EQ(wait.Update(Locked(0.3, 2), Parsed(true, false)), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Stop(0.4, Parsed(true, false)), WaitOutcome::Partial);
    EXPECT_DOUBLE_EQ(wait.decidedSeconds(), 0.4);
    // Complete but not yet settled counts as complete at the end.
    EXPECT_EQ(unsettled.Update(Locked(0.3, 2), Parsed(true, true)), WaitOutcome::Waiting);
    EXPECT_EQ(unsettled.Stop(0.4, Parsed(true, true)), WaitOutcome::Complete);
}

TEST(EnsembleWait, ShapeIgnoresTheCifCountButNotLabelsOrSizes) {
    const ficparse::Ensemble a = Parsed(true, true);
    ficparse::Ensemble b = a, c = a;
    b.cifCountLow = 200;
    EXPECT_EQ(EnsembleShape(a), EnsembleShape(b));
    b.services.at(0xC221).label.text = "Other";
    c.subChannels.at(2).size = 60;
    EXPECT_NE(EnsembleShape(a), EnsembleShape(b));
    EXPECT_NE(EnsembleShape(a), EnsembleShape(c));
}

}  // namespace
