#include "imaging/defect_pixels.h"

#include <cstddef>

namespace imaging {
namespace {

constexpr std::uint32_t kMargin = 4; // columns, so that all neighbours are in the row

// The distance to the nearer neighbour, half of that to the farther one; 0 for formats that are not corrected.
std::ptrdiff_t NeighbourDistance(std::uint32_t fourcc) {
    switch (fourcc) {
    case kFourCcBayerBg:
    case kFourCcBayerGb:
    case kFourCcBayerGr:
    case kFourCcBayerRg:
    case kFourCcBayer8:
        return 2;
    case kFourCcGrey8:
        return 1;
    default:
        return 0;
    }
}

} // namespace

void CorrectDefects(const ImageDescriptor &image, const DefectPixelList &list, std::uint32_t x0, std::uint32_t y0) {
    const std::ptrdiff_t distance = NeighbourDistance(image.fourcc);
    if (distance == 0 || image.width <= 2 * kMargin || !HoldsRows(image, image.width, image.stride, image.height))
        return;

    const std::uint32_t count = list.count > kMaximumDefectPixels ? kMaximumDefectPixels : list.count;
    for (std::uint32_t i = 0; i < count; ++i) {
        const DefectPixel pixel = list.pixels[i];
        if (pixel.x < x0 || pixel.y < y0)
            continue;
        const std::uint32_t x = pixel.x - x0;
        const std::uint32_t y = pixel.y - y0;
        if (x < kMargin || x >= image.width - kMargin || y >= image.height)
            continue;
        std::uint8_t *p = image.data + static_cast<std::size_t>(y) * image.stride + x;
        *p = static_cast<std::uint8_t>((p[-2 * distance] + p[2 * distance] + p[-distance] + p[distance]) >> 2);
    }
}

void CorrectDefects(const ImageDescriptor &image, const DefectPixelLists &lists, std::uint32_t binning,
                    std::uint32_t offsetX, std::uint32_t offsetY) {
    const std::uint32_t divisor = binning == 0 ? 1 : binning;
    const DefectPixelList &list = binning == 2 ? lists.binned2 : binning == 4 ? lists.binned4 : lists.full;
    CorrectDefects(image, list, offsetX / divisor, offsetY / divisor);
}

} // namespace imaging
