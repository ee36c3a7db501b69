// The host's model of one DAB ensemble, as far as the FIC has told it: the
// ensemble's identity and label, its services with their components, and its
// sub-channels with their protection. Built by FicParser (fic_parser.h) from
// the FIBs alone; it knows nothing of the receiver.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ficparse {

// A text label of FIG type 1: 16 characters, the short label chosen by the
// character flag field.
struct Label {
    bool known = false;          // a label FIG has been received
    int charset = 0;             // 0 EBU Latin, 6 UCS-2, 15 UTF-8, others kept raw
    uint8_t raw[16] = {};        // the 16 label bytes as sent
    uint16_t shortMask = 0;      // bit 15 = character 0 ... bit 0 = character 15
    std::string text;            // label as UTF-8, trailing spaces removed
    std::string shortText;       // characters selected by shortMask, as UTF-8
};

// Transport mechanism of a service component (TMId of FIG 0/2).
enum class Transport : int {
    StreamAudio = 0,   // MSC stream audio; `type` is the ASCTy
    StreamData = 1,    // MSC stream data; `type` is the DSCTy
    FidcData = 2,      // FIDC: no sub-channel, nothing more decoded
    PacketData = 3,    // MSC packet data; `serviceComponentId` set, rest from FIG 0/3
};

struct Component {
    Transport transport = Transport::StreamAudio;
    int type = 0;                  // ASCTy (audio) or DSCTy (data, packet from FIG 0/3); 0..63
    int subChannelId = -1;         // 0..63; -1 unknown (packet data before FIG 0/3, FIDC)
    int serviceComponentId = -1;   // SCId of packet data, 0..4095; -1 otherwise
    int packetAddress = -1;        // packet address from FIG 0/3, 0..1023; -1 unknown
    bool packetInfoKnown = false;  // FIG 0/3 for this SCId has been seen
    bool dataGroups = false;       // FIG 0/3: data groups carry the component
    bool primary = false;          // P/S flag
    bool conditionalAccess = false;// CA flag
};

struct Service {
    uint32_t id = 0;               // SId: 16 bits, or 32 bits when `longId`
    bool longId = false;           // 32-bit SId (data service)
    int conditionalAccessId = 0;   // CAId, 0 = none
    std::vector<Component> components;  // in the order of the latest FIG 0/2
    Label label;                   // FIG 1/1 (16-bit SId) or 1/5 (32-bit SId)
};

// Sub-channel organisation from FIG 0/1.
struct SubChannel {
    int id = 0;                    // SubChId, 0..63
    int startAddress = 0;          // first capacity unit in the CIF, 0..863
    bool longForm = false;         // EEP (long form) rather than the UEP table
    int tableSwitch = 0;           // short form: 0 = the standard table, 1 reserved
    int tableIndex = -1;           // short form: row 0..63; -1 in long form
    int option = -1;               // long form: 0 set A, 1 set B, others reserved; -1 in short form
    int protectionLevel = 0;       // 1 strongest; UEP 1..5, EEP 1..4; 0 unknown
    int size = 0;                  // capacity units; 0 when unknown (reserved table or option)
    int bitRate = 0;               // kbit/s; 0 when unknown or the size fits no whole rate
    std::string ProtectionText() const;  // e.g. "UEP 3", "EEP 3-A"
};

// Counts of what the parser has seen, for diagnostics.
struct FicStatistics {
    uint64_t fibsGood = 0;          // FIBs parsed
    uint64_t fibsBad = 0;           // FIBs skipped for a failed CRC
    uint64_t figsMalformed = 0;     // FIGs cut short or overrunning the FIB
    // FIGs seen, keyed by type * 100 + extension (extension 99 where the type
    // defines none), e.g. 0 for FIG 0/0, 101 for FIG 1/1.
    std::map<int, uint64_t> figCounts;
    bool Seen(int type, int extension) const;
    std::string SeenText() const;   // e.g. "0/0 0/1 0/2 1/0 1/1"
};

struct Ensemble {
    bool idKnown = false;          // FIG 0/0 has been seen
    uint16_t id = 0;               // EId: country Id (4 bits) and reference (12 bits)
    int changeFlags = 0;           // FIG 0/0 change flags, 0..3
    bool alarm = false;            // Al flag
    int cifCountHigh = 0;          // latest CIF count, high part 0..19
    int cifCountLow = 0;           // latest CIF count, low part 0..249
    int occurrenceChange = -1;     // CIF count low part of an announced change; -1 none
    bool SubChannelChangeAnnounced() const { return (changeFlags & 1) != 0 && occurrenceChange >= 0; }
    Label label;                   // FIG 1/0
    std::map<uint32_t, Service> services;   // by SId
    std::map<int, SubChannel> subChannels;  // by SubChId
    // Sub-channels of the next configuration (FIG 0/1 with C/N = 1), sent
    // while a change is announced; emptied when FIG 0/0 no longer announces
    // one.
    std::map<int, SubChannel> nextSubChannels;

    // Things still missing for a full picture, e.g. "ensemble label",
    // "label of service 0xC221", "sub-channel 3 of service 0xC221". Empty when
    // the ensemble id and label, and for every listed service its label and
    // the sub-channels (and packet data) of all its components, are known.
    // The label of a data service (32-bit SId) is not required.
    std::vector<std::string> Missing() const;
    bool Complete() const { return Missing().empty(); }
};

// Size, protection level (1..5) and bit rate (kbit/s) of a row of the
// short-form (UEP) sub-channel table. Rows outside 0..63 give zeros.
struct UepRow {
    int size;
    int level;
    int bitRate;
};
UepRow UepTableRow(int tableIndex);

// Bit rate in kbit/s of a long-form (EEP) sub-channel from its size, option
// (0 set A, 1 set B) and level (1..4); 0 when the size is no whole multiple.
int EepBitRate(int option, int level, int size);

}  // namespace ficparse
