#include "tools/dabgen/dabgen_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace dabgen {
namespace {

bool ToDouble(const std::string& text, double* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || std::isnan(v)) return false;
    *out = v;
    return true;
}

bool ToInteger(const std::string& text, long long lo, long long hi, long long* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// "A:B" into two finite numbers.
bool ToPair(const std::string& text, double* a, double* b) {
    const size_t colon = text.find(':');
    return colon != std::string::npos && ToDouble(text.substr(0, colon), a) && std::isfinite(*a) &&
           ToDouble(text.substr(colon + 1), b) && std::isfinite(*b);
}

}  // namespace

std::string UsageText() {
    std::string text =
        "usage: dabgen [options]\n"
        "Writes a generated DAB signal at 2.048 MS/s: unsigned 8-bit interleaved I/Q (the device's\n"
        "format) or 32-bit float I/Q pairs. What is sent is listed on standard error.\n"
        "\n"
        "Ensemble:\n"
        "  --preset NAME       built-in ensemble (default \"default\"), see below\n"
        "  --config PATH       ensemble description file instead of a preset\n"
        "  --dabp PATH         \"default\": DAB+ superframe file for the DAB+ service\n"
        "  --dabp-rate KBPS    bit rate of that file (default 48)\n"
        "  --mp2 PATH          \"default\": MPEG layer II file (128 kbit/s) for the MP2 service\n"
        "  --mode 1..4         transmission mode (default 1, or the file's mode=)\n"
        "  --seed N            seed of payloads and channel (default 1)\n"
        "  --list              print the ensemble and stop\n"
        "Length and output:\n"
        "  --seconds S         seconds of signal (default 10)\n"
        "  --frames N          transmission frames instead of seconds\n"
        "  --format u8|cf32    output format (default u8)\n"
        "  --output PATH       output file, - for standard output (default -)\n"
        "  --quiet             no listing, no progress\n"
        "Channel:\n"
        "  --snr DB            white noise, signal over noise in 1.536 MHz (default none)\n"
        "  --cfo HZ            carrier frequency offset\n"
        "  --drift HZPS        carrier drift in Hz/s\n"
        "  --ppm P             sample clock offset of the converter, |P| <= 1000\n"
        "  --profile NAME      multipath profile:";
    for (const std::string& n : gen::MultipathProfileNames()) text += " " + n;
    text +=
        "\n"
        "  --fading HZ         Doppler of Rayleigh fading per path\n"
        "  --cw HZ:DB          CW interferer at HZ from the centre, DB relative to the signal\n"
        "  --leadin S          seconds of noise before the signal (at most 10)\n"
        "  --random-start      start at a random point of the first frame\n"
        "  --gain G            linear gain before 8-bit quantisation (default automatic)\n"
        "  --dc I:Q            DC offset in LSB before quantisation\n"
        "  --dropout T:D       signal absent for D seconds from T seconds\n"
        "\n"
        "Presets:\n" +
        gen::PresetHelp() + "  random: pseudo-random channel bits (OFDM without a decodable multiplex)\n";
    return text;
}

bool ParseOptions(int argc, char** argv, Options* o, std::string* error) {
    gen::ChannelParams& c = o->channel;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto bad = [&](const std::string& why) {
            *error = arg + ": " + why;
            return false;
        };
        if (arg == "--help" || arg == "-h") {
            o->help = true;
            continue;
        }
        if (arg == "--list") {
            o->listOnly = true;
            continue;
        }
        if (arg == "--quiet") {
            o->quiet = true;
            continue;
        }
        if (arg == "--random-start") {
            c.randomStart = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) return bad("unexpected argument");
        if (i + 1 >= argc) return bad("needs a value");
        const std::string v = argv[++i];
        double x = 0, y = 0;
        long long n = 0;
        if (arg == "--preset") o->preset = v;
        else if (arg == "--config") o->config = v;
        else if (arg == "--dabp") o->presetOptions.dabplusFile = v;
        else if (arg == "--mp2") o->presetOptions.mp2File = v;
        else if (arg == "--dabp-rate") {
            if (!ToInteger(v, 8, 384, &n)) return bad("bit rate 8..384");
            o->presetOptions.dabplusKbps = static_cast<int>(n);
        } else if (arg == "--mode") {
            if (!ToInteger(v, 1, 4, &n)) return bad("mode 1..4");
            o->presetOptions.mode = static_cast<int>(n);
            o->modeGiven = true;
        } else if (arg == "--seed") {
            if (!ToInteger(v, 0, INT64_MAX, &n)) return bad("unsigned integer");
            o->presetOptions.seed = static_cast<uint64_t>(n);
            c.seed = static_cast<uint64_t>(n);
        } else if (arg == "--seconds") {
            if (!ToDouble(v, &x) || !(x > 0) || x > 1e6) return bad("seconds > 0");
            o->seconds = x;
            o->frames = -1;
        } else if (arg == "--frames") {
            if (!ToInteger(v, 1, INT64_MAX / 196608, &n)) return bad("frames >= 1");
            o->frames = n;
        } else if (arg == "--format") {
            if (v == "u8") o->format = Format::kU8;
            else if (v == "cf32") o->format = Format::kCf32;
            else return bad("u8 or cf32");
        } else if (arg == "--output") o->output = v;
        else if (arg == "--snr") {
            if (!ToDouble(v, &x)) return bad("dB");
            c.snrDb = x;
        } else if (arg == "--cfo") {
            if (!ToDouble(v, &x) || !std::isfinite(x)) return bad("Hz");
            c.frequencyOffsetHz = x;
        } else if (arg == "--drift") {
            if (!ToDouble(v, &x) || !std::isfinite(x)) return bad("Hz/s");
            c.frequencyDriftHzPerSecond = x;
        } else if (arg == "--ppm") {
            if (!ToDouble(v, &x) || std::fabs(x) > 1000) return bad("within +-1000");
            c.sampleClockPpm = x;
        } else if (arg == "--profile") {
            if (!gen::MultipathProfile(v, &c.taps)) return bad("unknown multipath profile");
        } else if (arg == "--fading") {
            if (!ToDouble(v, &x) || !(x >= 0) || !std::isfinite(x)) return bad("Doppler >= 0");
            c.fadingDopplerHz = x;
        } else if (arg == "--cw") {
            if (!ToPair(v, &x, &y)) return bad("HZ:DB");
            c.cwOffsetHz = x;
            c.cwPowerDb = y;
        } else if (arg == "--leadin") {
            if (!ToDouble(v, &x) || !(x >= 0 && x <= 10)) return bad("0..10 seconds");
            c.leadInSeconds = x;
        } else if (arg == "--gain") {
            if (!ToDouble(v, &x) || !(x > 0) || !std::isfinite(x)) return bad("gain > 0");
            c.gain = x;
        } else if (arg == "--dc") {
            if (!ToPair(v, &x, &y)) return bad("I:Q in LSB");
            c.dcI = x;
            c.dcQ = y;
        } else if (arg == "--dropout") {
            if (!ToPair(v, &x, &y) || x < 0 || y <= 0) return bad("START:SECONDS");
            c.dropoutStartSeconds = x;
            c.dropoutSeconds = y;
        } else {
            return bad("unknown option (see --help)");
        }
    }
    return true;
}

}  // namespace dabgen
