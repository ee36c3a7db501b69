#include "generator/ofdm_modulator.h"

#include <array>
#include <cmath>
#include <cstring>
#include <numbers>

namespace gen {
namespace {

// Phase reference: carrier k sends exp(j pi/2 (h[i][k - k'] + n)), with
// (k', i, n) from the row of the mode's table that holds k. Rows are 32
// carriers wide, k' is the row's first carrier, and they tile -K/2 .. -1 and
// then 1 .. K/2, so only (i, n) per row needs to be written down.
constexpr uint8_t kH[4][32] = {
    {0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1, 0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1},
    {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0, 0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0},
    {0, 0, 0, 2, 0, 2, 1, 3, 2, 2, 0, 2, 2, 0, 1, 3, 0, 0, 0, 2, 0, 2, 1, 3, 2, 2, 0, 2, 2, 0, 1, 3},
    {0, 1, 2, 1, 0, 3, 3, 2, 2, 3, 2, 1, 2, 1, 3, 2, 0, 1, 2, 1, 0, 3, 3, 2, 2, 3, 2, 1, 2, 1, 3, 2},
};

struct PhaseRow {
    uint8_t i;  // row of h
    uint8_t n;  // quarter turns added
};

// Rows in carrier order, from k = -K/2 upwards.
constexpr PhaseRow kRowsMode1[48] = {
    {0, 1}, {1, 2}, {2, 0}, {3, 1}, {0, 3}, {1, 2}, {2, 2}, {3, 3}, {0, 2}, {1, 1}, {2, 2}, {3, 3},
    {0, 1}, {1, 2}, {2, 3}, {3, 3}, {0, 2}, {1, 2}, {2, 2}, {3, 1}, {0, 1}, {1, 3}, {2, 1}, {3, 2},
    {0, 3}, {3, 1}, {2, 1}, {1, 1}, {0, 2}, {3, 2}, {2, 1}, {1, 0}, {0, 2}, {3, 2}, {2, 3}, {1, 3},
    {0, 0}, {3, 2}, {2, 1}, {1, 3}, {0, 3}, {3, 3}, {2, 3}, {1, 0}, {0, 3}, {3, 0}, {2, 1}, {1, 1}};
constexpr PhaseRow kRowsMode2[12] = {{0, 2}, {1, 3}, {2, 2}, {3, 2}, {0, 1}, {1, 2},
                                     {2, 0}, {1, 2}, {0, 2}, {3, 1}, {2, 0}, {1, 3}};
constexpr PhaseRow kRowsMode3[6] = {{0, 2}, {1, 3}, {2, 0}, {3, 2}, {2, 2}, {1, 2}};
constexpr PhaseRow kRowsMode4[24] = {{0, 0}, {1, 1}, {2, 1}, {3, 2}, {0, 2}, {1, 2}, {2, 0}, {3, 3},
                                     {0, 3}, {1, 1}, {2, 3}, {3, 2}, {0, 0}, {3, 1}, {2, 0}, {1, 2},
                                     {0, 0}, {3, 1}, {2, 2}, {1, 2}, {0, 2}, {3, 1}, {2, 3}, {1, 0}};
constexpr const PhaseRow* kRows[4] = {kRowsMode1, kRowsMode2, kRowsMode3, kRowsMode4};

constexpr int kMaxCarriers = 1536;

struct ModeTables {
    // Quarter turns of the phase reference per carrier slot: slot s is
    // carrier k = s - K/2 for s < K/2 and k = s - K/2 + 1 above.
    std::array<uint8_t, kMaxCarriers> phaseReference{};
    // Carrier slot of the n-th QPSK symbol.
    std::array<int16_t, kMaxCarriers> slotOfSymbol{};
};

constexpr int SlotOfCarrier(int k, int carriers) { return k < 0 ? k + carriers / 2 : k + carriers / 2 - 1; }
constexpr int CarrierOfSlot(int s, int carriers) { return s < carriers / 2 ? s - carriers / 2 : s - carriers / 2 + 1; }

constexpr ModeTables BuildTables(int mode) {
    const ModeGeometry& g = kModeGeometry[mode - 1];
    const int k2 = g.carriers / 2;
    ModeTables t;
    for (int s = 0; s < g.carriers; ++s) {
        const int k = CarrierOfSlot(s, g.carriers);
        // Row index and its first carrier k'.
        const int row = k < 0 ? (k + k2) / 32 : k2 / 32 + (k - 1) / 32;
        const int kFirst = k < 0 ? -k2 + 32 * row : 1 + 32 * (row - k2 / 32);
        const PhaseRow r = kRows[mode - 1][row];
        t.phaseReference[static_cast<size_t>(s)] = static_cast<uint8_t>((kH[r.i][k - kFirst] + r.n) % 4);
    }
    // Frequency interleaving: PI(0) = 0, PI(i) = (13 PI(i-1) + N/4 - 1) mod N;
    // the values inside the occupied band, centre excluded, in order of i.
    const int n = g.fftSize;
    int pi = 0, kept = 0;
    for (int i = 0; i < n; ++i) {
        if (i > 0) pi = (13 * pi + n / 4 - 1) % n;
        if (pi >= (n - g.carriers) / 2 && pi <= (n + g.carriers) / 2 && pi != n / 2)
            t.slotOfSymbol[static_cast<size_t>(kept++)] = static_cast<int16_t>(SlotOfCarrier(pi - n / 2, g.carriers));
    }
    return t;
}

constexpr ModeTables kTables[4] = {BuildTables(1), BuildTables(2), BuildTables(3), BuildTables(4)};

// exp(j pi m / 4) for m = 0 .. 7, exact on the axes.
constexpr double kR = 0.70710678118654752440;
constexpr std::complex<double> kEighthTurns[8] = {{1, 0}, {kR, kR}, {0, 1}, {-kR, kR}, {-1, 0}, {-kR, -kR}, {0, -1}, {kR, -kR}};

// QPSK point ((1-2 re) + j (1-2 im)) / sqrt(2) in eighth turns, indexed re + 2 im.
constexpr uint8_t kQpskEighths[4] = {1, 3, 7, 5};

int ModeIndex(int mode) { return (mode >= 1 && mode <= 4) ? mode - 1 : 0; }

}  // namespace

int PhaseReferenceQuarterTurns(int mode, int k) {
    const ModeGeometry& g = gen::Geometry(mode);
    if (k == 0 || k < -g.carriers / 2 || k > g.carriers / 2) return -1;
    return kTables[ModeIndex(mode)].phaseReference[static_cast<size_t>(SlotOfCarrier(k, g.carriers))];
}

int InterleavedCarrier(int mode, int n) {
    const ModeGeometry& g = gen::Geometry(mode);
    if (n < 0 || n >= g.carriers) return 0;
    return CarrierOfSlot(kTables[ModeIndex(mode)].slotOfSymbol[static_cast<size_t>(n)], g.carriers);
}

OfdmModulator::OfdmModulator(int mode) : geometry_(gen::Geometry(mode)) {
    const int n = geometry_.fftSize;
    phase_.resize(static_cast<size_t>(geometry_.carriers));
    bins_.resize(static_cast<size_t>(n));
    twiddles_.resize(static_cast<size_t>(n / 2));
    for (int m = 0; m < n / 2; ++m) {
        const double a = 2.0 * std::numbers::pi * m / n;
        twiddles_[static_cast<size_t>(m)] = {std::cos(a), std::sin(a)};
    }
    int log2n = 0;
    while ((1 << log2n) < n) ++log2n;
    bitReverse_.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        uint32_t r = 0;
        for (int b = 0; b < log2n; ++b)
            if (i & (1 << b)) r |= 1u << (log2n - 1 - b);
        bitReverse_[static_cast<size_t>(i)] = r;
    }
}

OfdmModulator::~OfdmModulator() = default;

double OfdmModulator::MeanFramePower() const {
    return static_cast<double>(geometry_.symbolsPerFrame) * geometry_.symbolSamples / geometry_.frameSamples;
}

// In-place radix-2 inverse DFT of bins_ (exp(+j 2 pi k n / N), unscaled),
// then the symbol with its cyclic prefix, scaled by 1/sqrt(K), into `out`.
void OfdmModulator::InverseDft(std::complex<float>* out) {
    const size_t n = bins_.size();
    for (size_t i = 0; i < n; ++i)
        if (bitReverse_[i] > i) std::swap(bins_[i], bins_[bitReverse_[i]]);
    for (size_t half = 1; half < n; half *= 2) {
        const size_t stride = n / (2 * half);
        for (size_t start = 0; start < n; start += 2 * half) {
            for (size_t j = 0; j < half; ++j) {
                const std::complex<double> t = bins_[start + j + half] * twiddles_[j * stride];
                bins_[start + j + half] = bins_[start + j] - t;
                bins_[start + j] += t;
            }
        }
    }
    const double scale = 1.0 / std::sqrt(static_cast<double>(geometry_.carriers));
    const size_t guard = static_cast<size_t>(geometry_.guardSamples);
    for (size_t i = 0; i < guard; ++i) out[i] = std::complex<float>(bins_[n - guard + i] * scale);
    for (size_t i = 0; i < n; ++i) out[guard + i] = std::complex<float>(bins_[i] * scale);
}

void OfdmModulator::ModulateFrame(const uint8_t* bits, std::complex<float>* out) {
    const ModeGeometry& g = geometry_;
    const ModeTables& t = kTables[ModeIndex(g.mode)];
    const int k = g.carriers;
    const int n = g.fftSize;
    if (recording_) recorded_.assign(bits, bits + g.DataBitsPerFrame());

    std::memset(static_cast<void*>(out), 0, sizeof(std::complex<float>) * static_cast<size_t>(g.nullSamples));
    out += g.nullSamples;

    // Phases are kept in eighth turns: the reference symbol has multiples of
    // two, every QPSK symbol adds an odd number, so the differential product
    // is exact and carriers stay at magnitude 1 however long the frame.
    for (int s = 0; s < k; ++s) phase_[static_cast<size_t>(s)] = static_cast<uint8_t>(2 * t.phaseReference[static_cast<size_t>(s)]);

    for (int l = 1; l <= g.symbolsPerFrame; ++l) {
        if (l >= 2) {
            const uint8_t* p = bits + static_cast<size_t>(l - 2) * static_cast<size_t>(2 * k);
            for (int q = 0; q < k; ++q) {
                const int index = (p[q] != 0) + 2 * (p[q + k] != 0);
                uint8_t& ph = phase_[static_cast<size_t>(t.slotOfSymbol[static_cast<size_t>(q)])];
                ph = static_cast<uint8_t>((ph + kQpskEighths[index]) & 7);
            }
        }
        std::fill(bins_.begin(), bins_.end(), std::complex<double>(0, 0));
        for (int s = 0; s < k; ++s) {
            const int carrier = CarrierOfSlot(s, k);
            bins_[static_cast<size_t>((carrier + n) % n)] = kEighthTurns[phase_[static_cast<size_t>(s)]];
        }
        InverseDft(out);
        out += g.symbolSamples;
    }
}

}  // namespace gen
