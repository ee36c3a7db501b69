// Reading a payload's input file in one piece.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gen {

// Reads all of `path` into `bytes`; false (and `error` set) if it cannot.
bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* error);

}  // namespace gen
