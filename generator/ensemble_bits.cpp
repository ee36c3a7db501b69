#include "generator/ensemble_bits.h"

#include <sstream>

#include "generator/ensemble_description.h"
#include "generator/multiplex.h"
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

// "NAME" or "NAME:key=value:key=value" with the keys dabp=PATH, dabprate=KBPS
// and mp2=PATH (payload files of the "default" preset).
bool ParsePresetText(const std::string& text, std::string* name, PresetOptions* options, std::string* error) {
    std::stringstream ss(text);
    std::getline(ss, *name, ':');
    for (std::string item; std::getline(ss, item, ':');) {
        const size_t eq = item.find('=');
        const std::string key = item.substr(0, eq);
        const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
        if (key == "dabp" && !value.empty()) options->dabplusFile = value;
        else if (key == "mp2" && !value.empty()) options->mp2File = value;
        else if (key == "dabprate" && !value.empty() && value.find_first_not_of("0123456789") == std::string::npos)
            options->dabplusKbps = std::stoi(value);
        else {
            if (error) *error = "preset option '" + item + "' (dabp=PATH, dabprate=KBPS, mp2=PATH)";
            return false;
        }
    }
    return true;
}

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
    EnsembleDescription description;
    if (!configPath.empty()) {
        if (!LoadDescriptionFile(configPath, mode, seed, &description, error)) return false;
        description.mode = mode;  // the caller's modulator runs in `mode`
    } else {
        std::string name;
        PresetOptions options;
        options.mode = mode;
        options.seed = seed;
        if (!ParsePresetText(preset, &name, &options, error)) return false;
        if (!MakePresetDescription(name, options, &description, error)) return false;
    }
    std::unique_ptr<Multiplex> multiplex = Multiplex::Make(description, error);
    if (!multiplex) return false;
    out->listing = multiplex->Listing();
    out->source = std::move(multiplex);
    return true;
}

std::vector<std::string> EnsemblePresetNames() {
    std::vector<std::string> names = PresetNames();
    names.push_back("random");
    return names;
}

}  // namespace gen
