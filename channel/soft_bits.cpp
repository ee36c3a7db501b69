#include "channel/soft_bits.h"

#include <array>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
    int32_t i = 0;
#if defined(__SSE2__)
    // FicSoftNibble sixteen values at a time, without branches: a clean FIC
    // value saturates about half the time, which the branches of the
    // single-value form mispredict. A NaN becomes -1 (nibble 8), then y is
    // clipped to -8..7, where 7 - floor gives 15..0 exactly as the bounds do.
    const __m128 scale = _mm_set1_ps(softBitMode == 1 ? 8.0f : 16.0f);
    const __m128 half = _mm_set1_ps(0.5f);
    const __m128 minusOne = _mm_set1_ps(-1.0f);
    const __m128 upper = _mm_set1_ps(7.0f);
    const __m128 lower = _mm_set1_ps(-8.0f);
    const __m128i seven = _mm_set1_epi32(7);
    const auto four = [&](const float* x) {
        const __m128 y = _mm_sub_ps(_mm_mul_ps(scale, _mm_loadu_ps(x)), half);
        const __m128 ordered = _mm_cmpord_ps(y, y);
        __m128 c = _mm_or_ps(_mm_and_ps(ordered, y), _mm_andnot_ps(ordered, minusOne));
        c = _mm_max_ps(_mm_min_ps(c, upper), lower);
        const __m128i t = _mm_cvttps_epi32(c);
        // floor: one lower where truncation rounded up (the mask is -1 there).
        const __m128i roundedUp = _mm_castps_si128(_mm_cmpgt_ps(_mm_cvtepi32_ps(t), c));
        return _mm_sub_epi32(seven, _mm_add_epi32(t, roundedUp));
    };
    for (; i + 16 <= count; i += 16) {
        const __m128i low = _mm_packs_epi32(four(values + i), four(values + i + 4));
        const __m128i high = _mm_packs_epi32(four(values + i + 8), four(values + i + 12));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(nibbles + i), _mm_packus_epi16(low, high));
    }
#endif
    for (; i < count; ++i) nibbles[i] = FicSoftNibble(values[i], softBitMode);
}

}  // namespace mvdab
