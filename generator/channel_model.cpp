// Channel model: multipath, fading, sample clock offset, carrier offset,
// drop-out, CW interferer, noise, lead-in and 8-bit quantisation.
//
// The two filtering stages (multipath and resampler) keep a short history of
// their input with its absolute sample index, and emit an output sample as
// soon as every input sample it needs has arrived. Samples before the first
// input are zero. Nothing depends on how the input is cut into calls.
#include "generator/channel_model.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "generator/payload_rng.h"

namespace gen {
namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;

constexpr double kTwoPi = 6.283185307179586;

// Limits that keep memory bounded and the arithmetic finite whatever the
// parameters say; values beyond them are clamped.
constexpr double kMaxLeadInSeconds = 10;      // s; the first call's output holds the whole lead-in
constexpr double kMaxDelaySamples = 1 << 20;  // samples of multipath delay (0.5 s)
constexpr double kMaxClockPpm = 1000;         // ppm of sample clock offset

// Band-limited interpolation kernel: sinc windowed by a Kaiser window over
// 2 * kHalfTaps input samples, tabulated at kPhases + 1 fractional positions
// and interpolated linearly between them. The signal occupies 75 % of the
// sample rate, where this kernel's delay error stays near -80 dB.
constexpr int kHalfTaps = 16;
constexpr int kTaps = 2 * kHalfTaps;
constexpr int kPhases = 256;
constexpr double kKaiserBeta = 9.0;

double BesselI0(double x) {
    double sum = 1, term = 1;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2 * k)) * (x / (2 * k));
        sum += term;
    }
    return sum;
}

// table[p][j] is the weight of input sample (i - kHalfTaps + 1 + j) for the
// value at time i + p / kPhases.
struct InterpolationTable {
    std::vector<float> w;  // (kPhases + 1) * kTaps weights
    InterpolationTable() : w((kPhases + 1) * kTaps) {
        const double i0b = BesselI0(kKaiserBeta);
        for (int p = 0; p <= kPhases; ++p) {
            const double d = static_cast<double>(p) / kPhases;
            double row[kTaps];
            double sum = 0;
            for (int j = 0; j < kTaps; ++j) {
                const double x = (j - kHalfTaps + 1) - d;  // distance from the wanted time
                const double r = x / kHalfTaps;
                const double win = std::abs(r) >= 1 ? 0 : BesselI0(kKaiserBeta * std::sqrt(1 - r * r)) / i0b;
                const double s = x == 0 ? 1 : std::sin(M_PI * x) / (M_PI * x);
                row[j] = s * win;
                sum += row[j];
            }
            for (int j = 0; j < kTaps; ++j) w[p * kTaps + j] = static_cast<float>(row[j] / sum);
        }
    }
    // Weights for fractional position d in [0, 1).
    void Weights(double d, float* out) const {
        const double pos = d * kPhases;
        int p = static_cast<int>(pos);
        if (p >= kPhases) p = kPhases - 1;
        const float f = static_cast<float>(pos - p);
        const float* a = &w[p * kTaps];
        const float* b = a + kTaps;
        for (int j = 0; j < kTaps; ++j) out[j] = a[j] + f * (b[j] - a[j]);
    }
};

const InterpolationTable& Kernel() {
    static const InterpolationTable table;
    return table;
}

// A stage's input history: buf[i] is input sample base + i.
struct History {
    std::vector<cf> buf;
    int64_t base = 0;
    int64_t End() const { return base + static_cast<int64_t>(buf.size()); }
    void Append(const cf* in, size_t n) { buf.insert(buf.end(), in, in + n); }
    // Forgets the samples before index `keepFrom`.
    void TrimBefore(int64_t keepFrom) {
        const int64_t drop = std::min<int64_t>(keepFrom - base, static_cast<int64_t>(buf.size()));
        if (drop <= 0) return;
        buf.erase(buf.begin(), buf.begin() + drop);
        base += drop;
    }
};

// Rayleigh fading of one path by a sum of sinusoids, one arrival angle drawn
// in each of kFadeSines equal slices of a half circle (so that no two Doppler
// shifts coincide), random phases, unit mean power. Evaluated on a grid of kFadeStep input
// samples and interpolated linearly in between: the fading is slow.
constexpr int kFadeSines = 16;
constexpr int kFadeStep = 64;

struct FadingProcess {
    std::array<double, kFadeSines> dopplerCyclesPerSample{};  // cycles per input sample
    std::array<double, kFadeSines> phase{};                   // rad
    cd At(int64_t n) const {
        cd sum = 0;
        for (int m = 0; m < kFadeSines; ++m) {
            double cycles = dopplerCyclesPerSample[m] * static_cast<double>(n);
            cycles -= std::floor(cycles);
            sum += std::polar(1.0, kTwoPi * cycles + phase[m]);
        }
        return sum / std::sqrt(static_cast<double>(kFadeSines));
    }
};

struct Path {
    int64_t delay = 0;          // integer part of the delay, samples
    bool fractional = false;    // uses the interpolation kernel
    std::array<float, kTaps> weights{};  // kernel for the fractional part
    cf gain;                    // amplitude and phase, normalised
    bool fades = false;
    FadingProcess fading;
};

}  // namespace

struct ChannelModel::State {
    ChannelParams params;
    double signalPower = 1;     // mean |x|^2 of the clean input
    double noiseVariance = 0;   // total complex noise variance per sample
    double gain = 1;            // linear gain before quantisation
    double cwAmplitude = 0;     // linear amplitude of the interferer
    double cwPhase = 0;         // rad, initial phase of the interferer
    Rng noiseRng{1};
    uint64_t dropRemaining = 0;  // input samples still to drop at the start
    uint64_t dropped = 0;        // input samples dropped so far
    bool leadInDone = false;
    uint64_t leadInSamples = 0;
    uint64_t outCount = 0;       // output samples produced so far
    int64_t dropoutBegin = -1, dropoutEnd = -1;  // output indices of the drop-out

    // Multipath stage.
    bool multipath = false;
    std::vector<Path> paths;
    int64_t mpLookahead = 0;    // input samples needed beyond the output index
    int64_t mpBack = 0;         // input samples needed before the output index
    History mpIn;
    int64_t mpNext = 0;         // next output index of the stage

    // Resampler stage.
    bool resample = false;
    double step = 1;            // input samples per output sample
    History rsIn;
    int64_t rsNext = 0;         // next output index of the stage

    std::vector<cf> stage1, stage2, pathScratch;  // scratch

    void Multipath(const cf* in, size_t n, std::vector<cf>& out);
    void Resample(const cf* in, size_t n, std::vector<cf>& out);
    void Finish(const cf* in, size_t n, std::vector<cf>& out);
    void AddNoiseAndInterferer(cf* x, size_t n, uint64_t firstIndex);
};

ChannelModel::ChannelModel(const ChannelParams& params, double signalPower) : state_(std::make_unique<State>()) {
    State& s = *state_;
    s.params = params;
    s.signalPower = signalPower > 0 ? signalPower : 1;
    Rng setup(params.seed ^ 0xC4A7'7E11'0000'0001ull);
    s.noiseRng = Rng(params.seed ^ 0x6E01'5E00'0000'0002ull);

    if (std::isfinite(params.snrDb))
        s.noiseVariance = s.signalPower / std::pow(10.0, params.snrDb / 10) * (kChannelSampleRate / kOccupiedBandwidth);
    if (std::isfinite(params.cwPowerDb)) s.cwAmplitude = std::sqrt(s.signalPower * std::pow(10.0, params.cwPowerDb / 10));
    s.cwPhase = kTwoPi * setup.Uniform();
    if (params.randomStart && params.randomStartMaxSamples > 0) s.dropRemaining = setup.Below(params.randomStartMaxSamples);
    const double leadIn = std::min(params.leadInSeconds, kMaxLeadInSeconds);
    s.leadInSamples = leadIn > 0 ? static_cast<uint64_t>(std::llround(leadIn * kChannelSampleRate)) : 0;
    if (params.dropoutStartSeconds >= 0 && params.dropoutSeconds > 0) {
        s.dropoutBegin = std::llround(params.dropoutStartSeconds * kChannelSampleRate);
        s.dropoutEnd = s.dropoutBegin + std::llround(params.dropoutSeconds * kChannelSampleRate);
    }

    const double total = s.signalPower + s.noiseVariance + s.cwAmplitude * s.cwAmplitude;
    s.gain = params.gain > 0 ? params.gain : kAutoRmsLsb * std::sqrt(2.0 / total);

    // Paths: normalised to unit total power; a fading single path when only
    // fading is asked for.
    std::vector<PathTap> taps = params.taps;
    if (taps.empty() && params.fadingDopplerHz > 0) taps.push_back(PathTap{});
    double power = 0;
    for (const PathTap& t : taps) power += std::pow(10.0, t.gainDb / 10);
    const bool trivial = taps.empty() || (taps.size() == 1 && taps[0].delaySamples == 0 && params.fadingDopplerHz <= 0 &&
                                          taps[0].phaseRad == 0);
    if (!trivial && power > 0) {
        s.multipath = true;
        for (const PathTap& t : taps) {
            Path p;
            const double delay = std::clamp(std::isfinite(t.delaySamples) ? t.delaySamples : 0.0, 0.0, kMaxDelaySamples);
            const double whole = std::floor(delay);
            const double frac = delay - whole;
            p.delay = static_cast<int64_t>(whole);
            p.gain = std::polar(static_cast<float>(std::sqrt(std::pow(10.0, t.gainDb / 10) / power)),
                                static_cast<float>(t.phaseRad));
            if (frac > 1e-9) {
                // x(n - D - f) is the value at time (n - D - 1) + (1 - f).
                p.fractional = true;
                p.delay += 1;
                Kernel().Weights(1 - frac, p.weights.data());
                s.mpLookahead = std::max<int64_t>(s.mpLookahead, kHalfTaps - p.delay);
                s.mpBack = std::max<int64_t>(s.mpBack, p.delay + kHalfTaps - 1);
            } else {
                s.mpBack = std::max<int64_t>(s.mpBack, p.delay);
            }
            if (params.fadingDopplerHz > 0) {
                p.fades = true;
                for (int m = 0; m < kFadeSines; ++m) {
                    const double angle = M_PI * (m + setup.Uniform()) / kFadeSines;
                    p.fading.dopplerCyclesPerSample[m] = params.fadingDopplerHz * std::cos(angle) / kChannelSampleRate;
                    p.fading.phase[m] = kTwoPi * setup.Uniform();
                }
            }
            s.paths.push_back(p);
        }
        s.mpLookahead = std::max<int64_t>(s.mpLookahead, 0);
        s.mpIn.base = -s.mpBack;
        s.mpIn.buf.assign(static_cast<size_t>(s.mpBack), cf(0, 0));
    }

    if (std::isfinite(params.sampleClockPpm) && params.sampleClockPpm != 0) {
        s.resample = true;
        s.step = 1.0 / (1.0 + std::clamp(params.sampleClockPpm, -kMaxClockPpm, kMaxClockPpm) * 1e-6);
        s.rsIn.base = -kHalfTaps;
        s.rsIn.buf.assign(kHalfTaps, cf(0, 0));
    }
}

ChannelModel::~ChannelModel() = default;

// y += w * x over n floats; the arrays do not overlap, so this vectorises.
static void AddScaled(float* __restrict y, const float* __restrict x, float w, size_t n) {
    for (size_t m = 0; m < n; ++m) y[m] += w * x[m];
}

// Sum over the paths of gain x delayed input, the gain following the fading
// process. Output n needs input n - delay (or the kernel's span around it).
// Complex products are written out: the library's operator checks for
// infinities and is far slower.
void ChannelModel::State::Multipath(const cf* in, size_t n, std::vector<cf>& out) {
    mpIn.Append(in, n);
    out.clear();
    const int64_t last = mpIn.End() - 1 - mpLookahead;  // last output index computable
    if (last < mpNext) return;
    const size_t count = static_cast<size_t>(last - mpNext + 1);
    out.assign(count, cf(0, 0));
    float* y = reinterpret_cast<float*>(out.data());
    for (const Path& p : paths) {
        // The path's delayed input, through the fractional kernel if needed:
        // an axpy per kernel weight over the interleaved floats.
        const float* x;
        if (p.fractional) {
            pathScratch.assign(count, cf(0, 0));
            float* v = reinterpret_cast<float*>(pathScratch.data());
            const float* src = reinterpret_cast<const float*>(
                &mpIn.buf[static_cast<size_t>(mpNext - p.delay - mpIn.base - kHalfTaps + 1)]);
            // In chunks that stay in the first-level cache.
            for (size_t c0 = 0; c0 < 2 * count; c0 += 2048) {
                const size_t len = std::min<size_t>(2048, 2 * count - c0);
                for (int j = 0; j < kTaps; ++j) AddScaled(v + c0, src + c0 + 2 * j, p.weights[j], len);
            }
            x = v;
        } else {
            x = reinterpret_cast<const float*>(&mpIn.buf[static_cast<size_t>(mpNext - p.delay - mpIn.base)]);
        }
        if (!p.fades) {
            const float gr = p.gain.real(), gi = p.gain.imag();
            for (size_t k = 0; k < count; ++k) {
                const float xr = x[2 * k], xi = x[2 * k + 1];
                y[2 * k] += gr * xr - gi * xi;
                y[2 * k + 1] += gr * xi + gi * xr;
            }
            continue;
        }
        // Fading: the gain moves linearly between grid points kFadeStep apart.
        size_t k = 0;
        cd b = cd(p.gain) * p.fading.At(mpNext - (mpNext % kFadeStep));
        while (k < count) {
            const int64_t first = mpNext + static_cast<int64_t>(k);
            const int64_t grid = first - (first % kFadeStep);
            const size_t segment = std::min<size_t>(count - k, static_cast<size_t>(grid + kFadeStep - first));
            const cd a = b;  // the previous segment's end point
            b = cd(p.gain) * p.fading.At(grid + kFadeStep);
            for (size_t m = 0; m < segment; ++m, ++k) {
                const double f = static_cast<double>(first + static_cast<int64_t>(m) - grid) / kFadeStep;
                const float gr = static_cast<float>(a.real() + f * (b.real() - a.real()));
                const float gi = static_cast<float>(a.imag() + f * (b.imag() - a.imag()));
                const float xr = x[2 * k], xi = x[2 * k + 1];
                y[2 * k] += gr * xr - gi * xi;
                y[2 * k + 1] += gr * xi + gi * xr;
            }
        }
    }
    mpNext = last + 1;
    mpIn.TrimBefore(mpNext - mpBack - kHalfTaps);
}

// Output sample k is the input at time k * step, interpolated by the kernel.
void ChannelModel::State::Resample(const cf* in, size_t n, std::vector<cf>& out) {
    rsIn.Append(in, n);
    out.clear();
    const InterpolationTable& kernel = Kernel();
    float w[kTaps];
    for (;;) {
        const double t = static_cast<double>(rsNext) * step;
        const double whole = std::floor(t);
        const int64_t i = static_cast<int64_t>(whole);
        if (i + kHalfTaps >= rsIn.End()) break;
        kernel.Weights(t - whole, w);
        const cf* x = &rsIn.buf[static_cast<size_t>(i - kHalfTaps + 1 - rsIn.base)];
        float re = 0, im = 0;
        for (int j = 0; j < kTaps; ++j) {
            re += x[j].real() * w[j];
            im += x[j].imag() * w[j];
        }
        out.emplace_back(re, im);
        ++rsNext;
    }
    const int64_t nextWhole = static_cast<int64_t>(std::floor(static_cast<double>(rsNext) * step));
    rsIn.TrimBefore(nextWhole - kHalfTaps);
}

void ChannelModel::State::AddNoiseAndInterferer(cf* x, size_t n, uint64_t firstIndex) {
    if (cwAmplitude > 0) {
        const double cyclesPerSample = params.cwOffsetHz / kChannelSampleRate;
        for (size_t k = 0; k < n; ++k) {
            double cycles = cyclesPerSample * static_cast<double>(firstIndex + k);
            cycles -= std::floor(cycles);
            x[k] += cf(std::polar(cwAmplitude, kTwoPi * cycles + cwPhase));
        }
    }
    if (noiseVariance > 0) {
        const double sigma = std::sqrt(noiseVariance / 2);
        for (size_t k = 0; k < n; ++k) {
            double a, b;
            noiseRng.GaussianPair(&a, &b);
            x[k] += cf(static_cast<float>(a * sigma), static_cast<float>(b * sigma));
        }
    }
}

// Carrier offset, drop-out, interferer and noise on signal samples that take
// the next output indices.
void ChannelModel::State::Finish(const cf* in, size_t n, std::vector<cf>& out) {
    const size_t at = out.size();
    out.resize(at + n);
    cf* y = out.data() + at;
    const double f0 = params.frequencyOffsetHz, drift = params.frequencyDriftHzPerSecond;
    const bool rotate = f0 != 0 || drift != 0;
    for (size_t k = 0; k < n; ++k) {
        const uint64_t index = outCount + k;
        cf v = in[k];
        if (rotate) {
            const double t = static_cast<double>(index) / kChannelSampleRate;
            double cycles = f0 * t + 0.5 * drift * t * t;
            cycles -= std::floor(cycles);
            const double ph = kTwoPi * cycles;
            const float c = static_cast<float>(std::cos(ph)), sn = static_cast<float>(std::sin(ph));
            v = cf(v.real() * c - v.imag() * sn, v.real() * sn + v.imag() * c);
        }
        if (static_cast<int64_t>(index) >= dropoutBegin && static_cast<int64_t>(index) < dropoutEnd) v = 0;
        y[k] = v;
    }
    AddNoiseAndInterferer(y, n, outCount);
    outCount += n;
}

void ChannelModel::Process(const cf* in, size_t n, std::vector<cf>& out) {
    State& s = *state_;
    out.clear();
    if (!s.leadInDone) {
        s.leadInDone = true;
        out.assign(s.leadInSamples, cf(0, 0));
        s.AddNoiseAndInterferer(out.data(), out.size(), 0);
        s.outCount += s.leadInSamples;
    }
    if (s.dropRemaining > 0) {
        const size_t skip = static_cast<size_t>(std::min<uint64_t>(s.dropRemaining, n));
        s.dropRemaining -= skip;
        s.dropped += skip;
        in += skip;
        n -= skip;
    }
    if (n == 0) return;
    const cf* x = in;
    size_t count = n;
    if (s.multipath) {
        s.Multipath(x, count, s.stage1);
        x = s.stage1.data();
        count = s.stage1.size();
    }
    if (s.resample) {
        s.Resample(x, count, s.stage2);
        x = s.stage2.data();
        count = s.stage2.size();
    }
    s.Finish(x, count, out);
}

void ChannelModel::ProcessU8(const cf* in, size_t n, std::vector<uint8_t>& out) {
    std::vector<cf> analog;
    Process(in, n, analog);
    out.resize(2 * analog.size());
    QuantiseToU8(analog.data(), analog.size(), state_->gain, state_->params.dcI, state_->params.dcQ, out.data());
}

double ChannelModel::Gain() const { return state_->gain; }
double ChannelModel::NoiseVariance() const { return state_->noiseVariance; }
uint64_t ChannelModel::OutputSamples() const { return state_->outCount; }
uint64_t ChannelModel::DroppedInputSamples() const { return state_->dropped; }

std::string ChannelModel::Describe() const {
    const ChannelParams& p = state_->params;
    char line[512];
    std::snprintf(line, sizeof line,
                  "channel: seed %llu, SNR %s dB, offset %.1f Hz%+.3f Hz/s, clock %+.2f ppm, %zu path(s)%s, "
                  "CW %s, lead-in %.3f s%s, gain %.4g, DC %.1f/%.1f LSB%s",
                  static_cast<unsigned long long>(p.seed),
                  std::isfinite(p.snrDb) ? std::to_string(p.snrDb).c_str() : "inf", p.frequencyOffsetHz,
                  p.frequencyDriftHzPerSecond, p.sampleClockPpm, std::max<size_t>(1, state_->paths.size()),
                  p.fadingDopplerHz > 0 ? (", fading " + std::to_string(p.fadingDopplerHz) + " Hz").c_str() : "",
                  std::isfinite(p.cwPowerDb)
                      ? (std::to_string(p.cwPowerDb) + " dB at " + std::to_string(p.cwOffsetHz) + " Hz").c_str()
                      : "none",
                  p.leadInSeconds, p.randomStart ? ", random start" : "", state_->gain, p.dcI, p.dcQ,
                  state_->dropoutBegin >= 0 ? ", with drop-out" : "");
    return line;
}

void QuantiseToU8(const cf* in, size_t n, double gain, double dcI, double dcQ, uint8_t* out) {
    auto q = [](double v) -> uint8_t {
        v = std::floor(v + 0.5);
        return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
    };
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = q(in[i].real() * gain + 127.5 + dcI);
        out[2 * i + 1] = q(in[i].imag() * gain + 127.5 + dcQ);
    }
}

namespace {

struct NamedProfile {
    const char* name;
    std::vector<PathTap> taps;  // delays in samples at 2.048 MS/s
};

// Delays in microseconds times 2.048, rounded to whole samples where the
// profile's own resolution is coarser than a sample.
const std::vector<NamedProfile>& Profiles() {
    static const std::vector<NamedProfile> profiles = {
        {"single", {{0, 0, 0}}},
        // A short echo well inside every guard interval.
        {"two-path-short", {{0, 0, 0}, {10, -6, 1.0}}},
        // An echo of 150 us: inside the mode I and IV guard intervals only.
        {"two-path-long", {{0, 0, 0}, {307, -6, 2.0}}},
        // Typical urban: six paths over 5 us.
        {"urban", {{0, -3, 0}, {0.4096, 0, 0.7}, {1.024, -2, 2.1}, {3.2768, -6, 4.0}, {4.7104, -8, 5.2}, {10.24, -10, 0.3}}},
        // Rural area: four paths over 0.7 us.
        {"rural", {{0, 0, 0}, {0.4096, -4, 1.3}, {0.8192, -8, 2.9}, {1.2288, -12, 4.4}}},
        // Hilly terrain: a near cluster and a far one at 15 us.
        {"hilly", {{0, 0, 0}, {0.2048, -1.5, 1.1}, {0.8192, -4.5, 2.5}, {31, -6.5, 3.3}, {33, -8.5, 4.6}, {41, -10.5, 5.9}}},
        // Single-frequency network: a second transmitter 200 us later, nearly as strong.
        {"sfn-long", {{0, 0, 0}, {409.6, -3, 2.4}}},
        // An echo of 300 us: beyond the mode I guard interval of 246 us.
        {"beyond-guard", {{0, 0, 0}, {614.4, -10, 0.9}}},
    };
    return profiles;
}

}  // namespace

bool MultipathProfile(const std::string& name, std::vector<PathTap>* taps) {
    for (const NamedProfile& p : Profiles()) {
        if (name == p.name) {
            if (taps) *taps = p.taps;
            return true;
        }
    }
    return false;
}

std::vector<std::string> MultipathProfileNames() {
    std::vector<std::string> names;
    for (const NamedProfile& p : Profiles()) names.emplace_back(p.name);
    return names;
}

}  // namespace gen
