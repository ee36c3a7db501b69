// The DAB blocks of VHF Band III: names and centre frequencies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct BandChannel {
    const char* name;     // block name, e.g. "12C"
    int32_t frequencyKhz; // centre frequency, kHz
};

// Blocks 5A to 13F, in rising frequency.
const std::vector<BandChannel>& BandIIIChannels();
// Block name of a centre frequency, or "" for one that is no block's.
std::string ChannelName(int32_t frequencyKhz);
// Centre frequency of a block name (case-insensitive), or 0 for an unknown name.
int32_t ChannelFrequency(const std::string& name);
