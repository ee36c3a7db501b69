#include "delivery/packet_extraction.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "delivery/reed_solomon.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"

namespace mvdab {

PacketDecoder packetDecoders[kPacketInstances];

namespace {

constexpr uint16_t kCrcPolynomial = 0x1021;  // x^16 + x^12 + x^5 + 1

constexpr std::array<uint16_t, 256> MakeCrcTable() {
    std::array<uint16_t, 256> t{};
    for (int32_t v = 0; v < 256; ++v) {
        uint16_t r = uint16_t(v << 8);
        for (int32_t bit = 0; bit < 8; ++bit) r = uint16_t((r & 0x8000) ? (r << 1) ^ kCrcPolynomial : r << 1);
        t[v] = r;
    }
    return t;
}
constexpr std::array<uint16_t, 256> kCrcTable = MakeCrcTable();

struct PacketHeader {
    int32_t size;           // 24 * (lengthCode + 1)
    int32_t firstLast;      // bits 3..2 of byte 0
    int32_t address;        // 10 bits
    int32_t usefulLength;   // bits 6..0 of byte 2
    int32_t fecIndex;       // bits 5..2 of byte 0
};

PacketHeader ParseHeader(const uint8_t* p) {
    PacketHeader h;
    h.size = 24 * ((p[0] >> 6) + 1);
    h.firstLast = (p[0] >> 2) & 3;
    h.address = ((p[0] & 3) << 8) | p[1];
    h.usefulLength = p[2] & 0x7F;
    h.fecIndex = (p[0] >> 2) & 15;
    return h;
}

bool IsFecPacket(const PacketHeader& h, int32_t index) { return h.address == kFecAddress && h.fecIndex == index; }

// What the host asked for in this call.
struct Wanted {
    uint8_t subChannelId;
    const uint16_t* addresses;
    uint16_t addressCount;
};

void Deliver(const Wanted& w, uint8_t* packet, int32_t size, int32_t address) {
    for (uint16_t i = 0; i < w.addressCount; ++i) {
        if (w.addresses[i] != address) continue;
        if (MVDAB_PacketCallBack callback = packetCallback.load()) callback(packet, size, address, w.subChannelId);
        return;
    }
}

// Bytes in `buffer` at `k` and what may be read there.
struct View {
    uint8_t* bytes;
    int32_t limit;      // E: where the packets of this view end
    int32_t readable;   // how far reading is safe (the table reads on into the parity)
};

constexpr int32_t kStop = 0;

// One packet at k by the recovery rule; the advance, or kStop.
int32_t RecoverPacket(PacketDecoder& d, const View& v, int32_t k, const Wanted& w) {
    uint8_t* packet = v.bytes + k;
    const PacketHeader h = ParseHeader(packet);
    const int32_t p = h.size;
    if (k + p <= v.readable && PacketCrcValid(packet, p)) {
        d.errorRun = 0;
        Deliver(w, packet, p, h.address);
        return p;
    }
    // A first or middle packet of a data group is always full: its useful
    // length is the packet's capacity, its size less 5.
    if ((h.firstLast == 0 || h.firstLast == 2) && h.usefulLength == p - 5) {
        d.errorRun = 0;
        Deliver(w, packet, p, h.address);
        return p;
    }
    int32_t lastAddress = h.address;
    for (int32_t gap = 24; gap <= 96; gap += 24) {
        if (k + gap >= v.limit) {
            // The end is near: the packet is taken as it stands if it fits.
            if (d.errorRun >= 3 || p > gap) return kStop;
            Deliver(w, packet, p, lastAddress);
            return p;
        }
        if (k + gap + 3 > v.readable) break;
        const PacketHeader next = ParseHeader(packet + gap);
        lastAddress = next.address;
        if (k + gap + next.size <= v.limit && PacketCrcValid(packet + gap, next.size)) {
            // Alignment found again after `gap` bytes; they go out under the
            // address of the packet that follows them.
            d.errorRun = 0;
            Deliver(w, packet, gap, next.address);
            Deliver(w, packet + gap, next.size, next.address);
            return gap + next.size;
        }
    }
    d.errorRun = uint8_t(d.errorRun < 255 ? d.errorRun + 1 : 255);
    if (d.errorRun < 3) {
        Deliver(w, packet, p, lastAddress);
        return p;
    }
    return 24;
}

void DeliverRecoveredTable(PacketDecoder& d, const Wanted& w) {
    const View table{d.fec->fecTable, kFecDataBytes, kFecTableBytes};
    for (int32_t k = 0; k < kFecDataBytes;) {
        const int32_t advance = RecoverPacket(d, table, k, w);
        if (advance == kStop) return;
        k += advance;
    }
}

// State 3: the table fills. The advance.
int32_t FillTable(PacketDecoder& d, const View& v, int32_t k) {
    FecFrame& f = *d.fec;
    if (d.checkFirstPacket == 1) {
        d.checkFirstPacket = 0;
        const PacketHeader h = ParseHeader(v.bytes + k);
        if (!PacketCrcValid(v.bytes + k, h.size)) {
            d.state = 0;
            return d.step;
        }
    }
    const int32_t lacking = kFecDataBytes - f.fecTableCount;
    const int32_t left = v.limit - k;
    if (left < lacking) {
        std::memcpy(f.fecTable + f.fecTableCount, v.bytes + k, size_t(left));
        f.fecTableCount += left;
        return left;
    }
    std::memcpy(f.fecTable + f.fecTableCount, v.bytes + k, size_t(lacking));
    f.fecTableCount = kFecDataBytes;
    d.tableDamaged = 0;
    for (int32_t t = 0; t < kFecDataBytes;) {
        const PacketHeader h = ParseHeader(f.fecTable + t);
        if (!PacketCrcValid(f.fecTable + t, h.size)) d.tableDamaged = 1;
        t += h.size;
    }
    d.state = d.tableDamaged ? 4 : 5;
    return lacking;
}

// States 4 and 5: the nine FEC packets behind a full table. The advance.
int32_t TakeParity(PacketDecoder& d, int32_t instance, const View& v, int32_t k, const Wanted& w) {
    FecFrame& f = *d.fec;
    if (d.state == 5) {
        // A clean table: the parity is skipped unseen.
        if (d.fecCount < kFecPacketsPerFrame - 1) {
            d.fecCount += 1;
            return kFecPacketBytes;
        }
        for (int32_t t = 0; t < kFecDataBytes;) {
            const PacketHeader h = ParseHeader(f.fecTable + t);
            Deliver(w, f.fecTable + t, h.size, h.address);
            t += h.size;
        }
        d.state = 3;
        ResetPacketDecoder(instance);
        return kFecPacketBytes;
    }
    const uint8_t* packet = v.bytes + k;
    if (IsFecPacket(ParseHeader(packet), d.fecCount)) d.fecMatches += 1;
    const int32_t parity = d.fecCount < kFecPacketsPerFrame - 1 ? 22 : 16;
    if (f.fecTableCount + parity <= kFecTableBytes) {
        std::memcpy(f.fecTable + f.fecTableCount, packet + 2, size_t(parity));
        f.fecTableCount += parity;
    }
    if (d.fecCount < kFecPacketsPerFrame - 1) {
        d.fecCount += 1;
        return kFecPacketBytes;
    }
    CorrectFecTable(f.fecTable);
    DeliverRecoveredTable(d, w);
    if (d.fecMatches < 6) {
        // The FEC stream no longer fits: search again.
        d.state = 0;
    } else {
        d.state = 3;
        ResetPacketDecoder(instance);
    }
    return kFecPacketBytes;
}

// States 0, 1, 2: looking for the FEC packets 6, 7, 8 that end a frame.
int32_t SearchFecPackets(PacketDecoder& d, int32_t instance, const View& v, int32_t k) {
    const PacketHeader h = ParseHeader(v.bytes + k);
    switch (d.state) {
        case 0:
            if (IsFecPacket(h, 8)) {
                d.state = 3;
                ResetPacketDecoder(instance);
                d.checkFirstPacket = 1;
                d.searchCount = 0;
            } else if (IsFecPacket(h, 6)) {
                d.state = 1;
                d.searchCount = 0;
            } else if (++d.searchCount >= kPacketSearchLimit) {
                // The state changes at the next call.
                d.noFec = 1;
                d.searchCount = 0;
                ResetPacketDecoder(instance);
            }
            break;
        case 1:
            d.state = IsFecPacket(h, 7) ? 2 : 0;
            break;
        default:
            d.state = 3;
            ResetPacketDecoder(instance);
            if (!IsFecPacket(h, 8)) d.checkFirstPacket = 1;
            break;
    }
    return h.size;
}

// Bytes the pass of the current state needs at k before it can run.
int32_t BytesNeeded(const PacketDecoder& d, const View& v, int32_t k) {
    switch (d.state) {
        case 0: case 1: case 2: return 3;
        case 3:
            if (d.checkFirstPacket == 0) return 1;
            return v.limit - k < 3 ? 3 : ParseHeader(v.bytes + k).size;
        case 4: return kFecPacketBytes;
        case 5: return 1;
        default: return kPacketLookahead;
    }
}

// One pass of the current state at k; the advance, also stored in `step`
// unless the pass reused it.
int32_t RunPass(PacketDecoder& d, int32_t instance, const View& v, int32_t k, const Wanted& w) {
    int32_t advance;
    switch (d.state) {
        case 0: case 1: case 2: advance = SearchFecPackets(d, instance, v, k); break;
        case 3: advance = FillTable(d, v, k); break;
        case 4: case 5: advance = TakeParity(d, instance, v, k, w); break;
        default:
            if (ParseHeader(v.bytes + k).address == kFecAddress) {
                advance = kFecPacketBytes;
            } else {
                advance = RecoverPacket(d, v, k, w);
                if (advance == kStop) return d.step;
            }
            break;
    }
    d.step = advance;
    return advance;
}

// Runs passes on v from k while they start before `end` and find what they
// need in v. The position reached; a pass that lacked bytes leaves them in
// the carry and returns -1.
int32_t RunPasses(PacketDecoder& d, int32_t instance, const View& v, int32_t k, int32_t end, const Wanted& w) {
    while (k < end) {
        const int32_t have = v.limit - k;
        if (have < BytesNeeded(d, v, k)) {
            std::memmove(d.carry, v.bytes + k, size_t(have));
            d.carryCount = have;
            return -1;
        }
        k += RunPass(d, instance, v, k, w);
    }
    return k;
}

bool BadInstance(int32_t instance) {
    return instance < 0 || instance >= kPacketInstances || packetDecoders[instance].fec == nullptr ||
           packetDecoders[instance].carry == nullptr;
}

}  // namespace

bool PacketCrcValid(const uint8_t* packet, int32_t size) {
    if (size < 3) return false;
    uint16_t reg = 0xFFFF;
    for (int32_t i = 0; i < size - 2; ++i) reg = uint16_t((reg << 8) ^ kCrcTable[(reg >> 8) ^ packet[i]]);
    return uint16_t(~reg) == uint16_t((packet[size - 2] << 8) | packet[size - 1]);
}

int32_t CorrectFecTable(uint8_t* table) {
    uint8_t flags[12];
    DecodeRs204Table(table, table + kFecDataBytes, flags);
    return 1;
}

int32_t AllocatePacketDecoders() {
    for (PacketDecoder& d : packetDecoders) {
        if (d.fec == nullptr) d.fec = static_cast<FecFrame*>(std::calloc(1, sizeof(FecFrame)));
        if (d.fec == nullptr) return 0;
        if (d.carry == nullptr) d.carry = static_cast<uint8_t*>(std::calloc(kPacketCarryBytes, 1));
        if (d.carry == nullptr) return 0;
    }
    for (int32_t i = 0; i < kPacketInstances; ++i) {
        ResetPacketProbe(i);
        ResetPacketDecoder(i);
        RestartPacketSearch(i);
    }
    return 1;
}

void FreePacketDecoders() {
    for (PacketDecoder& d : packetDecoders) {
        std::free(d.fec);
        std::free(d.carry);
        d.fec = nullptr;
        d.carry = nullptr;
    }
}

void ResetPacketDecoder(int32_t instance) {
    if (BadInstance(instance)) return;
    PacketDecoder& d = packetDecoders[instance];
    d.fecCount = 0;
    d.fecMatches = 0;
    d.tableDamaged = 0;
    d.checkFirstPacket = 0;
    d.searchCount = 0;
    d.errorRun = 0;
    std::memset(d.fec, 0, sizeof(FecFrame));
}

void ResetPacketProbe(int32_t instance) {
    if (BadInstance(instance)) return;
    PacketDecoder& d = packetDecoders[instance];
    d.probeFecPackets = 0;
    std::memset(d.fec, 0, sizeof(FecFrame));
    d.skipBytes = 0;
    d.carryCount = 0;
    // A pass that reuses the last advance must move on.
    d.step = 24;
}

void RestartPacketSearch(int32_t instance) {
    if (BadInstance(instance)) return;
    packetDecoders[instance].state = 0;
    packetDecoders[instance].noFec = 0;
}

int32_t ExtractPackets(int32_t instance, const uint8_t* bytes, uint8_t subChannelId, int32_t length,
                       const uint16_t* addresses, uint16_t addressCount, uint8_t fecEnabled) {
    if (BadInstance(instance) || length < 0) return 0;
    if ((bytes == nullptr && length > 0) || (addresses == nullptr && addressCount > 0)) return 0;
    PacketDecoder& d = packetDecoders[instance];
    if (fecEnabled == 0 || d.noFec == 1) {
        d.state = 6;
        d.errorRun = 0;
    }
    const Wanted w{subChannelId, addresses, addressCount};
    // The passes read only; the input is not changed, but a delivered packet
    // may point into it.
    uint8_t* input = const_cast<uint8_t*>(bytes);
    int32_t pos = d.skipBytes;
    d.skipBytes = 0;
    if (d.carryCount > 0) {
        // The held bytes and the start of this piece, joined: the passes that
        // start in the held bytes run there.
        const int32_t held = d.carryCount;
        const int32_t head = length < kPacketLookahead ? length : kPacketLookahead;
        if (head > 0) std::memcpy(d.carry + held, bytes, size_t(head));
        const View joined{d.carry, held + head, held + head};
        d.carryCount = 0;
        const int32_t k = RunPasses(d, instance, joined, 0, held, w);
        if (k < 0) return 1;
        pos = k - held;
    }
    const View piece{input, length, length};
    const int32_t k = RunPasses(d, instance, piece, pos, length, w);
    if (k >= 0) d.skipBytes = k - length;
    return 1;
}

int32_t ExtractPacketFrame(const ServiceComponent* component, const uint16_t* addresses, uint16_t addressCount) {
    if (component == nullptr || component->decodedBytes == nullptr) return 0;
    const int32_t length = mode.parameters.cifsPerFrame * component->bitsPerCif / 8;
    return ExtractPackets(0, component->decodedBytes, uint8_t(component->subChannelId), length, addresses,
                          addressCount, uint8_t((component->fecScheme & 3) != 0));
}

int32_t ProbePacketFec(const uint8_t* bytes, int32_t length, int32_t instance) {
    if (BadInstance(instance) || length < 0 || (bytes == nullptr && length > 0)) return -1;
    PacketDecoder& d = packetDecoders[instance];
    FecFrame& f = *d.fec;
    const int32_t lacking = kFecTableBytes - f.fecTableCount;
    if (length < lacking) {
        if (length > 0) std::memcpy(f.fecTable + f.fecTableCount, bytes, size_t(length));
        f.fecTableCount += length;
        return 0;
    }
    if (lacking > 0) std::memcpy(f.fecTable + f.fecTableCount, bytes, size_t(lacking));
    f.fecTableCount = kFecTableBytes;
    for (int32_t t = 0; t + 3 <= kFecTableBytes;) {
        const PacketHeader h = ParseHeader(f.fecTable + t);
        if (h.address == kFecAddress) {
            d.probeFecPackets += 1;
            t += kFecPacketBytes;
        } else {
            if (t + h.size > kFecTableBytes) break;
            t += h.size;
        }
    }
    const int32_t result = d.probeFecPackets >= 3 ? 2 : 1;
    d.probeFecPackets = 0;
    return result;
}

}  // namespace mvdab
