// The SSSE3 forms: three byte shuffles triple a vector.
#include "imaging/grey_rows.h"
#include "imaging/vector_common.h"

#include <tmmintrin.h>

namespace imaging {
namespace {

struct GreyVectors : CommonVector<GreyVectors> {
    static constexpr bool kHasVectors = true;

    IMAGING_INLINE void StoreTripled(std::uint8_t *to, Vector values) {
        Store(to, _mm_shuffle_epi8(values, _mm_setr_epi8(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5)));
        Store(to + 16, _mm_shuffle_epi8(values, _mm_setr_epi8(5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10)));
        Store(to + 32,
              _mm_shuffle_epi8(values, _mm_setr_epi8(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15)));
    }
};

} // namespace

void ExpandGreyToRgb24Ssse3(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown) {
    GreyKernels<GreyVectors>::Expand(destination, source, topDown);
}

void SmoothGreyToRgb24Ssse3(const GreyRows &rows) {
    GreyKernels<GreyVectors>::SmoothToRgb24(rows);
}

} // namespace imaging
