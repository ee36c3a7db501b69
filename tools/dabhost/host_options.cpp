#include "host_options.h"

#include <cstdlib>
#include <cstring>

namespace {
bool ParseNumber(const char* text, double* out) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0') return false;
    *out = v;
    return true;
}
}  // namespace

const char* HostUsage() {
    return "usage: dabhost [-f kHz] [-d seconds] [-i seconds] [-q]\n"
           "  -f, --frequency kHz   frequency to tune (default 227360, block 11D)\n"
           "  -d, --duration s      how long to watch before closing (default 10)\n"
           "  -i, --interval s      status poll period (default 0.25)\n"
           "  -q, --quiet           print only the summary\n"
           "The device library is loaded from beside libMVXDAB.so; the emulated\n"
           "device takes its configuration from MVC900_* environment variables.\n";
}

bool ParseHostOptions(int argc, char** argv, HostOptions* o, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        auto value = [&](double* out, double low, double high) {
            if (i + 1 >= argc || !ParseNumber(argv[i + 1], out) || *out < low || *out > high) {
                *error = std::string("bad or missing value for ") + a;
                return false;
            }
            ++i;
            return true;
        };
        double v = 0.0;
        if (!std::strcmp(a, "-f") || !std::strcmp(a, "--frequency")) {
            if (!value(&v, 1.0, 2.0e9)) return false;
            o->frequencyKhz = int32_t(v);
        } else if (!std::strcmp(a, "-d") || !std::strcmp(a, "--duration")) {
            if (!value(&v, 0.0, 1.0e7)) return false;
            o->durationSeconds = v;
        } else if (!std::strcmp(a, "-i") || !std::strcmp(a, "--interval")) {
            if (!value(&v, 0.01, 60.0)) return false;
            o->intervalSeconds = v;
        } else if (!std::strcmp(a, "-q") || !std::strcmp(a, "--quiet")) {
            o->quiet = true;
        } else if (!std::strcmp(a, "-h") || !std::strcmp(a, "--help")) {
            o->help = true;
        } else {
            *error = std::string("unknown option ") + a;
            return false;
        }
    }
    return true;
}
