// When to stop waiting on a tuned frequency: the decision between "keep
// waiting", "the ensemble is complete", and the ways of finding nothing.
//
// Completeness alone is not enough, because the FIC spreads the multiplex
// description over many frames: an ensemble that lists one service and its
// label looks complete until the next service's FIG arrives. So a complete
// ensemble must also stay unchanged for a settle time, counted in FIC frames
// received (not wall time, so that a device running faster or slower than
// real time settles after the same amount of signal).
#pragma once

#include <cstdint>
#include <string>

#include "tools/ficparse/ensemble.h"

enum class WaitOutcome {
    Waiting,     // nothing decided yet
    Complete,    // every service labelled and all sub-channels known, settled
    LabelFound,  // ensemble id and label known (enough for a scan)
    Partial,     // timeout (or interrupt) with ensemble id and label, but parts missing
    NoSignal,    // the receiver found no DAB signal
    NoLock,      // timeout without lock
    NoEnsemble,  // timeout with lock but without ensemble id and label
    TuneFailed,  // the receiver refused the frequency (set by the host, not by the wait)
};

// True for the outcomes that have an ensemble to show.
bool HasEnsemble(WaitOutcome outcome);
const char* OutcomeText(WaitOutcome outcome);  // e.g. "no DAB signal"
const char* OutcomeKey(WaitOutcome outcome);   // JSON form, e.g. "noSignal"

struct WaitRule {
    double timeoutSeconds = 20.0;  // s: longest wait
    double settleSeconds = 1.0;    // s of FIC: a complete ensemble stays unchanged this long
    double noSignalSeconds = 3.0;  // s: "no DAB signal" held this long ends the wait; 0 at once
    bool labelSuffices = false;    // stop at ensemble id and label (scan)
};

// One look at the receiver.
struct WaitPoll {
    double elapsedSeconds = 0.0;  // s since tuning
    int32_t present = 0;          // signal present answer: -1, 0, 1
    bool lockKnown = false;       // the lock query wrote an answer
    bool locked = false;          // its answer
    uint64_t ficFrames = 0;       // FIC frames parsed since tuning
    int mode = 0;                 // transmission mode 1..4 (I..IV); 0 unknown
};

// Everything of the ensemble that decides whether it has changed: services,
// their labels and components, sub-channels; not the CIF count.
std::string EnsembleShape(const ficparse::Ensemble& ensemble);

// Duration of a transmission frame in seconds for mode 1..4; mode I for others.
double FrameSeconds(int mode);

class EnsembleWait {
public:
    explicit EnsembleWait(const WaitRule& rule) : rule_(rule) {}

    // Takes one poll and the ensemble parsed so far; returns the decision.
    // Once decided, the same outcome is returned again.
    WaitOutcome Update(const WaitPoll& poll, const ficparse::Ensemble& ensemble);

    // Ends the wait early (the user interrupted), deciding as at a timeout.
    WaitOutcome Stop(double elapsedSeconds, const ficparse::Ensemble& ensemble);

    double firstPresentSeconds() const { return firstPresent_; }  // s; -1 never
    double lockSeconds() const { return lockAt_; }                 // s to first lock; -1 never
    double decidedSeconds() const { return decidedAt_; }           // s; -1 not yet

private:
    WaitOutcome Decide(const WaitPoll& poll, const ficparse::Ensemble& ensemble);
    WaitOutcome EndOutcome(const ficparse::Ensemble& ensemble) const;

    WaitRule rule_;
    WaitOutcome outcome_ = WaitOutcome::Waiting;
    double firstPresent_ = -1.0;
    double lockAt_ = -1.0;
    double decidedAt_ = -1.0;
    double noSignalSince_ = -1.0;
    std::string shape_;
    uint64_t framesAtChange_ = 0;  // FIC frames parsed when the shape last changed
};
