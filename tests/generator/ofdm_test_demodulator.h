// A known-timing OFDM demodulator for tests of the transmitter, written
// separately from the modulator: its own DFT (recursive, forward) and its own
// frequency interleaving from the rule. Given a frame that starts exactly at
// `frame[0]` (null symbol first), it returns the hard channel bits of every
// data symbol in the frame_bits.h layout, and the carriers of the phase
// reference symbol.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <cstdint>
#include <vector>

#include "generator/frame_bits.h"

namespace ofdmtest {

using cd = std::complex<double>;

// Forward DFT X_k = sum x_n exp(-j 2 pi k n / N), N a power of two.
inline void Dft(std::vector<cd>& x) {
    const size_t n = x.size();
    if (n == 1) return;
    std::vector<cd> even(n / 2), odd(n / 2);
    for (size_t i = 0; i < n / 2; ++i) {
        even[i] = x[2 * i];
        odd[i] = x[2 * i + 1];
    }
    Dft(even);
    Dft(odd);
    for (size_t k = 0; k < n / 2; ++k) {
        const cd t = std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(n)) * odd[k];
        x[k] = even[k] + t;
        x[k + n / 2] = even[k] - t;
    }
}

class TestDemodulator {
public:
    explicit TestDemodulator(int mode) : g_(gen::Geometry(mode)) {
        const int n = g_.fftSize;
        int pi = 0;
        for (int i = 0; i < n; ++i) {
            if (i > 0) pi = (13 * pi + n / 4 - 1) % n;
            if (pi >= (n - g_.carriers) / 2 && pi <= (n + g_.carriers) / 2 && pi != n / 2) carrierOf_.push_back(pi - n / 2);
        }
    }

    const gen::ModeGeometry& Geometry() const { return g_; }

    // Carriers of symbol l (1 = phase reference) at bin k, k in -N/2 .. N/2-1.
    std::vector<cd> SymbolBins(const std::complex<float>* frame, int l) const {
        const size_t start = static_cast<size_t>(g_.nullSamples + (l - 1) * g_.symbolSamples + g_.guardSamples);
        std::vector<cd> x(static_cast<size_t>(g_.fftSize));
        for (size_t i = 0; i < x.size(); ++i) x[i] = cd(frame[start + i]);
        Dft(x);
        return x;
    }

    cd Bin(const std::vector<cd>& bins, int k) const { return bins[static_cast<size_t>((k + g_.fftSize) % g_.fftSize)]; }

    // Hard bits of the data symbols l = 2 .. L by differential detection.
    std::vector<uint8_t> DemodulateFrame(const std::complex<float>* frame) const {
        const int k = g_.carriers;
        std::vector<uint8_t> bits(static_cast<size_t>(g_.DataBitsPerFrame()));
        std::vector<cd> previous = SymbolBins(frame, 1);
        for (int l = 2; l <= g_.symbolsPerFrame; ++l) {
            std::vector<cd> current = SymbolBins(frame, l);
            uint8_t* p = &bits[static_cast<size_t>((l - 2) * 2 * k)];
            for (int n = 0; n < k; ++n) {
                const int c = carrierOf_[static_cast<size_t>(n)];
                const cd d = Bin(current, c) * std::conj(Bin(previous, c));
                p[n] = d.real() < 0;
                p[n + k] = d.imag() < 0;
            }
            previous.swap(current);
        }
        return bits;
    }

private:
    const gen::ModeGeometry& g_;
    std::vector<int> carrierOf_;
};

inline size_t CountDifferences(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    size_t d = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) d += (a[i] != 0) != (b[i] != 0);
    return d;
}

}  // namespace ofdmtest
