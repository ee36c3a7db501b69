// Command line of dabgen.
#pragma once

#include <cstdint>
#include <string>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"

namespace dabgen {

enum class Format { kU8, kCf32 };

struct Options {
    std::string preset = "default";     // ensemble preset name
    std::string config;                 // description file instead of the preset
    gen::PresetOptions presetOptions;   // mode, seed, payload files of "default"
    bool modeGiven = false;             // --mode on the command line (else a file's mode= holds)
    double seconds = 10;                // s of signal (before lead-in and clock offset)
    int64_t frames = -1;                // transmission frames instead of seconds; -1 = use seconds
    Format format = Format::kU8;
    std::string output = "-";           // file, or "-" for standard output
    gen::ChannelParams channel;
    bool listOnly = false;              // print what would be sent and stop
    bool quiet = false;                 // no listing and no progress
    bool help = false;
};

// False with `error` set on a bad command line.
bool ParseOptions(int argc, char** argv, Options* out, std::string* error);
std::string UsageText();

}  // namespace dabgen
