// The FIC of the multiplex: FIGs packed into FIBs, one FIB group per CIF
// (3 FIBs, 4 in mode III), each group coded on its own as one FIC coding
// block: energy dispersal, mother code with tail, puncturing (runs of PI 16
// then 3 blocks of PI 15, then the tail vector).
#pragma once

#include <cstdint>
#include <vector>

#include "generator/fib_crc.h"
#include "generator/fig_writer.h"
#include "generator/puncturing.h"

namespace gen {

// FIBs per CIF and the puncturing of a FIC coding block, by mode 1..4.
int FibsPerCif(int mode);
std::vector<PunctureRun> FicPuncturing(int mode);
// Coded bits of one FIC coding block: 2304, or 3072 in mode III.
int FicBlockBits(int mode);

// Codes a FIB group (FibsPerCif x 32 bytes) into FicBlockBits bits (appended).
void EncodeFicBlock(const uint8_t* fibs, int mode, std::vector<uint8_t>& out);

// Fills FIBs from a carousel of FIGs. Every group starts with the ensemble
// information; the rest of the group takes carousel FIGs in turn, a FIB
// closing when the next one does not fit. Unused bytes: end marker 0xFF then
// 0x00 padding.
class FibScheduler {
public:
    explicit FibScheduler(int mode) : fibsPerGroup_(FibsPerCif(mode)) {}
    // The FIGs sent in turn from now on; the turn carries on where it was
    // when the list keeps its length.
    void SetCarousel(std::vector<Fig> figs);
    // Writes one FIB group (FibsPerCif x 32 bytes, CRCs included).
    void BuildGroup(const Fig& ensembleInformation, uint8_t* fibs);

private:
    int fibsPerGroup_;
    std::vector<Fig> carousel_;
    size_t next_ = 0;  // carousel FIG to send next
};

}  // namespace gen
