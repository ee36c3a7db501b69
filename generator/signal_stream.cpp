#include "generator/signal_stream.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "generator/channel_model.h"
#include "generator/ensemble_bits.h"
#include "generator/frame_transmitter.h"

namespace gen {
namespace {

// Samples modulated per refill: small enough to keep memory bounded, large
// enough that the per-call cost of the channel model does not matter.
constexpr size_t kBlockSamples = 16384;

struct Description {
    std::string preset = "default";
    std::string config;
    int mode = 1;
    uint64_t seed = 1;
    ChannelParams channel;
};

std::string Trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    const size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

bool ParseDouble(const std::string& text, double* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || std::isnan(v)) return false;
    *out = v;
    return true;
}

bool ParseUnsigned(const std::string& text, uint64_t* out) {
    if (text.empty() || text[0] == '-' || text[0] == '+') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end != text.c_str() + text.size()) return false;
    *out = v;
    return true;
}

// One key=value pair into `d`; false with `error` set when it can't be used.
bool ApplySetting(const std::string& key, const std::string& value, Description* d, std::string* error) {
    auto bad = [&](const char* why) {
        *error = key + "=" + value + ": " + why;
        return false;
    };
    double x = 0;
    uint64_t u = 0;
    ChannelParams& c = d->channel;
    if (key == "preset") {
        if (value.empty()) return bad("empty name");
        d->preset = value;
    } else if (key == "config") {
        if (value.empty()) return bad("empty path");
        d->config = value;
    } else if (key == "mode") {
        if (!ParseUnsigned(value, &u) || u < 1 || u > 4) return bad("mode must be 1..4");
        d->mode = static_cast<int>(u);
    } else if (key == "seed") {
        if (!ParseUnsigned(value, &u)) return bad("not an unsigned integer");
        d->seed = u;
    } else if (key == "snr") {
        if (!ParseDouble(value, &x)) return bad("not a number");
        c.snrDb = x;
    } else if (key == "cfo") {
        if (!ParseDouble(value, &x) || !std::isfinite(x)) return bad("not a finite number");
        c.frequencyOffsetHz = x;
    } else if (key == "drift") {
        if (!ParseDouble(value, &x) || !std::isfinite(x)) return bad("not a finite number");
        c.frequencyDriftHzPerSecond = x;
    } else if (key == "ppm") {
        if (!ParseDouble(value, &x) || std::fabs(x) > 1000) return bad("must be within +-1000");
        c.sampleClockPpm = x;
    } else if (key == "profile") {
        if (!MultipathProfile(value, &c.taps)) return bad("unknown multipath profile");
    } else if (key == "fading") {
        if (!ParseDouble(value, &x) || !(x >= 0) || !std::isfinite(x)) return bad("must be a Doppler >= 0");
        c.fadingDopplerHz = x;
    } else if (key == "cw") {
        const size_t colon = value.find(':');
        double db = 0;
        if (colon == std::string::npos || !ParseDouble(value.substr(0, colon), &x) || !std::isfinite(x) ||
            !ParseDouble(value.substr(colon + 1), &db) || !std::isfinite(db))
            return bad("must be HZ:DB");
        c.cwOffsetHz = x;
        c.cwPowerDb = db;
    } else if (key == "leadin") {
        if (!ParseDouble(value, &x) || !(x >= 0 && x <= 10)) return bad("must be 0..10 seconds");
        c.leadInSeconds = x;
    } else if (key == "randomstart") {
        if (value != "0" && value != "1") return bad("must be 0 or 1");
        c.randomStart = value == "1";
    } else {
        *error = "unknown key '" + key + "'";
        return false;
    }
    return true;
}

bool ParseDescription(const std::string& text, Description* d, std::string* error) {
    size_t begin = 0;
    while (begin <= text.size()) {
        size_t end = text.find(',', begin);
        if (end == std::string::npos) end = text.size();
        const std::string item = Trim(text.substr(begin, end - begin));
        begin = end + 1;
        if (item.empty()) continue;  // tolerate "a=1,,b=2" and a trailing comma
        const size_t eq = item.find('=');
        if (eq == std::string::npos) {
            *error = "'" + item + "' is not key=value";
            return false;
        }
        if (!ApplySetting(Trim(item.substr(0, eq)), Trim(item.substr(eq + 1)), d, error)) return false;
    }
    return true;
}

class GeneratedStream final : public SignalStream {
public:
    GeneratedStream(std::unique_ptr<FrameBitSource> source, int mode, const ChannelParams& params, std::string listing)
        : transmitter_(std::move(source), mode),
          channel_(params, transmitter_.MeanPower()),
          listing_(std::move(listing)),
          block_(kBlockSamples) {}

    void Read(uint8_t* out, size_t count) override {
        while (count > 0) {
            if (position_ == pending_.size()) Refill();
            const size_t n = std::min(count, pending_.size() - position_);
            std::memcpy(out, pending_.data() + position_, n);
            position_ += n;
            out += n;
            count -= n;
        }
    }

    std::string Describe() const override { return listing_ + channel_.Describe(); }

private:
    // The channel model may hold back a few samples per call, so a refill
    // can come out short (never empty for long: every call feeds a block).
    void Refill() {
        transmitter_.Read(block_.data(), block_.size());
        channel_.ProcessU8(block_.data(), block_.size(), pending_);
        position_ = 0;
    }

    FrameTransmitter transmitter_;
    ChannelModel channel_;
    std::string listing_;
    std::vector<std::complex<float>> block_;
    std::vector<uint8_t> pending_;  // bytes produced and not yet read
    size_t position_ = 0;           // next byte of pending_
};

}  // namespace

std::unique_ptr<SignalStream> MakeSignalStream(const std::string& description, std::string* error) {
    std::string why;
    Description d;
    if (!ParseDescription(description, &d, &why)) {
        if (error) *error = why;
        return nullptr;
    }
    EnsembleBits ensemble;
    if (!MakeEnsembleBits(d.preset, d.config, d.mode, d.seed, &ensemble, &why) || !ensemble.source) {
        if (error) *error = why.empty() ? "ensemble could not be built" : why;
        return nullptr;
    }
    // The channel draws from its own stream, not the payloads' one.
    d.channel.seed = d.seed ^ 0xC2B2AE3D27D4EB4Full;
    d.channel.randomStartMaxSamples = static_cast<uint64_t>(Geometry(d.mode).frameSamples);
    std::string listing = ensemble.listing;
    if (!listing.empty() && listing.back() != '\n') listing += '\n';
    return std::make_unique<GeneratedStream>(std::move(ensemble.source), d.mode, d.channel, std::move(listing));
}

std::vector<std::string> SignalPresetNames() { return EnsemblePresetNames(); }

}  // namespace gen
