// The SSE2 forms.
#include "imaging/grey_rows.h"
#include "imaging/vector_sse2.h"

namespace imaging {
namespace {

struct GreyVectors : sse2::VectorSet {
    static constexpr bool kHasVectors = true;

    // Two pixels are three words: the first twice, both, the second twice.
    IMAGING_INLINE void StoreTripled(std::uint8_t *to, Vector values) {
        const Vector lower = _mm_set1_epi16(0x00FF);
        const Vector first = _mm_or_si128(_mm_and_si128(values, lower), _mm_slli_epi16(values, 8));
        const Vector second = _mm_or_si128(_mm_andnot_si128(lower, values), _mm_srli_epi16(values, 8));
        StoreTriples(to, first, values, second);
    }
};

} // namespace

void SmoothGreyAligned(const GreyRows &rows) {
    GreyKernels<GreyVectors>::SmoothRows<GreyOutput<GreyVectors, true>>(rows);
}

void SmoothGreyUnaligned(const GreyRows &rows) {
    GreyKernels<GreyVectors>::SmoothRows<GreyOutput<GreyVectors, false>>(rows);
}

void ExpandGreyToRgb24Sse2(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown) {
    GreyKernels<GreyVectors>::Expand(destination, source, topDown);
}

void SmoothGreyToRgb24Sse2(const GreyRows &rows) {
    GreyKernels<GreyVectors>::SmoothToRgb24(rows);
}

} // namespace imaging
