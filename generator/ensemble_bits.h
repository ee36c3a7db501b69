// The multiplex side of a generated signal, chosen by name: an ensemble preset
// or an ensemble description file, in a given transmission mode, as a source
// of channel bits frame by frame (frame_bits.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "generator/frame_bits.h"

namespace gen {

struct EnsembleBits {
    std::unique_ptr<FrameBitSource> source;  // channel bits of consecutive frames
    std::string listing;                     // what is sent: ensemble, services, sub-channels
};

// `preset` names a built-in ensemble (EnsemblePresetNames()); a non-empty
// `configPath` takes a description file instead. `mode` 1..4. False, with
// `error` set, when the ensemble can't be built.
bool MakeEnsembleBits(const std::string& preset, const std::string& configPath, int mode, uint64_t seed,
                      EnsembleBits* out, std::string* error);

// Names accepted as `preset`. "random" sends pseudo-random channel bits: a
// valid OFDM signal with no decodable FIC.
std::vector<std::string> EnsemblePresetNames();

}  // namespace gen
