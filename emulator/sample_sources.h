// What the emulated antenna receives: sources of unsigned 8-bit I/Q bytes at
// the nominal 2.048 MS/s, before the device's converter clock is applied.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "emulator/emulator_settings.h"

namespace emu {

class SampleSource {
public:
    virtual ~SampleSource() = default;
    // Fills up to `count` bytes (even); fewer only when the source has ended
    // or is asked to stop. Returns the bytes filled.
    virtual size_t Read(uint8_t* out, size_t count) = 0;
};

// Seeded Gaussian receiver noise around 127.5, `rms` byte units per rail,
// rounded to bytes and clipped at 0 and 255.
class NoiseSource : public SampleSource {
public:
    NoiseSource(uint64_t seed, double rms);
    size_t Read(uint8_t* out, size_t count) override;

private:
    uint64_t state_;         // generator state (splitmix64)
    uint8_t levels_[65536];  // byte values spread by their probability: one draw is one index
};

// Raw I/Q from a file; at the end it starts again (loop) or ends. An odd
// last byte is never delivered.
class FileSource : public SampleSource {
public:
    ~FileSource() override;
    // Null when the file can't be opened or holds no whole sample.
    static std::unique_ptr<FileSource> Open(const std::string& path, bool loop, std::string* error);
    size_t Read(uint8_t* out, size_t count) override;

private:
    FileSource() = default;
    std::FILE* file_ = nullptr;
    bool loop_ = true;
    int64_t usableBytes_ = 0;  // file size rounded down to whole samples
    int64_t position_ = 0;     // next byte to read
};

// Raw I/Q from a descriptor (standard input), ending at end of file. Waits
// for data, but looks at `stop` every 50 ms, so that a stream can always be
// ended.
class DescriptorSource : public SampleSource {
public:
    DescriptorSource(int fd, const std::atomic<bool>* stop) : fd_(fd), stop_(stop) {}
    size_t Read(uint8_t* out, size_t count) override;

private:
    int fd_;
    const std::atomic<bool>* stop_;
    bool ended_ = false;
    bool hasOddByte_ = false;  // one byte of an incomplete sample held back
    uint8_t oddByte_ = 0;
};

// A generated signal (gen::MakeSignalStream). Null, with `error`, when the
// description can't be built.
std::unique_ptr<SampleSource> MakeGeneratedSource(const std::string& description, std::string* error);

// A source with the clock error of the converter that samples it.
struct TunedSource {
    std::shared_ptr<SampleSource> source;
    double clockPpm = 0.0;  // sample-clock error, ppm, positive when the device clock is fast
    std::string name;       // for messages
};

// The one source of a file, standard input or generated plan, played at
// every frequency that has no entry of its own; it lives as long as the open
// device and pauses while another frequency is tuned. For the other kinds an
// empty record. 0 and `error` when it can't be made.
int32_t MakeSharedSource(const SourcePlan& plan, const EmulatorSettings& settings, const std::atomic<bool>* stop,
                         TunedSource* out, std::string* error);

// The source to play at `frequencyKhz` (0: not tuned yet): the frequency's
// own entry, else `shared` when it has a source, else noise. A per-frequency
// source that can't be made falls back to noise, with a message on stderr.
TunedSource SelectSource(const SourcePlan& plan, const EmulatorSettings& settings, int32_t frequencyKhz,
                         const TunedSource& shared);

}  // namespace emu
