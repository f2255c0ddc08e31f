#include "imaging/brightness.h"

#include <cstddef>

namespace imaging {

bool MeasureBrightness(const ImageDescriptor &image, std::uint32_t &mean) {
    const std::uint32_t rowStep = image.height / 31;
    const std::uint32_t columnStep = image.width / 41;
    if (rowStep == 0 || columnStep == 0 || !HoldsRows(image, image.width, image.stride, image.height))
        return false;

    std::uint64_t sum = 0;
    std::uint32_t count = 0;
    for (std::uint32_t y = rowStep; y < image.height; y += rowStep) {
        const std::uint8_t *row = image.data + static_cast<std::size_t>(y) * image.stride;
        for (std::uint32_t x = columnStep; x < image.width; x += columnStep, ++count)
            sum += row[x];
    }
    mean = static_cast<std::uint32_t>(sum / count);
    return true;
}

} // namespace imaging
