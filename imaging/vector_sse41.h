// Vector operations of the SSE4.1 set: blends, byte shuffles and byte alignment. Only for files compiled for SSE4.1.
#pragma once

#include "imaging/vector_common.h"

#include <smmintrin.h>

namespace imaging::sse41 {

struct VectorSet : CommonVector<VectorSet> {
    // mask ? a : b; the bytes of the mask are all ones or zero.
    IMAGING_INLINE Vector Select(Vector mask, Vector a, Vector b) { return _mm_blendv_epi8(b, a, mask); }

    // The bytes one place further on, with the last byte of `before` in front.
    IMAGING_INLINE Vector ShiftIn(Vector before, Vector a) { return _mm_alignr_epi8(a, before, 15); }

    // Divides 32 bytes into those at even and at odd places.
    IMAGING_INLINE void Divide(Vector a, Vector b, Vector &even, Vector &odd) {
        const Vector evenThenOdd = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
        const Vector c = _mm_shuffle_epi8(a, evenThenOdd);
        const Vector d = _mm_shuffle_epi8(b, evenThenOdd);
        even = _mm_unpacklo_epi64(c, d);
        odd = _mm_unpackhi_epi64(c, d);
    }

    // Writes eight triples of words: p0 q0 s0 p1 q1 s1 ... Three and eight have no common divisor, so word k of p goes
    // to place 3k mod 8 whichever of the three stores it belongs to: one shuffle a vector, then blends.
    IMAGING_INLINE void StoreTriples(std::uint8_t *to, Vector p, Vector q, Vector s) {
        p = _mm_shuffle_epi8(p, _mm_setr_epi8(0, 1, 6, 7, 12, 13, 2, 3, 8, 9, 14, 15, 4, 5, 10, 11));
        q = _mm_shuffle_epi8(q, _mm_setr_epi8(10, 11, 0, 1, 6, 7, 12, 13, 2, 3, 8, 9, 14, 15, 4, 5));
        s = _mm_shuffle_epi8(s, _mm_setr_epi8(4, 5, 10, 11, 0, 1, 6, 7, 12, 13, 2, 3, 8, 9, 14, 15));
        Store(to, BlendThirds(p, q, s));
        Store(to + 16, BlendThirds(s, p, q));
        Store(to + 32, BlendThirds(q, s, p));
    }

  private:
    // Words 0, 3 and 6 of a, 1, 4 and 7 of b, 2 and 5 of c.
    IMAGING_INLINE Vector BlendThirds(Vector a, Vector b, Vector c) {
        return _mm_blend_epi16(_mm_blend_epi16(a, b, 0x92), c, 0x24);
    }
};

} // namespace imaging::sse41
