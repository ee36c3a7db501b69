// Payload sources from a one-line description ("kind:argument,key=value,...").
#include <cstdlib>
#include <map>

#include "generator/payload_sources.h"

namespace gen {
namespace {

struct Parsed {
    std::string kind;                          // before the first ':'
    std::string argument;                      // up to the first ','
    std::map<std::string, std::string> opts;   // key=value pairs after it
};

bool Parse(const std::string& text, Parsed* p, std::string* error) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        if (error) *error = "payload \"" + text + "\": expected kind:argument";
        return false;
    }
    p->kind = text.substr(0, colon);
    std::string rest = text.substr(colon + 1);
    // A path may contain commas only if no options follow; options are
    // recognised as ",key=value" items at the end.
    size_t comma = rest.find(',');
    while (comma != std::string::npos && rest.find('=', comma) == std::string::npos) comma = rest.find(',', comma + 1);
    p->argument = rest.substr(0, comma);
    while (comma != std::string::npos) {
        const size_t next = rest.find(',', comma + 1);
        const std::string item = rest.substr(comma + 1, next == std::string::npos ? std::string::npos : next - comma - 1);
        const size_t eq = item.find('=');
        if (eq == std::string::npos) {
            if (error) *error = "payload \"" + text + "\": option \"" + item + "\" is not key=value";
            return false;
        }
        p->opts[item.substr(0, eq)] = item.substr(eq + 1);
        comma = next;
    }
    return true;
}

bool Number(const std::string& s, long long* v) {
    if (s.empty()) return false;
    char* end = nullptr;
    *v = std::strtoll(s.c_str(), &end, 0);
    return *end == '\0';
}

// Takes option `key` as an integer (default kept when absent); false if malformed.
bool IntOption(Parsed& p, const char* key, long long* v, std::string* error) {
    auto it = p.opts.find(key);
    if (it == p.opts.end()) return true;
    if (!Number(it->second, v)) {
        if (error) *error = std::string("option ") + key + "=" + it->second + " is not a number";
        return false;
    }
    p.opts.erase(it);
    return true;
}

bool NoOptionsLeft(const Parsed& p, std::string* error) {
    if (p.opts.empty()) return true;
    if (error) *error = "unknown option " + p.opts.begin()->first + " for payload kind " + p.kind;
    return false;
}

bool AudioOptions(Parsed& p, DabPlusAudio* a, std::string* error) {
    long long rate = 48, sbr = 1, stereo = 1, ps = 0;
    if (!IntOption(p, "rate", &rate, error) || !IntOption(p, "sbr", &sbr, error) ||
        !IntOption(p, "stereo", &stereo, error) || !IntOption(p, "ps", &ps, error))
        return false;
    if (rate != 48 && rate != 32) {
        if (error) *error = "rate must be 48 or 32";
        return false;
    }
    a->dac48k = rate == 48;
    a->sbr = sbr != 0;
    a->stereo = stereo != 0;
    a->ps = ps != 0;
    return true;
}

}  // namespace

PayloadPtr MakePayloadFromText(const std::string& text, int bitrateKbps, std::string* error) {
    Parsed p;
    if (!Parse(text, &p, error)) return nullptr;
    long long seed = 0;
    const bool seedArg = Number(p.argument, &seed);
    auto needSeed = [&]() {
        if (!seedArg && error) *error = "payload \"" + text + "\": the argument must be a seed number";
        return seedArg;
    };

    if (p.kind == "random") {
        if (!needSeed() || !NoOptionsLeft(p, error)) return nullptr;
        return MakeRandomPayload(static_cast<uint32_t>(seed));
    }
    if (p.kind == "file") return NoOptionsLeft(p, error) ? MakeFilePayload(p.argument, error) : nullptr;
    if (p.kind == "mp2") return NoOptionsLeft(p, error) ? MakeMp2Payload(p.argument, bitrateKbps, error) : nullptr;
    if (p.kind == "dabp")
        return NoOptionsLeft(p, error) ? MakeDabPlusSuperframeFilePayload(p.argument, bitrateKbps, error) : nullptr;
    if (p.kind == "dabplus-au" || p.kind == "dabplus-synth") {
        DabPlusAudio audio;
        if (!AudioOptions(p, &audio, error) || !NoOptionsLeft(p, error)) return nullptr;
        if (p.kind == "dabplus-au") return MakeDabPlusAuFilePayload(p.argument, bitrateKbps, audio, error);
        if (!needSeed()) return nullptr;
        return MakeDabPlusSyntheticPayload(bitrateKbps, audio, static_cast<uint32_t>(seed), error);
    }
    if (p.kind == "packet") {
        if (!needSeed()) return nullptr;
        long long address = 1, size = 96, fec = 0, groups = 1;
        PacketStreamParams params;
        params.seed = static_cast<uint32_t>(seed);
        if (!IntOption(p, "address", &address, error) || !IntOption(p, "size", &size, error) ||
            !IntOption(p, "fec", &fec, error) || !IntOption(p, "groups", &groups, error))
            return nullptr;
        if (auto it = p.opts.find("padding"); it != p.opts.end()) {
            char* end = nullptr;
            params.paddingShare = std::strtod(it->second.c_str(), &end);
            if (*end != '\0') {
                if (error) *error = "option padding=" + it->second + " is not a number";
                return nullptr;
            }
            p.opts.erase(it);
        }
        if (!NoOptionsLeft(p, error)) return nullptr;
        PacketComponent c;
        c.address = static_cast<uint16_t>(address < 0 || address > 0xFFFF ? 0 : address);
        c.packetBytes = static_cast<int>(size);
        c.dataGroups = groups != 0;
        params.components.push_back(c);
        params.fec = fec != 0;
        return MakePacketPayload(bitrateKbps, params, error);
    }
    if (p.kind == "tdmb" || p.kind == "tdmb-file") {
        TdmbStreamParams params;
        long long pid = params.pid;
        if (!IntOption(p, "pid", &pid, error) || !NoOptionsLeft(p, error)) return nullptr;
        params.pid = static_cast<uint16_t>(pid < 0 || pid > 0x1FFF ? 0xFFFF : pid);
        if (p.kind == "tdmb-file") {
            params.tsFile = p.argument;
        } else {
            if (!needSeed()) return nullptr;
            params.seed = static_cast<uint32_t>(seed);
        }
        return MakeTdmbPayload(bitrateKbps, params, error);
    }
    if (error) *error = "unknown payload kind \"" + p.kind + "\"";
    return nullptr;
}

}  // namespace gen
