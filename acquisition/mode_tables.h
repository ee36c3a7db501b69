// Constant tables of the four transmission modes, computed at compile time
// from the broadcast standard's rules: the phase of every carrier of the phase
// reference symbol, and the frequency de-interleaving order.
//
// Both tables hold the four modes back to back in the order I, II, III, IV
// (1536 + 384 + 192 + 768 = 2880 entries); kModeCarrierOffset gives the start
// of a mode's slice.
#pragma once

#include <array>
#include <cstdint>

namespace mvdab {

constexpr int32_t kAllModesCarriers = 2880;
constexpr int32_t kModeCarrierOffset[4] = {0, 1536, 1920, 2112};
constexpr int32_t kModeFftSize[4] = {2048, 512, 256, 1024};
constexpr int32_t kModeCarriers[4] = {1536, 384, 192, 768};

// ---------------------------------------------------------------------------
// Phase reference symbol. Carrier k carries e^(j*pi/2*(h[i][k-k'] + n)), with
// (k', i, n) from the row of the mode's block table that holds k. Every row
// spans 32 carriers starting at k'; the rows tile -K/2..-1 and then 1..K/2.

constexpr uint8_t kPhaseH[4][32] = {
    {0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1, 0, 2, 0, 0, 0, 0, 1, 1, 2, 0, 0, 0, 2, 2, 1, 1},
    {0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0, 0, 3, 2, 3, 0, 1, 3, 0, 2, 1, 2, 3, 2, 3, 3, 0},
    {0, 0, 0, 2, 0, 2, 1, 3, 2, 2, 0, 2, 2, 0, 1, 3, 0, 0, 0, 2, 0, 2, 1, 3, 2, 2, 0, 2, 2, 0, 1, 3},
    {0, 1, 2, 1, 0, 3, 3, 2, 2, 3, 2, 1, 2, 1, 3, 2, 0, 1, 2, 1, 0, 3, 3, 2, 2, 3, 2, 1, 2, 1, 3, 2},
};

struct PhaseBlock {
    int16_t firstCarrier;  // k' = lowest carrier of the block
    uint8_t row;           // i, row of kPhaseH
    uint8_t offset;        // n, added to the h value, units of pi/2
};

constexpr PhaseBlock kPhaseBlocksModeI[48] = {
    {-768, 0, 1}, {-736, 1, 2}, {-704, 2, 0}, {-672, 3, 1}, {-640, 0, 3}, {-608, 1, 2},
    {-576, 2, 2}, {-544, 3, 3}, {-512, 0, 2}, {-480, 1, 1}, {-448, 2, 2}, {-416, 3, 3},
    {-384, 0, 1}, {-352, 1, 2}, {-320, 2, 3}, {-288, 3, 3}, {-256, 0, 2}, {-224, 1, 2},
    {-192, 2, 2}, {-160, 3, 1}, {-128, 0, 1}, {-96, 1, 3},  {-64, 2, 1},  {-32, 3, 2},
    {1, 0, 3},    {33, 3, 1},   {65, 2, 1},   {97, 1, 1},   {129, 0, 2},  {161, 3, 2},
    {193, 2, 1},  {225, 1, 0},  {257, 0, 2},  {289, 3, 2},  {321, 2, 3},  {353, 1, 3},
    {385, 0, 0},  {417, 3, 2},  {449, 2, 1},  {481, 1, 3},  {513, 0, 3},  {545, 3, 3},
    {577, 2, 3},  {609, 1, 0},  {641, 0, 3},  {673, 3, 0},  {705, 2, 1},  {737, 1, 1},
};
constexpr PhaseBlock kPhaseBlocksModeII[12] = {
    {-192, 0, 2}, {-160, 1, 3}, {-128, 2, 2}, {-96, 3, 2}, {-64, 0, 1}, {-32, 1, 2},
    {1, 2, 0},    {33, 1, 2},   {65, 0, 2},   {97, 3, 1},  {129, 2, 0}, {161, 1, 3},
};
constexpr PhaseBlock kPhaseBlocksModeIII[6] = {
    {-96, 0, 2}, {-64, 1, 3}, {-32, 2, 0}, {1, 3, 2}, {33, 2, 2}, {65, 1, 2},
};
constexpr PhaseBlock kPhaseBlocksModeIV[24] = {
    {-384, 0, 0}, {-352, 1, 1}, {-320, 2, 1}, {-288, 3, 2}, {-256, 0, 2}, {-224, 1, 2},
    {-192, 2, 0}, {-160, 3, 3}, {-128, 0, 3}, {-96, 1, 1},  {-64, 2, 3},  {-32, 3, 2},
    {1, 0, 0},    {33, 3, 1},   {65, 2, 0},   {97, 1, 2},   {129, 0, 0},  {161, 3, 1},
    {193, 2, 2},  {225, 1, 2},  {257, 0, 2},  {289, 3, 1},  {321, 2, 3},  {353, 1, 0},
};

// Fills out[0..2K-1] (carrier order -K/2..-1, 1..K/2) from a block table.
// False if the blocks do not tile the carrier range exactly.
template <int32_t Blocks>
constexpr bool FillPhaseSlice(const PhaseBlock (&blocks)[Blocks], int32_t carriers, uint8_t* out) {
    if (Blocks * 32 != carriers) return false;
    int32_t expected = -carriers / 2;
    for (int32_t b = 0; b < Blocks; ++b) {
        const PhaseBlock& block = blocks[b];
        if (block.firstCarrier != expected || block.row > 3 || block.offset > 3) return false;
        for (int32_t j = 0; j < 32; ++j) {
            out[32 * b + j] = static_cast<uint8_t>((kPhaseH[block.row][j] + block.offset) % 4);
        }
        expected += 32;
        if (expected == 0) expected = 1;  // the centre carrier is not used
    }
    return expected == carriers / 2 + 1;
}

// Builds all four slices into `table`; false if a block table is malformed.
constexpr bool BuildPhaseReferenceTable(std::array<uint8_t, kAllModesCarriers>& table) {
    return FillPhaseSlice(kPhaseBlocksModeI, 1536, table.data() + kModeCarrierOffset[0]) &&
           FillPhaseSlice(kPhaseBlocksModeII, 384, table.data() + kModeCarrierOffset[1]) &&
           FillPhaseSlice(kPhaseBlocksModeIII, 192, table.data() + kModeCarrierOffset[2]) &&
           FillPhaseSlice(kPhaseBlocksModeIV, 768, table.data() + kModeCarrierOffset[3]);
}
constexpr std::array<uint8_t, kAllModesCarriers> PhaseReferenceTable() {
    std::array<uint8_t, kAllModesCarriers> table{};
    BuildPhaseReferenceTable(table);
    return table;
}
constexpr bool PhaseBlocksWellFormed() {
    std::array<uint8_t, kAllModesCarriers> table{};
    return BuildPhaseReferenceTable(table);
}
static_assert(PhaseBlocksWellFormed(), "phase block tables must tile the carriers of each mode");

// Phase of every carrier in units of pi/2 (0..3 for 1, j, -1, -j).
inline constexpr std::array<uint8_t, kAllModesCarriers> kPhaseReferenceTable = PhaseReferenceTable();

// ---------------------------------------------------------------------------
// Frequency interleaving: Pi(0) = 0, Pi(i) = (13 Pi(i-1) + N/4 - 1) mod N. The
// values of Pi in order that lie in (N-K)/2..(N+K)/2 and are not N/2 are d_n;
// element n of a symbol sits on carrier k = d_n - N/2. The table holds, for
// each n, the float offset of carrier k in a K-carrier buffer without the
// centre carrier: 2(k + K/2) for k < 0, 2(k + K/2 - 1) for k > 0.

constexpr bool FillDeinterleaveSlice(int32_t fftSize, int32_t carriers, int32_t* out) {
    int32_t kept = 0;
    int32_t pi = 0;
    for (int32_t i = 0; i < fftSize; ++i) {
        if (i > 0) pi = (13 * pi + fftSize / 4 - 1) % fftSize;
        if (pi < (fftSize - carriers) / 2 || pi > (fftSize + carriers) / 2 || pi == fftSize / 2) continue;
        if (kept == carriers) return false;
        const int32_t k = pi - fftSize / 2;
        out[kept++] = k < 0 ? 2 * (k + carriers / 2) : 2 * (k + carriers / 2 - 1);
    }
    return kept == carriers;
}

constexpr bool BuildFrequencyDeinterleaveTable(std::array<int32_t, kAllModesCarriers>& table) {
    bool ok = true;
    for (int32_t m = 0; m < 4; ++m) {
        ok = FillDeinterleaveSlice(kModeFftSize[m], kModeCarriers[m], table.data() + kModeCarrierOffset[m]) && ok;
    }
    return ok;
}
constexpr std::array<int32_t, kAllModesCarriers> FrequencyDeinterleaveTable() {
    std::array<int32_t, kAllModesCarriers> table{};
    BuildFrequencyDeinterleaveTable(table);
    return table;
}
constexpr bool InterleavingKeepsEveryCarrier() {
    std::array<int32_t, kAllModesCarriers> table{};
    return BuildFrequencyDeinterleaveTable(table);
}
static_assert(InterleavingKeepsEveryCarrier(), "frequency interleaving must keep exactly K carriers");

// Float offset into a carrier-order buffer of element n of a symbol.
inline constexpr std::array<int32_t, kAllModesCarriers> kFrequencyDeinterleaveTable =
    FrequencyDeinterleaveTable();

}  // namespace mvdab
