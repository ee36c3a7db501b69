#include "generator/fic_encoder.h"

#include <cstring>

#include "generator/conv_encoder.h"
#include "generator/energy_dispersal_prbs.h"
#include "generator/fib_crc.h"

namespace gen {

int FibsPerCif(int mode) { return mode == 3 ? 4 : 3; }

std::vector<PunctureRun> FicPuncturing(int mode) {
    return {{mode == 3 ? 29 : 21, 16}, {3, 15}};
}

int FicBlockBits(int mode) { return static_cast<int>(PuncturedLength(FicPuncturing(mode))); }

void EncodeFicBlock(const uint8_t* fibs, int mode, std::vector<uint8_t>& out) {
    const size_t bytes = static_cast<size_t>(FibsPerCif(mode) * kFibBytes);
    std::vector<uint8_t> bits(8 * bytes);
    for (size_t i = 0; i < bytes; ++i)
        for (int b = 0; b < 8; ++b) bits[8 * i + b] = (fibs[i] >> (7 - b)) & 1;
    DisperseBits(bits.data(), bits.size());
    std::vector<uint8_t> mother;
    ConvEncode(bits.data(), bits.size(), mother);
    Puncture(mother, FicPuncturing(mode), out);
}

void FibScheduler::SetCarousel(std::vector<Fig> figs) {
    if (figs.size() != carousel_.size()) next_ = 0;
    carousel_ = std::move(figs);
}

void FibScheduler::BuildGroup(const Fig& ensembleInformation, uint8_t* fibs) {
    for (int f = 0; f < fibsPerGroup_; ++f) {
        uint8_t* fib = fibs + f * kFibBytes;
        std::memset(fib, 0, kFibBytes);
        size_t used = 0;
        if (f == 0) {
            std::memcpy(fib, ensembleInformation.data(), ensembleInformation.size());
            used = ensembleInformation.size();
        }
        // Each carousel FIG at most once per FIB.
        for (size_t placed = 0; placed < carousel_.size(); ++placed) {
            const Fig& fig = carousel_[next_];
            if (used + fig.size() > static_cast<size_t>(kFibDataBytes)) break;
            std::memcpy(fib + used, fig.data(), fig.size());
            used += fig.size();
            next_ = (next_ + 1) % carousel_.size();
        }
        if (used < static_cast<size_t>(kFibDataBytes)) fib[used] = 0xFF;  // end marker, zeros follow
        SealFib(fib);
    }
}

}  // namespace gen
