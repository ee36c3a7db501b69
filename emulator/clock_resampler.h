// The converter's sample clock. A device whose clock runs fast by e ppm takes
// its samples closer together than the source's: output sample n is the
// source at time n / (1 + e / 10^6) source samples. ClockResampler makes that
// stream by interpolation with a windowed-sinc kernel, so that a sample-clock
// error, and a correction of it, act on the samples as on real hardware.
// With an error of exactly 0 and no fractional delay left, bytes pass through
// unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "emulator/sample_sources.h"

namespace emu {

class ClockResampler {
public:
    ClockResampler();
    // Forgets the buffered input and the fractional position (new source).
    void Reset();
    // Produces `samples` samples (2 bytes each) into `out` from `source`
    // sampled with clock error `ppm`. Returns the samples produced: fewer
    // only when the source ended.
    size_t Produce(SampleSource* source, double ppm, uint8_t* out, size_t samples);

    // Taps of the kernel and phases of its table.
    static constexpr int32_t kTaps = 16;
    static constexpr int32_t kPhases = 512;

private:
    // Makes sure input samples up to index `last` are buffered; false when
    // the source ended first.
    bool Fill(SampleSource* source, int64_t last);

    std::vector<float> input_;     // buffered source samples, I and Q as byte - 127.5, from sample `base_`
    std::vector<uint8_t> bytes_;   // one read from the source
    int64_t base_ = 0;             // source sample index of input_[0]; negative: silence before the start
    int64_t integer_ = 0;          // source sample index of the next output
    double fraction_ = 0.0;        // and its fractional part, [0, 1)
    std::vector<float> kernel_;    // kPhases + 1 rows of kTaps coefficients, each twice (I, Q)
};

}  // namespace emu
