#include "generator/protection_profiles.h"

#include <cstdlib>

namespace gen {
namespace {

// Size (CU), level, bit rate, then (blocks, PI) of the four runs.
constexpr UepRow kUepTable[64] = {
    {16, 5, 32, {{3, 5}, {4, 3}, {17, 2}, {0, 0}}},  // 0
    {21, 4, 32, {{3, 11}, {3, 6}, {18, 5}, {0, 0}}},  // 1
    {24, 3, 32, {{3, 15}, {4, 9}, {14, 6}, {3, 8}}},  // 2
    {29, 2, 32, {{3, 22}, {4, 13}, {14, 8}, {3, 13}}},  // 3
    {35, 1, 32, {{3, 24}, {5, 17}, {13, 12}, {3, 17}}},  // 4
    {24, 5, 48, {{4, 5}, {3, 4}, {26, 2}, {3, 3}}},  // 5
    {29, 4, 48, {{3, 9}, {4, 6}, {26, 4}, {3, 6}}},  // 6
    {35, 3, 48, {{3, 15}, {4, 10}, {26, 6}, {3, 9}}},  // 7
    {42, 2, 48, {{3, 24}, {4, 14}, {26, 8}, {3, 15}}},  // 8
    {52, 1, 48, {{3, 24}, {5, 18}, {25, 13}, {3, 18}}},  // 9
    {29, 5, 56, {{6, 5}, {10, 4}, {23, 2}, {3, 3}}},  // 10
    {35, 4, 56, {{6, 9}, {10, 6}, {23, 4}, {3, 5}}},  // 11
    {42, 3, 56, {{6, 16}, {12, 7}, {21, 6}, {3, 9}}},  // 12
    {52, 2, 56, {{6, 23}, {10, 13}, {23, 8}, {3, 13}}},  // 13
    {32, 5, 64, {{6, 5}, {9, 3}, {31, 2}, {2, 3}}},  // 14
    {42, 4, 64, {{6, 11}, {9, 6}, {33, 5}, {0, 0}}},  // 15
    {48, 3, 64, {{6, 16}, {12, 8}, {27, 6}, {3, 9}}},  // 16
    {58, 2, 64, {{6, 23}, {10, 13}, {29, 8}, {3, 13}}},  // 17
    {70, 1, 64, {{6, 24}, {11, 18}, {28, 12}, {3, 18}}},  // 18
    {40, 5, 80, {{6, 6}, {10, 3}, {41, 2}, {3, 3}}},  // 19
    {52, 4, 80, {{6, 11}, {10, 6}, {41, 5}, {3, 6}}},  // 20
    {58, 3, 80, {{6, 16}, {11, 8}, {40, 6}, {3, 7}}},  // 21
    {70, 2, 80, {{6, 23}, {10, 13}, {41, 8}, {3, 13}}},  // 22
    {84, 1, 80, {{6, 24}, {10, 17}, {41, 12}, {3, 18}}},  // 23
    {48, 5, 96, {{7, 5}, {9, 4}, {53, 2}, {3, 4}}},  // 24
    {58, 4, 96, {{7, 9}, {10, 6}, {52, 4}, {3, 6}}},  // 25
    {70, 3, 96, {{6, 16}, {12, 9}, {51, 6}, {3, 10}}},  // 26
    {84, 2, 96, {{6, 22}, {10, 12}, {53, 9}, {3, 12}}},  // 27
    {104, 1, 96, {{6, 24}, {13, 18}, {50, 13}, {3, 19}}},  // 28
    {58, 5, 112, {{14, 5}, {17, 4}, {50, 2}, {3, 5}}},  // 29
    {70, 4, 112, {{11, 9}, {21, 6}, {49, 4}, {3, 8}}},  // 30
    {84, 3, 112, {{11, 16}, {23, 8}, {47, 6}, {3, 9}}},  // 31
    {104, 2, 112, {{11, 23}, {21, 12}, {49, 9}, {3, 14}}},  // 32
    {64, 5, 128, {{12, 5}, {19, 3}, {62, 2}, {3, 4}}},  // 33
    {84, 4, 128, {{11, 11}, {21, 6}, {61, 5}, {3, 7}}},  // 34
    {96, 3, 128, {{11, 16}, {22, 9}, {60, 6}, {3, 10}}},  // 35
    {116, 2, 128, {{11, 22}, {21, 12}, {61, 9}, {3, 14}}},  // 36
    {140, 1, 128, {{11, 24}, {20, 17}, {62, 13}, {3, 19}}},  // 37
    {80, 5, 160, {{11, 5}, {19, 4}, {87, 2}, {3, 4}}},  // 38
    {104, 4, 160, {{11, 11}, {23, 6}, {83, 5}, {3, 9}}},  // 39
    {116, 3, 160, {{11, 16}, {24, 8}, {82, 6}, {3, 11}}},  // 40
    {140, 2, 160, {{11, 22}, {21, 11}, {85, 9}, {3, 13}}},  // 41
    {168, 1, 160, {{11, 24}, {22, 18}, {84, 12}, {3, 19}}},  // 42
    {96, 5, 192, {{11, 6}, {20, 4}, {110, 2}, {3, 5}}},  // 43
    {116, 4, 192, {{11, 10}, {22, 6}, {108, 4}, {3, 9}}},  // 44
    {140, 3, 192, {{11, 16}, {24, 10}, {106, 6}, {3, 11}}},  // 45
    {168, 2, 192, {{11, 22}, {20, 13}, {110, 9}, {3, 13}}},  // 46
    {208, 1, 192, {{11, 24}, {21, 20}, {109, 13}, {3, 24}}},  // 47
    {116, 5, 224, {{12, 8}, {22, 6}, {131, 2}, {3, 6}}},  // 48
    {140, 4, 224, {{12, 12}, {26, 8}, {127, 4}, {3, 11}}},  // 49
    {168, 3, 224, {{11, 16}, {20, 10}, {134, 7}, {3, 9}}},  // 50
    {208, 2, 224, {{11, 24}, {22, 16}, {132, 10}, {3, 15}}},  // 51
    {232, 1, 224, {{11, 24}, {24, 20}, {130, 12}, {3, 20}}},  // 52
    {128, 5, 256, {{11, 6}, {24, 5}, {154, 2}, {3, 5}}},  // 53
    {168, 4, 256, {{11, 12}, {24, 9}, {154, 5}, {3, 10}}},  // 54
    {192, 3, 256, {{11, 16}, {27, 10}, {151, 7}, {3, 10}}},  // 55
    {232, 2, 256, {{11, 24}, {22, 14}, {156, 10}, {3, 13}}},  // 56
    {280, 1, 256, {{11, 24}, {26, 19}, {152, 14}, {3, 18}}},  // 57
    {160, 5, 320, {{11, 8}, {26, 5}, {200, 2}, {3, 6}}},  // 58
    {208, 4, 320, {{11, 13}, {25, 9}, {201, 5}, {3, 10}}},  // 59
    {280, 2, 320, {{11, 24}, {26, 17}, {200, 9}, {3, 17}}},  // 60
    {192, 5, 384, {{11, 8}, {27, 6}, {247, 2}, {3, 7}}},  // 61
    {280, 3, 384, {{11, 16}, {24, 9}, {250, 7}, {3, 10}}},  // 62
    {416, 1, 384, {{12, 24}, {28, 20}, {245, 14}, {3, 23}}},  // 63
};

}  // namespace

const UepRow& UepTableRow(int index) { return kUepTable[(index >= 0 && index < 64) ? index : 0]; }

bool UepProfile(int index, SubChannelProfile* out) {
    if (index < 0 || index >= 64) return false;
    const UepRow& row = kUepTable[index];
    out->sizeCu = row.sizeCu;
    out->bitrateKbps = row.bitrateKbps;
    out->uepIndex = index;
    out->runs.clear();
    for (const PunctureRun& r : row.runs)
        if (r.blocks > 0) out->runs.push_back(r);
    out->paddingBits = 64 * row.sizeCu - static_cast<int>(PuncturedLength(out->runs));
    return true;
}

int FindUepIndex(int bitrateKbps, int level) {
    for (int i = 0; i < 64; ++i)
        if (kUepTable[i].bitrateKbps == bitrateKbps && kUepTable[i].level == level) return i;
    return -1;
}

bool EepProfile(ProtectionKind set, int level, int bitrateKbps, SubChannelProfile* out) {
    if (level < 1 || level > 4 || bitrateKbps <= 0) return false;
    out->uepIndex = -1;
    out->paddingBits = 0;
    if (set == ProtectionKind::kEepA) {
        if (bitrateKbps % 8 != 0) return false;
        const int n = bitrateKbps / 8;
        static constexpr int kCuPerStep[4] = {12, 8, 6, 4};
        out->sizeCu = kCuPerStep[level - 1] * n;
        switch (level) {
        case 1: out->runs = {{6 * n - 3, 24}, {3, 23}}; break;
        case 2:
            // Below 16 kbit/s the general rule would give a negative run.
            if (n == 1) out->runs = {{5, 13}, {1, 12}};
            else out->runs = {{2 * n - 3, 14}, {4 * n + 3, 13}};
            break;
        case 3: out->runs = {{6 * n - 3, 8}, {3, 7}}; break;
        default: out->runs = {{4 * n - 3, 3}, {2 * n + 3, 2}}; break;
        }
    } else if (set == ProtectionKind::kEepB) {
        if (bitrateKbps % 32 != 0) return false;
        const int n = bitrateKbps / 32;
        static constexpr int kCuPerStep[4] = {27, 21, 18, 15};
        static constexpr int kPi1[4] = {10, 6, 4, 2};
        out->sizeCu = kCuPerStep[level - 1] * n;
        out->runs = {{24 * n - 3, kPi1[level - 1]}, {3, kPi1[level - 1] - 1}};
    } else {
        return false;
    }
    if (out->runs[0].blocks == 0) out->runs.erase(out->runs.begin());
    out->bitrateKbps = bitrateKbps;
    return true;
}

bool MakeProfile(const Protection& protection, int bitrateKbps, SubChannelProfile* out, std::string* error) {
    if (protection.kind == ProtectionKind::kUep) {
        const int index = FindUepIndex(bitrateKbps, protection.level);
        if (index < 0) {
            if (error)
                *error = "no short-form row for " + std::to_string(bitrateKbps) + " kbit/s at level " +
                         std::to_string(protection.level);
            return false;
        }
        return UepProfile(index, out);
    }
    if (!EepProfile(protection.kind, protection.level, bitrateKbps, out)) {
        if (error)
            *error = ProtectionText(protection) + " can't carry " + std::to_string(bitrateKbps) +
                     " kbit/s (set A: multiples of 8, set B: multiples of 32, levels 1..4)";
        return false;
    }
    return true;
}

std::string ProtectionText(const Protection& protection) {
    const char* kind = protection.kind == ProtectionKind::kUep    ? "uep"
                       : protection.kind == ProtectionKind::kEepA ? "eep-a"
                                                                  : "eep-b";
    return std::string(kind) + ":" + std::to_string(protection.level);
}

bool ParseProtection(const std::string& text, Protection* out) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon + 2 != text.size()) return false;
    const std::string kind = text.substr(0, colon);
    const int level = text[colon + 1] - '0';
    if (kind == "uep" && level >= 1 && level <= 5) out->kind = ProtectionKind::kUep;
    else if (kind == "eep-a" && level >= 1 && level <= 4) out->kind = ProtectionKind::kEepA;
    else if (kind == "eep-b" && level >= 1 && level <= 4) out->kind = ProtectionKind::kEepB;
    else return false;
    out->level = level;
    return true;
}

}  // namespace gen
