#include "tests/support/generated_subchannels.h"

#include <string>

#include "generator/payload_sources.h"
#include "generator/protection_profiles.h"

namespace mvdab::test {

bool DescribeSubChannel(const gen::EnsembleDescription& d, int32_t id, bool afterChange, SubChannelParameters* out) {
    for (const gen::SubChannelDesc& s : d.subChannels) {
        if (s.id != id) continue;
        gen::Protection p = s.protection;
        int32_t start = s.startCu;
        if (afterChange && d.reconfiguration.cifCount >= 0 && d.reconfiguration.subChannel == id) {
            if (d.reconfiguration.changeProtection) p = d.reconfiguration.protection;
            if (d.reconfiguration.newStartCu >= 0) start = d.reconfiguration.newStartCu;
        }
        gen::SubChannelProfile profile;
        std::string error;
        if (!gen::MakeProfile(p, s.bitrateKbps, &profile, &error)) return false;
        out->startAddress = int16_t(start);
        out->size = int16_t(profile.sizeCu);
        if (p.kind == gen::ProtectionKind::kUep) {
            out->longForm = 0;
            out->tableIndex = int8_t(profile.uepIndex);
            out->optionAndLevel = 0;
        } else {
            out->longForm = 1;
            out->tableIndex = 0;
            out->optionAndLevel = int8_t((p.kind == gen::ProtectionKind::kEepB ? 4 : 0) | (p.level - 1));
        }
        return true;
    }
    return false;
}

std::vector<uint8_t> SentPayload(const gen::EnsembleDescription& d, int32_t id, int64_t logicalFrames) {
    std::vector<uint8_t> bytes;
    for (const gen::SubChannelDesc& s : d.subChannels) {
        if (s.id != id) continue;
        gen::PayloadPtr payload = gen::MakePayloadFromText(s.payload, s.bitrateKbps);
        if (!payload) return bytes;
        const size_t frameBytes = size_t(3 * s.bitrateKbps);
        bytes.resize(frameBytes * size_t(logicalFrames));
        for (int64_t k = 0; k < logicalFrames; ++k) payload->NextLogicalFrame(bytes.data() + k * frameBytes, frameBytes);
    }
    return bytes;
}

}  // namespace mvdab::test
