// The vector operations that SSE2 already has. `Set` is the instruction set's class, which derives from this and adds
// the others. As a parameter it also gives every set its own copies, so that the linker can never put code compiled for
// one in the place of another's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <emmintrin.h>

#define IMAGING_INLINE [[gnu::always_inline]] static inline

namespace imaging {

template <class Set> struct CommonVector {
    using Vector = __m128i; // sixteen bytes or eight words

    IMAGING_INLINE Vector Load(const void *from) { return _mm_loadu_si128(static_cast<const __m128i *>(from)); }
    IMAGING_INLINE Vector LoadAligned(const void *from) { return _mm_load_si128(static_cast<const __m128i *>(from)); }
    // Sixteen bytes of which the last two are those at x - 1 and x; nothing in front of the row is read.
    IMAGING_INLINE Vector EndingWith(const std::uint8_t *row, std::uint32_t x) {
        const int word = row[x] << 8 | (x == 0 ? 0 : row[x - 1]);
        return _mm_insert_epi16(_mm_setzero_si128(), word, 7);
    }
    IMAGING_INLINE void Store(void *to, Vector a) { _mm_storeu_si128(static_cast<__m128i *>(to), a); }

    IMAGING_INLINE void StoreAligned(void *to, Vector a) { _mm_store_si128(static_cast<__m128i *>(to), a); }

    // (a + b + 1) >> 1 of each byte.
    IMAGING_INLINE Vector Average(Vector a, Vector b) { return _mm_avg_epu8(a, b); }
    IMAGING_INLINE Vector Difference(Vector a, Vector b) {
        return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
    }
    // All ones in the bytes where a <= b.
    IMAGING_INLINE Vector AtMost(Vector a, Vector b) { return _mm_cmpeq_epi8(_mm_min_epu8(a, b), a); }

    IMAGING_INLINE Vector Maximum(Vector a, Vector b) { return _mm_max_epu8(a, b); }
    IMAGING_INLINE Vector BroadcastByte(std::uint8_t byte) { return _mm_set1_epi8(static_cast<char>(byte)); }

    // A word in all eight lanes.
    IMAGING_INLINE Vector Broadcast(std::uint16_t word) { return _mm_set1_epi16(static_cast<short>(word)); }

    // Divides 32 bytes into those at even and at odd places, multiplied by gains in 1/64 and saturated. The byte in the
    // upper half of a word and the gain four times as large leave sample x gain >> 6 in the upper half of the product.
    IMAGING_INLINE void DivideWithGains(Vector a, Vector b, Vector evenGain, Vector oddGain, Vector &even,
                                        Vector &odd) {
        const Vector upper = _mm_set1_epi16(static_cast<short>(0xFF00));
        const Vector evenFactor = _mm_slli_epi16(evenGain, 2);
        const Vector oddFactor = _mm_slli_epi16(oddGain, 2);
        even = _mm_packus_epi16(_mm_mulhi_epu16(_mm_slli_epi16(a, 8), evenFactor),
                                _mm_mulhi_epu16(_mm_slli_epi16(b, 8), evenFactor));
        odd = _mm_packus_epi16(_mm_mulhi_epu16(_mm_and_si128(a, upper), oddFactor),
                               _mm_mulhi_epu16(_mm_and_si128(b, upper), oddFactor));
    }

    // a x factorA + b x factorB + own x factorOwn >> 6 of each byte, saturated to a byte. The factors are vectors in
    // memory. Products are cut to 16 bits; the sum of a and b is saturated, then the whole sum; the shift is
    // arithmetic.
    IMAGING_INLINE Vector WeightedSum(Vector a, const std::uint16_t *factorA, Vector b, const std::uint16_t *factorB,
                                      Vector own, const std::uint16_t *factorOwn) {
        const Vector zero = _mm_setzero_si128();
        const auto weigh = [=](Vector wordsA, Vector wordsB, Vector wordsOwn) __attribute__((always_inline)) {
            const Vector others = _mm_adds_epi16(_mm_mullo_epi16(wordsA, LoadAligned(factorA)),
                                                 _mm_mullo_epi16(wordsB, LoadAligned(factorB)));
            return _mm_srai_epi16(_mm_adds_epi16(others, _mm_mullo_epi16(wordsOwn, LoadAligned(factorOwn))), 6);
        };
        return _mm_packus_epi16(
            weigh(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero), _mm_unpacklo_epi8(own, zero)),
            weigh(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero), _mm_unpackhi_epi8(own, zero)));
    }

    // Sixteen pixels, a vector for each component.
    struct Pixels {
        Vector blue;
        Vector green;
        Vector red;
    };

    // Writes 16 pairs of a first and a second pixel, four bytes a pixel, the fourth of them zero.
    IMAGING_INLINE void StoreRgb32(std::uint8_t *to, const Pixels &first, const Pixels &second) {
        const Vector zero = _mm_setzero_si128();
        StoreRgb32Half(to, _mm_unpacklo_epi8(first.blue, second.blue), _mm_unpacklo_epi8(first.green, second.green),
                       _mm_unpacklo_epi8(first.red, second.red), zero);
        StoreRgb32Half(to + 64, _mm_unpackhi_epi8(first.blue, second.blue),
                       _mm_unpackhi_epi8(first.green, second.green), _mm_unpackhi_epi8(first.red, second.red), zero);
    }

    // The same with three bytes a pixel. A pair is three words: blue and green of the first pixel, its red
    // with the second's blue, green and red of the second.
    IMAGING_INLINE void StoreRgb24(std::uint8_t *to, const Pixels &first, const Pixels &second) {
        Set::StoreTriples(to, _mm_unpacklo_epi8(first.blue, first.green), _mm_unpacklo_epi8(first.red, second.blue),
                          _mm_unpacklo_epi8(second.green, second.red));
        Set::StoreTriples(to + 48, _mm_unpackhi_epi8(first.blue, first.green),
                          _mm_unpackhi_epi8(first.red, second.blue), _mm_unpackhi_epi8(second.green, second.red));
    }

  private:
    IMAGING_INLINE void StoreRgb32Half(std::uint8_t *to, Vector blue, Vector green, Vector red, Vector zero) {
        const Vector lowBlueGreen = _mm_unpacklo_epi8(blue, green);
        const Vector highBlueGreen = _mm_unpackhi_epi8(blue, green);
        const Vector lowRed = _mm_unpacklo_epi8(red, zero);
        const Vector highRed = _mm_unpackhi_epi8(red, zero);
        Store(to, _mm_unpacklo_epi16(lowBlueGreen, lowRed));
        Store(to + 16, _mm_unpackhi_epi16(lowBlueGreen, lowRed));
        Store(to + 32, _mm_unpacklo_epi16(highBlueGreen, highRed));
        Store(to + 48, _mm_unpackhi_epi16(highBlueGreen, highRed));
    }
};

} // namespace imaging
