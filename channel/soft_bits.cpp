#include "channel/soft_bits.h"

#include <array>
#include <cstring>

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

#if defined(__SSE2__)
namespace {

// One scale of soft_bits.h on four values: offset - floor(y) with y = scale x
// + add clipped to lower..upper, and nanFloor in place of floor(y) for a NaN.
// Clipping y is the same as comparing it with the bounds, and inside them
// floor is truncation, one lower where truncation rounded up.
struct VectorScale {
    __m128 scale, add, lower, upper, nanFloor;
    __m128i offset;
};

VectorScale MakeScale(float scale, float add, float lower, float upper, float nanFloor, int32_t offset) {
    return {_mm_set1_ps(scale), _mm_set1_ps(add),      _mm_set1_ps(lower),
            _mm_set1_ps(upper), _mm_set1_ps(nanFloor), _mm_set1_epi32(offset)};
}

inline __m128i ScaleFour(const VectorScale& v, const float* x) {
    const __m128 y = _mm_add_ps(_mm_mul_ps(v.scale, _mm_loadu_ps(x)), v.add);
    const __m128 ordered = _mm_cmpord_ps(y, y);
    __m128 c = _mm_max_ps(_mm_min_ps(y, v.upper), v.lower);
    c = _mm_or_ps(_mm_and_ps(ordered, c), _mm_andnot_ps(ordered, v.nanFloor));
    const __m128i t = _mm_cvttps_epi32(c);
    const __m128i roundedUp = _mm_castps_si128(_mm_cmpgt_ps(_mm_cvtepi32_ps(t), c));  // -1 there
    return _mm_sub_epi32(v.offset, _mm_add_epi32(t, roundedUp));
}

// Sixteen results of ScaleFour as bytes (every result lies in 0..64).
inline void ScaleSixteen(const VectorScale& v, const float* x, uint8_t* out) {
    const __m128i low = _mm_packs_epi32(ScaleFour(v, x), ScaleFour(v, x + 4));
    const __m128i high = _mm_packs_epi32(ScaleFour(v, x + 8), ScaleFour(v, x + 12));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(low, high));
}

}  // namespace
#endif

// The conversions below give the nibbles of FicSoftNibble and MscSoftNibble,
// sixteen at a time where SSE2 is there and without branches: a clean value
// saturates often, which the branches of the single-value forms mispredict.

void ConvertFicSoftBits(const float* values, int32_t count, uint8_t softBitMode, uint8_t* nibbles) {
    if (values == nullptr || nibbles == nullptr) return;
    int32_t i = 0;
#if defined(__SSE2__)
    // floor(y) = -1 gives the neutral 8 for a NaN.
    const VectorScale v = MakeScale(softBitMode == 1 ? 8.0f : 16.0f, -0.5f, -8.0f, 7.0f, -1.0f, 7);
    for (; i + 16 <= count; i += 16) ScaleSixteen(v, values + i, nibbles + i);
#endif
    for (; i < count; ++i) nibbles[i] = FicSoftNibble(values[i], softBitMode);
}

void ConvertMscSoftBits(const float* values, int32_t count, uint8_t softBitMode, const uint8_t* softBitMap,
                        uint8_t* nibbles) {
    if (values == nullptr || nibbles == nullptr || softBitMap == nullptr) return;
    int32_t i = 0;
#if defined(__SSE2__)
    if (softBitMode == 1) {
        // floor(y) = 0 gives 8 for a NaN.
        const VectorScale v = MakeScale(8.0f, 0.5f, -7.0f, 8.0f, 0.0f, 8);
        for (; i + 16 <= count; i += 16) ScaleSixteen(v, values + i, nibbles + i);
    } else {
        // Map indices 0..63; a NaN gets index 64, the neutral 8 behind the
        // map. Adding 0 to 32 x changes no floor.
        uint8_t map[65];
        std::memcpy(map, softBitMap, 64);
        map[64] = 8;
        const VectorScale v = MakeScale(32.0f, 0.0f, -32.0f, 31.0f, -33.0f, 31);
        alignas(16) uint8_t index[16];
        for (; i + 16 <= count; i += 16) {
            ScaleSixteen(v, values + i, index);
            for (int32_t j = 0; j < 16; ++j) nibbles[i + j] = map[index[j]];
        }
    }
#endif
    for (; i < count; ++i) nibbles[i] = MscSoftNibble(values[i], softBitMode, softBitMap);
}

}  // namespace mvdab
