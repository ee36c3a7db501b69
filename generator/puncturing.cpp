#include "generator/puncturing.h"

namespace gen {
namespace {

constexpr uint32_t kVectors[24] = {
    0xC8888888, 0xC888C888, 0xC8C8C888, 0xC8C8C8C8, 0xCCC8C8C8, 0xCCC8CCC8, 0xCCCCCCC8, 0xCCCCCCCC,
    0xECCCCCCC, 0xECCCECCC, 0xECECECCC, 0xECECECEC, 0xEEECECEC, 0xEEECEEEC, 0xEEEEEEEC, 0xEEEEEEEE,
    0xFEEEEEEE, 0xFEEEFEEE, 0xFEFEFEEE, 0xFEFEFEFE, 0xFFFEFEFE, 0xFFFEFFFE, 0xFFFFFFFE, 0xFFFFFFFF,
};

}  // namespace

uint32_t PuncturingVector(int pi) { return (pi >= 1 && pi <= 24) ? kVectors[pi - 1] : 0; }

size_t PuncturedLength(const std::vector<PunctureRun>& runs) {
    size_t n = 12;
    for (const PunctureRun& r : runs) n += static_cast<size_t>(4 * r.blocks * (r.pi + 8));
    return n;
}

bool Puncture(const std::vector<uint8_t>& mother, const std::vector<PunctureRun>& runs, std::vector<uint8_t>& out) {
    size_t blocks = 0;
    for (const PunctureRun& r : runs) {
        if (r.blocks < 0 || r.pi < 1 || r.pi > 24) return false;
        blocks += static_cast<size_t>(r.blocks);
    }
    if (mother.size() != blocks * 128 + 24) return false;
    const uint8_t* m = mother.data();
    for (const PunctureRun& r : runs) {
        const uint32_t v = kVectors[r.pi - 1];
        for (int g = 0; g < 4 * r.blocks; ++g, m += 32)
            for (int j = 0; j < 32; ++j)
                if ((v >> (31 - j)) & 1) out.push_back(m[j]);
    }
    for (int j = 0; j < 24; ++j)
        if ((kTailVector >> (23 - j)) & 1) out.push_back(m[j]);
    return true;
}

}  // namespace gen
