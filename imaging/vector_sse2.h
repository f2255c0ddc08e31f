// Vector operations of the SSE2 set: selections by masks, shuffles by shifts and unpacking.
#pragma once

#include "imaging/vector_common.h"

namespace imaging::sse2 {

struct VectorSet : CommonVector<VectorSet> {
    // mask ? a : b; the bytes of the mask are all ones or zero.
    IMAGING_INLINE Vector Select(Vector mask, Vector a, Vector b) {
        return _mm_xor_si128(b, _mm_and_si128(mask, _mm_xor_si128(a, b)));
    }

    // The bytes one place further on, with the last byte of `before` in front.
    IMAGING_INLINE Vector ShiftIn(Vector before, Vector a) {
        return _mm_or_si128(_mm_slli_si128(a, 1), _mm_srli_si128(before, 15));
    }

    // Divides 32 bytes into those at even and at odd places.
    IMAGING_INLINE void Divide(Vector a, Vector b, Vector &even, Vector &odd) {
        const Vector lower = _mm_set1_epi16(0x00FF);
        even = _mm_packus_epi16(_mm_and_si128(a, lower), _mm_and_si128(b, lower));
        odd = _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
    }

    // Writes eight triples of words: p0 q0 s0 p1 q1 s1 ... Two triples are three double words, so the words are paired
    // first and the pairs of three vectors interleaved then.
    IMAGING_INLINE void StoreTriples(std::uint8_t *to, Vector p, Vector q, Vector s) {
        const Vector lower = _mm_set1_epi32(0x0000FFFF);
        const __m128 x = _mm_castsi128_ps(_mm_or_si128(_mm_and_si128(p, lower), _mm_slli_epi32(q, 16)));
        const __m128 y = _mm_castsi128_ps(_mm_or_si128(_mm_and_si128(s, lower), _mm_andnot_si128(lower, p)));
        const __m128 z = _mm_castsi128_ps(_mm_or_si128(_mm_srli_epi32(q, 16), _mm_andnot_si128(lower, s)));
        const __m128 xy = _mm_shuffle_ps(x, y, _MM_SHUFFLE(2, 0, 2, 0)); // x0 x2 y0 y2
        const __m128 yz = _mm_shuffle_ps(y, z, _MM_SHUFFLE(3, 1, 3, 1)); // y1 y3 z1 z3
        const __m128 zx = _mm_shuffle_ps(z, x, _MM_SHUFFLE(3, 1, 2, 0)); // z0 z2 x1 x3
        Store(to, _mm_castps_si128(_mm_shuffle_ps(xy, zx, _MM_SHUFFLE(2, 0, 2, 0))));
        Store(to + 16, _mm_castps_si128(_mm_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0))));
        Store(to + 32, _mm_castps_si128(_mm_shuffle_ps(zx, yz, _MM_SHUFFLE(3, 1, 3, 1))));
    }
};

} // namespace imaging::sse2
