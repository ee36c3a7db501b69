// Acquisition from nothing on transmitted signals: mode, frame position and
// frequency error found by the frame steps, in every transmission mode,
// through noise lead-ins, random start positions, carrier offsets, noise and
// multipath.
//
// MVDAB_LONG_TESTS=1 adds the sweeps that print tables: IqFrames from tuning
// to tracking over 20 seeds per mode, success against SNR and multipath.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "acquisition/frame_entry.h"
#include "receiver/receiver_state.h"
#include "tests/support/dab_signal.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

constexpr int32_t kTuneKhz = 227360;
constexpr int32_t kBackoffSamples[4] = {240, 60, 30, 120};
constexpr double kCarrierSpacingHz[4] = {1000.0, 4000.0, 2048000.0 / 256, 2000.0};
constexpr double kSampleRate = 2048000.0;

bool LongTests() {
    const char* v = std::getenv("MVDAB_LONG_TESTS");
    return v != nullptr && std::string(v) == "1";
}

// What one acquisition reached, read at the frame step that entered state 3
// (before any tracked frame has moved the estimates).
struct Acquisition {
    bool tracked = false;          // state 3 reached
    int32_t framesToTrack = -1;    // IqFrames pushed until then, the tuning frame included
    int32_t decidedMode = -1;      // transmissionMode
    int64_t positionError = 0;     // samples between the frame position and where it should be
    double frequencyError = 0.0;   // residual carrier offset after correction, in carrier spacings
    int32_t integerShift = 0;      // best shift of the entry, bins
    int32_t restarts = 0;          // hold-offs passed on the way
};

// Tunes a fresh receiver and pushes IqFrames of `signal` until state 3 or
// `maxFrames`.
Acquisition Acquire(test::DabSignal& signal, int m, double cfoHz, int32_t maxFrames) {
    test::FrameHarness h;
    Acquisition a;
    if (!h.ready()) return a;
    h.Tune(kTuneKhz);
    std::vector<uint8_t> frame(kIqFrameBytes);
    int32_t previousState = pipeline.acquisitionState;
    for (int32_t f = 1; f <= maxFrames; ++f) {
        signal.NextIqFrame(frame.data());
        h.PushIqFrame(frame.data());
        if (pipeline.acquisitionState == -1 && previousState != -1) ++a.restarts;
        previousState = pipeline.acquisitionState;
        if (pipeline.acquisitionState != 3) continue;
        a.tracked = true;
        a.framesToTrack = f;
        a.decidedMode = mode.transmissionMode;
        a.integerShift = frameEntry.integerShift;
        // The correction that takes the offset out is the negative offset.
        const double correctionHz = frequencyCorrection.samplePhaseIncrement * kSampleRate / kTwoPi;
        a.frequencyError = (correctionHz + cfoHz) / kCarrierSpacingHz[m - 1];
        if (a.decidedMode == m - 1) {
            // framePosition is counted from historyBase, the start of the
            // oldest of H slots: stream sample (pushed - H) x 120,320.
            const int64_t depth = m == 1 ? 3 : 2;
            const int64_t period = signal.FramePeriod();
            const int64_t at = (h.frames() - depth) * kIqFrameSamples + pipeline.framePosition / 2;
            int64_t e = (at + kBackoffSamples[m - 1] + 1 - signal.PhaseReferencePhase()) % period;
            if (e < 0) e += period;
            if (e >= period / 2) e -= period;
            a.positionError = e;
        }
        break;
    }
    return a;
}

gen::ChannelParams Channel(uint64_t seed, double snrDb, double cfoHz, double leadIn) {
    gen::ChannelParams c;
    c.seed = seed;
    c.snrDb = snrDb;
    c.frequencyOffsetHz = cfoHz;
    c.leadInSeconds = leadIn;
    c.randomStart = true;
    return c;
}

// A carrier offset of the seed, within the reach of every mode's search.
double OffsetOfSeed(int m, uint64_t seed) {
    const double spacing = kCarrierSpacingHz[m - 1];
    const double carriers = static_cast<double>(static_cast<int64_t>(seed * 7919 % 41) - 20);  // -20..20
    const double fraction = static_cast<double>(seed * 104729 % 90) / 100.0 - 0.45;           // -0.45..0.44
    return (carriers + fraction) * spacing;
}

TEST(AcquisitionOnSignal, EveryModeFromNoiseLeadInAndRandomStart) {
    for (int m = 1; m <= 4; ++m) {
        for (uint64_t seed : {1u, 2u}) {
            const double cfo = OffsetOfSeed(m, seed);
            test::DabSignal signal(m, Channel(seed, 15.0, cfo, 0.1 * double(seed)), seed);
            const Acquisition a = Acquire(signal, m, cfo, 40);
            SCOPED_TRACE(::testing::Message() << "mode " << m << " seed " << seed << " cfo " << cfo << " Hz");
            ASSERT_TRUE(a.tracked);
            EXPECT_EQ(a.decidedMode, m - 1);
            EXPECT_LT(std::abs(a.positionError), 80) << "samples";
            EXPECT_LT(std::abs(a.frequencyError), 0.1) << "carrier spacings, shift " << a.integerShift;
        }
    }
}

}  // namespace
}  // namespace mvdab
