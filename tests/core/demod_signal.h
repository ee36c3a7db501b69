// Generated DAB signals for the demodulation and tracking tests: random
// channel bits through the transmitter's OFDM modulator, a model of the
// receiver's converter clock, then the channel model and 8-bit quantisation.
//
// The converter clock sits in the test because the fake device's sample-rate
// register does not resample anything: the test reads the register and sets
// the converter's error to (clock error + register offset), which is what a
// converter with that register would deliver.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/ofdm_modulator.h"

namespace demodtest {

// Variable-rate resampler standing for a converter whose clock is off by
// `ppm`: output sample k is the input at time t_k, t_{k+1} = t_k + 1/(1 + ppm
// 1e-6), so a positive ppm yields more samples per second of signal. A
// windowed-sinc interpolator (32 taps, 2048 fractions) keeps the band of a DAB
// signal clean to far below the noise of an 8-bit sample.
class ConverterClock {
public:
    ConverterClock();
    void SetPpm(double ppm);
    double Ppm() const { return ppm_; }
    // Appends the output samples that `n` more input samples complete.
    void Process(const std::complex<float>* in, size_t n, std::vector<std::complex<float>>& out);
    // Input time (in input samples, fractional) of the next output sample,
    // and the index of that output sample.
    double NextInputTime() const { return time_; }
    int64_t NextOutputIndex() const { return produced_; }

private:
    double ppm_ = 0.0;
    double step_ = 1.0;         // input samples per output sample
    double time_ = 0.0;         // input time of the next output sample
    int64_t produced_ = 0;      // output samples so far
    int64_t base_ = 0;          // input index of buffer_[0]
    std::vector<std::complex<float>> buffer_;
    std::vector<float> table_;  // one row of 32 weights per fraction, each weight twice
};

// The stream of one generated signal, as bytes a device would deliver.
class GeneratedSignal {
public:
    // `mode` 1..4. Every frame's bits are kept for the last `keptFrames`
    // frames. The channel's sampleClockPpm should be 0: the converter clock
    // models the clock error.
    GeneratedSignal(int mode, uint64_t seed, const gen::ChannelParams& channel, int keptFrames = 8);

    const gen::ModeGeometry& Geometry() const { return modulator_.Geometry(); }
    ConverterClock& Converter() { return converter_; }

    // The next `count` bytes (even).
    void Read(uint8_t* out, size_t count);
    // Bytes delivered so far.
    int64_t BytesRead() const { return read_; }

    // Frames generated so far, and the bits of frame f (2K per data symbol,
    // data symbol d = 1.. at offset (d - 1) x 2K), null when no longer kept.
    int64_t FramesGenerated() const { return frames_; }
    const std::vector<uint8_t>* BitsOfFrame(int64_t f) const;
    // Output sample (of the converter) at which the phase reference symbol of
    // frame f starts, guard included; known once the frame has been generated.
    double PhaseReferenceStart(int64_t f) const;

private:
    void GenerateFrame();

    gen::OfdmModulator modulator_;
    gen::EnsembleBits bits_;
    ConverterClock converter_;
    std::unique_ptr<gen::ChannelModel> channel_;
    int kept_;
    std::vector<uint8_t> frameBits_;
    std::vector<std::complex<float>> frame_;
    std::vector<std::complex<float>> converted_;
    std::vector<uint8_t> pending_;
    size_t pendingPos_ = 0;
    int64_t read_ = 0;
    int64_t frames_ = 0;
    std::deque<std::vector<uint8_t>> keptBits_;
    std::deque<double> keptStarts_;
};

// Fraction of soft values whose sign disagrees with the sent bit (positive
// means 0), over `symbols` rows starting at `firstRow`, each row holding 2K
// floats; data symbol d is row d. Values exactly 0 count as errors.
double SoftBitErrorRate(const float* frameCarriers, int carrierCount, const std::vector<uint8_t>& bits,
                        int firstRow, int symbols);

}  // namespace demodtest
