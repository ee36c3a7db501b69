// Builds FIGs and FIBs byte by byte, as a multiplexer would, for the parser's
// tests. Field layouts follow the FIG formats directly, not the parser.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ficparse/fic_parser.h"

namespace figwriter {

using Bytes = std::vector<uint8_t>;

inline Bytes WithHeader(int type, const Bytes& data) {
    Bytes fig;
    fig.push_back(uint8_t((type << 5) | data.size()));
    fig.insert(fig.end(), data.begin(), data.end());
    return fig;
}

// FIG 0/0. `occurrence` is sent only when changeFlags is not 0.
inline Bytes Fig00(uint16_t eid, int changeFlags, bool alarm, int cifHigh, int cifLow, int occurrence = 0) {
    Bytes d = {0x00, uint8_t(eid >> 8), uint8_t(eid), uint8_t((changeFlags << 6) | (alarm ? 0x20 : 0) | cifHigh),
               uint8_t(cifLow)};
    if (changeFlags != 0) d.push_back(uint8_t(occurrence));
    return WithHeader(0, d);
}

struct SubChannelEntry {
    int id;
    int start;
    bool longForm;
    int tableIndex;  // short form
    int option;      // long form: 0 set A, 1 set B
    int level;       // long form: 1..4
    int size;        // long form
};

inline Bytes SubChannelBytes(const SubChannelEntry& e) {
    Bytes d = {uint8_t((e.id << 2) | (e.start >> 8)), uint8_t(e.start)};
    if (!e.longForm) {
        d.push_back(uint8_t(e.tableIndex & 0x3F));
    } else {
        d.push_back(uint8_t(0x80 | (e.option << 4) | ((e.level - 1) << 2) | (e.size >> 8)));
        d.push_back(uint8_t(e.size));
    }
    return d;
}

inline Bytes Fig01(const std::vector<SubChannelEntry>& entries, int firstByte = 0x01) {
    Bytes d = {uint8_t(firstByte)};
    for (const SubChannelEntry& e : entries) {
        const Bytes b = SubChannelBytes(e);
        d.insert(d.end(), b.begin(), b.end());
    }
    return WithHeader(0, d);
}

struct ComponentEntry {
    int tmId;          // 0 audio, 1 data, 3 packet
    int typeOrScId;    // ASCTy / DSCTy (6 bits) or SCId (12 bits)
    int subChannelId;  // stream components
    bool primary;
    bool ca;
};

struct ServiceEntry {
    uint32_t sid;
    int caId;
    std::vector<ComponentEntry> components;
};

inline Bytes ServiceBytes(const ServiceEntry& s, bool longId) {
    Bytes d;
    if (longId) {
        d.push_back(uint8_t(s.sid >> 24));
        d.push_back(uint8_t(s.sid >> 16));
    }
    d.push_back(uint8_t(s.sid >> 8));
    d.push_back(uint8_t(s.sid));
    d.push_back(uint8_t((s.caId << 4) | s.components.size()));
    for (const ComponentEntry& c : s.components) {
        if (c.tmId == 3) {
            d.push_back(uint8_t((3 << 6) | (c.typeOrScId >> 6)));
            d.push_back(uint8_t(((c.typeOrScId & 0x3F) << 2) | (c.primary ? 2 : 0) | (c.ca ? 1 : 0)));
        } else {
            d.push_back(uint8_t((c.tmId << 6) | c.typeOrScId));
            d.push_back(uint8_t((c.subChannelId << 2) | (c.primary ? 2 : 0) | (c.ca ? 1 : 0)));
        }
    }
    return d;
}

inline Bytes Fig02(const std::vector<ServiceEntry>& services, bool longIds, int flagBits = 0) {
    Bytes d = {uint8_t(flagBits | (longIds ? 0x20 : 0) | 0x02)};
    for (const ServiceEntry& s : services) {
        const Bytes b = ServiceBytes(s, longIds);
        d.insert(d.end(), b.begin(), b.end());
    }
    return WithHeader(0, d);
}

struct PacketEntry {
    int scId;
    bool caOrg;
    bool noDataGroups;  // DG flag: 1 = data groups not used
    int dscTy;
    int subChannelId;
    int address;
};

inline Bytes PacketBytes(const PacketEntry& e) {
    Bytes d = {uint8_t(e.scId >> 4), uint8_t(((e.scId & 0x0F) << 4) | (e.caOrg ? 1 : 0)),
               uint8_t((e.noDataGroups ? 0x80 : 0) | e.dscTy), uint8_t((e.subChannelId << 2) | (e.address >> 8)),
               uint8_t(e.address)};
    if (e.caOrg) {
        d.push_back(0x12);
        d.push_back(0x34);
    }
    return d;
}

inline Bytes Fig03(const std::vector<PacketEntry>& entries) {
    Bytes d = {0x03};
    for (const PacketEntry& e : entries) {
        const Bytes b = PacketBytes(e);
        d.insert(d.end(), b.begin(), b.end());
    }
    return WithHeader(0, d);
}

// Label FIG 1/0 (extension 0, 16-bit EId), 1/1 (16-bit SId) or 1/5 (32-bit SId).
// `label` is padded with spaces to 16 bytes.
inline Bytes Fig1(int extension, uint32_t id, const std::string& label, uint16_t shortMask, int charset = 0,
                  bool otherEnsemble = false) {
    Bytes d = {uint8_t((charset << 4) | (otherEnsemble ? 0x08 : 0) | extension)};
    if (extension == 5) {
        d.push_back(uint8_t(id >> 24));
        d.push_back(uint8_t(id >> 16));
    }
    d.push_back(uint8_t(id >> 8));
    d.push_back(uint8_t(id));
    for (size_t i = 0; i < 16; ++i) d.push_back(i < label.size() ? uint8_t(label[i]) : uint8_t(' '));
    d.push_back(uint8_t(shortMask >> 8));
    d.push_back(uint8_t(shortMask));
    return WithHeader(1, d);
}

// One FIB from FIGs that fit: the FIGs, an end marker if room is left, zero
// padding, and the CRC.
inline Bytes Fib(const std::vector<Bytes>& figs) {
    Bytes fib;
    for (const Bytes& f : figs) fib.insert(fib.end(), f.begin(), f.end());
    if (fib.size() < 30) fib.push_back(0xFF);
    fib.resize(30, 0x00);
    const uint16_t crc = ficparse::FibCrc(fib.data(), 30);
    fib.push_back(uint8_t(crc >> 8));
    fib.push_back(uint8_t(crc));
    return fib;
}

// Packs FIGs in order into as many FIBs as needed (each FIG must fit a FIB).
inline std::vector<Bytes> PackFibs(const std::vector<Bytes>& figs) {
    std::vector<Bytes> fibs;
    std::vector<Bytes> current;
    size_t used = 0;
    for (const Bytes& f : figs) {
        if (used + f.size() > 30) {
            fibs.push_back(Fib(current));
            current.clear();
            used = 0;
        }
        current.push_back(f);
        used += f.size();
    }
    if (!current.empty()) fibs.push_back(Fib(current));
    return fibs;
}

}  // namespace figwriter
