#include "host_options.h"

#include <cstdlib>
#include <cstring>

#include "band_channels.h"

namespace {

constexpr double kLowestKhz = 30000.0;    // below VHF: no DAB tuner goes there
constexpr double kHighestKhz = 3000000.0;

bool ParseNumber(const char* text, double* out) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0') return false;
    *out = v;
    return true;
}

// A frequency in whole kHz or a block name.
bool ParseFrequency(const std::string& text, int32_t* khz) {
    if (const int32_t f = ChannelFrequency(text)) {
        *khz = f;
        return true;
    }
    double v = 0.0;
    if (!ParseNumber(text.c_str(), &v) || v < kLowestKhz || v > kHighestKhz || v != double(int32_t(v)))
        return false;
    *khz = int32_t(v);
    return true;
}

bool ParseFrequencyList(const char* text, std::vector<int32_t>* out) {
    out->clear();
    std::string item;
    for (const char* p = text;; ++p) {
        if (*p == ',' || *p == '\0') {
            int32_t khz = 0;
            if (!ParseFrequency(item, &khz)) return false;
            out->push_back(khz);
            item.clear();
            if (*p == '\0') break;
        } else {
            item += *p;
        }
    }
    return !out->empty();
}

// "PORT" or "HOST:PORT".
bool ParseWebAddress(const std::string& text, HostOptions* o) {
    const size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    double v = 0.0;
    if (!ParseNumber(port.c_str(), &v) || v < 0.0 || v > 65535.0 || v != double(int(v))) return false;
    if (colon != std::string::npos) {
        if (colon == 0) return false;
        o->webHost = text.substr(0, colon);
    }
    o->webPort = int(v);
    return true;
}

}  // namespace

const char* HostUsage() {
    return "usage: dabhost [-f kHz|block] [-t s] [-d s] [--json] [-q]\n"
           "       dabhost [-f kHz|block] --service LABEL|SID [--wav FILE|-] [--record FILE]\n"
           "               [--slides DIR]\n"
           "               [-d s] [--frames N]\n"
           "       dabhost --scan [--freqs a,b,c] [-t s] [--json] [-q]\n"
           "       dabhost --web [HOST:]PORT [-f kHz|block | --scan [--freqs a,b,c]] [--service S] [-d s]\n"
           "  -f, --frequency F   frequency in kHz or block name (default 227360, block 12C)\n"
           "  -t, --timeout s     longest wait for the ensemble (default 20; scan: 8 per frequency)\n"
           "  -d, --duration s    keep showing status this long after the ensemble (default 0);\n"
           "                      with --service: receive this long (default: until interrupted)\n"
           "      --service S     receive the service with label or id S (hex, e.g. 0xE202)\n"
           "      --wav FILE      decoded audio (MP2 or DAB+) as 16-bit WAV; - for stdout,\n"
           "                      e.g. dabhost --service \"MVX Classic\" --wav - | aplay\n"
           "      --frames N      with --service: stop after N deliveries (frames, DAB+:\n"
           "                      superframes), or at -d, whichever comes first\n"
           "      --record FILE   the sub-channel as received: MP2 stream, raw data bytes,\n"
           "                      or DAB+ access units as LOAS (ADTS if FILE ends in .aac); - stdout\n"
           "      --slides DIR    save each slideshow picture of the service as it completes\n"
           "  -s, --settle s      how long a complete ensemble must stay unchanged (default 1)\n"
           "  -i, --interval s    status poll period (default 0.1)\n"
           "      --scan          look for ensembles on all Band III blocks, 5A to 13F\n"
           "      --freqs list    scan these frequencies (kHz or block names, comma-separated)\n"
           "      --json          print the result as JSON\n"
           "      --web [HOST:]PORT  the radio as a web page on http://HOST:PORT/ (HOST default\n"
           "                      127.0.0.1; PORT 0 picks a free one): ensemble, signal, service\n"
           "                      with label and slide, and its audio as MP3 at /audio.mp3\n"
           "  -q, --quiet         no progress lines\n"
           "Progress goes to stderr, the ensemble or scan result to stdout (to stderr\n"
           "when audio or the recording goes to stdout).\n"
           "Exit status: 0 ensemble shown (scan: at least one found; service: received),\n"
           "2 none found (service: not in the ensemble, refused or nothing received),\n"
           "1 bad usage, no device or an output file that cannot be written.\n"
           "The device library is loaded from beside libMVXDAB.so; the emulated\n"
           "device takes its configuration from MVC900_* environment variables.\n";
}

bool ParseHostOptions(int argc, char** argv, HostOptions* o, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const bool hasValue = i + 1 < argc;
        auto fail = [&] {
            *error = std::string("bad or missing value for ") + a;
            return false;
        };
        auto seconds = [&](double* out, double low, double high) {
            double v = 0.0;
            if (!hasValue || !ParseNumber(argv[i + 1], &v) || v < low || v > high) return false;
            *out = v;
            ++i;
            return true;
        };
        auto is = [&](const char* shortName, const char* longName) {
            return (shortName != nullptr && !std::strcmp(a, shortName)) || !std::strcmp(a, longName);
        };
        if (is("-f", "--frequency")) {
            if (!hasValue || !ParseFrequency(argv[i + 1], &o->frequencyKhz)) return fail();
            ++i;
        } else if (is("-t", "--timeout")) {
            if (!seconds(&o->timeoutSeconds, 0.1, 1.0e6)) return fail();
            o->scanTimeoutSeconds = o->timeoutSeconds;
        } else if (is("-d", "--duration")) {
            if (!seconds(&o->durationSeconds, 0.0, 1.0e7)) return fail();
            o->durationGiven = true;
        } else if (is(nullptr, "--frames")) {
            double v = 0.0;
            if (!hasValue || !ParseNumber(argv[i + 1], &v) || v < 1.0 || v > 1.0e12 || v != double(uint64_t(v)))
                return fail();
            o->frames = uint64_t(v);
            ++i;
        } else if (is(nullptr, "--service") || is(nullptr, "--wav") || is(nullptr, "--record") ||
                   is(nullptr, "--slides")) {
            if (!hasValue || argv[i + 1][0] == '\0') return fail();
            std::string& target = a[2] == 's' ? (a[3] == 'e' ? o->service : o->slidesDir)
                                  : a[2] == 'w' ? o->wavPath : o->recordPath;
            target = argv[++i];
        } else if (is("-s", "--settle")) {
            if (!seconds(&o->settleSeconds, 0.0, 60.0)) return fail();
        } else if (is("-i", "--interval")) {
            if (!seconds(&o->intervalSeconds, 0.01, 10.0)) return fail();
        } else if (is(nullptr, "--scan")) {
            o->scan = true;
        } else if (is(nullptr, "--freqs")) {
            if (!hasValue || !ParseFrequencyList(argv[i + 1], &o->scanFrequenciesKhz)) return fail();
            o->scan = true;
            ++i;
        } else if (is(nullptr, "--web")) {
            if (!hasValue || !ParseWebAddress(argv[i + 1], o)) return fail();
            ++i;
        } else if (is(nullptr, "--json")) {
            o->json = true;
        } else if (is("-q", "--quiet")) {
            o->quiet = true;
        } else if (is("-h", "--help")) {
            o->help = true;
        } else {
            *error = std::string("unknown option ") + a;
            return false;
        }
    }
    if (o->service.empty() && (!o->wavPath.empty() || !o->recordPath.empty() || !o->slidesDir.empty() ||
                               o->frames != 0)) {
        *error = "--wav, --record, --slides and --frames need --service";
        return false;
    }
    if (o->webPort >= 0 && (!o->wavPath.empty() || !o->recordPath.empty() || !o->slidesDir.empty() ||
                            o->frames != 0 || o->json)) {
        *error = "--web plays the service in the page: no --wav, --record, --slides, --frames or --json";
        return false;
    }
    if (o->scan && !o->service.empty() && o->webPort < 0) {
        *error = "--service receives on one frequency, not in a scan";
        return false;
    }
    if ((o->wavPath == "-") + (o->recordPath == "-") + o->json > 1) {
        *error = "only one of --json, --wav - and --record - can have standard output";
        return false;
    }
    if (o->scan && o->scanFrequenciesKhz.empty())
        for (const BandChannel& c : BandIIIChannels()) o->scanFrequenciesKhz.push_back(c.frequencyKhz);
    return true;
}
