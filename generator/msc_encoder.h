// Channel coding of one MSC sub-channel, one logical frame (24 ms) per CIF:
// payload bytes -> bits -> energy dispersal -> mother code -> puncturing
// (plus zero padding for short-form rows) -> time interleaving, giving exactly
// 64 * size bits for the sub-channel's place in the CIF.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "generator/payload.h"
#include "generator/protection_profiles.h"
#include "generator/time_interleaver.h"

namespace gen {

// The coded logical frame before time interleaving: 64 * sizeCu bits.
void EncodeLogicalFrame(const uint8_t* bytes, const SubChannelProfile& profile, std::vector<uint8_t>& codeword);

class SubChannelEncoder {
public:
    SubChannelEncoder(const SubChannelProfile& profile, PayloadSource* payload);
    const SubChannelProfile& Profile() const { return profile_; }
    // A new protection at the same bit rate: the codeword length changes, so
    // the delay lines restart from zeros (the 15 CIFs in flight are lost).
    void ChangeProfile(const SubChannelProfile& profile);
    // Takes the next logical frame from the payload and writes this CIF's
    // 64 * sizeCu channel bits to `out`.
    void NextCif(uint8_t* out);

private:
    SubChannelProfile profile_;
    PayloadSource* payload_;
    std::unique_ptr<TimeInterleaver> interleaver_;
    std::vector<uint8_t> bytes_, codeword_;
};

}  // namespace gen
