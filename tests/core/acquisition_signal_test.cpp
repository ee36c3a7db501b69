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

#include "acquisition/coarse_frame_search.h"
#include "acquisition/frame_entry.h"
#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
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

// Pushes IqFrames of `signal` into a tuned receiver until state 3 or
// `maxFrames`. `signalStart`: the harness's frame count when the first
// IqFrame of `signal` was pushed; -1 for now.
Acquisition Continue(test::FrameHarness& h, test::DabSignal& signal, int m, double cfoHz, int32_t maxFrames,
                     int64_t signalStart = -1) {
    if (signalStart < 0) signalStart = h.frames();
    Acquisition a;
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
            const int64_t at = (h.frames() - signalStart - depth) * kIqFrameSamples + pipeline.framePosition / 2;
            int64_t e = (at + kBackoffSamples[m - 1] + 1 - signal.PhaseReferencePhase()) % period;
            if (e < 0) e += period;
            if (e >= period / 2) e -= period;
            a.positionError = e;
        }
        break;
    }
    return a;
}

// Tunes a fresh receiver to `signal`, from its first byte on.
Acquisition Acquire(test::DabSignal& signal, int m, double cfoHz, int32_t maxFrames, int32_t tunerType = 1) {
    test::FrameHarness h(tunerType);
    if (!h.ready()) return Acquisition{};
    h.Tune(kTuneKhz);
    return Continue(h, signal, m, cfoHz, maxFrames);
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

// Shifts the integer search reaches, in bins: a carrier offset of -s carrier
// spacings needs the shift s.
constexpr int32_t kLowestShift[4] = {-224, -96, -32, -96};
constexpr int32_t kHighestShift[4] = {199, 49, 31, 99};

TEST(AcquisitionOnSignal, IntegerShiftAcrossTheReachableRangeAndWrongJustOutside) {
    for (int m = 1; m <= 4; ++m) {
        const int32_t lo = kLowestShift[m - 1], hi = kHighestShift[m - 1];
        const double spacing = kCarrierSpacingHz[m - 1];
        for (int32_t s : {lo, -33, 32, hi, lo - 1, hi + 1}) {
            if (s < lo - 1 || s > hi + 1) continue;
            const bool reachable = s >= lo && s <= hi;
            // A fraction on top, of either sign, for the cyclic-prefix estimate.
            const double cfo = (-s + (s & 1 ? 0.3 : -0.3)) * spacing;
            test::DabSignal signal(m, Channel(uint64_t(100 + s), 20.0, cfo, 0.0), uint64_t(7 + m));
            const Acquisition a = Acquire(signal, m, cfo, 30);
            SCOPED_TRACE(::testing::Message() << "mode " << m << " shift " << s);
            ASSERT_TRUE(a.tracked);
            EXPECT_EQ(a.decidedMode, m - 1);
            if (reachable) {
                EXPECT_EQ(a.integerShift, s);
                EXPECT_LT(std::abs(a.frequencyError), 0.1);
            } else {
                EXPECT_NE(a.integerShift, s);
                EXPECT_GT(std::abs(a.frequencyError), 0.9);
            }
        }
    }
}

TEST(AcquisitionOnSignal, AFailingDftServiceReturnsToACleanSearch) {
    const int m = 2;
    const double cfo = 3.2 * kCarrierSpacingHz[m - 1];
    test::DabSignal signal(m, Channel(5, 20.0, cfo, 0.0), 5);
    test::FrameHarness h;
    ASSERT_TRUE(h.ready());
    h.Tune(kTuneKhz);
    dftPlanFailuresPending = 1;
    std::vector<uint8_t> frame(kIqFrameBytes);
    int32_t failedAt = 0;
    for (int32_t f = 1; f <= 10 && failedAt == 0; ++f) {
        signal.NextIqFrame(frame.data());
        h.PushIqFrame(frame.data());
        if (dftPlanFailuresPending == 0) failedAt = f;
        ASSERT_NE(pipeline.acquisitionState, 2);
    }
    dftPlanFailuresPending = 0;
    ASSERT_NE(failedAt, 0) << "the position was never confirmed";
    // No plan, no layout claimed, and no history switched on.
    EXPECT_EQ(mode.configuredMode, -1);
    EXPECT_EQ(dftPlan.forward, nullptr);
    EXPECT_EQ(workBlocks.historyBase, nullptr);
    EXPECT_EQ(pipeline.resyncRequest, 1);

    signal.NextIqFrame(frame.data());
    h.PushIqFrame(frame.data());
    EXPECT_EQ(pipeline.acquisitionState, 0) << "searching again from nothing";
    EXPECT_EQ(pipeline.resyncRequest, 0);

    // The next attempt gets its plan and locks as usual.
    const Acquisition a = Continue(h, signal, m, cfo, 30, 0);
    ASSERT_TRUE(a.tracked);
    EXPECT_LT(std::abs(a.positionError), 80);
    EXPECT_EQ(mode.configuredMode, m - 1);
    EXPECT_EQ(dftPlan.committed, 1);
    EXPECT_LT(std::abs(a.frequencyError), 0.1);
}

TEST(AcquisitionOnSignal, OffsetsNearHalfACarrierSpacing) {
    // The cyclic-prefix angle then sits near +-pi, where noise puts single
    // symbols on either side.
    for (int m = 1; m <= 4; ++m) {
        for (double carriers : {-0.47, 4.48, -7.46}) {
            const double cfo = carriers * kCarrierSpacingHz[m - 1];
            test::DabSignal signal(m, Channel(uint64_t(200 + m), 10.0, cfo, 0.0), uint64_t(3 + m));
            const Acquisition a = Acquire(signal, m, cfo, 30);
            SCOPED_TRACE(::testing::Message() << "mode " << m << " offset " << carriers << " spacings");
            ASSERT_TRUE(a.tracked);
            EXPECT_EQ(a.decidedMode, m - 1);
            EXPECT_LT(std::abs(a.frequencyError), 0.1) << "shift " << a.integerShift;
        }
    }
}

TEST(AcquisitionOnSignal, ReadsOfAnySizeGiveTheSameLock) {
    // The same signal once as whole IqFrames, once as a device's reads of
    // uneven sizes: the same frame steps, the same position and correction.
    const int m = 4;
    const double cfo = -12.3 * kCarrierSpacingHz[m - 1];
    struct Lock {
        int64_t frames;
        int32_t position;
        double increment;
    };
    auto lockOf = [&](bool uneven) {
        test::DabSignal signal(m, Channel(9, 12.0, cfo, 0.05), 9);
        test::FrameHarness h;
        h.Tune(kTuneKhz);
        std::vector<uint8_t> bytes(kIqFrameBytes);
        uint32_t size = 1000;
        while (pipeline.acquisitionState != 3 && h.frames() < 30) {
            if (!uneven) {
                signal.NextIqFrame(bytes.data());
                h.PushIqFrame(bytes.data());
                continue;
            }
            size = (size * 1103515245u + 12345u) % 200000u;
            const int32_t count = int32_t(2 + (size & ~1u));
            signal.Read(bytes.data(), size_t(count));
            // Stop at the step that entered state 3, as the frame pushes do.
            for (int32_t done = 0; done < count && pipeline.acquisitionState != 3;) {
                const int32_t n = std::min<int32_t>(count - done, 2 * 4096);
                h.PushBytes(bytes.data() + done, n);
                done += n;
            }
        }
        return Lock{h.frames(), pipeline.framePosition, frequencyCorrection.samplePhaseIncrement};
    };
    const Lock whole = lockOf(false);
    const Lock reads = lockOf(true);
    ASSERT_LT(whole.frames, 30);
    EXPECT_EQ(reads.frames, whole.frames);
    EXPECT_EQ(reads.position, whole.position);
    EXPECT_EQ(reads.increment, whole.increment);
}

TEST(AcquisitionOnSignal, WithoutPrefilterForBandwidthCodeOne) {
    // Tuner type 2 is tuned with bandwidth code 1: the power envelope is
    // taken from the raw samples and the prefilter history is left alone.
    {
        test::FrameHarness h(2);
        ASSERT_TRUE(h.ready());
        h.Tune(kTuneKhz);
        test::DabSignal signal(2, Channel(4, 15.0, 0.0, 0.0), 4);
        std::vector<uint8_t> frame(kIqFrameBytes);
        for (int f = 0; f < 3; ++f) {
            signal.NextIqFrame(frame.data());
            h.PushIqFrame(frame.data());
            for (int i = 0; i < 6; ++i) ASSERT_EQ(workBlocks.filterI[i], 0.0f) << "frame " << f;
        }
    }
    for (int m = 1; m <= 4; ++m) {
        const double cfo = OffsetOfSeed(m, 30 + m);
        test::DabSignal signal(m, Channel(30 + m, 15.0, cfo, 0.05), 30 + m);
        const Acquisition a = Acquire(signal, m, cfo, 30, 2);
        SCOPED_TRACE(::testing::Message() << "mode " << m);
        ASSERT_TRUE(a.tracked);
        EXPECT_EQ(a.decidedMode, m - 1);
        // No filter delay in the envelope: the null lands on the sample.
        EXPECT_LE(std::abs(a.positionError), 2);
        EXPECT_LT(std::abs(a.frequencyError), 0.1);
    }
}

TEST(AcquisitionOnSignal, RetuneToAnotherModeReplacesThePlanAndTheSameModeKeepsIt) {
    test::FrameHarness h;
    ASSERT_TRUE(h.ready());
    auto lockTo = [&](int m, int32_t khz, uint64_t seed) {
        h.Tune(khz);
        const double cfo = OffsetOfSeed(m, seed);
        test::DabSignal signal(m, Channel(seed, 15.0, cfo, 0.0), seed);
        return Continue(h, signal, m, cfo, 30);
    };
    Acquisition a = lockTo(2, 227360, 41);
    ASSERT_TRUE(a.tracked);
    EXPECT_EQ(dftPlan.length, 512);
    EXPECT_EQ(workBlocks.historyBase, workBlocks.middleSlot);

    // Mode I needs the third history slot and a plan of another length.
    a = lockTo(1, 225648, 42);
    ASSERT_TRUE(a.tracked);
    EXPECT_EQ(a.decidedMode, 0);
    EXPECT_EQ(mode.configuredMode, 0);
    EXPECT_EQ(dftPlan.length, 2048);
    EXPECT_EQ(workBlocks.historyBase, workBlocks.oldestSlot);
    EXPECT_LT(std::abs(a.positionError), 80);
    EXPECT_LT(std::abs(a.frequencyError), 0.1);

    // The same mode again: the plan and the layout stay as they are.
    const void* plan = dftPlan.forward;
    const float* reference = modeBuffers.referenceSymbol;
    a = lockTo(1, 227360, 43);
    ASSERT_TRUE(a.tracked);
    EXPECT_EQ(dftPlan.forward, plan);
    EXPECT_EQ(modeBuffers.referenceSymbol, reference);
    EXPECT_LT(std::abs(a.frequencyError), 0.1);
}

// Outcome of many acquisitions under one condition.
struct SweepRow {
    int32_t runs = 0;
    int32_t successes = 0;               // state 3, right mode, frequency within 0.1 spacing
    std::vector<int32_t> frames;         // IqFrames to state 3 of the successes
    int64_t worstPosition = 0;           // samples, over the successes
    double worstFrequency = 0.0;         // carrier spacings, over the successes
};

void Record(SweepRow& row, const Acquisition& a, int m) {
    ++row.runs;
    if (!a.tracked || a.decidedMode != m - 1 || std::abs(a.frequencyError) >= 0.1) return;
    ++row.successes;
    row.frames.push_back(a.framesToTrack);
    row.worstPosition = std::max<int64_t>(row.worstPosition, std::abs(a.positionError));
    row.worstFrequency = std::max(row.worstFrequency, std::abs(a.frequencyError));
}

std::string Describe(SweepRow row) {
    char text[160];
    if (row.frames.empty()) {
        std::snprintf(text, sizeof text, "%3d/%-3d", row.successes, row.runs);
        return text;
    }
    std::sort(row.frames.begin(), row.frames.end());
    std::snprintf(text, sizeof text, "%3d/%-3d frames %2d/%2d/%2d  |pos| <= %lld  |df| <= %.3f", row.successes,
                  row.runs, row.frames.front(), row.frames[row.frames.size() / 2], row.frames.back(),
                  static_cast<long long>(row.worstPosition), row.worstFrequency);
    return text;
}

// Budget of one acquisition: three rounds of search and hold-off and more.
constexpr int32_t kSweepFrames = 60;

TEST(AcquisitionSweep, IqFramesFromTuningToTrackingOverTwentySeeds) {
    if (!LongTests()) GTEST_SKIP() << "MVDAB_LONG_TESTS=1";
    std::printf("IqFrames from tuning to state 3 (0.1 s noise lead-in, random start, 15 dB, offsets of +-20.5 carriers)\n");
    std::printf("mode  success  frames min/median/max\n");
    for (int m = 1; m <= 4; ++m) {
        SweepRow row;
        for (uint64_t seed = 1; seed <= 20; ++seed) {
            const double cfo = OffsetOfSeed(m, seed);
            test::DabSignal signal(m, Channel(seed, 15.0, cfo, 0.1), seed);
            Record(row, Acquire(signal, m, cfo, kSweepFrames), m);
        }
        std::printf("%4d  %s\n", m, Describe(row).c_str());
        EXPECT_EQ(row.successes, row.runs) << "mode " << m;
    }
}

TEST(AcquisitionSweep, SuccessAgainstNoiseAndMultipath) {
    if (!LongTests()) GTEST_SKIP() << "MVDAB_LONG_TESTS=1";
    constexpr uint64_t kSeeds = 10;
    std::printf("State 3 with the right mode and frequency within %d IqFrames, %d seeds, random start\n",
                kSweepFrames, int(kSeeds));
    for (int m = 1; m <= 4; ++m) {
        std::printf("mode %d\n", m);
        for (int snr = 0; snr <= 20; snr += 2) {
            SweepRow row;
            for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
                const double cfo = OffsetOfSeed(m, seed + 50);
                test::DabSignal signal(m, Channel(seed + 50, snr, cfo, 0.0), seed);
                Record(row, Acquire(signal, m, cfo, kSweepFrames), m);
            }
            std::printf("  AWGN %2d dB        %s\n", snr, Describe(row).c_str());
            std::fflush(stdout);
        }
        for (double ppm : {-100.0, 100.0}) {
            SweepRow row;
            for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
                const double cfo = OffsetOfSeed(m, seed + 110);
                gen::ChannelParams c = Channel(seed + 110, 15.0, cfo, 0.0);
                c.sampleClockPpm = ppm;
                test::DabSignal signal(m, c, seed);
                Record(row, Acquire(signal, m, cfo, kSweepFrames), m);
            }
            // |pos| here also counts the drift of the clock against the
            // nominal frame grid, not only the receiver's error.
            std::printf("  clock %+4.0f ppm 15 dB %s\n", ppm, Describe(row).c_str());
        }
        for (const char* profile : {"urban", "sfn-long"}) {
            for (int snr : {10, 20}) {
                SweepRow row;
                for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
                    const double cfo = OffsetOfSeed(m, seed + 80);
                    gen::ChannelParams c = Channel(seed + 80, snr, cfo, 0.0);
                    gen::MultipathProfile(profile, &c.taps);
                    test::DabSignal signal(m, c, seed);
                    Record(row, Acquire(signal, m, cfo, kSweepFrames), m);
                }
                std::printf("  %-8s %2d dB     %s\n", profile, snr, Describe(row).c_str());
            }
        }
    }
}

}  // namespace
}  // namespace mvdab
