// The scalar forms: no vector step, so that every pixel takes the exact formula.
#include "imaging/grey_rows.h"

namespace imaging {
namespace {

struct NoVectors {
    static constexpr bool kHasVectors = false;
};

} // namespace

void SmoothGrey(const GreyRows &rows) {
    GreyKernels<NoVectors>::SmoothRows<GreyOutput<NoVectors, false>>(rows);
}

void ExpandGreyToRgb24(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown) {
    GreyKernels<NoVectors>::Expand(destination, source, topDown);
}

void SmoothGreyToRgb24(const GreyRows &rows) {
    GreyKernels<NoVectors>::SmoothToRgb24(rows);
}

} // namespace imaging
