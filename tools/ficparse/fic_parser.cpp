#include "tools/ficparse/fic_parser.h"

#include "tools/ficparse/label_text.h"

namespace ficparse {

namespace {

constexpr int kNoExtension = 99;  // key part for FIG types without an extension field

uint16_t Read16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
uint32_t Read32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

}  // namespace

uint16_t FibCrc(const uint8_t* data, int length) {
    // x^16 + x^12 + x^5 + 1, register preset to all ones, top bit first,
    // the result inverted.
    uint16_t reg = 0xFFFF;
    for (int i = 0; i < length; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool feedback = ((reg >> 15) ^ (data[i] >> bit)) & 1;
            reg = uint16_t(reg << 1);
            if (feedback) reg ^= 0x1021;
        }
    }
    return uint16_t(~reg);
}

bool FibCrcGood(const uint8_t fib[kFibBytes]) {
    return FibCrc(fib, kFibDataBytes) == Read16(fib + kFibDataBytes);
}

void FicParser::Reset() {
    packetInfo_.clear();
    serviceLabels_.clear();
    ensemble_ = Ensemble();
    statistics_ = FicStatistics();
}

void FicParser::PushFibs(const uint8_t* bytes, int32_t length, int32_t flags) {
    if (bytes == nullptr || length < kFibBytes) return;
    int fibs = length / kFibBytes;
    if (fibs > kMaxFlaggedFibs) fibs = kMaxFlaggedFibs;
    for (int i = 0; i < fibs; ++i) PushFib(bytes + i * kFibBytes, (flags & (0x8000 >> i)) != 0);
}

void FicParser::PushFibsCheckingCrc(const uint8_t* bytes, int32_t length) {
    if (bytes == nullptr || length < kFibBytes) return;
    for (int32_t i = 0; i + kFibBytes <= length; i += kFibBytes) PushFib(bytes + i, FibCrcGood(bytes + i));
}

void FicParser::PushFib(const uint8_t* fib, bool crcGood) {
    if (fib == nullptr) return;
    if (!crcGood) {
        ++statistics_.fibsBad;
        return;
    }
    ++statistics_.fibsGood;
    // FIGs follow each other up to an end marker 0xFF or the end of the FIG
    // area; a FIG never crosses the end of the FIB.
    int p = 0;
    while (p < kFibDataBytes) {
        const uint8_t header = fib[p];
        if (header == 0xFF) break;
        const int type = header >> 5;
        const int length = header & 0x1F;
        const uint8_t* data = fib + p + 1;
        if (length == 0 || p + 1 + length > kFibDataBytes) {
            ++statistics_.figsMalformed;
            break;
        }
        int extension = kNoExtension;
        if (type == 0) extension = data[0] & 0x1F;
        if (type == 1 || type == 2) extension = data[0] & 0x07;
        ++statistics_.figCounts[type * 100 + extension];
        if (type == 0) ParseFig0(data, length);
        if (type == 1) ParseFig1(data, length);
        p += 1 + length;
    }
}

void FicParser::ParseFig0(const uint8_t* data, int length) {
    const bool nextConfiguration = (data[0] & 0x80) != 0;
    const bool otherEnsemble = (data[0] & 0x40) != 0;
    const bool longIds = (data[0] & 0x20) != 0;
    const int extension = data[0] & 0x1F;
    if (otherEnsemble) return;
    const uint8_t* body = data + 1;
    const int bodyLength = length - 1;
    switch (extension) {
    case 0:
        ParseEnsembleInformation(body, bodyLength);
        break;
    case 1:
        ParseSubChannels(body, bodyLength, nextConfiguration ? ensemble_.nextSubChannels : ensemble_.subChannels);
        break;
    case 2:
        if (!nextConfiguration) ParseServices(body, bodyLength, longIds);
        break;
    case 3:
        if (!nextConfiguration) ParsePacketComponents(body, bodyLength);
        break;
    default:
        break;
    }
}

void FicParser::ParseEnsembleInformation(const uint8_t* d, int length) {
    if (length < 4) {
        ++statistics_.figsMalformed;
        return;
    }
    Ensemble& e = ensemble_;
    e.idKnown = true;
    e.id = Read16(d);
    e.changeFlags = d[2] >> 6;
    e.alarm = (d[2] & 0x20) != 0;
    e.cifCountHigh = d[2] & 0x1F;
    e.cifCountLow = d[3];
    e.occurrenceChange = -1;
    if (e.changeFlags == 0) e.nextSubChannels.clear();
    if (e.changeFlags != 0) {
        if (length >= 5)
            e.occurrenceChange = d[4];
        else
            ++statistics_.figsMalformed;
    }
}

void FicParser::ParseSubChannels(const uint8_t* d, int length, std::map<int, SubChannel>& into) {
    int i = 0;
    while (i + 3 <= length) {
        SubChannel s;
        s.id = d[i] >> 2;
        s.startAddress = ((d[i] & 0x03) << 8) | d[i + 1];
        s.longForm = (d[i + 2] & 0x80) != 0;
        if (!s.longForm) {
            s.tableSwitch = (d[i + 2] >> 6) & 1;
            s.tableIndex = d[i + 2] & 0x3F;
            if (s.tableSwitch == 0) {
                const UepRow row = UepTableRow(s.tableIndex);
                s.size = row.size;
                s.protectionLevel = row.level;
                s.bitRate = row.bitRate;
            }
            i += 3;
        } else {
            if (i + 4 > length) break;
            s.option = (d[i + 2] >> 4) & 0x07;
            s.protectionLevel = ((d[i + 2] >> 2) & 0x03) + 1;
            s.size = ((d[i + 2] & 0x03) << 8) | d[i + 3];
            s.bitRate = EepBitRate(s.option, s.protectionLevel, s.size);
            i += 4;
        }
        into[s.id] = s;
    }
    if (i != length) ++statistics_.figsMalformed;
}

void FicParser::ApplyPacketInfo(Component& c) const {
    const auto it = packetInfo_.find(c.serviceComponentId);
    if (it == packetInfo_.end()) return;
    c.packetInfoKnown = true;
    c.type = it->second.type;
    c.subChannelId = it->second.subChannelId;
    c.packetAddress = it->second.packetAddress;
    c.dataGroups = it->second.dataGroups;
}

void FicParser::ParseServices(const uint8_t* d, int length, bool longIds) {
    const int idBytes = longIds ? 4 : 2;
    int i = 0;
    while (i < length) {
        if (i + idBytes + 1 > length) {
            ++statistics_.figsMalformed;
            return;
        }
        const uint32_t id = longIds ? Read32(d + i) : Read16(d + i);
        const uint8_t info = d[i + idBytes];
        const int count = info & 0x0F;
        const int start = i + idBytes + 1;
        if (start + 2 * count > length) {
            ++statistics_.figsMalformed;
            return;
        }
        const bool isNew = ensemble_.services.count(id) == 0;
        Service& s = ensemble_.services[id];
        s.id = id;
        s.longId = longIds;
        s.conditionalAccessId = (info >> 4) & 0x07;
        if (isNew) {
            const auto label = serviceLabels_.find(id);
            if (label != serviceLabels_.end()) s.label = label->second;
        }
        s.components.clear();
        for (int k = 0; k < count; ++k) {
            const uint8_t c0 = d[start + 2 * k];
            const uint8_t c1 = d[start + 2 * k + 1];
            Component c;
            c.transport = static_cast<Transport>(c0 >> 6);
            c.primary = (c1 & 0x02) != 0;
            c.conditionalAccess = (c1 & 0x01) != 0;
            switch (c.transport) {
            case Transport::StreamAudio:
            case Transport::StreamData:
                c.type = c0 & 0x3F;
                c.subChannelId = c1 >> 2;
                break;
            case Transport::PacketData:
                c.serviceComponentId = ((c0 & 0x3F) << 6) | (c1 >> 2);
                ApplyPacketInfo(c);
                break;
            case Transport::FidcData:
                break;
            }
            s.components.push_back(c);
        }
        i = start + 2 * count;
    }
}

void FicParser::ParsePacketComponents(const uint8_t* d, int length) {
    int i = 0;
    while (i + 5 <= length) {
        const int id = (d[i] << 4) | (d[i + 1] >> 4);
        const bool hasCaOrg = (d[i + 1] & 0x01) != 0;
        const int entryLength = hasCaOrg ? 7 : 5;
        if (i + entryLength > length) break;
        PacketInfo info;
        info.dataGroups = (d[i + 2] & 0x80) == 0;
        info.type = d[i + 2] & 0x3F;
        info.subChannelId = d[i + 3] >> 2;
        info.packetAddress = ((d[i + 3] & 0x03) << 8) | d[i + 4];
        packetInfo_[id] = info;
        for (auto& [sid, service] : ensemble_.services)
            for (Component& c : service.components)
                if (c.transport == Transport::PacketData && c.serviceComponentId == id) ApplyPacketInfo(c);
        i += entryLength;
    }
    if (i != length) ++statistics_.figsMalformed;
}

void FicParser::ParseFig1(const uint8_t* data, int length) {
    const int charset = data[0] >> 4;
    const bool otherEnsemble = (data[0] & 0x08) != 0;
    const int extension = data[0] & 0x07;
    if (otherEnsemble) return;
    // Identifier, 16 label bytes, 16 bits of character flags.
    const int idBytes = extension == 5 ? 4 : 2;
    if (extension != 0 && extension != 1 && extension != 5) return;
    if (length < 1 + idBytes + 16 + 2) {
        ++statistics_.figsMalformed;
        return;
    }
    const uint8_t* raw = data + 1 + idBytes;
    const uint16_t shortMask = Read16(raw + 16);
    Label label;
    DecodeLabel(raw, charset, shortMask, label);
    if (extension == 0) {
        ensemble_.label = label;
        return;
    }
    const uint32_t id = extension == 5 ? Read32(data + 1) : Read16(data + 1);
    serviceLabels_[id] = label;
    const auto it = ensemble_.services.find(id);
    if (it != ensemble_.services.end()) it->second.label = label;
}

}  // namespace ficparse
