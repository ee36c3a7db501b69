// The transmitter as an endless stream of complex baseband samples at
// 2.048 MS/s: channel bits frame by frame from a FrameBitSource, modulated
// and sent back to back with no gap, in reads of any size, holding one frame
// at a time.
//
//   gen::FrameTransmitter tx(gen::MakeRandomFrameBits(2, 7), 2);  // mode II
//   std::vector<std::complex<float>> buf(10000);
//   tx.Read(buf.data(), buf.size());       // continues where it left off
//   gen::ChannelModel channel(params, tx.MeanPower());
//
// To know what each frame carried, set an observer: it sees the frame's
// channel bits just before the frame's first sample is read.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "generator/frame_bits.h"
#include "generator/ofdm_modulator.h"

namespace gen {

class FrameTransmitter {
public:
    // Called once per frame with its number (0, 1, ...) and its
    // DataBitsPerFrame() channel bits, laid out as in frame_bits.h.
    using FrameObserver = std::function<void(uint64_t frame, const std::vector<uint8_t>& bits)>;

    // `mode` 1..4; `source` (not null) must deliver that mode's frames.
    FrameTransmitter(std::unique_ptr<FrameBitSource> source, int mode);

    // Next `count` samples of the stream.
    void Read(std::complex<float>* out, size_t count);

    // Mean |x|^2 over whole frames (OfdmModulator::MeanFramePower()).
    double MeanPower() const { return modulator_.MeanFramePower(); }
    const ModeGeometry& Geometry() const { return modulator_.Geometry(); }
    // Samples read so far, and frames begun (the current one counted).
    uint64_t SamplesRead() const { return samplesRead_; }
    uint64_t FramesStarted() const { return framesStarted_; }

    void SetFrameObserver(FrameObserver observer) { observer_ = std::move(observer); }
    FrameBitSource& Source() { return *source_; }

private:
    void NextFrame();

    std::unique_ptr<FrameBitSource> source_;
    OfdmModulator modulator_;
    FrameObserver observer_;
    std::vector<uint8_t> bits_;
    std::vector<std::complex<float>> frame_;  // the frame being read
    size_t position_;                          // next sample of frame_ to hand out
    uint64_t samplesRead_ = 0;
    uint64_t framesStarted_ = 0;
};

// Pseudo-random channel bits of `mode` (a valid OFDM signal, no decodable
// multiplex): the "random" ensemble preset. nullptr for a mode outside 1..4.
std::unique_ptr<FrameBitSource> MakeRandomFrameBits(int mode, uint64_t seed);

}  // namespace gen
