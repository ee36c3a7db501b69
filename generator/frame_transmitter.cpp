#include "generator/frame_transmitter.h"

#include <algorithm>

#include "generator/ensemble_bits.h"

namespace gen {

FrameTransmitter::FrameTransmitter(std::unique_ptr<FrameBitSource> source, int mode)
    : source_(std::move(source)), modulator_(mode) {
    frame_.resize(static_cast<size_t>(modulator_.Geometry().frameSamples));
    position_ = frame_.size();  // the first read modulates frame 0
}

void FrameTransmitter::NextFrame() {
    source_->NextFrame(bits_);
    // A source that delivers too few bits is padded with zeros rather than
    // read beyond its buffer.
    bits_.resize(static_cast<size_t>(modulator_.Geometry().DataBitsPerFrame()), 0);
    if (observer_) observer_(framesStarted_, bits_);
    modulator_.ModulateFrame(bits_.data(), frame_.data());
    position_ = 0;
    ++framesStarted_;
}

void FrameTransmitter::Read(std::complex<float>* out, size_t count) {
    while (count > 0) {
        if (position_ == frame_.size()) NextFrame();
        const size_t n = std::min(count, frame_.size() - position_);
        std::copy_n(frame_.data() + position_, n, out);
        position_ += n;
        out += n;
        count -= n;
        samplesRead_ += n;
    }
}

std::unique_ptr<FrameBitSource> MakeRandomFrameBits(int mode, uint64_t seed) {
    EnsembleBits e;
    if (!MakeEnsembleBits("random", "", mode, seed, &e, nullptr)) return nullptr;
    return std::move(e.source);
}

}  // namespace gen
