#include "tests/support/dab_signal.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "generator/frame_transmitter.h"
#include "receiver/receiver_state.h"

namespace mvdab::test {

namespace {

// Input samples modulated per refill of the byte queue.
constexpr size_t kChunkSamples = 32768;
// Longest noise lead-in the channel model produces, in seconds.
constexpr double kMaxLeadInSeconds = 10.0;

}  // namespace

DabSignal::DabSignal(int mode, const gen::ChannelParams& channel, uint64_t bitsSeed)
    : mode_(mode >= 1 && mode <= 4 ? mode : 1) {
    transmitter_ = std::make_unique<gen::FrameTransmitter>(gen::MakeRandomFrameBits(mode_, bitsSeed), mode_);
    channel_ = std::make_unique<gen::ChannelModel>(channel, transmitter_->MeanPower());
    const double leadIn = std::min(channel.leadInSeconds, kMaxLeadInSeconds);
    leadInSamples_ = leadIn > 0 ? std::llround(leadIn * gen::kChannelSampleRate) : 0;
    clean_.resize(kChunkSamples);
}

DabSignal::~DabSignal() = default;

void DabSignal::Refill() {
    pending_.clear();
    pendingPos_ = 0;
    // The channel may hold samples back (filters, dropped start): go on until
    // something comes out.
    while (pending_.empty()) {
        transmitter_->Read(clean_.data(), clean_.size());
        channel_->ProcessU8(clean_.data(), clean_.size(), pending_);
    }
}

void DabSignal::Read(uint8_t* out, size_t count) {
    while (count > 0) {
        if (pendingPos_ == pending_.size()) Refill();
        const size_t n = std::min(count, pending_.size() - pendingPos_);
        std::memcpy(out, pending_.data() + pendingPos_, n);
        pendingPos_ += n;
        out += n;
        count -= n;
    }
}

void DabSignal::NextIqFrame(uint8_t* out) { Read(out, kIqFrameBytes); }

std::vector<uint8_t> DabSignal::NextIqFrames(int count) {
    std::vector<uint8_t> bytes(static_cast<size_t>(count > 0 ? count : 0) * kIqFrameBytes);
    Read(bytes.data(), bytes.size());
    return bytes;
}

int32_t DabSignal::FramePeriod() const { return transmitter_->Geometry().frameSamples; }

int32_t DabSignal::NullLength() const { return transmitter_->Geometry().nullSamples; }

int64_t DabSignal::PhaseReferencePhase() const {
    // Transmitted frame f opens with its null at input sample f T; the
    // channel drops the random start and puts the lead-in in front.
    const int64_t period = FramePeriod();
    const int64_t start = leadInSamples_ + NullLength() - static_cast<int64_t>(channel_->DroppedInputSamples());
    return ((start % period) + period) % period;
}

const gen::ChannelModel& DabSignal::Channel() const { return *channel_; }

}  // namespace mvdab::test
