// Sub-channel protection: the 64 rows of the short-form (UEP) table and the
// long-form (EEP) sets A and B, each giving the size in capacity units, the
// bit rate and the puncturing runs of one logical frame.
#pragma once

#include <string>
#include <vector>

#include "generator/puncturing.h"

namespace gen {

enum class ProtectionKind { kUep, kEepA, kEepB };

struct Protection {
    ProtectionKind kind = ProtectionKind::kEepA;
    int level = 3;  // UEP 1..5, EEP 1..4 (1 strongest)
};

struct SubChannelProfile {
    int sizeCu = 0;                // capacity units, 64 bits each per CIF
    int bitrateKbps = 0;           // kbit/s; a logical frame is 24 * bitrate bits
    int uepIndex = -1;             // short-form table index, -1 for EEP
    std::vector<PunctureRun> runs; // puncturing of the logical frame's mother code
    int paddingBits = 0;           // zero bits after the punctured codeword (UEP slack)
};

struct UepRow {
    int sizeCu;       // capacity units
    int level;        // 1..5
    int bitrateKbps;  // kbit/s
    PunctureRun runs[4];  // a run of 0 blocks is absent
};

// Row `index` 0..63 of the short-form table.
const UepRow& UepTableRow(int index);

// Profile of a UEP table row; false for an index outside 0..63.
bool UepProfile(int index, SubChannelProfile* out);
// The row with this bit rate and level; -1 if the table has none.
int FindUepIndex(int bitrateKbps, int level);
// EEP profile; false if the bit rate is not a multiple of 8 (set A) or 32
// (set B) kbit/s, or the level is not 1..4.
bool EepProfile(ProtectionKind set, int level, int bitrateKbps, SubChannelProfile* out);

// Profile for a protection choice at a bit rate; `error` says why not.
bool MakeProfile(const Protection& protection, int bitrateKbps, SubChannelProfile* out, std::string* error);

// "uep:3", "eep-a:2", "eep-b:4".
std::string ProtectionText(const Protection& protection);
bool ParseProtection(const std::string& text, Protection* out);

}  // namespace gen
