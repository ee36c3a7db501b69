#include "generator/ensemble_bits.h"

#include "generator/payload_rng.h"

namespace gen {
namespace {

// Pseudo-random channel bits: OFDM structure without a decodable multiplex.
class RandomBits final : public FrameBitSource {
public:
    RandomBits(int mode, uint64_t seed) : geometry_(Geometry(mode)), rng_(seed) {}
    void NextFrame(std::vector<uint8_t>& bits) override {
        bits.resize(static_cast<size_t>(geometry_.DataBitsPerFrame()));
        for (uint8_t& b : bits) b = static_cast<uint8_t>(rng_.Next() >> 63);
    }

private:
    const ModeGeometry& geometry_;
    Rng rng_;
};

}  // namespace

bool MakeEnsembleBits(const std::string& preset, const std::string& configPath, int mode, uint64_t seed,
                      EnsembleBits* out, std::string* error) {
    if (mode < 1 || mode > 4) {
        if (error) *error = "mode must be 1..4";
        return false;
    }
    if (configPath.empty() && preset == "random") {
        out->source = std::make_unique<RandomBits>(mode, seed);
        out->listing = "random channel bits, mode " + std::to_string(mode) + ", seed " + std::to_string(seed) + "\n";
        return true;
    }
    if (error) *error = "unknown ensemble preset '" + preset + "'";
    return false;
}

std::vector<std::string> EnsemblePresetNames() { return {"random"}; }

}  // namespace gen
