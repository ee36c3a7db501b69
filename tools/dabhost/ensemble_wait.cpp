#include "ensemble_wait.h"

#include <cmath>
#include <cstdio>

bool HasEnsemble(WaitOutcome outcome) {
    return outcome == WaitOutcome::Complete || outcome == WaitOutcome::LabelFound ||
           outcome == WaitOutcome::Partial;
}

const char* OutcomeText(WaitOutcome outcome) {
    switch (outcome) {
    case WaitOutcome::Waiting: return "waiting";
    case WaitOutcome::Complete: return "ensemble complete";
    case WaitOutcome::LabelFound: return "ensemble found";
    case WaitOutcome::Partial: return "ensemble incomplete";
    case WaitOutcome::NoSignal: return "no DAB signal";
    case WaitOutcome::NoLock: return "no lock";
    case WaitOutcome::NoEnsemble: return "lock but no ensemble label";
    case WaitOutcome::TuneFailed: return "tuning failed";
    }
    return "unknown";
}

const char* OutcomeKey(WaitOutcome outcome) {
    switch (outcome) {
    case WaitOutcome::Waiting: return "waiting";
    case WaitOutcome::Complete: return "complete";
    case WaitOutcome::LabelFound: return "found";
    case WaitOutcome::Partial: return "partial";
    case WaitOutcome::NoSignal: return "noSignal";
    case WaitOutcome::NoLock: return "noLock";
    case WaitOutcome::NoEnsemble: return "noEnsemble";
    case WaitOutcome::TuneFailed: return "tuneFailed";
    }
    return "unknown";
}

std::string EnsembleShape(const ficparse::Ensemble& e) {
    std::string shape;
    char item[64];
    std::snprintf(item, sizeof item, "%d|", e.idKnown ? int(e.id) : -1);
    shape += item;
    shape += e.label.text;
    shape += '|';
    for (const auto& [sid, s] : e.services) {
        std::snprintf(item, sizeof item, "%u:", unsigned(sid));
        shape += item;
        shape += s.label.known ? s.label.text : std::string("?");
        for (const ficparse::Component& c : s.components) {
            std::snprintf(item, sizeof item, ",%d/%d/%d", int(c.transport), c.subChannelId, int(c.packetInfoKnown));
            shape += item;
        }
        shape += ';';
    }
    shape += '|';
    for (const auto& [id, sc] : e.subChannels) {
        std::snprintf(item, sizeof item, "%d@%d+%d;", id, sc.startAddress, sc.size);
        shape += item;
    }
    return shape;
}

double FrameSeconds(int mode) {
    switch (mode) {
    case 2: return 0.024;
    case 3: return 0.024;
    case 4: return 0.048;
    default: return 0.096;
    }
}

WaitOutcome EnsembleWait::Update(const WaitPoll& poll, const ficparse::Ensemble& ensemble) {
    if (outcome_ != WaitOutcome::Waiting) return outcome_;
    outcome_ = Decide(poll, ensemble);
    if (outcome_ != WaitOutcome::Waiting) decidedAt_ = poll.elapsedSeconds;
    return outcome_;
}

WaitOutcome EnsembleWait::Decide(const WaitPoll& poll, const ficparse::Ensemble& e) {
    const double t = poll.elapsedSeconds;
    if (poll.present == 1 && firstPresent_ < 0.0) firstPresent_ = t;
    if (poll.lockKnown && poll.locked && lockAt_ < 0.0) lockAt_ = t;

    const std::string shape = EnsembleShape(e);
    if (shape != shape_) {
        shape_ = shape;
        framesAtChange_ = poll.ficFrames;
    }
    const bool labelled = e.idKnown && e.label.known;
    if (rule_.labelSuffices && labelled) return WaitOutcome::LabelFound;
    if (!rule_.labelSuffices && e.Complete()) {
        const uint64_t settleFrames = uint64_t(std::ceil(rule_.settleSeconds / FrameSeconds(poll.mode)));
        if (poll.ficFrames - framesAtChange_ >= settleFrames) return WaitOutcome::Complete;
    }

    // "No signal" only counts while nothing of an ensemble was seen: a
    // receiver that lost a weak signal after the ensemble was read still
    // has the ensemble to show at the timeout.
    if (poll.present == -1 && !e.idKnown) {
        if (noSignalSince_ < 0.0) noSignalSince_ = t;
        if (t - noSignalSince_ >= rule_.noSignalSeconds) return WaitOutcome::NoSignal;
    } else {
        noSignalSince_ = -1.0;
    }

    return t < rule_.timeoutSeconds ? WaitOutcome::Waiting : EndOutcome(e);
}

WaitOutcome EnsembleWait::EndOutcome(const ficparse::Ensemble& e) const {
    // At the end a complete picture counts even if it never settled.
    if (e.idKnown && e.label.known) return e.Complete() ? WaitOutcome::Complete : WaitOutcome::Partial;
    return lockAt_ >= 0.0 ? WaitOutcome::NoEnsemble : WaitOutcome::NoLock;
}

WaitOutcome EnsembleWait::Stop(double elapsedSeconds, const ficparse::Ensemble& ensemble) {
    if (outcome_ != WaitOutcome::Waiting) return outcome_;
    outcome_ = EndOutcome(ensemble);
    decidedAt_ = elapsedSeconds;
    return outcome_;
}
