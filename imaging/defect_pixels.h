// Correction of a sensor's defective pixels, before the image is converted.
#pragma once

#include "imaging/image.h"

namespace imaging {

struct DefectPixel {
    std::uint16_t x;
    std::uint16_t y;
};

inline constexpr std::uint32_t kMaximumDefectPixels = 256;

// A count above 256 is taken as 256.
struct DefectPixelList {
    std::uint32_t count;
    DefectPixel pixels[kMaximumDefectPixels];
};
static_assert(sizeof(DefectPixelList) == 1028);

// One list for each binning factor, in coordinates of the sensor binned so.
struct DefectPixelLists {
    DefectPixelList full;
    DefectPixelList binned2;
    DefectPixelList binned4;
};
static_assert(sizeof(DefectPixelLists) == 3084);

// Replaces each listed pixel by the mean, rounded down, of four neighbours in its row: two and four columns away in a
// mosaic, where those between have another colour, one and two columns away in a grey image. Other formats stay as they
// are. The image shows the part of the sensor that begins at (x0, y0). The outer four columns of the image are never
// corrected, and pixels are corrected in the order of the list, each from what the earlier ones left. An image whose
// rows are not inside its buffer is left alone.
void CorrectDefects(const ImageDescriptor &image, const DefectPixelList &list, std::uint32_t x0, std::uint32_t y0);

// The same with the list for a binning factor: 2 and 4 have their own, any other takes that of the full sensor. The
// offsets of the image are in pixels of the full sensor; a factor of 0 does not divide them.
void CorrectDefects(const ImageDescriptor &image, const DefectPixelLists &lists, std::uint32_t binning,
                    std::uint32_t offsetX, std::uint32_t offsetY);

} // namespace imaging
