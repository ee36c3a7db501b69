// SSE2 kernel of the Viterbi decoder: the 64 byte metrics in four registers.
#include "channel/viterbi_decoder.h"

#if defined(__x86_64__) || defined(_M_X64)

#include <emmintrin.h>

namespace mvdab {

// Per step, for the butterflies j = 0..15 (metrics m0 = states 0..15 with
// m2 = states 32..47) and j = 16..31 (m1 with m3):
//   new[2j]     = min(old[j] + C_j,      old[j + 32] + 60 - C_j)
//   new[2j + 1] = min(old[j] + 60 - C_j, old[j + 32] + C_j)
// with saturating adds; the decision is "second not larger" (min == second).
// Interleaving the even and odd results restores state order.
void RunViterbiSse2(const SoftWord* words, int32_t count, uint64_t* decisions) {
    const __m128i sixty = _mm_set1_epi8(60);
    __m128i m0 = _mm_setzero_si128();
    __m128i m1 = m0;
    __m128i m2 = m0;
    __m128i m3 = m0;
    const uint8_t* high = &kViterbiHighByteCosts.cost[0][0];
    const uint8_t* low = &kViterbiLowByteCosts.cost[0][0];
    for (int32_t t = 0; t < count; ++t) {
        const uint32_t word = words[t];
        const uint8_t* highRow = high + (word >> 8) * 32;
        const uint8_t* lowRow = low + (word & 255) * 32;
        const __m128i costA = _mm_add_epi8(_mm_load_si128(reinterpret_cast<const __m128i*>(highRow)),
                                           _mm_load_si128(reinterpret_cast<const __m128i*>(lowRow)));
        const __m128i costB = _mm_add_epi8(_mm_load_si128(reinterpret_cast<const __m128i*>(highRow + 16)),
                                           _mm_load_si128(reinterpret_cast<const __m128i*>(lowRow + 16)));
        const __m128i otherA = _mm_sub_epi8(sixty, costA);
        const __m128i otherB = _mm_sub_epi8(sixty, costB);

        const __m128i evenSecondA = _mm_adds_epu8(m2, otherA);
        const __m128i evenA = _mm_min_epu8(_mm_adds_epu8(m0, costA), evenSecondA);
        const __m128i oddSecondA = _mm_adds_epu8(m2, costA);
        const __m128i oddA = _mm_min_epu8(_mm_adds_epu8(m0, otherA), oddSecondA);
        const __m128i evenSecondB = _mm_adds_epu8(m3, otherB);
        const __m128i evenB = _mm_min_epu8(_mm_adds_epu8(m1, costB), evenSecondB);
        const __m128i oddSecondB = _mm_adds_epu8(m3, costB);
        const __m128i oddB = _mm_min_epu8(_mm_adds_epu8(m1, otherB), oddSecondB);

        const uint32_t evenBits =
            static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(evenA, evenSecondA))) |
            (static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(evenB, evenSecondB))) << 16);
        const uint32_t oddBits =
            static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(oddA, oddSecondA))) |
            (static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(oddB, oddSecondB))) << 16);
        decisions[t] = evenBits | (static_cast<uint64_t>(oddBits) << 32);

        m0 = _mm_unpacklo_epi8(evenA, oddA);
        m1 = _mm_unpackhi_epi8(evenA, oddA);
        m2 = _mm_unpacklo_epi8(evenB, oddB);
        m3 = _mm_unpackhi_epi8(evenB, oddB);

        // State 47 is the top byte of m2.
        if ((_mm_extract_epi16(m2, 7) >> 8) > 150) {
            __m128i smallest = _mm_min_epu8(_mm_min_epu8(m0, m1), _mm_min_epu8(m2, m3));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 8));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 4));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 2));
            smallest = _mm_min_epu8(smallest, _mm_srli_si128(smallest, 1));
            // Spread byte 0 over all 16 bytes.
            smallest = _mm_unpacklo_epi8(smallest, smallest);
            smallest = _mm_shufflelo_epi16(smallest, 0);
            smallest = _mm_shuffle_epi32(smallest, 0);
            m0 = _mm_sub_epi8(m0, smallest);
            m1 = _mm_sub_epi8(m1, smallest);
            m2 = _mm_sub_epi8(m2, smallest);
            m3 = _mm_sub_epi8(m3, smallest);
        }
    }
}

}  // namespace mvdab

#endif
