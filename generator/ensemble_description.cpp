#include "generator/ensemble_description.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "generator/label_charset.h"
#include "generator/payload_file.h"

namespace gen {
namespace {

bool Fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

// Payload seeds differ per sub-channel but all follow the ensemble's seed.
std::string SeedText(uint64_t seed, int salt) {
    return std::to_string(static_cast<uint32_t>(seed * 1000003u + static_cast<uint64_t>(salt)));
}

void DefaultPreset(const PresetOptions& o, EnsembleDescription* d) {
    d->eid = 0xE1A5;
    d->label = "MVX DEFAULT";
    d->shortLabel = "MVX";
    SubChannelDesc plus;
    plus.id = 1;
    plus.startCu = 0;
    plus.protection = {ProtectionKind::kEepA, 3};
    plus.bitrateKbps = o.dabplusFile.empty() ? 48 : o.dabplusKbps;
    plus.payload = o.dabplusFile.empty() ? "dabplus-synth:" + SeedText(o.seed, 1) : "dabp:" + o.dabplusFile;
    SubChannelDesc classic;
    classic.id = 2;
    classic.protection = {ProtectionKind::kUep, 3};
    classic.bitrateKbps = 128;
    classic.payload = o.mp2File.empty() ? "random:" + SeedText(o.seed, 2) : "mp2:" + o.mp2File;
    SubChannelDesc data;
    data.id = 3;
    data.protection = {ProtectionKind::kEepA, 2};
    data.bitrateKbps = 32;
    data.payload = "packet:" + SeedText(o.seed, 3) + ",size=96";
    d->subChannels = {plus, classic, data};

    ComponentDesc a;
    a.kind = ComponentKind::kAudioDabPlus;
    a.subChannel = 1;
    ComponentDesc b;
    b.kind = ComponentKind::kAudioMp2;
    b.subChannel = 2;
    ComponentDesc p;
    p.kind = ComponentKind::kPacketData;
    p.subChannel = 3;
    p.scid = 1;
    p.packetAddress = 1;
    d->services = {{0xE201, "MVX Plus", "Plus", {a}},
                   {0xE202, "MVX Classic", "Classic", {b}},
                   {0xE1E00203, "MVX Data", "", {p}}};
}

void SingleRandomPreset(const PresetOptions& o, EnsembleDescription* d) {
    d->eid = 0xE1A6;
    d->label = "MVX SINGLE";
    SubChannelDesc s;
    s.id = 0;
    s.startCu = 0;
    s.protection = {ProtectionKind::kEepA, 3};
    s.bitrateKbps = 64;
    s.payload = "random:" + SeedText(o.seed, 1);
    d->subChannels = {s};
    ComponentDesc c;
    c.kind = ComponentKind::kStreamData;
    c.subChannel = 0;
    d->services = {{0xE301, "MVX Random", "Random", {c}}};
}

// One random sub-channel that moves and changes protection 10 s in; the
// change is announced 200 CIFs (4.8 s) before.
void ReconfigurePreset(const PresetOptions& o, EnsembleDescription* d) {
    SingleRandomPreset(o, d);
    d->label = "MVX RECONFIGURE";
    d->reconfiguration.cifCount = 417;
    d->reconfiguration.subChannel = 0;
    d->reconfiguration.newStartCu = 400;
    d->reconfiguration.changeProtection = true;
    d->reconfiguration.protection = {ProtectionKind::kEepA, 2};
}

// Data services only: a T-DMB transport stream in a stream sub-channel and a
// packet stream with Reed-Solomon FEC frames.
void DataPreset(const PresetOptions& o, EnsembleDescription* d) {
    d->eid = 0xE1A7;
    d->label = "MVX DATA";
    SubChannelDesc ts;
    ts.id = 4;
    ts.startCu = 0;
    ts.protection = {ProtectionKind::kEepA, 3};
    ts.bitrateKbps = 96;
    ts.payload = "tdmb:" + SeedText(o.seed, 4);
    SubChannelDesc packets;
    packets.id = 5;
    packets.protection = {ProtectionKind::kEepA, 3};
    packets.bitrateKbps = 64;
    packets.payload = "packet:" + SeedText(o.seed, 5) + ",size=96,fec=1";
    d->subChannels = {ts, packets};
    ComponentDesc stream;
    stream.kind = ComponentKind::kStreamData;
    stream.subChannel = 4;
    stream.dataType = 24;  // MPEG-2 transport stream
    ComponentDesc packet;
    packet.kind = ComponentKind::kPacketData;
    packet.subChannel = 5;
    packet.scid = 2;
    packet.packetAddress = 5;
    d->services = {{0xE401, "MVX TDMB", "TDMB", {stream}}, {0xE1E00402, "MVX Packet FEC", "", {packet}}};
}

struct PresetEntry {
    const char* name;
    const char* help;
    void (*make)(const PresetOptions&, EnsembleDescription*);
};

constexpr PresetEntry kPresets[] = {
    {"default",
     "DAB+ (48 kbit/s EEP 3-A, synthetic superframes or a .dabp file), MP2 (128 kbit/s UEP 3, random bytes or "
     "an .mp2 file), packet data (32 kbit/s EEP 2-A)",
     DefaultPreset},
    {"single-random", "one EEP 3-A sub-channel of random bytes, 64 kbit/s at CU 0", SingleRandomPreset},
    {"reconfigure",
     "single-random whose sub-channel moves to CU 400 and takes EEP 2-A at CIF count 417, announced 200 CIFs "
     "before",
     ReconfigurePreset},
    {"data",
     "T-DMB transport stream (96 kbit/s EEP 3-A, DSCTy 24) and packet mode with RS FEC (64 kbit/s EEP 3-A, "
     "address 5)",
     DataPreset},
};

// --- description files ---

// Splits a line into words; double quotes group spaces into one word.
std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, any = false;
    for (char c : line) {
        if (c == '"') {
            quoted = !quoted;
            any = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r')) {
            if (any) words.push_back(word);
            word.clear();
            any = false;
        } else if (!quoted && c == '#') {
            break;
        } else {
            word += c;
            any = true;
        }
    }
    if (any) words.push_back(word);
    return words;
}

// A label of at most `characters` characters, all of the EBU Latin set.
bool FitsLabel(const std::string& text, size_t characters) {
    std::string coded;
    return EncodeEbuLatin(text, &coded) && coded.size() <= characters;
}

bool Number(const std::string& text, long long lo, long long hi, long long* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// key=value pairs of one line after its keyword; repeated keys are kept in order.
using Pairs = std::vector<std::pair<std::string, std::string>>;

bool SplitPairs(const std::vector<std::string>& words, Pairs* out, std::string* why) {
    for (size_t i = 1; i < words.size(); ++i) {
        const size_t eq = words[i].find('=');
        if (eq == std::string::npos || eq == 0) return Fail(why, "expected key=value, got '" + words[i] + "'");
        out->push_back({words[i].substr(0, eq), words[i].substr(eq + 1)});
    }
    return true;
}

bool ParseComponent(const std::string& text, ComponentDesc* c, std::string* why) {
    // KIND:SUBCH[,key=value...]
    std::vector<std::string> parts;
    std::stringstream ss(text);
    for (std::string p; std::getline(ss, p, ',');) parts.push_back(p);
    const size_t colon = parts.empty() ? std::string::npos : parts[0].find(':');
    if (colon == std::string::npos) return Fail(why, "component '" + text + "': expected KIND:SUBCHANNEL");
    const std::string kind = parts[0].substr(0, colon);
    if (kind == "mp2") c->kind = ComponentKind::kAudioMp2;
    else if (kind == "dabplus") c->kind = ComponentKind::kAudioDabPlus;
    else if (kind == "stream") c->kind = ComponentKind::kStreamData;
    else if (kind == "packet") c->kind = ComponentKind::kPacketData;
    else return Fail(why, "component kind '" + kind + "' (mp2, dabplus, stream, packet)");
    long long v = 0;
    if (!Number(parts[0].substr(colon + 1), 0, 63, &v)) return Fail(why, "component '" + text + "': sub-channel 0..63");
    c->subChannel = static_cast<int>(v);
    for (size_t i = 1; i < parts.size(); ++i) {
        const size_t eq = parts[i].find('=');
        const std::string key = parts[i].substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : parts[i].substr(eq + 1);
        if (key == "dscty" && Number(value, 0, 63, &v)) c->dataType = static_cast<int>(v);
        else if (key == "scid" && Number(value, 0, 4095, &v)) c->scid = static_cast<int>(v);
        else if (key == "address" && Number(value, 1, 1021, &v)) c->packetAddress = static_cast<int>(v);
        else if (key == "groups" && Number(value, 0, 1, &v)) c->dataGroups = v != 0;
        else return Fail(why, "component option '" + parts[i] + "'");
    }
    return true;
}

bool ParseLine(const std::vector<std::string>& words, EnsembleDescription* d, std::string* why) {
    Pairs pairs;
    if (!SplitPairs(words, &pairs, why)) return false;
    const std::string& what = words[0];
    long long v = 0;
    auto bad = [&](const std::string& key, const std::string& value) {
        return Fail(why, "bad " + what + " " + key + "='" + value + "'");
    };
    if (what == "ensemble") {
        for (const auto& [key, value] : pairs) {
            if (key == "eid" && Number(value, 1, 0xFFFF, &v)) d->eid = static_cast<uint16_t>(v);
            else if (key == "label" && FitsLabel(value, 16)) d->label = value;
            else if (key == "short" && FitsLabel(value, 8)) d->shortLabel = value;
            else if (key == "alarm" && Number(value, 0, 1, &v)) d->alarm = v != 0;
            else if (key == "mode" && Number(value, 1, 4, &v)) d->mode = static_cast<int>(v);
            else if (key == "seed" && Number(value, 0, INT64_MAX, &v)) d->seed = static_cast<uint64_t>(v);
            else if (key == "cif" && Number(value, 0, 4999, &v)) d->firstCifCount = static_cast<int>(v);
            else return bad(key, value);
        }
    } else if (what == "subchannel") {
        SubChannelDesc s;
        bool haveId = false;
        for (const auto& [key, value] : pairs) {
            if (key == "id" && Number(value, 0, 63, &v)) s.id = static_cast<int>(v), haveId = true;
            else if (key == "start" && value == "auto") s.startCu = -1;
            else if (key == "start" && Number(value, 0, 863, &v)) s.startCu = static_cast<int>(v);
            else if (key == "protection" && ParseProtection(value, &s.protection)) {}
            else if (key == "bitrate" && Number(value, 8, 2048, &v)) s.bitrateKbps = static_cast<int>(v);
            else if (key == "payload" && !value.empty()) s.payload = value;
            else if (key == "label" && value.size() <= 128) s.padLabel = value;
            else if (key == "slides" && !value.empty()) s.padSlides = value;
            else return bad(key, value);
        }
        if (!haveId || s.bitrateKbps == 0 || s.payload.empty())
            return Fail(why, "subchannel needs id=, bitrate= and payload=");
        d->subChannels.push_back(s);
    } else if (what == "service") {
        ServiceDesc s;
        for (const auto& [key, value] : pairs) {
            if (key == "sid" && Number(value, 1, 0xFFFFFFFFll, &v)) s.sid = static_cast<uint32_t>(v);
            else if (key == "label" && FitsLabel(value, 16)) s.label = value;
            else if (key == "short" && FitsLabel(value, 8)) s.shortLabel = value;
            else if (key == "component") {
                ComponentDesc c;
                if (!ParseComponent(value, &c, why)) return false;
                s.components.push_back(c);
            } else return bad(key, value);
        }
        if (s.sid == 0 || s.components.empty()) return Fail(why, "service needs sid= and component=");
        d->services.push_back(s);
    } else if (what == "reconfigure") {
        Reconfiguration& r = d->reconfiguration;
        for (const auto& [key, value] : pairs) {
            if (key == "cif" && Number(value, 0, 4999, &v)) r.cifCount = static_cast<int>(v);
            else if (key == "subchannel" && Number(value, 0, 63, &v)) r.subChannel = static_cast<int>(v);
            else if (key == "start" && Number(value, 0, 863, &v)) r.newStartCu = static_cast<int>(v);
            else if (key == "protection" && ParseProtection(value, &r.protection)) r.changeProtection = true;
            else if (key == "announce" && Number(value, 1, 249, &v)) r.announceCifs = static_cast<int>(v);
            else return bad(key, value);
        }
        if (r.cifCount < 0) return Fail(why, "reconfigure needs cif=");
    } else {
        return Fail(why, "unknown line '" + what + "' (ensemble, subchannel, service, reconfigure)");
    }
    return true;
}

}  // namespace

bool MakePresetDescription(const std::string& name, const PresetOptions& options, EnsembleDescription* out,
                           std::string* error) {
    if (options.mode < 1 || options.mode > 4) return Fail(error, "mode must be 1..4");
    for (const PresetEntry& p : kPresets) {
        if (name != p.name) continue;
        *out = EnsembleDescription();
        out->mode = options.mode;
        out->seed = options.seed;
        p.make(options, out);
        return true;
    }
    return Fail(error, "unknown ensemble preset '" + name + "'");
}

std::vector<std::string> PresetNames() {
    std::vector<std::string> names;
    for (const PresetEntry& p : kPresets) names.push_back(p.name);
    return names;
}

std::string PresetHelp() {
    std::string text;
    for (const PresetEntry& p : kPresets) text += std::string("  ") + p.name + ": " + p.help + "\n";
    return text;
}

bool ParseDescription(const std::string& text, int mode, uint64_t seed, EnsembleDescription* out,
                      std::string* error) {
    *out = EnsembleDescription();
    out->mode = mode;
    out->seed = seed;
    out->label = "MVX ENSEMBLE";
    std::stringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        const std::vector<std::string> words = Words(line);
        if (words.empty()) continue;
        std::string why;
        if (!ParseLine(words, out, &why)) return Fail(error, "line " + std::to_string(number) + ": " + why);
    }
    if (out->subChannels.empty()) return Fail(error, "no subchannel lines");
    return true;
}

bool LoadDescriptionFile(const std::string& path, int mode, uint64_t seed, EnsembleDescription* out,
                         std::string* error) {
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, &bytes, error)) return false;
    std::string why;
    if (!ParseDescription(std::string(bytes.begin(), bytes.end()), mode, seed, out, &why))
        return Fail(error, path + ": " + why);
    return true;
}

uint16_t CharacterFlags(const std::string& label, const std::string& shortLabel) {
    uint16_t flags = 0;
    const size_t n = label.size() < 16 ? label.size() : 16;
    if (shortLabel.empty()) {
        int taken = 0;
        for (size_t i = 0; i < n && taken < 8; ++i)
            if (label[i] != ' ') flags |= static_cast<uint16_t>(0x8000u >> i), ++taken;
        return flags;
    }
    size_t k = 0;
    for (size_t i = 0; i < n && k < shortLabel.size() && k < 8; ++i)
        if (label[i] == shortLabel[k]) flags |= static_cast<uint16_t>(0x8000u >> i), ++k;
    return flags;
}

}  // namespace gen
