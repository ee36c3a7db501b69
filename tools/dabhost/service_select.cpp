#include "service_select.h"

#include <cctype>
#include <cstdlib>

#include "tools/ficparse/ensemble_print.h"

namespace {

constexpr int kDabPlusAudioType = 63;  // ASCTy of DAB+ audio; 0 is MPEG layer II
constexpr int kCifCountHighParts = 20;

std::string Folded(const std::string& text) {
    const size_t b = text.find_first_not_of(' ');
    if (b == std::string::npos) return "";
    const size_t e = text.find_last_not_of(' ');
    std::string out = text.substr(b, e - b + 1);
    for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

bool ParseId(const std::string& text, uint32_t* id) {
    std::string digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits = digits.substr(2);
    if (digits.empty() || digits.size() > 8) return false;
    for (char c : digits)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    *id = uint32_t(std::strtoul(digits.c_str(), nullptr, 16));
    return true;
}

const ficparse::Component* PrimaryComponent(const ficparse::Service& s) {
    for (const ficparse::Component& c : s.components)
        if (c.primary) return &c;
    return s.components.empty() ? nullptr : &s.components.front();
}

}  // namespace

bool ChooseService(const ficparse::Ensemble& ensemble, const std::string& wanted, ServiceChoice* out,
                   std::string* why) {
    const ficparse::Service* found = nullptr;
    const std::string folded = Folded(wanted);
    for (const auto& [id, s] : ensemble.services)
        if (s.label.known && Folded(s.label.text) == folded) found = &s;
    uint32_t id = 0;
    if (found == nullptr && ParseId(wanted, &id)) {
        const auto it = ensemble.services.find(id);
        if (it != ensemble.services.end()) found = &it->second;
    }
    if (found == nullptr) {
        *why = "no service \"" + wanted + "\" in the ensemble";
        return false;
    }
    const std::string name = ficparse::Format("service 0x%0*X", found->longId ? 8 : 4, found->id);
    const ficparse::Component* c = PrimaryComponent(*found);
    if (c == nullptr || c->subChannelId < 0) {
        *why = name + " has no component in a sub-channel";
        return false;
    }
    const auto sub = ensemble.subChannels.find(c->subChannelId);
    if (sub == ensemble.subChannels.end() || sub->second.size == 0) {
        *why = ficparse::Format("%s: the organisation of sub-channel %d is not known", name.c_str(), c->subChannelId);
        return false;
    }
    out->serviceId = found->id;
    out->label = found->label.known ? found->label.text : "";
    out->subChannel = sub->second;
    out->kind = ServiceKind::Data;
    if (c->transport == ficparse::Transport::StreamAudio && c->type == 0) out->kind = ServiceKind::Mp2;
    if (c->transport == ficparse::Transport::StreamAudio && c->type == kDabPlusAudioType)
        out->kind = ServiceKind::DabPlus;
    return true;
}

ServiceRequest RequestFor(ServiceKind kind, const ficparse::SubChannel& s) {
    ServiceRequest r;
    r.type = kind == ServiceKind::DabPlus ? 3 : 0;
    r.subChannelId = int8_t(s.id);
    r.startAddress = int16_t(s.startAddress);
    r.longForm = s.longForm ? 1 : 0;
    if (s.longForm) {
        r.optionAndLevel = int8_t(((s.option & 1) << 2) | ((s.protectionLevel - 1) & 3));
        r.size = int16_t(s.size);
    } else {
        r.tableIndex = int8_t(s.tableIndex);
    }
    return r;
}

bool SameOrganisation(const ficparse::SubChannel& a, const ficparse::SubChannel& b) {
    return a.id == b.id && a.startAddress == b.startAddress && a.longForm == b.longForm &&
           a.tableIndex == b.tableIndex && a.option == b.option && a.protectionLevel == b.protectionLevel &&
           a.size == b.size;
}

void ReconfigurationFollower::Select(const ficparse::SubChannel& current) {
    current_ = current;
    passed_ = 0;
}

bool ReconfigurationFollower::Due(const ficparse::Ensemble& e, Change* change) const {
    if (!e.SubChannelChangeAnnounced()) return false;
    const auto next = e.nextSubChannels.find(current_.id);
    if (next == e.nextSubChannels.end() || next->second.size == 0 || SameOrganisation(next->second, current_))
        return false;
    change->next = next->second;
    change->cifCountLow = e.occurrenceChange;
    // The change lies ahead: in this 250-CIF period, or in the next one when
    // its low part is already behind.
    change->cifCountHigh = (e.cifCountHigh + (e.occurrenceChange < e.cifCountLow ? 1 : 0)) % kCifCountHighParts;
    return true;
}

void ReconfigurationFollower::Passed(const Change& change) {
    current_ = change.next;
    ++passed_;
}
