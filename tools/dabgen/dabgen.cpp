// dabgen: writes a generated DAB signal, frame by frame, holding one
// transmission frame at a time whatever the length.
#include <chrono>
#include <complex>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"
#include "tools/dabgen/dabgen_options.h"

namespace {

// The ensemble's channel bits and listing, from a file, a preset with
// options, or the "random" preset.
bool BuildSource(dabgen::Options& o, std::unique_ptr<gen::FrameBitSource>* source, std::string* listing,
                 std::string* error) {
    gen::EnsembleDescription d;
    if (!o.config.empty()) {
        if (!gen::LoadDescriptionFile(o.config, o.presetOptions.mode, o.presetOptions.seed, &d, error)) return false;
        if (o.modeGiven) d.mode = o.presetOptions.mode;
        o.presetOptions.mode = d.mode;
    } else if (o.preset == "random") {
        gen::EnsembleBits bits;
        if (!gen::MakeEnsembleBits("random", "", o.presetOptions.mode, o.presetOptions.seed, &bits, error))
            return false;
        *source = std::move(bits.source);
        *listing = bits.listing;
        return true;
    } else if (!gen::MakePresetDescription(o.preset, o.presetOptions, &d, error)) {
        return false;
    }
    std::unique_ptr<gen::Multiplex> m = gen::Multiplex::Make(d, error);
    if (!m) return false;
    *listing = m->Listing();
    *source = std::move(m);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    dabgen::Options o;
    std::string error;
    if (!dabgen::ParseOptions(argc, argv, &o, &error)) {
        std::fprintf(stderr, "dabgen: %s\n", error.c_str());
        return 2;
    }
    if (o.help) {
        std::fputs(dabgen::UsageText().c_str(), stdout);
        return 0;
    }
    std::unique_ptr<gen::FrameBitSource> source;
    std::string listing;
    if (!BuildSource(o, &source, &listing, &error)) {
        std::fprintf(stderr, "dabgen: %s\n", error.c_str());
        return 1;
    }
    const int mode = o.presetOptions.mode;
    gen::FrameTransmitter tx(std::move(source), mode);
    const gen::ModeGeometry& g = tx.Geometry();
    const uint64_t frames =
        o.frames > 0 ? static_cast<uint64_t>(o.frames)
                     : static_cast<uint64_t>(o.seconds * gen::kChannelSampleRate / g.frameSamples + 0.999999);
    gen::ChannelModel channel(o.channel, tx.MeanPower());
    const double signalSeconds = static_cast<double>(frames) * g.frameSamples / gen::kChannelSampleRate;
    if (!o.quiet || o.listOnly) {
        std::fprintf(stderr, "%s", listing.c_str());
        std::fprintf(stderr, "%s\n", channel.Describe().c_str());
        std::fprintf(stderr, "output: %llu frames (%.3f s of signal), %s to %s\n",
                     static_cast<unsigned long long>(frames), signalSeconds,
                     o.format == dabgen::Format::kU8 ? "u8 I/Q" : "cf32 I/Q",
                     o.output == "-" ? "standard output" : o.output.c_str());
    }
    if (o.listOnly) return 0;

    FILE* out = o.output == "-" ? stdout : std::fopen(o.output.c_str(), "wb");
    if (!out) {
        std::fprintf(stderr, "dabgen: can't write %s\n", o.output.c_str());
        return 1;
    }
    static char buffer[1 << 20];
    std::setvbuf(out, buffer, _IOFBF, sizeof buffer);

    std::vector<std::complex<float>> frame(static_cast<size_t>(g.frameSamples)), analog;
    std::vector<uint8_t> bytes;
    const auto start = std::chrono::steady_clock::now();
    auto lastReport = start;
    uint64_t written = 0;  // output samples
    bool ok = true;
    for (uint64_t f = 0; f < frames && ok; ++f) {
        tx.Read(frame.data(), frame.size());
        if (o.format == dabgen::Format::kU8) {
            channel.ProcessU8(frame.data(), frame.size(), bytes);
            ok = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
            written += bytes.size() / 2;
        } else {
            channel.Process(frame.data(), frame.size(), analog);
            ok = std::fwrite(analog.data(), sizeof(analog[0]), analog.size(), out) == analog.size();
            written += analog.size();
        }
        const auto now = std::chrono::steady_clock::now();
        if (!o.quiet && now - lastReport > std::chrono::seconds(2)) {
            lastReport = now;
            const double wall = std::chrono::duration<double>(now - start).count();
            std::fprintf(stderr, "dabgen: frame %llu of %llu, %.1f s of signal in %.1f s\n",
                         static_cast<unsigned long long>(f + 1), static_cast<unsigned long long>(frames),
                         (f + 1) * g.frameSamples / gen::kChannelSampleRate, wall);
        }
    }
    if (std::fflush(out) != 0) ok = false;
    if (out != stdout) std::fclose(out);
    if (!ok) {
        std::fprintf(stderr, "dabgen: write failed\n");
        return 1;
    }
    if (!o.quiet) {
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "dabgen: %llu samples (%.3f s) in %.2f s, %.1f x real time\n",
                     static_cast<unsigned long long>(written), written / gen::kChannelSampleRate, wall,
                     wall > 0 ? (written / gen::kChannelSampleRate) / wall : 0.0);
    }
    return 0;
}
