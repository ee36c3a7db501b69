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

WaitPoll Locked(double t, uint64_t frames) {
    WaitPoll p;
    p.elapsedSeconds = t;
    p.present = 1;
    p.lockKnown = true;
    p.locked = true;
    p.ficFrames = frames;
    p.mode = 1;
    return p;
}

TEST(EnsembleWait, CompleteOnlyAfterItStaysUnchangedForTheSettleTime) {
    WaitRule rule;
    rule.settleSeconds = 1.0;  // 11 frames of mode I
    EnsembleWait wait(rule);
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

TEST(EnsembleWait, MissingServiceLabelsWaitUntilTheTimeoutAndGivePartial) {
    WaitRule rule;
    rule.timeoutSeconds = 5.0;
    EnsembleWait wait(rule);
    const ficparse::Ensemble noServiceLabels = Parsed(true, false);
    EXPECT_EQ(wait.Update(Locked(1.0, 10), noServiceLabels), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(4.9, 50), noServiceLabels), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Update(Locked(5.0, 51), noServiceLabels), WaitOutcome::Partial);
    EXPECT_TRUE(HasEnsemble(WaitOutcome::Partial));
}

TEST(EnsembleWait, TimeoutWithoutEnsembleTellsLockFromNoLock) {
    WaitRule rule;
    rule.timeoutSeconds = 2.0;
    EnsembleWait locked(rule);
    const ficparse::Ensemble unlabelled = Parsed(false, true);
    EXPECT_EQ(locked.Update(Locked(2.5, 20), unlabelled), WaitOutcome::NoEnsemble);

    EnsembleWait searching(rule);
    WaitPoll p;
    p.present = 1;  // frame structure found, FIC never clean
    p.elapsedSeconds = 1.0;
    EXPECT_EQ(searching.Update(p, {}), WaitOutcome::Waiting);
    p.elapsedSeconds = 2.0;
    EXPECT_EQ(searching.Update(p, {}), WaitOutcome::NoLock);
    EXPECT_LT(searching.lockSeconds(), 0.0);
    EXPECT_FALSE(HasEnsemble(WaitOutcome::NoLock));
}

TEST(EnsembleWait, NoSignalMustHoldForItsGraceTime) {
    WaitRule rule;
    rule.noSignalSeconds = 1.0;
    EnsembleWait wait(rule);
    WaitPoll p;
    p.present = -1;
    p.elapsedSeconds = 0.8;
    EXPECT_EQ(wait.Update(p, {}), WaitOutcome::Waiting);
    p.present = 0;  // a new search starts: the grace time starts again
    p.elapsedSeconds = 1.0;
    EXPECT_EQ(wait.Update(p, {}), WaitOutcome::Waiting);
    p.present = -1;
    p.elapsedSeconds = 1.5;
    EXPECT_EQ(wait.Update(p, {}), WaitOutcome::Waiting);
    p.elapsedSeconds = 2.5;
    EXPECT_EQ(wait.Update(p, {}), WaitOutcome::NoSignal);
}

TEST(EnsembleWait, ScanStopsAtTheLabelAndAtOnceOnNoSignal) {
    WaitRule rule;
    rule.labelSuffices = true;
    rule.noSignalSeconds = 0.0;
    EnsembleWait found(rule);
    EXPECT_EQ(found.Update(Locked(0.7, 3), Parsed(false, true)), WaitOutcome::Waiting);
    EXPECT_EQ(found.Update(Locked(0.8, 4), Parsed(true, false)), WaitOutcome::LabelFound);

    EnsembleWait empty(rule);
    WaitPoll p;
    p.present = -1;
    p.lockKnown = true;
    p.elapsedSeconds = 0.9;
    EXPECT_EQ(empty.Update(p, {}), WaitOutcome::NoSignal);

    // A weak signal lost after the ensemble was read is not "no signal".
    EnsembleWait lost(WaitRule{2.0, 1.0, 0.0, false});
    EXPECT_EQ(lost.Update(p, Parsed(true, false)), WaitOutcome::Waiting);
}

TEST(EnsembleWait, StopDecidesAsATimeoutWould) {
    EnsembleWait wait(WaitRule{});
    EXPECT_EQ(wait.Update(Locked(0.3, 2), Parsed(true, false)), WaitOutcome::Waiting);
    EXPECT_EQ(wait.Stop(0.4, Parsed(true, false)), WaitOutcome::Partial);
    EXPECT_DOUBLE_EQ(wait.decidedSeconds(), 0.4);
    // Complete but not yet settled counts as complete at the end.
    EnsembleWait unsettled(WaitRule{});
    EXPECT_EQ(unsettled.Update(Locked(0.3, 2), Parsed(true, true)), WaitOutcome::Waiting);
    EXPECT_EQ(unsettled.Stop(0.4, Parsed(true, true)), WaitOutcome::Complete);
}

TEST(EnsembleWait, ShapeIgnoresTheCifCountButNotLabels) {
    ficparse::Ensemble a = Parsed(true, true);
    ficparse::Ensemble b = a;
    b.cifCountLow = 200;
    EXPECT_EQ(EnsembleShape(a), EnsembleShape(b));
    b.services.at(0xC221).label.text = "Other";
    EXPECT_NE(EnsembleShape(a), EnsembleShape(b));
    b = a;
    b.subChannels.at(2).size = 60;
    EXPECT_NE(EnsembleShape(a), EnsembleShape(b));
}

}  // namespace
