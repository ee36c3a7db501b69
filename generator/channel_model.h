// Channel model of the transmitter: turns the clean baseband signal at
// 2.048 MS/s into what a tuner and an 8-bit converter would deliver, with each
// impairment a parameter. Streaming with bounded memory; every random choice
// comes from `seed`, so the same parameters and input give the same output,
// however the input is cut into calls.
//
// Order of the impairments, as in a receiver's front end:
//   random start (input samples dropped) -> multipath with optional fading ->
//   sample clock offset (resampling) -> carrier frequency offset -> drop-out ->
//   + CW interferer + noise (noise-only lead-in first) -> gain, DC, 8-bit.
//
// Noise definition: `snrDb` is the mean signal power over the noise power
// inside the occupied 1.536 MHz. The noise is white over the whole 2.048 MHz,
// so its total complex variance is
//     sigma^2 = signalPower / 10^(snrDb/10) * 2.048 / 1.536,
// of which 1.536/2.048 falls inside the occupied band. `signalPower` is the
// mean |x|^2 of the clean input over whole transmission frames (null symbols
// included). The multipath taps are normalised to a total power gain of 1, so
// the SNR holds for the received signal as well.
#pragma once

#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace gen {

constexpr double kChannelSampleRate = 2048000.0;  // samples per second
constexpr double kOccupiedBandwidth = 1536000.0;  // Hz, the band the SNR refers to

struct PathTap {
    double delaySamples = 0;  // delay in samples at 2.048 MS/s, may be fractional, 0 .. 2^20
    double gainDb = 0;        // power of the path in dB (before normalisation)
    double phaseRad = 0;      // fixed phase of the path in radians
};

struct ChannelParams {
    uint64_t seed = 1;                          // all random processes start from this
    double snrDb = INFINITY;                    // dB, signal over noise in 1.536 MHz; infinity = no noise
    double frequencyOffsetHz = 0;               // Hz, carrier offset at the first output sample
    double frequencyDriftHzPerSecond = 0;       // Hz/s, linear drift of the carrier offset
    double sampleClockPpm = 0;                  // ppm, |value| <= 1000; > 0: the converter runs fast, a frame takes more samples
    std::vector<PathTap> taps;                  // empty = single path; see MultipathProfile
    double fadingDopplerHz = 0;                 // Hz, maximum Doppler of independent Rayleigh fading per tap; 0 = static
    double cwOffsetHz = 0;                      // Hz, CW interferer offset from the tuned centre
    double cwPowerDb = -INFINITY;               // dB relative to signalPower; -infinity = none
    double leadInSeconds = 0;                   // s of noise (and CW) before the signal starts, at most 10
    bool randomStart = false;                   // drop a random number of input samples at the start
    uint64_t randomStartMaxSamples = 196608;    // samples, upper bound (exclusive) of that drop
    double gain = 0;                            // linear, applied before quantisation; 0 = automatic (kAutoRmsLsb)
    double dcI = 0, dcQ = 0;                    // LSB, DC offset added before quantisation
    double dropoutStartSeconds = -1;            // s after the first output sample; < 0 = no drop-out
    double dropoutSeconds = 0;                  // s the signal is absent (noise continues)
};

// Automatic gain targets this RMS per real component (I or Q), in LSB, for the
// total of signal, noise and interferer: OFDM peaks of about 4x RMS stay
// inside the 8-bit range.
constexpr double kAutoRmsLsb = 25.0;

class ChannelModel {
public:
    // `signalPower`: mean |x|^2 of the clean input (see above); must be > 0.
    ChannelModel(const ChannelParams& params, double signalPower);
    ~ChannelModel();
    ChannelModel(const ChannelModel&) = delete;
    ChannelModel& operator=(const ChannelModel&) = delete;

    // Takes the next n input samples and replaces `out` with the output
    // samples they complete: "analog" complex values in the input's scale,
    // without gain, DC or quantisation. The first call also produces the
    // whole lead-in (16 MB of output per second of it). The output count
    // follows the clock offset; the filters hold back up to 16 samples (per
    // filtering stage) until the input they need has arrived.
    void Process(const std::complex<float>* in, size_t n, std::vector<std::complex<float>>& out);

    // As Process, then gain, DC and 8-bit quantisation with clipping:
    // `out` is replaced by interleaved I/Q bytes, two per sample.
    void ProcessU8(const std::complex<float>* in, size_t n, std::vector<uint8_t>& out);

    // The linear gain in use (resolved when `gain` was 0).
    double Gain() const;
    // Total complex noise variance added per sample (0 without noise).
    double NoiseVariance() const;
    // Output samples produced so far (lead-in included).
    uint64_t OutputSamples() const;
    // Input samples dropped by the random start.
    uint64_t DroppedInputSamples() const;
    // One line for a tool's listing.
    std::string Describe() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// b = clamp(round(x * gain + 127.5 + dc), 0, 255) for I and Q; 2n bytes out.
void QuantiseToU8(const std::complex<float>* in, size_t n, double gain, double dcI, double dcQ, uint8_t* out);

// Named delay profiles: "single", "two-path-short", "two-path-long", "urban",
// "rural", "hilly", "sfn-long", "beyond-guard". False for an unknown name.
bool MultipathProfile(const std::string& name, std::vector<PathTap>* taps);
// The names MultipathProfile knows, for a tool's help text.
std::vector<std::string> MultipathProfileNames();

}  // namespace gen
