// Placeholders for the sources still being written: they report that they
// are not available yet.
#include "generator/channel_model.h"
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

struct ChannelModel::State {
    ChannelParams params;
    uint64_t produced = 0;
};
ChannelModel::ChannelModel(const ChannelParams& params, double) : state_(std::make_unique<State>()) {
    state_->params = params;
}
ChannelModel::~ChannelModel() = default;
void ChannelModel::Process(const std::complex<float>* in, size_t n, std::vector<std::complex<float>>& out) {
    out.assign(in, in + n);
    state_->produced += n;
}
void ChannelModel::ProcessU8(const std::complex<float>* in, size_t n, std::vector<uint8_t>& out) {
    out.resize(2 * n);
    QuantiseToU8(in, n, Gain(), state_->params.dcI, state_->params.dcQ, out.data());
    state_->produced += n;
}
double ChannelModel::Gain() const { return state_->params.gain > 0 ? state_->params.gain : 1.0; }
double ChannelModel::NoiseVariance() const { return 0; }
uint64_t ChannelModel::OutputSamples() const { return state_->produced; }
uint64_t ChannelModel::DroppedInputSamples() const { return 0; }
std::string ChannelModel::Describe() const { return "channel: pass-through (model not available yet)"; }
void QuantiseToU8(const std::complex<float>* in, size_t n, double gain, double dcI, double dcQ, uint8_t* out) {
    auto q = [](double v) -> uint8_t {
        v = std::floor(v + 0.5);
        return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
    };
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = q(in[i].real() * gain + 127.5 + dcI);
        out[2 * i + 1] = q(in[i].imag() * gain + 127.5 + dcQ);
    }
}
bool MultipathProfile(const std::string& name, std::vector<PathTap>* taps) {
    if (name != "single") return false;
    taps->assign(1, PathTap{});
    return true;
}
std::vector<std::string> MultipathProfileNames() { return {"single"}; }

}  // namespace gen
