// Placeholders for the sources still being written: they report that they
// are not available yet.
#include "generator/payload_sources.h"

namespace gen {
namespace {
PayloadPtr NotYet(std::string* error) {
    if (error) *error = "source not available yet";
    return nullptr;
}
}  // namespace

PayloadPtr MakeMp2Payload(const std::string&, int, std::string* error) { return NotYet(error); }
PayloadPtr MakeDabPlusSuperframeFilePayload(const std::string&, int, std::string* error) { return NotYet(error); }
PayloadPtr MakeDabPlusAuFilePayload(const std::string&, int, const DabPlusAudio&, std::string* error) {
    return NotYet(error);
}
PayloadPtr MakeDabPlusSyntheticPayload(int, const DabPlusAudio&, uint32_t, std::string* error) { return NotYet(error); }
PayloadPtr MakePacketPayload(int, const PacketStreamParams&, std::string* error) { return NotYet(error); }
PayloadPtr MakeTdmbPayload(int, const TdmbStreamParams&, std::string* error) { return NotYet(error); }
PayloadPtr MakePayloadFromText(const std::string& text, int, std::string* error) {
    if (text.rfind("random:", 0) == 0) return MakeRandomPayload(static_cast<uint32_t>(std::stoul(text.substr(7))));
    return NotYet(error);
}

}  // namespace gen
