#include "emulator/sample_sources.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#else
#include <poll.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "generator/signal_stream.h"

namespace emu {

// ---------------------------------------------------------------------------
NoiseSource::NoiseSource(uint64_t seed, double rms) : state_(seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull) {
    // Probability of each byte value of round(127.5 + rms * g), g ~ N(0, 1),
    // with the tails clipped into 0 and 255; the table holds each value in
    // proportion, so that a uniform 16-bit index draws from the distribution.
    double cumulative[257];
    cumulative[0] = 0.0;
    for (int v = 0; v < 256; ++v) {
        const double upper = v == 255 ? 1.0
                             : rms <= 0.0 ? (v + 0.5 >= 127.5 ? 1.0 : 0.0)
                                          : 0.5 * std::erfc(-((v + 0.5) - 127.5) / (rms * std::sqrt(2.0)));
        cumulative[v + 1] = upper;
    }
    int v = 0;
    for (int i = 0; i < 65536; ++i) {
        const double p = (i + 0.5) / 65536.0;
        while (v < 255 && cumulative[v + 1] <= p) ++v;
        levels_[i] = uint8_t(v);
    }
}

size_t NoiseSource::Read(uint8_t* out, size_t count) {
    size_t i = 0;
    while (i < count) {
        // splitmix64: four 16-bit draws per step.
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        z ^= z >> 31;
        for (int k = 0; k < 4 && i < count; ++k, ++i) out[i] = levels_[(z >> (16 * k)) & 0xFFFF];
    }
    return count;
}

// ---------------------------------------------------------------------------
FileSource::~FileSource() {
    if (file_ != nullptr) std::fclose(file_);
}

std::unique_ptr<FileSource> FileSource::Open(const std::string& path, bool loop, std::string* error) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        if (error != nullptr) *error = "can't open " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<FileSource> s(new FileSource());
    s->file_ = f;
    s->loop_ = loop;
    if (std::fseek(f, 0, SEEK_END) == 0) s->usableBytes_ = int64_t(std::ftell(f)) & ~int64_t(1);
    std::fseek(f, 0, SEEK_SET);
    if (s->usableBytes_ < kBytesPerSample) {
        if (error != nullptr) *error = path + " holds no whole sample";
        return nullptr;
    }
    return s;
}

size_t FileSource::Read(uint8_t* out, size_t count) {
    size_t filled = 0;
    while (filled < count) {
        if (position_ >= usableBytes_) {
            if (!loop_) break;
            std::fseek(file_, 0, SEEK_SET);
            position_ = 0;
        }
        const size_t want = size_t(std::min<int64_t>(int64_t(count - filled), usableBytes_ - position_));
        const size_t got = std::fread(out + filled, 1, want, file_);
        if (got == 0) {
            // A file that shrank while playing: treat as its end.
            usableBytes_ = position_;
            if (usableBytes_ < kBytesPerSample) break;
            continue;
        }
        filled += got;
        position_ += int64_t(got);
    }
    return filled & ~size_t(1);
}

// ---------------------------------------------------------------------------
size_t DescriptorSource::Read(uint8_t* out, size_t count) {
    size_t filled = 0;
    if (hasOddByte_ && count > 0) {
        out[filled++] = oddByte_;
        hasOddByte_ = false;
    }
    while (filled < count && !ended_ && !stop_->load()) {
#if defined(_WIN32)
        // No poll on a Windows descriptor: a plain blocking read, so a stop
        // is seen after the next bytes or the end of the input. Binary mode:
        // the samples are bytes, not text.
        _setmode(fd_, _O_BINARY);
        const int n = _read(fd_, out + filled, unsigned(count - filled));
        if (n > 0) {
            filled += size_t(n);
        } else {
            ended_ = true;
        }
        continue;
#else
        pollfd p{fd_, POLLIN, 0};
        const int r = poll(&p, 1, 50);
        if (r < 0 && errno != EINTR) {
            ended_ = true;
            break;
        }
        if (r <= 0) continue;
        const ssize_t n = read(fd_, out + filled, count - filled);
        if (n > 0) {
            filled += size_t(n);
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            ended_ = true;
        }
#endif
    }
    if (filled & 1) {
        oddByte_ = out[filled - 1];
        hasOddByte_ = true;
        --filled;
    }
    return filled;
}

// ---------------------------------------------------------------------------
namespace {

class GeneratedSource : public SampleSource {
public:
    explicit GeneratedSource(std::unique_ptr<gen::SignalStream> stream) : stream_(std::move(stream)) {}
    size_t Read(uint8_t* out, size_t count) override {
        stream_->Read(out, count & ~size_t(1));
        return count & ~size_t(1);
    }

private:
    std::unique_ptr<gen::SignalStream> stream_;
};

// Splits off ppm= and builds the stream.
int32_t MakeGenerated(const std::string& description, double basePpm, TunedSource* out, std::string* error) {
    std::string rest;
    double ppm = 0.0;
    if (SplitClockError(description, &rest, &ppm) == 0) {
        if (error != nullptr) *error = "bad ppm= in \"" + description + "\"";
        return 0;
    }
    std::unique_ptr<SampleSource> s = MakeGeneratedSource(rest, error);
    if (s == nullptr) return 0;
    out->source = std::move(s);
    out->clockPpm = basePpm + ppm;
    out->name = "generated \"" + description + "\"";
    return 1;
}

TunedSource Noise(const EmulatorSettings& settings, int32_t frequencyKhz) {
    TunedSource t;
    // Each frequency its own noise, repeatable with the seed.
    t.source = std::make_shared<NoiseSource>(settings.seed + uint64_t(uint32_t(frequencyKhz)) * 1000003ull,
                                             settings.noiseRms);
    t.clockPpm = settings.clockPpm;
    t.name = "noise";
    return t;
}

}  // namespace

std::unique_ptr<SampleSource> MakeGeneratedSource(const std::string& description, std::string* error) {
    std::string why;
    std::unique_ptr<gen::SignalStream> stream;
    try {
        stream = gen::MakeSignalStream(description, &why);
    } catch (...) {
        why = "the generator failed";
        stream = nullptr;
    }
    if (stream == nullptr) {
        if (error != nullptr) *error = "can't generate \"" + description + "\": " + why;
        return nullptr;
    }
    return std::make_unique<GeneratedSource>(std::move(stream));
}

int32_t MakeSharedSource(const SourcePlan& plan, const EmulatorSettings& settings, const std::atomic<bool>* stop,
                         TunedSource* out, std::string* error) {
    *out = TunedSource{};
    switch (plan.kind) {
        case SourceKind::File: {
            std::unique_ptr<FileSource> f = FileSource::Open(plan.path, settings.loop, error);
            if (f == nullptr) return 0;
            out->source = std::move(f);
            out->clockPpm = settings.clockPpm;
            out->name = "file " + plan.path;
            return 1;
        }
        case SourceKind::Stdin:
            out->source = std::make_shared<DescriptorSource>(0, stop);
            out->clockPpm = settings.clockPpm;
            out->name = "standard input";
            return 1;
        case SourceKind::Generated:
            return MakeGenerated(plan.description, settings.clockPpm, out, error);
        case SourceKind::Noise:
        case SourceKind::PerFrequency:
            return 1;
    }
    return 1;
}

TunedSource SelectSource(const SourcePlan& plan, const EmulatorSettings& settings, int32_t frequencyKhz,
                         const TunedSource& shared) {
    std::string error;
    const auto generated = plan.generatedByFrequency.find(frequencyKhz);
    if (frequencyKhz > 0 && generated != plan.generatedByFrequency.end()) {
        TunedSource t;
        if (MakeGenerated(generated->second, settings.clockPpm, &t, &error) == 1) return t;
        std::fprintf(stderr, "emulator: %s; noise at %d kHz\n", error.c_str(), frequencyKhz);
        return Noise(settings, frequencyKhz);
    }
    if (plan.kind == SourceKind::PerFrequency && frequencyKhz > 0) {
        std::string path;
        const auto listed = plan.filesByFrequency.find(frequencyKhz);
        if (listed != plan.filesByFrequency.end()) {
            path = listed->second;
        } else if (!plan.path.empty()) {
            path = plan.path + "/" + std::to_string(frequencyKhz) + ".u8";
            if (access(path.c_str(), F_OK) != 0) path.clear();
        }
        if (!path.empty()) {
            std::unique_ptr<FileSource> f = FileSource::Open(path, settings.loop, &error);
            if (f != nullptr) {
                TunedSource t;
                t.source = std::move(f);
                t.clockPpm = settings.clockPpm;
                t.name = "file " + path;
                return t;
            }
            std::fprintf(stderr, "emulator: %s; noise at %d kHz\n", error.c_str(), frequencyKhz);
        }
    }
    if (shared.source != nullptr) return shared;
    return Noise(settings, frequencyKhz);
}

}  // namespace emu
