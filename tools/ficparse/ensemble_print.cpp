#include "tools/ficparse/ensemble_print.h"

#include <cstdarg>

namespace ficparse {

std::string Format(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char ch : s) {
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch < 0x20) {
            out += Format("\\u%04x", ch);
        } else {
            out += static_cast<char>(ch);
        }
    }
    return out + "\"";
}

namespace {

std::string ServiceIdHex(const Service& s) { return Format(s.longId ? "0x%08X" : "0x%04X", s.id); }

const char* TransportName(Transport t) {
    switch (t) {
    case Transport::StreamAudio: return "audio";
    case Transport::StreamData: return "data";
    case Transport::FidcData: return "fidc";
    case Transport::PacketData: return "packet";
    }
    return "unknown";
}

// Audio coding by ASCTy: 0 MPEG Layer II, 63 DAB+ (AAC).
const char* AudioCodingName(int type) {
    if (type == 0) return "MPEG Layer II";
    if (type == 63) return "DAB+";
    return nullptr;
}

std::string LabelText(const Label& label) {
    if (!label.known) return "(no label)";
    std::string text = "\"" + label.text + "\"";
    if (!label.shortText.empty()) text += " (short \"" + label.shortText + "\")";
    return text;
}

std::string ComponentText(const Component& c) {
    std::string text = TransportName(c.transport);
    switch (c.transport) {
    case Transport::StreamAudio:
        text += Format(", ASCTy %d", c.type);
        if (const char* name = AudioCodingName(c.type)) text += Format(" (%s)", name);
        text += Format(", sub-channel %d", c.subChannelId);
        break;
    case Transport::StreamData:
        text += Format(", DSCTy %d, sub-channel %d", c.type, c.subChannelId);
        break;
    case Transport::PacketData:
        text += Format(", SCId %d", c.serviceComponentId);
        if (c.packetInfoKnown)
            text += Format(", DSCTy %d, sub-channel %d, address %d%s", c.type, c.subChannelId, c.packetAddress,
                           c.dataGroups ? ", data groups" : "");
        else
            text += ", packet data not yet known";
        break;
    case Transport::FidcData:
        break;
    }
    if (c.primary) text += ", primary";
    if (c.conditionalAccess) text += ", conditional access";
    return text;
}


std::string JsonBool(bool b) { return b ? "true" : "false"; }
std::string JsonInt(int value, bool known) { return known ? std::to_string(value) : "null"; }

std::string LabelJson(const Label& label) {
    if (!label.known) return "\"label\": null, \"shortLabel\": null";
    return "\"label\": " + JsonString(label.text) + ", \"shortLabel\": " + JsonString(label.shortText) +
           ", \"charset\": " + std::to_string(label.charset);
}

std::string ComponentJson(const Component& c) {
    std::string json = "{\"transport\": \"" + std::string(TransportName(c.transport)) + "\"";
    const bool hasType = c.transport != Transport::FidcData &&
                         (c.transport != Transport::PacketData || c.packetInfoKnown);
    json += ", \"type\": " + JsonInt(c.type, hasType);
    json += ", \"subChannel\": " + JsonInt(c.subChannelId, c.subChannelId >= 0);
    if (c.transport == Transport::PacketData) {
        json += ", \"serviceComponentId\": " + std::to_string(c.serviceComponentId);
        json += ", \"packetAddress\": " + JsonInt(c.packetAddress, c.packetInfoKnown);
        json += ", \"dataGroups\": " + (c.packetInfoKnown ? JsonBool(c.dataGroups) : std::string("null"));
    }
    json += ", \"primary\": " + JsonBool(c.primary);
    json += ", \"conditionalAccess\": " + JsonBool(c.conditionalAccess) + "}";
    return json;
}

std::string SubChannelText(const SubChannel& s) {
    return Format("  %2d: start %3d, size %3d CU, %s, ", s.id, s.startAddress, s.size, s.ProtectionText().c_str()) +
           (s.bitRate > 0 ? Format("%d kbit/s\n", s.bitRate) : std::string("bit rate unknown\n"));
}

std::string SubChannelsJson(const std::map<int, SubChannel>& subChannels) {
    std::string json = "[";
    for (const auto& [id, s] : subChannels) {
        json += json.size() > 1 ? ", " : "";
        json += "{\"id\": " + std::to_string(s.id) + ", \"start\": " + std::to_string(s.startAddress);
        json += ", \"size\": " + JsonInt(s.size, s.size > 0);
        json += ", \"form\": " + std::string(s.longForm ? "\"long\"" : "\"short\"");
        if (s.longForm)
            json += ", \"option\": " + std::to_string(s.option);
        else
            json += ", \"tableIndex\": " + std::to_string(s.tableIndex);
        json += ", \"protectionLevel\": " + JsonInt(s.protectionLevel, s.protectionLevel > 0);
        json += ", \"protection\": " + JsonString(s.ProtectionText());
        json += ", \"bitRate\": " + JsonInt(s.bitRate, s.bitRate > 0) + "}";
    }
    return json + "]";
}

}  // namespace

std::string EnsembleText(const Ensemble& e, const FicStatistics* statistics) {
    std::string text = "Ensemble ";
    text += e.idKnown ? Format("0x%04X", e.id) : std::string("(id unknown)");
    text += " " + LabelText(e.label) + "\n";
    if (e.idKnown) {
        text += Format("  CIF count %d (%d/%d)", e.cifCountHigh * 250 + e.cifCountLow, e.cifCountHigh,
                       e.cifCountLow);
        if (e.changeFlags != 0) text += Format(", change %d announced at CIF %d", e.changeFlags, e.occurrenceChange);
        if (e.alarm) text += ", alarm";
        text += "\n";
    }
    text += Format("Services: %zu\n", e.services.size());
    for (const auto& [id, s] : e.services) {
        text += "  " + ServiceIdHex(s) + " " + LabelText(s.label);
        if (s.conditionalAccessId != 0) text += Format(", CAId %d", s.conditionalAccessId);
        text += "\n";
        for (const Component& c : s.components) text += "    " + ComponentText(c) + "\n";
    }
    text += Format("Sub-channels: %zu\n", e.subChannels.size());
    for (const auto& [id, s] : e.subChannels) text += SubChannelText(s);
    if (!e.nextSubChannels.empty()) {
        text += Format("Next configuration, from CIF %d: %zu\n", e.occurrenceChange, e.nextSubChannels.size());
        for (const auto& [id, s] : e.nextSubChannels) text += SubChannelText(s);
    }
    const std::vector<std::string> missing = e.Missing();
    if (missing.empty()) {
        text += "Complete\n";
    } else {
        text += "Incomplete, missing:";
        for (size_t i = 0; i < missing.size(); ++i) text += (i == 0 ? " " : "; ") + missing[i];
        text += "\n";
    }
    if (statistics != nullptr) {
        text += Format("FIBs: %llu good, %llu failed CRC; malformed FIGs: %llu\n",
                       static_cast<unsigned long long>(statistics->fibsGood),
                       static_cast<unsigned long long>(statistics->fibsBad),
                       static_cast<unsigned long long>(statistics->figsMalformed));
        text += "FIGs seen: " + statistics->SeenText() + "\n";
    }
    return text;
}

std::string EnsembleJson(const Ensemble& e, const FicStatistics* statistics) {
    std::string json = "{\"ensemble\": {";
    json += "\"id\": " + JsonInt(e.id, e.idKnown);
    json += ", \"idHex\": " + (e.idKnown ? JsonString(Format("0x%04X", e.id)) : std::string("null"));
    json += ", " + LabelJson(e.label);
    json += ", \"cifCount\": " + JsonInt(e.cifCountHigh * 250 + e.cifCountLow, e.idKnown);
    json += ", \"changeFlags\": " + JsonInt(e.changeFlags, e.idKnown);
    json += ", \"occurrenceChange\": " + JsonInt(e.occurrenceChange, e.occurrenceChange >= 0);
    json += ", \"alarm\": " + JsonBool(e.alarm) + "}";

    json += ", \"services\": [";
    bool first = true;
    for (const auto& [id, s] : e.services) {
        json += first ? "" : ", ";
        first = false;
        json += "{\"id\": " + std::to_string(s.id) + ", \"idHex\": " + JsonString(ServiceIdHex(s));
        json += ", " + LabelJson(s.label);
        json += ", \"conditionalAccessId\": " + std::to_string(s.conditionalAccessId);
        json += ", \"components\": [";
        for (size_t i = 0; i < s.components.size(); ++i) json += (i ? ", " : "") + ComponentJson(s.components[i]);
        json += "]}";
    }
    json += "]";

    json += ", \"subChannels\": " + SubChannelsJson(e.subChannels);
    json += ", \"nextSubChannels\": " + SubChannelsJson(e.nextSubChannels);

    const std::vector<std::string> missing = e.Missing();
    json += ", \"complete\": " + JsonBool(missing.empty()) + ", \"missing\": [";
    for (size_t i = 0; i < missing.size(); ++i) json += (i ? ", " : "") + JsonString(missing[i]);
    json += "]";
    if (statistics != nullptr) {
        json += ", \"statistics\": {\"fibsGood\": " + std::to_string(statistics->fibsGood);
        json += ", \"fibsBad\": " + std::to_string(statistics->fibsBad);
        json += ", \"figsMalformed\": " + std::to_string(statistics->figsMalformed);
        json += ", \"figsSeen\": [";
        first = true;
        for (const auto& [key, count] : statistics->figCounts) {
            json += first ? "" : ", ";
            first = false;
            const std::string name =
                key % 100 == 99 ? std::to_string(key / 100) : Format("%d/%d", key / 100, key % 100);
            json += "{\"fig\": " + JsonString(name) + ", \"count\": " + std::to_string(count) + "}";
        }
        json += "]}";
    }
    return json + "}";
}

void PrintEnsembleText(const Ensemble& e, FILE* out, const FicStatistics* statistics) {
    const std::string text = EnsembleText(e, statistics);
    std::fwrite(text.data(), 1, text.size(), out);
}

void PrintEnsembleJson(const Ensemble& e, FILE* out, const FicStatistics* statistics) {
    const std::string json = EnsembleJson(e, statistics);
    std::fwrite(json.data(), 1, json.size(), out);
    std::fputc('\n', out);
}

}  // namespace ficparse
