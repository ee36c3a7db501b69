#include "generator/fig_writer.h"

namespace gen {
namespace {

Fig Header(int type, int extensionByte) {
    Fig fig;
    fig.push_back(static_cast<uint8_t>(type << 5));  // length filled in by Finish
    if (extensionByte >= 0) fig.push_back(static_cast<uint8_t>(extensionByte));
    return fig;
}

Fig Finish(Fig fig) {
    fig[0] = static_cast<uint8_t>((fig[0] & 0xE0) | (fig.size() - 1));
    return fig;
}

// Type-0 byte: C/N, OE (always this ensemble), P/D, extension.
int TypeZeroByte(bool next, bool longIds, int extension) {
    return (next ? 0x80 : 0) | (longIds ? 0x20 : 0) | extension;
}

// Packs entries into as many FIGs as needed, each within kMaxFigBytes.
std::vector<Fig> PackEntries(int typeZeroByte, const std::vector<std::vector<uint8_t>>& entries) {
    std::vector<Fig> figs;
    Fig fig = Header(0, typeZeroByte);
    for (const auto& e : entries) {
        if (fig.size() + e.size() > kMaxFigBytes) {
            figs.push_back(Finish(fig));
            fig = Header(0, typeZeroByte);
        }
        fig.insert(fig.end(), e.begin(), e.end());
    }
    if (fig.size() > 2) figs.push_back(Finish(fig));
    return figs;
}

Fig LabelFig(int extension, uint16_t id, const std::string& label, uint16_t flags) {
    Fig fig = Header(1, extension);  // charset 0, OE 0
    fig.push_back(static_cast<uint8_t>(id >> 8));
    fig.push_back(static_cast<uint8_t>(id));
    for (size_t i = 0; i < 16; ++i) fig.push_back(i < label.size() ? static_cast<uint8_t>(label[i]) : 0x20);
    fig.push_back(static_cast<uint8_t>(flags >> 8));
    fig.push_back(static_cast<uint8_t>(flags));
    return Finish(fig);
}

}  // namespace

Fig EnsembleInformationFig(uint16_t eid, int changeFlags, bool alarm, int cifCount, int occurrenceChange) {
    Fig fig = Header(0, TypeZeroByte(false, false, 0));
    const int count = ((cifCount % 5000) + 5000) % 5000;
    fig.push_back(static_cast<uint8_t>(eid >> 8));
    fig.push_back(static_cast<uint8_t>(eid));
    fig.push_back(static_cast<uint8_t>(((changeFlags & 3) << 6) | (alarm ? 0x20 : 0) | ((count / 250) % 20)));
    fig.push_back(static_cast<uint8_t>(count % 250));
    if ((changeFlags & 3) != 0) fig.push_back(static_cast<uint8_t>(occurrenceChange % 250));
    return Finish(fig);
}

std::vector<Fig> SubChannelOrganisationFigs(const std::vector<SubChannelOrganisation>& subChannels, bool next) {
    std::vector<std::vector<uint8_t>> entries;
    for (const SubChannelOrganisation& s : subChannels) {
        std::vector<uint8_t> e = {static_cast<uint8_t>((s.id << 2) | ((s.startCu >> 8) & 3)),
                                  static_cast<uint8_t>(s.startCu)};
        if (s.protection.kind == ProtectionKind::kUep) {
            e.push_back(static_cast<uint8_t>(s.profile.uepIndex & 0x3F));  // short form, table 0
        } else {
            const int option = s.protection.kind == ProtectionKind::kEepB ? 1 : 0;
            e.push_back(static_cast<uint8_t>(0x80 | (option << 4) | ((s.protection.level - 1) << 2) |
                                             ((s.profile.sizeCu >> 8) & 3)));
            e.push_back(static_cast<uint8_t>(s.profile.sizeCu));
        }
        entries.push_back(e);
    }
    return PackEntries(TypeZeroByte(next, false, 1), entries);
}

std::vector<Fig> ServiceOrganisationFigs(const std::vector<ServiceDesc>& services) {
    std::vector<Fig> figs;
    for (bool longIds : {false, true}) {
        std::vector<std::vector<uint8_t>> entries;
        for (const ServiceDesc& s : services) {
            if ((s.sid > 0xFFFF) != longIds) continue;
            std::vector<uint8_t> e;
            if (longIds) {
                e.push_back(static_cast<uint8_t>(s.sid >> 24));
                e.push_back(static_cast<uint8_t>(s.sid >> 16));
            }
            e.push_back(static_cast<uint8_t>(s.sid >> 8));
            e.push_back(static_cast<uint8_t>(s.sid));
            e.push_back(static_cast<uint8_t>(s.components.size() & 0x0F));  // CAId 0
            for (size_t i = 0; i < s.components.size(); ++i) {
                const ComponentDesc& c = s.components[i];
                const int primary = i == 0 ? 2 : 0;
                switch (c.kind) {
                case ComponentKind::kAudioMp2:
                case ComponentKind::kAudioDabPlus:
                    e.push_back(c.kind == ComponentKind::kAudioMp2 ? 0 : 63);  // TMId 00, ASCTy
                    e.push_back(static_cast<uint8_t>((c.subChannel << 2) | primary));
                    break;
                case ComponentKind::kStreamData:
                    e.push_back(static_cast<uint8_t>(0x40 | (c.dataType & 0x3F)));  // TMId 01, DSCTy
                    e.push_back(static_cast<uint8_t>((c.subChannel << 2) | primary));
                    break;
                case ComponentKind::kPacketData:
                    e.push_back(static_cast<uint8_t>(0xC0 | ((c.scid >> 6) & 0x3F)));  // TMId 11, SCId
                    e.push_back(static_cast<uint8_t>(((c.scid & 0x3F) << 2) | primary));
                    break;
                }
            }
            entries.push_back(e);
        }
        for (Fig& f : PackEntries(TypeZeroByte(false, longIds, 2), entries)) figs.push_back(std::move(f));
    }
    return figs;
}

std::vector<Fig> PacketComponentFigs(const std::vector<ServiceDesc>& services) {
    std::vector<std::vector<uint8_t>> entries;
    for (const ServiceDesc& s : services)
        for (const ComponentDesc& c : s.components) {
            if (c.kind != ComponentKind::kPacketData) continue;
            entries.push_back({static_cast<uint8_t>(c.scid >> 4),
                               static_cast<uint8_t>((c.scid & 0x0F) << 4),  // rfa 0, no CAOrg
                               static_cast<uint8_t>((c.dataGroups ? 0 : 0x80) | (c.dataType & 0x3F)),
                               static_cast<uint8_t>((c.subChannel << 2) | ((c.packetAddress >> 8) & 3)),
                               static_cast<uint8_t>(c.packetAddress)});
        }
    return PackEntries(TypeZeroByte(false, false, 3), entries);
}

Fig EnsembleLabelFig(uint16_t eid, const std::string& label, uint16_t characterFlags) {
    return LabelFig(0, eid, label, characterFlags);
}

Fig ServiceLabelFig(uint16_t sid, const std::string& label, uint16_t characterFlags) {
    return LabelFig(1, sid, label, characterFlags);
}

}  // namespace gen
