#include "host_report.h"

#include <cstdio>
#include <map>

#include "band_channels.h"
#include "tools/ficparse/ensemble_print.h"

namespace {

using ficparse::Format;
using ficparse::JsonString;

std::string JsonSeconds(double s) { return s < 0.0 ? std::string("null") : Format("%.3f", s); }

std::string ChannelJson(int32_t frequencyKhz) {
    const std::string name = ChannelName(frequencyKhz);
    return name.empty() ? std::string("null") : JsonString(name);
}

std::string ModeJson(int mode) { return mode >= 1 && mode <= 4 ? JsonString(ModeText(mode)) : "null"; }

const char* PresentText(int32_t present) {
    switch (present) {
    case -1: return "no DAB signal";
    case 1: return "signal found";
    default: return "searching";
    }
}

std::string FibFigures(const FicCounts& c) {
    std::string text = Format("%llu FIBs, %llu failed CRC (%.1f%%)", static_cast<unsigned long long>(c.fibs),
                              static_cast<unsigned long long>(c.fibsBad), 100.0 * c.FailureRate());
    if (c.dropped != 0) text += Format(", %llu frames dropped", static_cast<unsigned long long>(c.dropped));
    return text;
}

}  // namespace

std::string QualityText(int32_t quality) {
    switch (quality) {
    case 100: return "100 (above 10 dB)";
    case 80: return "80 (8 to 10 dB)";
    case 50: return "50 (5 to 8 dB)";
    case 30: return "30 (5 dB or less)";
    case 0: return "0 (no signal)";
    default: return std::to_string(quality);
    }
}

const char* ModeText(int mode) {
    static const char* const names[] = {"?", "I", "II", "III", "IV"};
    return mode >= 1 && mode <= 4 ? names[mode] : names[0];
}

std::string FrequencyText(int32_t frequencyKhz) {
    const std::string name = ChannelName(frequencyKhz);
    return std::to_string(frequencyKhz) + " kHz" + (name.empty() ? "" : " (" + name + ")");
}

std::string StatusLine(const StatusSnapshot& s) {
    return Format("%7.2f s  %s  %-13s  lock %-3s  quality %-17s  FIC %llu frames, %s", s.elapsedSeconds,
                  FrequencyText(s.frequencyKhz).c_str(), PresentText(s.present),
                  s.lockKnown ? (s.locked ? "yes" : "no") : "?", QualityText(s.quality).c_str(),
                  static_cast<unsigned long long>(s.fic.frames), FibFigures(s.fic).c_str());
}

std::string TunedResultText(const TunedResult& r) {
    std::string text = FrequencyText(r.frequencyKhz) + ": " + OutcomeText(r.outcome);
    if (r.decidedSeconds >= 0.0) text += Format(" after %.2f s", r.decidedSeconds);
    if (r.lockSeconds >= 0.0) text += Format(" (lock after %.2f s)", r.lockSeconds);
    if (r.fic.mode != 0) text += Format(", mode %s", ModeText(r.fic.mode));
    text += ", quality " + QualityText(r.quality) + "\n";
    if (r.fic.frames != 0)
        text += Format("FIC: %llu frames, ", static_cast<unsigned long long>(r.fic.frames)) + FibFigures(r.fic) +
                "\n";
    if (HasEnsemble(r.outcome)) text += ficparse::EnsembleText(r.ensemble, &r.statistics);
    return text;
}

std::string TunedResultJson(const TunedResult& r) {
    std::string json = "{\"reception\": {";
    json += "\"frequencyKhz\": " + std::to_string(r.frequencyKhz);
    json += ", \"channel\": " + ChannelJson(r.frequencyKhz);
    json += ", \"outcome\": " + JsonString(OutcomeKey(r.outcome));
    json += ", \"mode\": " + ModeJson(r.fic.mode);
    json += ", \"quality\": " + std::to_string(r.quality);
    json += ", \"lockSeconds\": " + JsonSeconds(r.lockSeconds);
    json += ", \"decidedSeconds\": " + JsonSeconds(r.decidedSeconds);
    json += ", \"ficFrames\": " + std::to_string(r.fic.frames);
    json += ", \"fibs\": " + std::to_string(r.fic.fibs);
    json += ", \"fibsFailed\": " + std::to_string(r.fic.fibsBad);
    json += ", \"framesDropped\": " + std::to_string(r.fic.dropped) + "}, ";
    // The ensemble's object without its opening brace continues this one.
    return json + ficparse::EnsembleJson(r.ensemble, &r.statistics).substr(1);
}

std::string ScanProgressLine(const TunedResult& r) {
    std::string text = Format("%-18s %s", FrequencyText(r.frequencyKhz).c_str(), OutcomeText(r.outcome));
    if (r.decidedSeconds >= 0.0) text += Format(" after %.1f s", r.decidedSeconds);
    if (HasEnsemble(r.outcome))
        text += Format(": 0x%04X \"%s\"", r.ensemble.id, r.ensemble.label.text.c_str());
    return text;
}

std::string ScanTableText(const std::vector<TunedResult>& results) {
    std::string rows;
    std::map<std::string, int> others;  // outcome text -> count
    int found = 0;
    for (const TunedResult& r : results) {
        if (!HasEnsemble(r.outcome)) {
            ++others[OutcomeText(r.outcome)];
            continue;
        }
        ++found;
        const std::string label = "\"" + r.ensemble.label.text + "\"";
        rows += Format("  %-10s  %-5s  %-18s  0x%04X  %-4s  %-17s  %8zu  %s\n",
                       (std::to_string(r.frequencyKhz) + " kHz").c_str(), ChannelName(r.frequencyKhz).c_str(),
                       label.c_str(), r.ensemble.id, ModeText(r.fic.mode), QualityText(r.quality).c_str(),
                       r.ensemble.services.size(),
                       r.lockSeconds >= 0.0 ? Format("%.2f s", r.lockSeconds).c_str() : "-");
    }
    std::string text = Format("Ensembles found: %d of %zu frequencies\n", found, results.size());
    if (found != 0)
        text += Format("  %-10s  %-5s  %-18s  %-6s  %-4s  %-17s  %8s  %s\n", "Frequency", "Block", "Label", "Id",
                       "Mode", "Quality", "Services", "Lock") +
                rows;
    if (!others.empty()) {
        text += Format("No ensemble: %zu", results.size() - size_t(found));
        const char* separator = " (";
        for (const auto& [what, count] : others) {
            text += Format("%s%s %d", separator, what.c_str(), count);
            separator = ", ";
        }
        text += ")\n";
    }
    return text;
}

std::string ScanJson(const std::vector<TunedResult>& results) {
    int found = 0;
    std::string items;
    for (const TunedResult& r : results) {
        const bool has = HasEnsemble(r.outcome);
        found += has;
        if (!items.empty()) items += ", ";
        items += "{\"frequencyKhz\": " + std::to_string(r.frequencyKhz);
        items += ", \"channel\": " + ChannelJson(r.frequencyKhz);
        items += ", \"outcome\": " + JsonString(OutcomeKey(r.outcome));
        items += ", \"id\": " + (has ? std::to_string(r.ensemble.id) : std::string("null"));
        items += ", \"idHex\": " + (has ? JsonString(Format("0x%04X", r.ensemble.id)) : std::string("null"));
        items += ", \"label\": " + (has ? JsonString(r.ensemble.label.text) : std::string("null"));
        items += ", \"mode\": " + ModeJson(r.fic.mode);
        items += ", \"quality\": " + std::to_string(r.quality);
        items += ", \"services\": " + std::to_string(r.ensemble.services.size());
        items += ", \"lockSeconds\": " + JsonSeconds(r.lockSeconds);
        items += ", \"decidedSeconds\": " + JsonSeconds(r.decidedSeconds) + "}";
    }
    return Format("{\"frequencies\": %zu, \"found\": %d, \"results\": [", results.size(), found) + items + "]}";
}

std::string ServiceStatusLine(double seconds, ServiceKind kind, const ServiceCounts& c, uint64_t dropped) {
    auto n = [](uint64_t v) { return static_cast<unsigned long long>(v); };
    std::string text = Format("[%6.1f s selected] %llu %s, %llu bytes", seconds, n(c.deliveries),
                              kind == ServiceKind::DabPlus ? "superframes" : "frames", n(c.bytes));
    if (kind == ServiceKind::Mp2) text += Format(", %llu audio frames", n(c.audioFrames));
    if (kind == ServiceKind::DabPlus)
        text += Format(" (%llu firecode failures, %llu unusable), %llu AUs decoded, %llu AU CRC failures",
                       n(c.firecodeFailures), n(c.headersUnusable), n(c.audioFrames), n(c.auCrcFailures));
    if (c.decodeFailures != 0) text += Format(", %llu rejected by the decoder", n(c.decodeFailures));
    if (dropped != 0) text += Format(", %llu dropped", n(dropped));
    return text;
}
