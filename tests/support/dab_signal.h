// Generated DAB signals for receiver tests, as a device would deliver them:
// random channel bits of one transmission mode through the OFDM modulator, a
// model of the device's converter clock, then the channel model and 8-bit
// quantisation.
//
//   gen::ChannelParams channel;                 // impairments, own seed
//   channel.snrDb = 12; channel.leadInSeconds = 0.1; channel.randomStart = true;
//   mvdab::test::DabSignal signal(2, channel);  // mode II
//   signal.NextIqFrame(frame.data());           // one IqFrame after another
//
// The fake device's sample-rate register does not resample anything, so the
// converter clock lives here: FollowRegister() sets its error to the clock
// error plus the register's offset, which is what a converter with that
// register would deliver. Leave the channel's own sampleClockPpm at 0 when
// using it.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ofdm_modulator.h"

namespace mvdab::test {

struct ConverterClock;

// The fake device's sample-rate register in ppm.
double RegisterPpm();

class DabSignal {
public:
    // `mode` 1..4; `bitsSeed` seeds the channel bits, `channel.seed` the
    // impairments. The bits and phase reference starts of the last
    // `keptFrames` frames stay known.
    DabSignal(int mode, const gen::ChannelParams& channel, uint64_t bitsSeed = 1, int keptFrames = 12);
    ~DabSignal();

    // The next `count` bytes (even: whole samples), or the next IqFrame.
    void Read(uint8_t* out, size_t count);
    void NextIqFrame(uint8_t* out);

    const gen::ModeGeometry& Geometry() const { return modulator_.Geometry(); }

    // Converter clock error `clockPpm` (> 0: more samples per second of
    // signal) plus the sample-rate register's current offset.
    void FollowRegister(double clockPpm);

    // Frames generated so far; the bits of frame f (2K per data symbol, data
    // symbol d = 1.. at offset (d - 1) x 2K), null when no longer kept.
    int64_t FramesGenerated() const { return frames_; }
    const std::vector<uint8_t>* BitsOfFrame(int64_t f) const;
    // Stream sample at which the phase reference symbol of frame f begins,
    // guard included (lead-in and random start counted); -1 when not kept.
    // Exact for a single path without the channel's own clock offset.
    double PhaseReferenceStart(int64_t f) const;
    // The same for the newest frame, modulo the frame period, without clock error.
    int64_t PhaseReferencePhase() const;

private:
    void GenerateFrame();

    gen::OfdmModulator modulator_;
    std::unique_ptr<gen::FrameBitSource> source_;
    std::unique_ptr<ConverterClock> converter_;
    std::unique_ptr<gen::ChannelModel> channel_;
    int kept_;
    int64_t leadInSamples_;
    std::vector<uint8_t> frameBits_;
    std::vector<std::complex<float>> frame_, converted_;
    std::vector<uint8_t> pending_, bytes_;
    size_t pendingPos_ = 0;
    int64_t frames_ = 0;
    std::deque<std::vector<uint8_t>> keptBits_;
    std::deque<double> keptStarts_;  // converter output sample of each kept frame's phase reference
};

// The channel of the acquisition tests: impairments seeded by `seed`, the
// SNR, a carrier offset, a noise lead-in, and a random start.
gen::ChannelParams RandomStartChannel(uint64_t seed, double snrDb, double offsetHz, double leadInSeconds = 0.0);

// Fraction of soft values whose sign disagrees with the sent bit (positive
// means 0), over `symbols` rows from `firstRow`, each row 2K floats; data
// symbol d is row d. Values exactly 0 count as errors.
double SoftBitErrorRate(const float* frameCarriers, int carrierCount, const std::vector<uint8_t>& bits,
                        int firstRow, int symbols);

}  // namespace mvdab::test
