// Generated DAB signals for receiver tests, as a device would deliver them:
// random channel bits of one transmission mode through the transmitter's OFDM
// layer and the channel model, quantised to unsigned 8-bit I/Q, cut into
// IqFrames of 240,640 bytes.
//
//   gen::ChannelParams channel;                 // impairments, own seed
//   channel.snrDb = 12; channel.leadInSeconds = 0.1; channel.randomStart = true;
//   mvdab::test::DabSignal signal(2, channel);  // mode II
//   std::vector<uint8_t> frame(mvdab::kIqFrameBytes);
//   signal.NextIqFrame(frame.data());           // one IqFrame after another
//
// The stream's own sample clock counts from the first byte delivered. For a
// channel without multipath and without clock offset, PhaseReferenceStart
// tells where each phase reference symbol begins (guard included).
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "generator/channel_model.h"

namespace gen {
class FrameTransmitter;
}  // namespace gen

namespace mvdab::test {

class DabSignal {
public:
    // `mode` 1..4 for transmission modes I..IV; `bitsSeed` seeds the channel
    // bits, `channel.seed` the impairments.
    DabSignal(int mode, const gen::ChannelParams& channel, uint64_t bitsSeed = 1);
    ~DabSignal();
    DabSignal(const DabSignal&) = delete;
    DabSignal& operator=(const DabSignal&) = delete;

    // The next `count` bytes (even: whole samples).
    void Read(uint8_t* out, size_t count);
    // The next IqFrame: 240,640 bytes.
    void NextIqFrame(uint8_t* out);
    // The next `count` IqFrames back to back.
    std::vector<uint8_t> NextIqFrames(int count);

    // Samples of the transmission frame and of its null symbol.
    int32_t FramePeriod() const;
    int32_t NullLength() const;
    // Stream sample at which the phase reference symbol of a transmission
    // frame begins, taken modulo FramePeriod(): 0 .. FramePeriod()-1. Known
    // once the first byte has been read; exact only for a single path
    // without clock offset.
    int64_t PhaseReferencePhase() const;
    // Channel model in use (gain, noise variance, dropped samples).
    const gen::ChannelModel& Channel() const;

private:
    void Refill();

    int mode_;
    std::unique_ptr<gen::FrameTransmitter> transmitter_;
    std::unique_ptr<gen::ChannelModel> channel_;
    std::vector<std::complex<float>> clean_;
    std::vector<uint8_t> pending_;
    size_t pendingPos_ = 0;
    int64_t leadInSamples_ = -1;  // noise samples in front of the signal, -1 until known
};

}  // namespace mvdab::test
