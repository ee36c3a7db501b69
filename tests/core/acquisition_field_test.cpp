// Acquisition on the generated default ensemble through the whole frame step,
// judged by what a listener sees: syncState 4 and FIBs that pass their CRC.
// Covers the edges of the frequency capture range, deep noise, a strong CW
// and fast fading.
//
// MVDAB_LONG_TESTS=1 adds the sweeps that print tables: lock and good FIBs
// across the capture range, success against SNR, time to lock, and fading.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "acquisition/frame_entry.h"
#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "tests/support/dab_signal.h"
#include "tests/support/frame_harness.h"

namespace {

using namespace mvdab;

constexpr int32_t kFrequency = 227360;
constexpr double kSampleRate = 2048000.0;
constexpr double kSpacingKhz[4] = {1.0, 4.0, 8.0, 2.0};

// MVDAB_SWEEP_MODE=1..4 limits the sweeps to one mode.
bool SweepMode(int32_t mode) {
    const char* only = std::getenv("MVDAB_SWEEP_MODE");
    return only == nullptr || std::atoi(only) == mode;
}

bool LongTestsWanted() {
    const char* v = std::getenv("MVDAB_LONG_TESTS");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

// FIB counts of the frames delivered since the receiver reached syncState 4.
int64_t fibsSeen = 0, fibsGood = 0;

void CountFibs(uint8_t*, int32_t length, int32_t flags) {
    if (receiverStatus.syncState != 4 && fibsSeen == 0) return;
    for (int32_t i = 0; i < length / 32; ++i) {
        ++fibsSeen;
        fibsGood += (flags >> (15 - i)) & 1;
    }
}

struct Outcome {
    double lockSeconds = -1.0;  // signal time from tuning to the first syncState 4; -1 never
    double goodShare = 0.0;     // good FIBs of those delivered from then on
    int64_t fibs = 0;           // FIBs delivered from then on
    bool lockedAtEnd = false;   // syncState 4 after the last frame step
};

// A CW added to the transmitted signal from `fromSeconds` of signal on:
// unlike the channel model's own, it can come on after lock.
struct LateCw {
    double fromSeconds = 1e9;  // s of signal before it comes on
    double offsetHz = 0.0;     // from the tuned centre
    double powerDb = 0.0;      // relative to the ensemble's mean power
};

// Tunes a fresh receiver and feeds it `seconds` of the default ensemble of
// `mode` (1..4) through `channel`, one IqFrame of samples at a time. Stops
// early `afterLock` seconds after the first syncState 4, if that is >= 0.
Outcome Receive(int32_t mode, const gen::ChannelParams& channel, double seconds, double afterLock = -1.0,
                uint64_t bitsSeed = 1, const LateCw& cw = {}) {
    Outcome o;
    gen::EnsembleBits bits;
    std::string error;
    if (!gen::MakeEnsembleBits("default", "", mode, bitsSeed, &bits, &error)) {
        ADD_FAILURE() << error;
        return o;
    }
    gen::FrameTransmitter tx(std::move(bits.source), mode);
    gen::ChannelParams params = channel;
    // With a late CW the gain is set for signal, noise and CW together, so
    // that the CW coming on does not drive the converter into clipping.
    const double cwShare = std::pow(10.0, cw.powerDb / 10.0);
    if (cw.fromSeconds < seconds && params.gain == 0.0) {
        const double noiseShare =
            std::isfinite(params.snrDb) ? std::pow(10.0, -params.snrDb / 10.0) * 2.048 / 1.536 : 0.0;
        params.gain = gen::kAutoRmsLsb / std::sqrt(tx.MeanPower() * (1.0 + cwShare + noiseShare) / 2.0);
    }
    gen::ChannelModel model(params, tx.MeanPower());
    test::FrameHarness h;
    if (!h.ready()) return o;
    h.Tune(kFrequency);
    fibsSeen = fibsGood = 0;
    ficCallback.store(CountFibs);
    std::vector<std::complex<float>> samples(kIqFrameSamples);
    std::vector<uint8_t> bytes;
    double pushed = -channel.leadInSeconds;
    const double cwAmplitude = std::sqrt(tx.MeanPower() * cwShare);
    int64_t sent = 0;
    while (pushed < seconds) {
        tx.Read(samples.data(), samples.size());
        for (auto& x : samples) {
            const double t = static_cast<double>(sent++) / kSampleRate;
            if (t < cw.fromSeconds) continue;
            const double phase = std::fmod(kTwoPi * cw.offsetHz * t, kTwoPi);
            x += std::polar(static_cast<float>(cwAmplitude), static_cast<float>(phase));
        }
        model.ProcessU8(samples.data(), samples.size(), bytes);
        h.PushBytes(bytes.data(), static_cast<int32_t>(bytes.size()));
        pushed += static_cast<double>(bytes.size() / 2) / kSampleRate;
        if (o.lockSeconds < 0.0 && receiverStatus.syncState == 4) o.lockSeconds = pushed + channel.leadInSeconds;
        if (afterLock >= 0.0 && o.lockSeconds >= 0.0 && pushed + channel.leadInSeconds > o.lockSeconds + afterLock)
            break;
    }
    ficCallback.store(nullptr);
    o.fibs = fibsSeen;
    o.goodShare = fibsSeen > 0 ? static_cast<double>(fibsGood) / static_cast<double>(fibsSeen) : 0.0;
    o.lockedAtEnd = receiverStatus.syncState == 4;
    return o;
}

// A CW as strong as the whole ensemble comes on after lock; its products
// once pulled the frequency loop off the ensemble and lock was lost (mode I
// with excision as well). Lock holds, with every FIB good and the correction
// within 2 % of a carrier spacing.
TEST(FieldSignal, StrongCwPulledTheFrequencyLoop) {
    for (const auto& [mode, cwKhz] : {std::pair{1, -100.3}, std::pair{2, 37.7}}) {
        SCOPED_TRACE(::testing::Message() << "mode " << mode << " CW at " << cwKhz << " kHz");
        const double offsetHz = 3000.0;
        const LateCw cw{1.2, cwKhz * 1000.0 - offsetHz, 0.0};
        const Outcome o = Receive(mode, test::RandomStartChannel(11, 15.0, offsetHz), 3.5, -1.0, 1, cw);
        ASSERT_GE(o.lockSeconds, 0.0);
        EXPECT_LT(o.lockSeconds, 1.2);
        EXPECT_TRUE(o.lockedAtEnd);
        EXPECT_GE(o.goodShare, 0.99);
        const double correctionHz = -frequencyCorrection.samplePhaseIncrement * kSampleRate / kTwoPi;
        EXPECT_NEAR(correctionHz, offsetHz, 0.02 * kSpacingKhz[mode - 1] * 1000.0);
    }
}

// Flat Rayleigh fading at 40 Hz: every few tens of milliseconds a deep fade
// opens a dip of its own, which broke the interval count between nulls, and
// mode I was never found. It locks within 3 s.
TEST(FieldSignal, FadesBetweenNullsKeptModeIFromBeingFound) {
    for (uint64_t seed : {1u, 2u}) {
        gen::ChannelParams channel = test::RandomStartChannel(seed + 700, 15.0, 2000.0);
        channel.fadingDopplerHz = 40.0;
        const Outcome o = Receive(1, channel, 3.0, 0.0, seed);
        EXPECT_GE(o.lockSeconds, 0.0) << "seed " << seed;
    }
}

// An entry whose FIC never passes rejects its shift for the next entry,
// which takes the best of the others; a wrong entry followed by the same
// wrong entry, again and again, is what a user saw. Here the right shift is
// marked rejected at the start, as if it had just failed: the first entry
// must take another one, fail, and the second take the right one and lock.
TEST(FieldSignal, AWrongShiftWasEnteredAgainAfterEveryRestart) {
    gen::EnsembleBits bits;
    std::string error;
    ASSERT_TRUE(gen::MakeEnsembleBits("default", "", 4, 1, &bits, &error)) << error;
    gen::FrameTransmitter tx(std::move(bits.source), 4);
    gen::ChannelModel model(test::RandomStartChannel(5, 20.0, -20300.0), tx.MeanPower());
    test::FrameHarness h;
    ASSERT_TRUE(h.ready());
    h.Tune(kFrequency);
    std::vector<std::complex<float>> samples(kIqFrameSamples);
    std::vector<uint8_t> bytes;
    std::vector<int32_t> entries;  // integer shift of each entry
    bool marked = false;
    for (int32_t f = 0; f < 60 && receiverStatus.syncState != 4; ++f) {
        tx.Read(samples.data(), samples.size());
        model.ProcessU8(samples.data(), samples.size(), bytes);
        const int32_t before = pipeline.acquisitionState;
        h.PushBytes(bytes.data(), static_cast<int32_t>(bytes.size()));
        if (!marked && h.frames() > 0) {  // the re-tune has been taken
            frameEntry.rejectedShift = 10;   // -20.3 kHz in 2 kHz carriers
            frameEntry.rejectedShiftValid = 1;
            marked = true;
        }
        if (before == 2 && pipeline.acquisitionState == 3) entries.push_back(frameEntry.integerShift);
    }
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_NE(entries[0], 10);
    EXPECT_EQ(entries[1], 10);
    EXPECT_EQ(receiverStatus.syncState.load(), 4);
    // A good lock clears the rejection.
    EXPECT_EQ(frameEntry.rejectedShift, entries[0]);
    pipeline.resyncRequest = 1;
    tx.Read(samples.data(), samples.size());
    model.ProcessU8(samples.data(), samples.size(), bytes);
    h.PushBytes(bytes.data(), static_cast<int32_t>(bytes.size()));
    EXPECT_EQ(frameEntry.rejectedShiftValid, 0);
}

// The frame that frame entry measures lies whole in the history and is
// demodulated at once; waiting for the next one cost a frame period. Mode I
// reaches syncState 4 within 13 IqFrames (0.76 s) of signal.
TEST(FieldSignal, ModeIWaitedAFramePeriodAfterEntry) {
    for (uint64_t seed : {1u, 2u, 3u}) {
        const Outcome o = Receive(1, test::RandomStartChannel(seed + 500, 20.0, 12000.0), 1.5, 0.0, seed);
        EXPECT_GE(o.lockSeconds, 0.0) << "seed " << seed;
        EXPECT_LE(o.lockSeconds, 13 * kIqFrameSamples / kSampleRate + 1e-9) << "seed " << seed;
    }
}

// Median and 95th percentile of sorted times; -1 when none.
double Percentile(std::vector<double> v, double q) {
    if (v.empty()) return -1.0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}

// Across the whole capture range (the ensemble inside the sampled band,
// +-256 kHz) in steps of 8 kHz: lock
// with at least 99 % good FIBs over 1.5 s of tracking, from a noise lead-in
// and a random start at 15 dB. The fractions of a spacing move with the
// point so that all sit at a different place between two carriers.
TEST(FieldSweep, LockAcrossTheCaptureRange) {
    if (!LongTestsWanted()) GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    for (int32_t mode = 1; mode <= 4; ++mode) {
        if (!SweepMode(mode)) continue;
        std::printf("mode %d, 15 dB: offset kHz -> lock s / good FIBs %%\n", mode);
        int32_t failures = 0, points = 0;
        for (double khz = -256.0; khz <= 256.0; khz += 8.0) {
            // A fraction of a spacing on top, at most 1 kHz so that no two
            // points lie more than 10 kHz apart; kept inside +-256 kHz.
            const double fraction = (static_cast<int>(khz) % 3 - 1) * std::min(0.3 * kSpacingKhz[mode - 1], 1.0);
            const double offset = std::clamp(khz + fraction, -256.0, 256.0);
            const uint64_t seed = static_cast<uint64_t>(1000 + khz);
            const Outcome o = Receive(mode, test::RandomStartChannel(seed, 15.0, offset * 1000.0, 0.2), 4.0, 1.5, seed);
            const bool ok = o.lockSeconds >= 0.0 && o.goodShare >= 0.99;
            failures += ok ? 0 : 1;
            ++points;
            std::printf("  %+7.1f %5.2f/%5.1f%s", offset, o.lockSeconds, 100.0 * o.goodShare, ok ? "" : " !");
            if (points % 6 == 0) std::printf("\n");
            std::fflush(stdout);
        }
        std::printf("\n  %d of %d points locked with >= 99 %% good FIBs\n", points - failures, points);
        EXPECT_EQ(failures, 0) << "mode " << mode;
    }
}

// Time from tuning to syncState 4 with the signal there from the start,
// random start, 20 seeds per mode and SNR.
TEST(FieldSweep, TimeToLock) {
    if (!LongTestsWanted()) GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    std::printf("mode  SNR  locked  median s  p95 s\n");
    for (int32_t mode = 1; mode <= 4; ++mode) {
        if (!SweepMode(mode)) continue;
        for (double snr : {10.0, 20.0}) {
            std::vector<double> times;
            for (uint64_t seed = 1; seed <= 20; ++seed) {
                const double offset = (static_cast<double>(seed * 7919 % 201) - 100.0) * 1000.0;
                const Outcome o = Receive(mode, test::RandomStartChannel(seed + 500, snr, offset), 4.0, 0.0, seed);
                if (o.lockSeconds >= 0.0) times.push_back(o.lockSeconds);
            }
            std::printf("%4d %4.0f  %2zu/20  %8.2f %6.2f\n", mode, snr, times.size(), Percentile(times, 0.5),
                        Percentile(times, 0.95));
            std::fflush(stdout);
        }
    }
}

// Rayleigh fading at 15 dB mean SNR, 20 seeds per mode and channel: share
// locked within 3 s, median time to lock, good FIBs over 3 s once locked.
TEST(FieldSweep, LockInFading) {
    if (!LongTestsWanted()) GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    std::printf("mode channel       locked<=3s  median s  good FIBs %%\n");
    for (int32_t mode = 1; mode <= 4; ++mode) {
        if (!SweepMode(mode)) continue;
        for (int32_t c = 0; c < 6; ++c) {
            const double doppler = c < 5 ? std::vector<double>{10, 20, 40, 70, 100}[c] : 40.0;
            std::vector<double> times;
            int64_t fibs = 0;
            double good = 0.0;
            for (uint64_t seed = 1; seed <= 20; ++seed) {
                const double offsetHz = (static_cast<double>(seed % 41) - 20.0) * 1000.0;
                gen::ChannelParams channel = test::RandomStartChannel(seed + 700, 15.0, offsetHz);
                channel.fadingDopplerHz = doppler;
                // Three paths of 0, -3 and -6 dB at 0, 2.5 and 10 us, each fading on its own.
                if (c == 5) channel.taps = {{0.0, 0.0, 0.0}, {5.12, -3.0, 1.0}, {20.48, -6.0, 2.0}};
                const Outcome o = Receive(mode, channel, 6.0, 3.0, seed);
                if (o.lockSeconds < 0.0 || o.lockSeconds > 3.0) continue;
                times.push_back(o.lockSeconds);
                fibs += o.fibs;
                good += o.goodShare * static_cast<double>(o.fibs);
            }
            std::printf("%4d %-14s %5zu/20  %8.2f  %10.1f\n", mode,
                        (c < 5 ? "flat " + std::to_string(static_cast<int>(doppler)) + " Hz" : "3-path 40 Hz").c_str(),
                        times.size(), Percentile(times, 0.5),
                        fibs > 0 ? 100.0 * good / static_cast<double>(fibs) : 0.0);
            std::fflush(stdout);
        }
    }
}

}  // namespace
