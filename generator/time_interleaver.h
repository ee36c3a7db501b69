// Time interleaving of one sub-channel: bit i of the punctured codeword of a
// CIF is sent d(i mod 16) CIFs later, d(r) = r with its four bits reversed.
// The delay lines start filled with zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace gen {

// Delay in CIFs of codeword bit i with i mod 16 = r.
int InterleaverDelay(int r);

class TimeInterleaver {
public:
    explicit TimeInterleaver(size_t codewordBits);
    size_t CodewordBits() const { return bits_; }
    // Takes this CIF's codeword (CodewordBits() bits) and writes the bits sent
    // in this CIF to `out` (same length).
    void Process(const uint8_t* codeword, uint8_t* out);

private:
    size_t bits_;
    std::vector<uint8_t> history_;  // 16 codewords, ring indexed by CIF number mod 16
    unsigned cif_ = 0;              // CIFs processed
};

}  // namespace gen
