#include "tools/ficparse/ensemble.h"

#include <cstdio>

namespace ficparse {

namespace {

// Short-form sub-channel table: size in capacity units, protection level and
// bit rate in kbit/s, by table index.
constexpr UepRow kUepTable[64] = {
    {16, 5, 32},     {21, 4, 32},     {24, 3, 32},     {29, 2, 32},
    {35, 1, 32},     {24, 5, 48},     {29, 4, 48},     {35, 3, 48},
    {42, 2, 48},     {52, 1, 48},     {29, 5, 56},     {35, 4, 56},
    {42, 3, 56},     {52, 2, 56},     {32, 5, 64},     {42, 4, 64},
    {48, 3, 64},     {58, 2, 64},     {70, 1, 64},     {40, 5, 80},
    {52, 4, 80},     {58, 3, 80},     {70, 2, 80},     {84, 1, 80},
    {48, 5, 96},     {58, 4, 96},     {70, 3, 96},     {84, 2, 96},
    {104, 1, 96},     {58, 5, 112},     {70, 4, 112},     {84, 3, 112},
    {104, 2, 112},     {64, 5, 128},     {84, 4, 128},     {96, 3, 128},
    {116, 2, 128},     {140, 1, 128},     {80, 5, 160},     {104, 4, 160},
    {116, 3, 160},     {140, 2, 160},     {168, 1, 160},     {96, 5, 192},
    {116, 4, 192},     {140, 3, 192},     {168, 2, 192},     {208, 1, 192},
    {116, 5, 224},     {140, 4, 224},     {168, 3, 224},     {208, 2, 224},
    {232, 1, 224},     {128, 5, 256},     {168, 4, 256},     {192, 3, 256},
    {232, 2, 256},     {280, 1, 256},     {160, 5, 320},     {208, 4, 320},
    {280, 2, 320},     {192, 5, 384},     {280, 3, 384},     {416, 1, 384},
};

// Each row's size is whole capacity units of a protection that takes more
// room for a stronger level at the same rate.
constexpr bool UepTableOrdered() {
    for (int i = 1; i < 64; ++i) {
        const UepRow& a = kUepTable[i - 1];
        const UepRow& b = kUepTable[i];
        if (a.bitRate == b.bitRate && !(b.level < a.level && b.size > a.size)) return false;
        if (a.bitRate > b.bitRate) return false;
    }
    return true;
}
static_assert(UepTableOrdered(), "short-form table rows out of order");

// Capacity units per rate step of EEP: set A per 8 kbit/s, set B per 32 kbit/s.
constexpr int kEepUnitsA[4] = {12, 8, 6, 4};
constexpr int kEepUnitsB[4] = {27, 21, 18, 15};

std::string Hex(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

}  // namespace

UepRow UepTableRow(int tableIndex) {
    if (tableIndex < 0 || tableIndex > 63) return {0, 0, 0};
    return kUepTable[tableIndex];
}

int EepBitRate(int option, int level, int size) {
    if (level < 1 || level > 4 || size <= 0) return 0;
    if (option == 0) {
        const int units = kEepUnitsA[level - 1];
        return size % units == 0 ? size / units * 8 : 0;
    }
    if (option == 1) {
        const int units = kEepUnitsB[level - 1];
        return size % units == 0 ? size / units * 32 : 0;
    }
    return 0;
}

std::string SubChannel::ProtectionText() const {
    char text[32];
    if (!longForm) {
        if (tableSwitch != 0) return "UEP (reserved table)";
        std::snprintf(text, sizeof text, "UEP %d", protectionLevel);
    } else if (option == 0 || option == 1) {
        std::snprintf(text, sizeof text, "EEP %d-%c", protectionLevel, option == 0 ? 'A' : 'B');
    } else {
        std::snprintf(text, sizeof text, "EEP %d (option %d)", protectionLevel, option);
    }
    return text;
}

bool FicStatistics::Seen(int type, int extension) const {
    return figCounts.count(type * 100 + extension) != 0;
}

std::string FicStatistics::SeenText() const {
    std::string text;
    for (const auto& [key, count] : figCounts) {
        if (!text.empty()) text += ' ';
        text += std::to_string(key / 100);
        if (key % 100 != 99) text += '/' + std::to_string(key % 100);
    }
    return text;
}

std::vector<std::string> Ensemble::Missing() const {
    std::vector<std::string> missing;
    if (!idKnown) missing.push_back("ensemble information (FIG 0/0)");
    if (!label.known) missing.push_back("ensemble label");
    if (services.empty()) missing.push_back("services");
    for (const auto& [sid, service] : services) {
        const std::string name = Hex(sid, service.longId ? 8 : 4);
        // Data services (32-bit SId) are listed without a label by many
        // ensembles, so their label is shown when it comes but not awaited.
        if (!service.label.known && !service.longId) missing.push_back("label of service " + name);
        for (const Component& c : service.components) {
            if (c.transport == Transport::FidcData) continue;
            if (c.transport == Transport::PacketData && !c.packetInfoKnown) {
                missing.push_back("packet data of component " + std::to_string(c.serviceComponentId) +
                                  " of service " + name);
                continue;
            }
            if (subChannels.count(c.subChannelId) == 0)
                missing.push_back("sub-channel " + std::to_string(c.subChannelId) + " of service " + name);
        }
    }
    return missing;
}

}  // namespace ficparse
