#include "generator/energy_dispersal_prbs.h"

#include <algorithm>

namespace gen {
namespace {

constexpr size_t kPeriod = 511;

// One period of the sequence p_i = p_(i-5) xor p_(i-9), p_(-1..-9) = 1.
const std::vector<uint8_t>& Period() {
    static const std::vector<uint8_t> period = [] {
        std::vector<uint8_t> p(kPeriod + 9, 1);  // p[0..8] hold p_(-9) .. p_(-1)
        for (size_t i = 9; i < p.size(); ++i) p[i] = p[i - 5] ^ p[i - 9];
        return std::vector<uint8_t>(p.begin() + 9, p.end());
    }();
    return period;
}

}  // namespace

std::vector<uint8_t> DispersalSequence(size_t count) {
    std::vector<uint8_t> out(count);
    const std::vector<uint8_t>& p = Period();
    for (size_t i = 0; i < count; ++i) out[i] = p[i % kPeriod];
    return out;
}

void DisperseBits(uint8_t* bits, size_t count) {
    const std::vector<uint8_t>& p = Period();
    for (size_t start = 0; start < count; start += kPeriod) {
        const size_t n = std::min(kPeriod, count - start);
        for (size_t i = 0; i < n; ++i) bits[start + i] ^= p[i];
    }
}

}  // namespace gen
