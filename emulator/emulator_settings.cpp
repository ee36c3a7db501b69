#include "emulator/emulator_settings.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace emu {

const char* const kDefaultGeneratedBand =
    "227360=preset=default,mode=1,snr=30;"
    "222064=preset=default,mode=2,snr=15";

namespace {

std::string Trim(const std::string& s) {
    size_t b = 0;
    size_t e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\n' || s[b] == '\r')) ++b;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\n' || s[e - 1] == '\r')) --e;
    return s.substr(b, e - b);
}

bool ParseDouble(const char* text, double* out) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || errno != 0 || !std::isfinite(v)) return false;
    *out = v;
    return true;
}

// Reads a number variable within [lo, hi]; a bad value keeps the default.
double NumberVariable(const char* name, double fallback, double lo, double hi) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    double v = 0.0;
    if (!ParseDouble(text, &v) || v < lo || v > hi) {
        std::fprintf(stderr, "emulator: %s=%s is not a number in [%g, %g]; using %g\n", name, text, lo, hi,
                     fallback);
        return fallback;
    }
    return v;
}

std::string TextVariable(const char* name, const char* fallback) {
    const char* text = std::getenv(name);
    return (text == nullptr || *text == '\0') ? std::string(fallback) : std::string(text);
}

}  // namespace

EmulatorSettings DefaultSettings() {
    EmulatorSettings s;
    s.source = "noise";
    s.loop = true;
    s.speed = 1.0;
    s.tunerType = 1;
    s.clockPpm = 0.0;
    s.noiseRms = 20.0;
    s.seed = 1;
    s.settleMs = 5.0;
    s.fifoBytes = 1024 * 1024;
    s.verbose = false;
    return s;
}

EmulatorSettings ReadSettings() {
    EmulatorSettings s = DefaultSettings();
    s.source = TextVariable("MVC900_SOURCE", "noise");
    s.generated = TextVariable("MVC900_GENERATED", "");
    s.loop = NumberVariable("MVC900_LOOP", 1.0, 0.0, 1.0) != 0.0;
    s.speed = NumberVariable("MVC900_SPEED", 1.0, 0.0, 1000.0);
    s.tunerType = int32_t(NumberVariable("MVC900_TUNER_TYPE", 1.0, 0.0, 255.0));
    s.clockPpm = NumberVariable("MVC900_CLOCK_PPM", 0.0, -1000.0, 1000.0);
    s.noiseRms = NumberVariable("MVC900_NOISE_RMS", 20.0, 0.0, 100.0);
    s.seed = uint64_t(NumberVariable("MVC900_SEED", 1.0, 0.0, 4294967295.0));
    s.settleMs = NumberVariable("MVC900_SETTLE_MS", 5.0, 0.0, 1000.0);
    s.fifoBytes = int64_t(NumberVariable("MVC900_FIFO_KB", 1024.0, 256.0, 65536.0)) * 1024;
    s.verbose = NumberVariable("MVC900_VERBOSE", 0.0, 0.0, 1.0) != 0.0;
    s.fault = TextVariable("MVC900_FAULT", "");
    return s;
}

int32_t ParseFrequencyMap(const std::string& text, char itemSeparator, std::map<int32_t, std::string>* out,
                          std::string* error) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = start;
        while (end < text.size() && text[end] != itemSeparator && text[end] != '\n') ++end;
        const std::string item = Trim(text.substr(start, end - start));
        start = end + 1;
        if (item.empty()) continue;
        const size_t eq = item.find('=');
        double khz = 0.0;
        if (eq == std::string::npos || !ParseDouble(Trim(item.substr(0, eq)).c_str(), &khz) || khz <= 0.0 ||
            khz > 3.0e6 || khz != std::floor(khz)) {
            if (error != nullptr) *error = "expected kHz=... in \"" + item + "\"";
            return 0;
        }
        (*out)[int32_t(khz)] = Trim(item.substr(eq + 1));
    }
    return 1;
}

int32_t ParseSourcePlan(const std::string& source, const std::string& generated, SourcePlan* plan,
                        std::string* error) {
    *plan = SourcePlan{};
    const std::string s = Trim(source);
    auto startsWith = [&](const char* prefix) { return s.rfind(prefix, 0) == 0; };
    if (s.empty() || s == "noise") {
        plan->kind = SourceKind::Noise;
    } else if (s == "stdin") {
        plan->kind = SourceKind::Stdin;
    } else if (s == "generated-default") {
        plan->kind = SourceKind::Noise;
        if (ParseFrequencyMap(kDefaultGeneratedBand, ';', &plan->generatedByFrequency, error) == 0) return 0;
    } else if (startsWith("file:")) {
        plan->kind = SourceKind::File;
        plan->path = s.substr(5);
        if (plan->path.empty()) {
            if (error != nullptr) *error = "file: needs a path";
            return 0;
        }
    } else if (startsWith("perfreq:")) {
        plan->kind = SourceKind::PerFrequency;
        const std::string rest = s.substr(8);
        if (rest.find('=') != std::string::npos) {
            if (ParseFrequencyMap(rest, ',', &plan->filesByFrequency, error) == 0) return 0;
        } else {
            plan->path = rest;
        }
        if (plan->path.empty() && plan->filesByFrequency.empty()) {
            if (error != nullptr) *error = "perfreq: needs a directory or a list kHz=file,...";
            return 0;
        }
    } else if (startsWith("generated:")) {
        plan->kind = SourceKind::Generated;
        plan->description = s.substr(10);
    } else {
        if (error != nullptr) *error = "unknown source \"" + s + "\"";
        return 0;
    }
    // Per-frequency generated signals come on top of the source, and of the
    // built-in band, replacing entries of the same frequency.
    if (!Trim(generated).empty() && ParseFrequencyMap(generated, ';', &plan->generatedByFrequency, error) == 0)
        return 0;
    return 1;
}

int32_t SplitClockError(const std::string& description, std::string* rest, double* ppm) {
    *ppm = 0.0;
    std::string kept;
    size_t start = 0;
    while (start <= description.size()) {
        size_t end = description.find(',', start);
        if (end == std::string::npos) end = description.size();
        const std::string item = Trim(description.substr(start, end - start));
        start = end + 1;
        if (item.empty()) continue;
        if (item.rfind("ppm=", 0) == 0) {
            if (!ParseDouble(item.substr(4).c_str(), ppm)) return 0;
            continue;
        }
        if (!kept.empty()) kept += ',';
        kept += item;
    }
    *rest = kept;
    return 1;
}

}  // namespace emu
