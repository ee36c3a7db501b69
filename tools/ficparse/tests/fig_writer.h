// Builds FIGs and FIBs byte by byte, as a multiplexer would, for the parser's
// tests. Field layouts follow the FIG formats directly, not the parser.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ficparse/fic_parser.h"

namespace figwriter {

using Bytes = std::vector<uint8_t>;

inline Bytes WithHeader(int type, Bytes data) {
    data.insert(data.begin(), uint8_t((type << 5) | data.size()));
    return data;
}

// FIG 0/0; the occurrence change is sent only with change flags.
inline Bytes Fig00(uint16_t eid, int changeFlags, bool alarm, int cifHigh, int cifLow, int occurrence = 0) {
    Bytes d = {0x00, uint8_t(eid >> 8), uint8_t(eid), uint8_t((changeFlags << 6) | (alarm ? 0x20 : 0) | cifHigh),
               uint8_t(cifLow)};
    if (changeFlags != 0) d.push_back(uint8_t(occurrence));
    return WithHeader(0, d);
}

// Sub-channel: short form uses tableIndex; long form option (0 A, 1 B), level 1..4, size.
struct SubChannelEntry {
    int id, start;
    bool longForm;
    int tableIndex, option, level, size;
};

inline Bytes SubChannelBytes(const SubChannelEntry& e) {
    Bytes d = {uint8_t((e.id << 2) | (e.start >> 8)), uint8_t(e.start)};
    if (!e.longForm) return d.push_back(uint8_t(e.tableIndex)), d;
    d.push_back(uint8_t(0x80 | (e.option << 4) | ((e.level - 1) << 2) | (e.size >> 8)));
    d.push_back(uint8_t(e.size));
    return d;
}

// `firstByte` carries C/N, OE and the extension.
inline Bytes Fig01(const std::vector<SubChannelEntry>& entries, int firstByte = 0x01) {
    Bytes d = {uint8_t(firstByte)};
    for (const SubChannelEntry& e : entries) {
        const Bytes b = SubChannelBytes(e);
        d.insert(d.end(), b.begin(), b.end());
    }
    return WithHeader(0, d);
}

// tmId 0 audio, 1 data (type = ASCTy / DSCTy), 3 packet (type = SCId).
struct ComponentEntry {
    int tmId, type, subChannelId;
    bool primary, ca;
};
struct ServiceEntry {
    uint32_t sid;
    int caId;
    std::vector<ComponentEntry> components;
};

inline Bytes Fig02(const std::vector<ServiceEntry>& services, bool longIds, int flagBits = 0) {
    Bytes d = {uint8_t(flagBits | (longIds ? 0x22 : 0x02))};
    for (const ServiceEntry& s : services) {
        for (int shift = longIds ? 24 : 8; shift >= 0; shift -= 8) d.push_back(uint8_t(s.sid >> shift));
        d.push_back(uint8_t((s.caId << 4) | s.components.size()));
        for (const ComponentEntry& c : s.components) {
            const int flags = (c.primary ? 2 : 0) | (c.ca ? 1 : 0);
            if (c.tmId == 3) {
                d.push_back(uint8_t(0xC0 | (c.type >> 6)));
                d.push_back(uint8_t(((c.type & 0x3F) << 2) | flags));
            } else {
                d.push_back(uint8_t((c.tmId << 6) | c.type));
                d.push_back(uint8_t((c.subChannelId << 2) | flags));
            }
        }
    }
    return WithHeader(0, d);
}

struct PacketEntry {
    int scId;
    bool caOrg, noDataGroups;
    int dscTy, subChannelId, address;
};

inline Bytes Fig03(const std::vector<PacketEntry>& entries) {
    Bytes d = {0x03};
    for (const PacketEntry& e : entries) {
        d.insert(d.end(), {uint8_t(e.scId >> 4), uint8_t(((e.scId & 0x0F) << 4) | (e.caOrg ? 1 : 0)),
                           uint8_t((e.noDataGroups ? 0x80 : 0) | e.dscTy),
                           uint8_t((e.subChannelId << 2) | (e.address >> 8)), uint8_t(e.address)});
        if (e.caOrg) d.insert(d.end(), {0x12, 0x34});
    }
    return WithHeader(0, d);
}

// Label FIG 1/0 (ensemble), 1/1 (16-bit SId) or 1/5 (32-bit SId), padded with spaces.
inline Bytes Fig1(int extension, uint32_t id, const std::string& label, uint16_t shortMask, int charset = 0,
                  bool otherEnsemble = false) {
    Bytes d = {uint8_t((charset << 4) | (otherEnsemble ? 0x08 : 0) | extension)};
    for (int shift = extension == 5 ? 24 : 8; shift >= 0; shift -= 8) d.push_back(uint8_t(id >> shift));
    for (size_t i = 0; i < 16; ++i) d.push_back(i < label.size() ? uint8_t(label[i]) : uint8_t(' '));
    d.insert(d.end(), {uint8_t(shortMask >> 8), uint8_t(shortMask)});
    return WithHeader(1, d);
}

// One FIB: the FIGs, an end marker if room is left, zero padding, the CRC.
inline Bytes Fib(const std::vector<Bytes>& figs) {
    Bytes fib;
    for (const Bytes& f : figs) fib.insert(fib.end(), f.begin(), f.end());
    if (fib.size() < 30) fib.push_back(0xFF);
    fib.resize(30, 0x00);
    const uint16_t crc = ficparse::FibCrc(fib.data(), 30);
    fib.insert(fib.end(), {uint8_t(crc >> 8), uint8_t(crc)});
    return fib;
}

// FIGs in order into as many FIBs as needed.
inline std::vector<Bytes> PackFibs(const std::vector<Bytes>& figs) {
    std::vector<Bytes> fibs, current;
    size_t used = 0;
    for (const Bytes& f : figs) {
        if (used + f.size() > 30) fibs.push_back(Fib(current)), current.clear(), used = 0;
        current.push_back(f);
        used += f.size();
    }
    if (!current.empty()) fibs.push_back(Fib(current));
    return fibs;
}

}  // namespace figwriter
