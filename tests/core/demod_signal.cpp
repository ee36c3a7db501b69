#include "demod_signal.h"

#include <cmath>
#include <cstring>
#include <string>

namespace demodtest {

namespace {
constexpr int kTaps = 32;       // interpolator length, taps -15 .. +16 around the sample
constexpr int kHalf = 16;
constexpr int kPhases = 2048;   // fractional positions in the table
constexpr double kPi = 3.14159265358979323846;
}  // namespace

ConverterClock::ConverterClock() : table_(kPhases * 2 * kTaps) {
    // Row p holds the weights of taps j = -15 .. 16 for a fraction p/kPhases,
    // each twice so that it lines up with the I and Q of a sample: sinc(j - f)
    // under a Blackman window spanning the 32 taps.
    for (int p = 0; p < kPhases; ++p) {
        const double f = static_cast<double>(p) / kPhases;
        for (int j = 0; j < kTaps; ++j) {
            const double x = (j - (kHalf - 1)) - f;
            const double sinc = std::fabs(x) < 1e-12 ? 1.0 : std::sin(kPi * x) / (kPi * x);
            const double u = (x + kHalf) / (2.0 * kHalf);  // 0 .. 1 across the window
            const double window = 0.42 - 0.5 * std::cos(2 * kPi * u) + 0.08 * std::cos(4 * kPi * u);
            const float w = static_cast<float>(sinc * window);
            table_[static_cast<size_t>(p * 2 * kTaps + 2 * j)] = w;
            table_[static_cast<size_t>(p * 2 * kTaps + 2 * j + 1)] = w;
        }
    }
    // The first outputs look back before the first input: zeros there.
    buffer_.assign(kHalf, std::complex<float>(0, 0));
    base_ = -kHalf;
}

void ConverterClock::SetPpm(double ppm) {
    ppm_ = ppm;
    step_ = 1.0 / (1.0 + ppm * 1e-6);
}

void ConverterClock::Process(const std::complex<float>* in, size_t n, std::vector<std::complex<float>>& out) {
    buffer_.insert(buffer_.end(), in, in + n);
    const int64_t end = base_ + static_cast<int64_t>(buffer_.size());
    for (;;) {
        const double whole = std::floor(time_);
        const int64_t i = static_cast<int64_t>(whole);
        if (i + kHalf + 1 >= end) break;
        // The nearest of the table's fractions: a timing step of at most
        // 1/4096 sample, a phase error far below the 8-bit noise.
        const int p = static_cast<int>((time_ - whole) * kPhases + 0.5);
        const float* w = &table_[static_cast<size_t>((p == kPhases ? 0 : p) * 2 * kTaps)];
        const float* x = reinterpret_cast<const float*>(
            &buffer_[static_cast<size_t>(i + (p == kPhases ? 1 : 0) - (kHalf - 1) - base_)]);
        // Eight independent sums, even lanes I and odd lanes Q.
        float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        for (int j = 0; j < 2 * kTaps; j += 8) {
            for (int m = 0; m < 8; ++m) acc[m] += x[j + m] * w[j + m];
        }
        out.emplace_back((acc[0] + acc[2]) + (acc[4] + acc[6]), (acc[1] + acc[3]) + (acc[5] + acc[7]));
        time_ += step_;
        ++produced_;
    }
    // Keep what the next output still needs.
    const int64_t keepFrom = static_cast<int64_t>(std::floor(time_)) - kHalf;
    if (keepFrom > base_ + 4096) {
        const size_t drop = static_cast<size_t>(keepFrom - base_);
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(drop));
        base_ = keepFrom;
    }
}

GeneratedSignal::GeneratedSignal(int mode, uint64_t seed, const gen::ChannelParams& channel, int keptFrames)
    : modulator_(mode), kept_(keptFrames) {
    std::string error;
    gen::MakeEnsembleBits("random", "", mode, seed, &bits_, &error);
    modulator_.SetRecording(true);
    channel_ = std::make_unique<gen::ChannelModel>(channel, modulator_.MeanFramePower());
    frame_.resize(static_cast<size_t>(Geometry().frameSamples));
}

void GeneratedSignal::GenerateFrame() {
    const gen::ModeGeometry& g = Geometry();
    bits_.source->NextFrame(frameBits_);
    modulator_.ModulateFrame(frameBits_.data(), frame_.data());
    // Where the phase reference of this frame leaves the converter: its input
    // time is frame start plus the null symbol.
    const double input = static_cast<double>(frames_) * g.frameSamples + g.nullSamples;
    const double step = 1.0 / (1.0 + converter_.Ppm() * 1e-6);
    keptStarts_.push_back(static_cast<double>(converter_.NextOutputIndex()) +
                          (input - converter_.NextInputTime()) / step);
    keptBits_.push_back(modulator_.RecordedBits());
    if (static_cast<int>(keptBits_.size()) > kept_) {
        keptBits_.pop_front();
        keptStarts_.pop_front();
    }
    ++frames_;

    converted_.clear();
    converter_.Process(frame_.data(), frame_.size(), converted_);
    std::vector<uint8_t> bytes;
    channel_->ProcessU8(converted_.data(), converted_.size(), bytes);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pendingPos_));
    pendingPos_ = 0;
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
}

void GeneratedSignal::Read(uint8_t* out, size_t count) {
    while (pending_.size() - pendingPos_ < count) GenerateFrame();
    std::memcpy(out, pending_.data() + pendingPos_, count);
    pendingPos_ += count;
    read_ += static_cast<int64_t>(count);
}

const std::vector<uint8_t>* GeneratedSignal::BitsOfFrame(int64_t f) const {
    const int64_t first = frames_ - static_cast<int64_t>(keptBits_.size());
    if (f < first || f >= frames_) return nullptr;
    return &keptBits_[static_cast<size_t>(f - first)];
}

double GeneratedSignal::PhaseReferenceStart(int64_t f) const {
    const int64_t first = frames_ - static_cast<int64_t>(keptStarts_.size());
    if (f < first || f >= frames_) return -1.0;
    return keptStarts_[static_cast<size_t>(f - first)];
}

double SoftBitErrorRate(const float* frameCarriers, int carrierCount, const std::vector<uint8_t>& bits,
                        int firstRow, int symbols) {
    const int64_t perRow = 2 * static_cast<int64_t>(carrierCount);
    int64_t errors = 0;
    for (int d = firstRow; d < firstRow + symbols; ++d) {
        const float* row = frameCarriers + d * perRow;
        const uint8_t* sent = bits.data() + (d - 1) * perRow;
        for (int64_t i = 0; i < perRow; ++i) errors += (sent[i] != 0) != (row[i] < 0.0f) || row[i] == 0.0f;
    }
    return static_cast<double>(errors) / static_cast<double>(perRow * symbols);
}

}  // namespace demodtest
