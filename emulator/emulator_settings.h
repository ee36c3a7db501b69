// The emulated device's configuration. The device library's interface has no
// way to pass options, so everything comes from MVC900_* environment
// variables, read afresh each time the device is opened (MVA_BDAFilterInit).
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace emu {

// Samples per second of the device stream, and bytes (I and Q) per sample.
constexpr double kSampleRate = 2048000.0;
constexpr int32_t kBytesPerSample = 2;
// The receiver's unit of gathering; every transfer is smaller than this.
constexpr int32_t kIqFrameBytes = 240640;

struct EmulatorSettings {
    std::string source;     // MVC900_SOURCE: the sample source, see SourcePlan
    std::string generated;  // MVC900_GENERATED: "kHz=description;kHz=description"
    bool loop;              // MVC900_LOOP: a file starts again at its end (true) or the stream stops
    double speed;           // MVC900_SPEED: pacing as a multiple of real time; 0 = as fast as read
    int32_t tunerType;      // MVC900_TUNER_TYPE: value reported by MVA_Get_TunerType
    double clockPpm;        // MVC900_CLOCK_PPM: sample-clock error of the device, ppm (positive: fast)
    double noiseRms;        // MVC900_NOISE_RMS: receiver noise, byte units rms per rail
    uint64_t seed;          // MVC900_SEED: seed of the noise
    double settleMs;        // MVC900_SETTLE_MS: noise delivered after each tuner update, ms
    int64_t fifoBytes;      // MVC900_FIFO_KB (in KiB): device buffer between producer and reader, bytes
    bool verbose;           // MVC900_VERBOSE: report tuning, line changes, overflows on stderr
    std::string fault;      // MVC900_FAULT: comma-separated faults, see FaultPlan
};

// Reads the environment; a malformed value is reported on stderr and the
// default is used instead.
EmulatorSettings ReadSettings();
// The defaults, without looking at the environment.
EmulatorSettings DefaultSettings();

enum class SourceKind {
    Noise,         // receiver noise only
    File,          // one file of raw I/Q, played whatever the tuning
    PerFrequency,  // one file per frequency, noise where there is none
    Stdin,         // raw I/Q from standard input, played whatever the tuning
    Generated,     // one generated signal, played whatever the tuning
};

// What the antenna "receives". `generatedByFrequency` overrides the kind for
// the frequencies it lists.
struct SourcePlan {
    SourceKind kind = SourceKind::Noise;
    std::string path;                                   // File: the file; PerFrequency: directory (may be empty)
    std::map<int32_t, std::string> filesByFrequency;    // PerFrequency given as a list: kHz -> file
    std::string description;                            // Generated: the signal description
    std::map<int32_t, std::string> generatedByFrequency;  // kHz -> signal description
};

// Built-in band of "generated-default".
extern const char* const kDefaultGeneratedBand;

// Parses MVC900_SOURCE and MVC900_GENERATED. 0 and `error` set on a malformed text.
int32_t ParseSourcePlan(const std::string& source, const std::string& generated, SourcePlan* plan,
                        std::string* error);

// Parses "kHz=text;kHz=text" (separator ';' or newline; with `itemSeparator`
// ',' for file lists). 0 on a malformed entry.
int32_t ParseFrequencyMap(const std::string& text, char itemSeparator, std::map<int32_t, std::string>* out,
                          std::string* error);

// Takes "ppm=P" out of a signal description: the emulator applies the clock
// error itself, at its converter. Returns the description without it and
// stores P (0 when absent) in *ppm. 0 when P isn't a number.
int32_t SplitClockError(const std::string& description, std::string* rest, double* ppm);

}  // namespace emu
