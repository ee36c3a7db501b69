#include "soapydevice/soapy_settings.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace soapydev {

namespace {

const char* Variable(const char* name) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? text : nullptr;
}

// A number variable within [lo, hi]; absent or malformed keeps `fallback`.
double Number(const char* name, double fallback, double lo, double hi) {
    const char* text = Variable(name);
    if (text == nullptr) return fallback;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (end != text && *end == '\0' && errno == 0 && std::isfinite(v) && v >= lo && v <= hi) return v;
    std::fprintf(stderr, "soapydevice: %s=%s is not a number in [%g, %g]; using %g\n", name, text, lo, hi, fallback);
    return fallback;
}

}  // namespace

SoapySettings ReadSoapySettings() {
    SoapySettings s;
    const char* device = Variable("MVSOAPY_DEVICE");
    s.device = device != nullptr ? device : "";
    s.channel = int32_t(Number("MVSOAPY_CHANNEL", 0, 0, 63));
    const char* antenna = Variable("MVSOAPY_ANTENNA");
    s.antenna = antenna != nullptr ? antenna : "";
    const char* gain = Variable("MVSOAPY_GAIN");
    s.automaticGain = gain == nullptr || std::strcmp(gain, "auto") == 0;
    s.gainDb = s.automaticGain ? 0.0 : Number("MVSOAPY_GAIN", 0.0, -50.0, 100.0);
    s.levelDb = Number("MVSOAPY_LEVEL_DB", 0.0, -40.0, 60.0);
    s.bandwidthKhz = Number("MVSOAPY_BANDWIDTH_KHZ", 0.0, 0.0, 100000.0);
    s.clock = ClockCorrection::Automatic;
    if (const char* clock = Variable("MVSOAPY_CLOCK")) {
        if (std::strcmp(clock, "device") == 0) {
            s.clock = ClockCorrection::Device;
        } else if (std::strcmp(clock, "resample") == 0) {
            s.clock = ClockCorrection::Resample;
        } else if (std::strcmp(clock, "off") == 0) {
            s.clock = ClockCorrection::Off;
        } else if (std::strcmp(clock, "auto") != 0) {
            std::fprintf(stderr, "soapydevice: MVSOAPY_CLOCK=%s is not auto, device, resample or off; using auto\n",
                         clock);
        }
    }
    s.tunerType = int32_t(Number("MVSOAPY_TUNER_TYPE", 1, 0, 255));
    s.stallMs = int32_t(Number("MVSOAPY_STALL_MS", 3000, 200, 600000));
    s.fifoBytes = int64_t(Number("MVSOAPY_FIFO_KB", 1024, 256, 65536)) * 1024;
    s.verbose = Number("MVSOAPY_VERBOSE", 0, 0, 1) != 0.0;
    return s;
}

}  // namespace soapydev
