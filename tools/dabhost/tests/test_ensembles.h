// Small ensembles for dabhost's tests, built as FIC frames with the FIG
// writer of the parser's tests.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/ficparse/tests/fig_writer.h"

namespace hosttest {

using figwriter::Bytes;

// One mode I frame (12 FIBs, all CRCs good) holding `figs`, padded with
// empty FIBs; returns the bytes, and the flags through `flags`.
inline Bytes ModeIFrame(const std::vector<Bytes>& figs, int32_t* flags, uint16_t goodMask = 0xFFF) {
    std::vector<Bytes> fibs = figwriter::PackFibs(figs);
    while (fibs.size() < 12) fibs.push_back(figwriter::Fib({}));
    Bytes frame;
    for (const Bytes& fib : fibs) frame.insert(frame.end(), fib.begin(), fib.end());
    *flags = (goodMask << 4) | 1;
    return frame;
}

// The multiplex description of an ensemble 0xCE15 with two audio services
// on sub-channels 1 and 2; `labels` adds the ensemble and service labels.
inline std::vector<Bytes> TwoServiceFigs(bool ensembleLabel, bool serviceLabels) {
    std::vector<Bytes> figs = {
        figwriter::Fig00(0xCE15, 0, false, 0, 10),
        figwriter::Fig01({{1, 0, false, 26, 0, 0, 0}, {2, 70, true, 0, 0, 3, 48}}),
        figwriter::Fig02({{0xC221, 0, {{0, 0, 1, true, false}}}, {0xC222, 0, {{0, 63, 2, true, false}}}}, false),
    };
    if (ensembleLabel) figs.push_back(figwriter::Fig1(0, 0xCE15, "Test Mux", 0xFF00));
    if (serviceLabels) {
        figs.push_back(figwriter::Fig1(1, 0xC221, "First", 0xF800));
        figs.push_back(figwriter::Fig1(1, 0xC222, "Second", 0xFC00));
    }
    return figs;
}

}  // namespace hosttest
