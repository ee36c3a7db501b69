#include "tests/support/dab_signal.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "generator/frame_transmitter.h"
#include "receiver/receiver_state.h"
#include "tests/support/frame_harness.h"

namespace mvdab::test {

namespace {
constexpr int kTaps = 32;      // interpolator length, taps -15 .. +16 around the sample
constexpr int kHalf = 16;
constexpr int kPhases = 2048;  // fractional positions in the table
constexpr double kPi = 3.14159265358979323846;
constexpr double kRegisterPpmPerCode = 1.0 / 16.777216;
constexpr double kMaxLeadInSeconds = 10.0;  // longest lead-in the channel model produces
}  // namespace

double RegisterPpm() { return SampleRateRegister() * kRegisterPpmPerCode; }

// Variable-rate resampler standing for a converter whose clock is off by
// `ppm`: output sample k is the input at time t_k, t_{k+1} = t_k + 1/(1 + ppm
// 1e-6). A windowed-sinc interpolator (32 taps, 2048 fractions) keeps the band
// of a DAB signal clean to far below the noise of an 8-bit sample.
struct ConverterClock {
    ConverterClock() : table_(kPhases * 2 * kTaps) {
        // Row p: weights of taps j = -15 .. 16 for the fraction p/kPhases,
        // each twice to line up with I and Q: sinc(j - f) under a Blackman
        // window spanning the 32 taps.
        for (int p = 0; p < kPhases; ++p) {
            const double f = static_cast<double>(p) / kPhases;
            for (int j = 0; j < kTaps; ++j) {
                const double x = (j - (kHalf - 1)) - f;
                const double sinc = std::fabs(x) < 1e-12 ? 1.0 : std::sin(kPi * x) / (kPi * x);
                const double u = (x + kHalf) / (2.0 * kHalf);
                const double window = 0.42 - 0.5 * std::cos(2 * kPi * u) + 0.08 * std::cos(4 * kPi * u);
                table_[size_t(p * 2 * kTaps + 2 * j)] = table_[size_t(p * 2 * kTaps + 2 * j + 1)] =
                    static_cast<float>(sinc * window);
            }
        }
        // The first outputs look back before the first input: zeros there.
        buffer_.assign(kHalf, std::complex<float>(0, 0));
    }

    void SetPpm(double ppm) { step = 1.0 / (1.0 + ppm * 1e-6); }

    // Appends the output samples that `n` more input samples complete.
    void Process(const std::complex<float>* in, size_t n, std::vector<std::complex<float>>& out) {
        buffer_.insert(buffer_.end(), in, in + n);
        const int64_t end = base_ + static_cast<int64_t>(buffer_.size());
        for (;;) {
            const double whole = std::floor(time);
            const int64_t i = static_cast<int64_t>(whole);
            if (i + kHalf + 1 >= end) break;
            // The nearest of the table's fractions: a timing step of at most 1/4096 sample.
            int p = static_cast<int>((time - whole) * kPhases + 0.5);
            const int64_t first = i + (p == kPhases ? 1 : 0) - (kHalf - 1) - base_;
            if (p == kPhases) p = 0;
            if (p == 0) {
                // On the grid: the sample itself (the other weights are zero).
                out.push_back(buffer_[size_t(first + kHalf - 1)]);
            } else {
                const float* w = &table_[size_t(p * 2 * kTaps)];
                const float* x = reinterpret_cast<const float*>(&buffer_[size_t(first)]);
                float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};  // even lanes I, odd lanes Q
                for (int j = 0; j < 2 * kTaps; j += 8)
                    for (int m = 0; m < 8; ++m) acc[m] += x[j + m] * w[j + m];
                out.emplace_back((acc[0] + acc[2]) + (acc[4] + acc[6]), (acc[1] + acc[3]) + (acc[5] + acc[7]));
            }
            time += step;
            ++produced;
        }
        // Keep what the next output still needs.
        const int64_t keepFrom = static_cast<int64_t>(std::floor(time)) - kHalf;
        if (keepFrom > base_ + 4096) {
            buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(keepFrom - base_));
            base_ = keepFrom;
        }
    }

    double step = 1.0;      // input samples per output sample
    double time = 0.0;      // input time of the next output sample
    int64_t produced = 0;   // output samples so far

private:
    int64_t base_ = -kHalf; // input index of buffer_[0]
    std::vector<std::complex<float>> buffer_;
    std::vector<float> table_;
};

DabSignal::DabSignal(int mode, const gen::ChannelParams& channel, uint64_t bitsSeed, int keptFrames)
    : modulator_(mode),
      source_(gen::MakeRandomFrameBits(modulator_.Geometry().mode, bitsSeed)),
      converter_(std::make_unique<ConverterClock>()),
      channel_(std::make_unique<gen::ChannelModel>(channel, modulator_.MeanFramePower())),
      kept_(keptFrames),
      leadInSamples_(std::llround(std::clamp(channel.leadInSeconds, 0.0, kMaxLeadInSeconds) * gen::kChannelSampleRate)),
      frame_(size_t(modulator_.Geometry().frameSamples)) {}

DabSignal::~DabSignal() = default;

void DabSignal::FollowRegister(double clockPpm) { converter_->SetPpm(clockPpm + RegisterPpm()); }

void DabSignal::GenerateFrame() {
    const gen::ModeGeometry& g = Geometry();
    source_->NextFrame(frameBits_);
    modulator_.ModulateFrame(frameBits_.data(), frame_.data());
    // Where this frame's phase reference leaves the converter: its input time
    // is the frame's start plus the null symbol.
    const double input = static_cast<double>(frames_) * g.frameSamples + g.nullSamples;
    keptStarts_.push_back(double(converter_->produced) + (input - converter_->time) / converter_->step);
    keptBits_.push_back(frameBits_);
    if (static_cast<int>(keptBits_.size()) > kept_) {
        keptBits_.pop_front();
        keptStarts_.pop_front();
    }
    ++frames_;

    converted_.clear();
    converter_->Process(frame_.data(), frame_.size(), converted_);
    channel_->ProcessU8(converted_.data(), converted_.size(), bytes_);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(pendingPos_));
    pendingPos_ = 0;
    pending_.insert(pending_.end(), bytes_.begin(), bytes_.end());
}

void DabSignal::Read(uint8_t* out, size_t count) {
    while (pending_.size() - pendingPos_ < count) GenerateFrame();
    std::memcpy(out, pending_.data() + pendingPos_, count);
    pendingPos_ += count;
}

void DabSignal::NextIqFrame(uint8_t* out) { Read(out, kIqFrameBytes); }

const std::vector<uint8_t>* DabSignal::BitsOfFrame(int64_t f) const {
    const int64_t first = frames_ - static_cast<int64_t>(keptBits_.size());
    return f < first || f >= frames_ ? nullptr : &keptBits_[size_t(f - first)];
}

double DabSignal::PhaseReferenceStart(int64_t f) const {
    const int64_t first = frames_ - static_cast<int64_t>(keptStarts_.size());
    if (f < first || f >= frames_) return -1.0;
    // The channel puts the lead-in in front and drops the random start.
    return keptStarts_[size_t(f - first)] + double(leadInSamples_) - double(channel_->DroppedInputSamples());
}

int64_t DabSignal::PhaseReferencePhase() const {
    const int64_t period = Geometry().frameSamples;
    const int64_t start = std::llround(PhaseReferenceStart(frames_ - 1));
    return ((start % period) + period) % period;
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

gen::ChannelParams RandomStartChannel(uint64_t seed, double snrDb, double offsetHz, double leadInSeconds) {
    gen::ChannelParams c;
    c.seed = seed;
    c.snrDb = snrDb;
    c.frequencyOffsetHz = offsetHz;
    c.leadInSeconds = leadInSeconds;
    c.randomStart = true;
    return c;
}

}  // namespace mvdab::test
