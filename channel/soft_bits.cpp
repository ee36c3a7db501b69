#include "channel/soft_bits.h"

#include <array>

namespace mvdab {

namespace {

// The default map as runs of equal nibbles: {last index of the run, nibble}.
struct MapRun {
    int32_t lastIndex;
    uint8_t nibble;
};
constexpr MapRun kSoftBitMapRuns[] = {
    {17, 0}, {21, 1}, {23, 2}, {25, 3}, {27, 4}, {28, 5}, {29, 6}, {30, 7}, {32, 8},
    {33, 9}, {34, 10}, {35, 11}, {37, 12}, {39, 13}, {43, 14}, {63, 15},
};

constexpr std::array<uint8_t, 64> BuildSoftBitMap() {
    std::array<uint8_t, 64> map{};
    int32_t index = 0;
    for (const MapRun& run : kSoftBitMapRuns)
        for (; index <= run.lastIndex; ++index) map[index] = run.nibble;
    return map;
}
constexpr std::array<uint8_t, 64> kSoftBitMapArray = BuildSoftBitMap();

// The map rises from 0 to 15 and puts x = 0 (index 31) on 8.
constexpr bool SoftBitMapSound() {
    for (int32_t i = 1; i < 64; ++i)
        if (kSoftBitMapArray[i] < kSoftBitMapArray[i - 1]) return false;
    return kSoftBitMapArray[0] == 0 && kSoftBitMapArray[31] == 8 && kSoftBitMapArray[63] == 15;
}
static_assert(SoftBitMapSound(), "soft bit map");

}  // namespace

const std::array<uint8_t, 64> kDefaultSoftBitMap = kSoftBitMapArray;

void ConvertFicSoftBits(const float* values, int32_t count, uint8_t softBitMode, uint8_t* nibbles) {
    if (values == nullptr || nibbles == nullptr) return;
    for (int32_t i = 0; i < count; ++i) nibbles[i] = FicSoftNibble(values[i], softBitMode);
}

}  // namespace mvdab
