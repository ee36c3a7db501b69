#include "generator/time_interleaver.h"

#include <cstring>

namespace gen {

int InterleaverDelay(int r) {
    return ((r & 1) << 3) | ((r & 2) << 1) | ((r & 4) >> 1) | ((r & 8) >> 3);
}

TimeInterleaver::TimeInterleaver(size_t codewordBits) : bits_(codewordBits), history_(16 * codewordBits, 0) {}

void TimeInterleaver::Process(const uint8_t* codeword, uint8_t* out) {
    const unsigned slot = cif_ % 16;
    std::memcpy(&history_[slot * bits_], codeword, bits_);
    for (int r = 0; r < 16; ++r) {
        const unsigned from = (slot + 16 - static_cast<unsigned>(InterleaverDelay(r))) % 16;
        const uint8_t* src = &history_[from * bits_];
        for (size_t i = static_cast<size_t>(r); i < bits_; i += 16) out[i] = src[i];
    }
    ++cif_;
}

}  // namespace gen
