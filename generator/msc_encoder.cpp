#include "generator/msc_encoder.h"

#include "generator/conv_encoder.h"
#include "generator/energy_dispersal_prbs.h"

namespace gen {

void EncodeLogicalFrame(const uint8_t* bytes, const SubChannelProfile& profile, std::vector<uint8_t>& codeword) {
    const size_t byteCount = static_cast<size_t>(3 * profile.bitrateKbps);
    std::vector<uint8_t> bits(8 * byteCount);
    for (size_t i = 0; i < byteCount; ++i)
        for (int b = 0; b < 8; ++b) bits[8 * i + b] = (bytes[i] >> (7 - b)) & 1;
    DisperseBits(bits.data(), bits.size());
    std::vector<uint8_t> mother;
    ConvEncode(bits.data(), bits.size(), mother);
    codeword.clear();
    codeword.reserve(static_cast<size_t>(64 * profile.sizeCu));
    Puncture(mother, profile.runs, codeword);
    // Short-form rows leave a few bits of the sub-channel unused: sent as zeros.
    codeword.resize(static_cast<size_t>(64 * profile.sizeCu), 0);
}

SubChannelEncoder::SubChannelEncoder(const SubChannelProfile& profile, PayloadSource* payload)
    : profile_(profile), payload_(payload),
      interleaver_(std::make_unique<TimeInterleaver>(static_cast<size_t>(64 * profile.sizeCu))) {}

void SubChannelEncoder::ChangeProfile(const SubChannelProfile& profile) {
    const bool sameLength = profile.sizeCu == profile_.sizeCu;
    profile_ = profile;
    if (!sameLength) interleaver_ = std::make_unique<TimeInterleaver>(static_cast<size_t>(64 * profile.sizeCu));
}

void SubChannelEncoder::NextCif(uint8_t* out) {
    bytes_.resize(static_cast<size_t>(3 * profile_.bitrateKbps));
    payload_->NextLogicalFrame(bytes_.data(), bytes_.size());
    EncodeLogicalFrame(bytes_.data(), profile_, codeword_);
    interleaver_->Process(codeword_.data(), out);
}

}  // namespace gen
