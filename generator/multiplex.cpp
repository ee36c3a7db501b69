#include "generator/multiplex.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

#include "generator/label_charset.h"
#include "generator/pad_encoder.h"
#include "generator/payload_sources.h"

namespace gen {

struct Multiplex::SubChannel {
    int id = 0;                 // SubChId
    int startCu = 0;            // capacity units, current organisation
    Protection protection;      // current organisation
    SubChannelProfile profile;  // current organisation
    bool changes = false;       // the reconfiguration concerns this sub-channel
    int nextStartCu = 0;        // organisation after the reconfiguration
    Protection nextProtection;
    SubChannelProfile nextProfile;
    PayloadPtr payload;
    std::string payloadText;  // as given (packet address completed)
    std::unique_ptr<SubChannelEncoder> encoder;
};

Multiplex::~Multiplex() = default;

namespace {

bool Fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

// Sub-channels must lie inside the CIF and must not overlap.
bool CheckPlacement(const std::vector<std::pair<int, std::pair<int, int>>>& placed, std::string* error) {
    for (size_t i = 0; i < placed.size(); ++i) {
        const auto& [id, range] = placed[i];
        if (range.first < 0 || range.first + range.second > kCapacityUnits)
            return Fail(error, "sub-channel " + std::to_string(id) + " (CU " + std::to_string(range.first) + ", " +
                                   std::to_string(range.second) + " CU) does not fit the 864 CU of a CIF");
        for (size_t j = 0; j < i; ++j) {
            const auto& other = placed[j].second;
            if (range.first < other.first + other.second && other.first < range.first + range.second)
                return Fail(error, "sub-channels " + std::to_string(placed[j].first) + " and " + std::to_string(id) +
                                       " overlap");
        }
    }
    return true;
}

// A packet payload without an address takes the one its component signals.
std::string CompletePacketPayload(const std::string& text, const EnsembleDescription& d, int subChannel) {
    if (text.rfind("packet:", 0) != 0 || text.find("address=") != std::string::npos) return text;
    for (const ServiceDesc& s : d.services)
        for (const ComponentDesc& c : s.components)
            if (c.kind == ComponentKind::kPacketData && c.subChannel == subChannel)
                return text + ",address=" + std::to_string(c.packetAddress);
    return text;
}

std::unique_ptr<Multiplex> Refuse(std::string* error, const std::string& text) {
    Fail(error, text);
    return nullptr;
}

const char* KindName(ComponentKind kind) {
    switch (kind) {
    case ComponentKind::kAudioMp2: return "MPEG layer II audio";
    case ComponentKind::kAudioDabPlus: return "DAB+ audio";
    case ComponentKind::kStreamData: return "stream data";
    case ComponentKind::kPacketData: return "packet data";
    }
    return "?";
}

std::string Hex(uint32_t v, int digits) {
    std::ostringstream s;
    s << "0x" << std::uppercase << std::hex;
    s.width(digits);
    s.fill('0');
    s << v;
    return s.str();
}

// A label as sent: in EBU Latin, one byte a character; a label the set cannot
// write (the description's reader rejects those) goes out byte for byte.
std::string SentLabel(const std::string& text) {
    std::string coded;
    return EncodeEbuLatin(text, &coded) ? coded : text;
}

}  // namespace

std::unique_ptr<Multiplex> Multiplex::Make(const EnsembleDescription& description, std::string* error) {
    std::unique_ptr<Multiplex> m(new Multiplex());
    m->description_ = description;
    EnsembleDescription& d = m->description_;
    if (d.mode < 1 || d.mode > 4) return Refuse(error, "mode must be 1..4");
    if (SentLabel(d.label).size() > 16) return Refuse(error, "ensemble label longer than 16 characters");
    if (d.firstCifCount < 0 || d.firstCifCount >= kCifCountCycle)
        return Refuse(error, "first CIF count must be 0..4999");
    if (d.subChannels.empty()) return Refuse(error, "an ensemble needs at least one sub-channel");

    // Sub-channels: profiles, places, payloads.
    std::set<int> ids;
    int nextFree = 0;
    std::vector<std::pair<int, std::pair<int, int>>> placed;
    for (SubChannelDesc& s : d.subChannels) {
        if (s.id < 0 || s.id > 63) return Refuse(error, "sub-channel id must be 0..63");
        if (!ids.insert(s.id).second) return Refuse(error, "sub-channel " + std::to_string(s.id) + " defined twice");
        auto sc = std::make_unique<SubChannel>();
        sc->id = s.id;
        sc->protection = s.protection;
        std::string why;
        if (!MakeProfile(s.protection, s.bitrateKbps, &sc->profile, &why))
            return Refuse(error, "sub-channel " + std::to_string(s.id) + ": " + why);
        if (s.startCu < 0) s.startCu = nextFree;
        sc->startCu = s.startCu;
        nextFree = s.startCu + sc->profile.sizeCu;
        placed.push_back({s.id, {sc->startCu, sc->profile.sizeCu}});
        m->subChannels_.push_back(std::move(sc));
    }
    if (!CheckPlacement(placed, error)) return nullptr;
    for (size_t i = 0; i < d.subChannels.size(); ++i) {
        SubChannelDesc& s = d.subChannels[i];
        SubChannel& sc = *m->subChannels_[i];
        sc.payloadText = CompletePacketPayload(s.payload, d, s.id);
        std::string why;
        PayloadPtr payload = MakePayloadFromText(sc.payloadText, s.bitrateKbps, &why);
        if (!payload) return Refuse(error, "sub-channel " + std::to_string(s.id) + ": " + why);
        if (!s.padLabel.empty() || !s.padSlides.empty()) {
            std::vector<PadSlide> slides;
            if (!s.padSlides.empty() && !LoadSlides(s.padSlides, &slides, &why))
                return Refuse(error, "sub-channel " + std::to_string(s.id) + ": " + why);
            if (!payload->AttachPad(std::make_shared<PadEncoder>(s.padLabel, std::move(slides))))
                return Refuse(error, "sub-channel " + std::to_string(s.id) +
                                         ": label= and slides= need an mp2:, dabplus-au: or dabplus-synth: payload");
        }
        if (s.record) payload = MakeRecordingPayload(std::move(payload), s.record);
        sc.payload = std::move(payload);
        sc.encoder = std::make_unique<SubChannelEncoder>(sc.profile, sc.payload.get());
    }

    // Services.
    std::set<uint32_t> sids;
    for (const ServiceDesc& s : d.services) {
        if (s.sid == 0 || !sids.insert(s.sid).second)
            return Refuse(error, "service id " + Hex(s.sid, 4) + " zero or used twice");
        if (SentLabel(s.label).size() > 16) return Refuse(error, "service label longer than 16 characters");
        if (s.components.empty() || s.components.size() > 15)
            return Refuse(error, "service " + Hex(s.sid, 4) + " needs 1..15 components");
        for (const ComponentDesc& c : s.components) {
            if (!ids.count(c.subChannel))
                return Refuse(error, "service " + Hex(s.sid, 4) + ": no sub-channel " + std::to_string(c.subChannel));
            if (c.kind == ComponentKind::kPacketData &&
                (c.packetAddress < 1 || c.packetAddress > 1021 || c.scid < 0 || c.scid > 4095))
                return Refuse(error, "service " + Hex(s.sid, 4) + ": packet address 1..1021 and SCId 0..4095");
            if (c.dataType < 0 || c.dataType > 63) return Refuse(error, "data type must be 0..63");
        }
    }

    // Reconfiguration.
    Reconfiguration& r = d.reconfiguration;
    if (r.cifCount >= 0) {
        if (r.cifCount >= kCifCountCycle) return Refuse(error, "reconfiguration CIF count must be 0..4999");
        if (r.announceCifs < 1 || r.announceCifs > 249)
            return Refuse(error, "reconfiguration announcement must be 1..249 CIFs");
        std::vector<std::pair<int, std::pair<int, int>>> after;
        bool found = false;
        for (auto& sc : m->subChannels_) {
            sc->nextStartCu = sc->startCu;
            sc->nextProtection = sc->protection;
            sc->nextProfile = sc->profile;
            if (sc->id == r.subChannel) {
                found = true;
                sc->changes = true;
                if (r.newStartCu >= 0) sc->nextStartCu = r.newStartCu;
                if (r.changeProtection) {
                    std::string why;
                    sc->nextProtection = r.protection;
                    if (!MakeProfile(r.protection, sc->profile.bitrateKbps, &sc->nextProfile, &why))
                        return Refuse(error, "reconfiguration: " + why);
                }
            }
            after.push_back({sc->id, {sc->nextStartCu, sc->nextProfile.sizeCu}});
        }
        if (!found) return Refuse(error, "reconfiguration: no sub-channel " + std::to_string(r.subChannel));
        if (!CheckPlacement(after, error)) return nullptr;
        m->changeAtCif_ = (r.cifCount - d.firstCifCount + kCifCountCycle) % kCifCountCycle;
    }

    m->scheduler_ = FibScheduler(d.mode);
    m->UpdateCarousel();
    return m;
}

std::vector<SubChannelOrganisation> Multiplex::Organisation(bool afterChange) const {
    std::vector<SubChannelOrganisation> out;
    for (const auto& sc : subChannels_) {
        SubChannelOrganisation o;
        o.id = sc->id;
        o.startCu = afterChange ? sc->nextStartCu : sc->startCu;
        o.protection = afterChange ? sc->nextProtection : sc->protection;
        o.profile = afterChange ? sc->nextProfile : sc->profile;
        out.push_back(o);
    }
    return out;
}

void Multiplex::UpdateCarousel() {
    const EnsembleDescription& d = description_;
    std::vector<Fig> figs = SubChannelOrganisationFigs(Organisation(false), false);
    if (announcing_ && !changed_)
        for (Fig& f : SubChannelOrganisationFigs(Organisation(true), true))
            figs.push_back(std::move(f));
    for (Fig& f : ServiceOrganisationFigs(d.services))
        figs.push_back(std::move(f));
    for (Fig& f : PacketComponentFigs(d.services))
        figs.push_back(std::move(f));
    const std::string label = SentLabel(d.label);
    figs.push_back(EnsembleLabelFig(d.eid, label, CharacterFlags(label, SentLabel(d.shortLabel))));
    for (const ServiceDesc& s : d.services) {
        if (s.sid > 0xFFFF) continue;
        const std::string serviceLabel = SentLabel(s.label);
        figs.push_back(ServiceLabelFig(static_cast<uint16_t>(s.sid), serviceLabel,
                                       CharacterFlags(serviceLabel, SentLabel(s.shortLabel))));
    }
    scheduler_.SetCarousel(std::move(figs));
}

int Multiplex::CifCount() const {
    return static_cast<int>((static_cast<uint64_t>(description_.firstCifCount) + cifIndex_) % kCifCountCycle);
}

void Multiplex::NextCif(uint8_t* fibs, uint8_t* mscBits) {
    const Reconfiguration& r = description_.reconfiguration;
    const int count = CifCount();
    if (changeAtCif_ >= 0 && !changed_ && cifIndex_ == static_cast<uint64_t>(changeAtCif_)) {
        for (auto& sc : subChannels_) {
            if (!sc->changes) continue;
            sc->startCu = sc->nextStartCu;
            sc->protection = sc->nextProtection;
            sc->profile = sc->nextProfile;
            sc->encoder->ChangeProfile(sc->nextProfile);
        }
        changed_ = true;
        UpdateCarousel();
    }
    int changeFlags = 0;
    if (changeAtCif_ >= 0 && !changed_ &&
        cifIndex_ + static_cast<uint64_t>(r.announceCifs) >= static_cast<uint64_t>(changeAtCif_)) {
        changeFlags = 1;  // sub-channel organisation changes
        if (!announcing_) {
            announcing_ = true;
            UpdateCarousel();
        }
    }
    const Fig info = EnsembleInformationFig(description_.eid, changeFlags, description_.alarm, count, r.cifCount % 250);
    scheduler_.BuildGroup(info, fibs);
    if (fibRecord_) fibRecord_->insert(fibRecord_->end(), fibs, fibs + FibsPerCif(description_.mode) * kFibBytes);

    // Capacity no sub-channel uses is sent as zero bits.
    std::memset(mscBits, 0, kCifBits);
    for (auto& sc : subChannels_)
        sc->encoder->NextCif(mscBits + 64 * sc->startCu);
    ++cifIndex_;
}

void Multiplex::NextFrame(std::vector<uint8_t>& bits) {
    const ModeGeometry& g = Geometry(description_.mode);
    bits.resize(static_cast<size_t>(g.DataBitsPerFrame()));
    fibs_.resize(static_cast<size_t>(FibsPerCif(description_.mode) * kFibBytes));
    const size_t blockBits = static_cast<size_t>(FicBlockBits(description_.mode));
    for (int k = 0; k < g.cifsPerFrame; ++k) {
        NextCif(fibs_.data(), bits.data() + g.ficBitsPerFrame + static_cast<size_t>(k) * kCifBits);
        ficBits_.clear();
        EncodeFicBlock(fibs_.data(), description_.mode, ficBits_);
        std::memcpy(bits.data() + k * blockBits, ficBits_.data(), blockBits);
    }
}

std::string Multiplex::Listing() const {
    const EnsembleDescription& d = description_;
    static const char* kModes[4] = {"I", "II", "III", "IV"};
    std::ostringstream out;
    out << "ensemble " << Hex(d.eid, 4) << " \"" << d.label << "\", mode " << kModes[d.mode - 1] << ", seed " << d.seed
        << ", first CIF count " << d.firstCifCount << (d.alarm ? ", alarm flag set" : "") << "\n";
    for (const ServiceDesc& s : d.services) {
        out << "  service " << Hex(s.sid, s.sid > 0xFFFF ? 8 : 4) << " \"" << s.label << "\""
            << (s.sid > 0xFFFF ? " (32-bit id, label not sent)" : "") << ":";
        for (size_t i = 0; i < s.components.size(); ++i) {
            const ComponentDesc& c = s.components[i];
            out << (i ? "," : "") << " " << KindName(c.kind) << " in sub-channel " << c.subChannel;
            if (c.kind == ComponentKind::kPacketData)
                out << " (SCId " << c.scid << ", address " << c.packetAddress << ", DSCTy " << c.dataType << ")";
            else if (c.kind == ComponentKind::kStreamData)
                out << " (DSCTy " << c.dataType << ")";
        }
        out << "\n";
    }
    for (size_t i = 0; i < subChannels_.size(); ++i) {
        const SubChannel& sc = *subChannels_[i];
        const SubChannelDesc& s = d.subChannels[i];
        out << "  sub-channel " << sc.id << ": start " << s.startCu << " CU, size " << sc.profile.sizeCu << " CU, "
            << ProtectionText(s.protection);
        if (s.protection.kind == ProtectionKind::kUep) out << " (index " << sc.profile.uepIndex << ")";
        out << ", " << sc.profile.bitrateKbps << " kbit/s, payload " << sc.payload->Describe() << "\n";
    }
    const Reconfiguration& r = d.reconfiguration;
    if (r.cifCount >= 0) {
        out << "  reconfiguration at CIF count " << r.cifCount << ": sub-channel " << r.subChannel;
        if (r.newStartCu >= 0) out << " moves to CU " << r.newStartCu;
        if (r.changeProtection) out << (r.newStartCu >= 0 ? " and" : "") << " takes " << ProtectionText(r.protection);
        out << ", announced " << r.announceCifs << " CIFs before\n";
    }
    return out.str();
}

}  // namespace gen
