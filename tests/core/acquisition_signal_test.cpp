// Acquisition from nothing on transmitted signals of random channel bits:
// mode, frame position and frequency error found by the frame steps, in every
// transmission mode, through noise lead-ins, random start positions, carrier
// offsets and noise; a failing DFT plan and re-tunes on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <tuple>
#include <vector>

#include "acquisition/frame_entry.h"
#include "acquisition/mode_buffers.h"
#include "demodulation/dft_service.h"
#include "generator/channel_model.h"
#include "generator/frame_transmitter.h"
#include "receiver/receiver_state.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

constexpr int32_t kTuneKhz = 227360;
constexpr int32_t kBackoffSamples[4] = {240, 60, 30, 120};
constexpr double kSpacingHz[4] = {1000.0, 4000.0, 8000.0, 2000.0};

// Random channel bits of mode `m` (1..4) through the channel model, as the
// device delivers them, one IqFrame at a time.
class Signal {
public:
    Signal(int m, const gen::ChannelParams& channel, uint64_t bitsSeed)
        : tx_(gen::MakeRandomFrameBits(m, bitsSeed), m), channel_(channel, tx_.MeanPower()),
          leadIn_(std::llround(channel.leadInSeconds * gen::kChannelSampleRate)), samples_(kIqFrameSamples) {}
    void Next(uint8_t* out) {
        while (bytes_.size() < size_t(kIqFrameBytes)) {
            tx_.Read(samples_.data(), samples_.size());
            channel_.ProcessU8(samples_.data(), samples_.size(), piece_);
            bytes_.insert(bytes_.end(), piece_.begin(), piece_.end());
        }
        std::copy(bytes_.begin(), bytes_.begin() + kIqFrameBytes, out);
        bytes_.erase(bytes_.begin(), bytes_.begin() + kIqFrameBytes);
    }
    // Stream sample at which phase reference symbols begin, modulo the frame period.
    int64_t PhaseReferencePhase() const {
        const int64_t period = tx_.Geometry().frameSamples;
        const int64_t at = leadIn_ + tx_.Geometry().nullSamples - int64_t(channel_.DroppedInputSamples());
        return (at % period + period) % period;
    }
    int64_t FrameSamples() const { return tx_.Geometry().frameSamples; }

private:
    gen::FrameTransmitter tx_;
    gen::ChannelModel channel_;
    int64_t leadIn_;
    std::vector<std::complex<float>> samples_;
    std::vector<uint8_t> piece_, bytes_;
};

gen::ChannelParams Channel(uint64_t seed, double snrDb, double offsetHz, double leadInSeconds = 0.0) {
    gen::ChannelParams c;
    c.seed = seed;
    c.snrDb = snrDb;
    c.frequencyOffsetHz = offsetHz;
    c.leadInSeconds = leadInSeconds;
    c.randomStart = true;
    return c;
}

// What one acquisition reached, read at the frame step that entered state 3.
struct Acquisition {
    bool tracked = false;
    int32_t decidedMode = -1;
    int64_t positionError = 0;    // samples between the frame position and the true one
    double frequencyError = 0.0;  // residual carrier offset after correction, in carrier spacings
};

// Pushes IqFrames into a tuned receiver until state 3 or `maxFrames`.
// `signalStart`: the harness's frame count when the signal's first IqFrame
// was pushed; -1 for now.
Acquisition Continue(test::FrameHarness& h, Signal& signal, int m, double cfoHz, int32_t maxFrames,
                     int64_t signalStart = -1) {
    if (signalStart < 0) signalStart = h.frames();
    std::vector<uint8_t> frame(kIqFrameBytes);
    for (int32_t f = 1; f <= maxFrames; ++f) {
        signal.Next(frame.data());
        h.PushIqFrame(frame.data());
        if (pipeline.acquisitionState != 3) continue;
        Acquisition a{true, mode.transmissionMode, 0, 0.0};
        // The correction that takes the offset out is the negative offset.
        a.frequencyError = (frequencyCorrection.samplePhaseIncrement * 2048000.0 / kTwoPi + cfoHz) / kSpacingHz[m - 1];
        // framePosition counts from the oldest of the history slots in use.
        const int64_t depth = m == 1 ? 3 : 2, period = signal.FrameSamples();
        const int64_t at = (h.frames() - signalStart - depth) * kIqFrameSamples + pipeline.framePosition / 2;
        const int64_t e = ((at + kBackoffSamples[m - 1] + 1 - signal.PhaseReferencePhase()) % period + period) % period;
        a.positionError = e >= period / 2 ? e - period : e;
        return a;
    }
    return Acquisition{};
}

// Tunes a fresh receiver and acquires `channel` from its first byte on.
Acquisition Acquire(int m, const gen::ChannelParams& channel, uint64_t bitsSeed, int32_t maxFrames) {
    Signal signal(m, channel, bitsSeed);
    test::FrameHarness h;
    if (!h.ready()) return Acquisition{};
    h.Tune(kTuneKhz);
    return Continue(h, signal, m, channel.frequencyOffsetHz, maxFrames);
}

// A carrier offset of the seed, -20.45 .. 20.44 carrier spacings.
double OffsetOfSeed(int m, uint64_t seed) {
    const double carriers = double(int64_t(seed * 7919 % 41) - 20) + double(seed * 104729 % 90) / 100.0 - 0.45;
    return carriers * kSpacingHz[m - 1];
}

// One receiver through the life of its DFT plan: a plan that fails to come
// returns to a clean search; the next attempt locks mode II; a re-tune to mode
// I replaces plan and layout.
TEST(AcquisitionOnSignal, AFailingDftServiceReturnsToACleanSearchAndRetunesReplaceThePlan) {
    const double cfo = 3.2 * kSpacingHz[1];
    Signal signal(2, Channel(5, 20.0, cfo), 5);
    test::FrameHarness h;
    ASSERT_TRUE(h.ready());
    h.Tune(kTuneKhz);
    dftPlanFailuresPending = 1;
    std::vector<uint8_t> frame(kIqFrameBytes);
    for (int32_t f = 1; f <= 10 && dftPlanFailuresPending != 0; ++f) {
        signal.Next(frame.data());
        h.PushIqFrame(frame.data());
        ASSERT_NE(pipeline.acquisitionState, 2);
    }
    ASSERT_EQ(dftPlanFailuresPending, 0) << "the position was never confirmed";
    // No plan, no layout claimed, and no history switched on.
    EXPECT_EQ(mode.configuredMode, -1);
    EXPECT_EQ(dftPlan.forward, nullptr);
    EXPECT_EQ(workBlocks.historyBase, nullptr);
    EXPECT_EQ(pipeline.resyncRequest, 1);
    signal.Next(frame.data());
    h.PushIqFrame(frame.data());
    EXPECT_EQ(pipeline.acquisitionState, 0) << "searching again from nothing";
    EXPECT_EQ(pipeline.resyncRequest, 0);

    Acquisition a = Continue(h, signal, 2, cfo, 30, 0);
    ASSERT_TRUE(a.tracked);
    EXPECT_LT(std::abs(a.positionError), 80);
    EXPECT_LT(std::abs(a.frequencyError), 0.1);
    EXPECT_EQ(std::tuple(mode.configuredMode, dftPlan.committed, dftPlan.length), std::tuple(1, 1, 512));
    EXPECT_EQ(workBlocks.historyBase, workBlocks.middleSlot);

    auto lockToModeI = [&](int32_t khz, uint64_t seed) {
        h.Tune(khz);
        Signal modeI(1, Channel(seed, 15.0, OffsetOfSeed(1, seed)), seed);
        return Continue(h, modeI, 1, OffsetOfSeed(1, seed), 30);
    };
    // Mode I needs the third history slot and a plan of another length.
    a = lockToModeI(225648, 42);
    ASSERT_TRUE(a.tracked);
    EXPECT_EQ(std::tuple(a.decidedMode, mode.configuredMode, dftPlan.length), std::tuple(0, 0, 2048));
    EXPECT_EQ(workBlocks.historyBase, workBlocks.oldestSlot);
    EXPECT_LT(std::abs(a.positionError), 80);
    EXPECT_LT(std::abs(a.frequencyError), 0.1);
}

// Noise fills the nulls and shortens their dips: mode III at 4 dB gave dips
// of mode II's length class and was taken for mode II. Mode II at 0 dB must
// not turn into mode III the other way round.
TEST(AcquisitionOnSignal, ModeIIIInDeepNoiseIsNotTakenForModeII) {
    for (const auto& [m, snr, seed] : {std::tuple{3, 4.0, 302u}, std::tuple{3, 4.0, 303u}, std::tuple{2, 0.0, 302u}}) {
        SCOPED_TRACE(::testing::Message() << "mode " << m << " " << snr << " dB seed " << seed);
        const Acquisition a = Acquire(m, Channel(seed, snr, OffsetOfSeed(m, seed)), seed, 30);
        ASSERT_TRUE(a.tracked);
        EXPECT_EQ(a.decidedMode, m - 1);
    }
}

}  // namespace
}  // namespace mvdab
