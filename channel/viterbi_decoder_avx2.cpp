// AVX2 kernel of the Viterbi decoder: the 64 byte metrics in two registers.
// Only called when the processor reports AVX2.
#include "channel/viterbi_decoder.h"

#if defined(__x86_64__) || defined(_M_X64)

#include <immintrin.h>

namespace mvdab {

// Same butterflies as the SSE2 kernel, all 32 at once: low = states 0..31,
// high = states 32..63, cost C_j for j = 0..31 in one register. The byte
// interleave works within 128-bit lanes, giving states [0..15 | 32..47] and
// [16..31 | 48..63]; one lane exchange puts them back in order.
void RunViterbiAvx2(const SoftWord* words, int32_t count, uint64_t* decisions) {
    const __m256i sixty = _mm256_set1_epi8(60);
    __m256i low = _mm256_setzero_si256();
    __m256i high = low;
    const uint8_t* highTable = &kViterbiHighByteCosts.cost[0][0];
    const uint8_t* lowTable = &kViterbiLowByteCosts.cost[0][0];
    for (int32_t t = 0; t < count; ++t) {
        const uint32_t word = words[t];
        const __m256i cost = _mm256_add_epi8(
            _mm256_load_si256(reinterpret_cast<const __m256i*>(highTable + (word >> 8) * 32)),
            _mm256_load_si256(reinterpret_cast<const __m256i*>(lowTable + (word & 255) * 32)));
        const __m256i other = _mm256_sub_epi8(sixty, cost);

        const __m256i evenSecond = _mm256_adds_epu8(high, other);
        const __m256i even = _mm256_min_epu8(_mm256_adds_epu8(low, cost), evenSecond);
        const __m256i oddSecond = _mm256_adds_epu8(high, cost);
        const __m256i odd = _mm256_min_epu8(_mm256_adds_epu8(low, other), oddSecond);

        const uint32_t evenBits = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(even, evenSecond)));
        const uint32_t oddBits = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(odd, oddSecond)));
        decisions[t] = evenBits | (static_cast<uint64_t>(oddBits) << 32);

        const __m256i first = _mm256_unpacklo_epi8(even, odd);   // states 0..15 | 32..47
        const __m256i second = _mm256_unpackhi_epi8(even, odd);  // states 16..31 | 48..63
        low = _mm256_permute2x128_si256(first, second, 0x20);
        high = _mm256_permute2x128_si256(first, second, 0x31);

        // State 47 is the top byte of the lower lane of `high`.
        if ((_mm_extract_epi16(_mm256_castsi256_si128(high), 7) >> 8) > 150) {
            __m128i smallest = _mm_min_epu8(_mm256_castsi256_si128(_mm256_min_epu8(low, high)),
                                            _mm256_extracti128_si256(_mm256_min_epu8(low, high), 1));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 8));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 4));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 2));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 1));
            const __m256i spread = _mm256_broadcastb_epi8(smallest);
            low = _mm256_sub_epi8(low, spread);
            high = _mm256_sub_epi8(high, spread);
        }
    }
}

}  // namespace mvdab

#endif
