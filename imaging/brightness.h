// The brightness of an 8-bit image, for the automatic exposure.
#pragma once

#include "imaging/image.h"

namespace imaging {

// The mean, 0 to 255, of the samples on a grid: rows height / 31, 2 * (height / 31) and so on, columns width / 41,
// 2 * (width / 41) and so on, some 30 x 40 to 60 x 80 samples. False, and `mean` as it was, for an image that is
// narrower than 41 or lower than 31 pixels, where the grid has no step, or whose rows are not inside its buffer.
bool MeasureBrightness(const ImageDescriptor &image, std::uint32_t &mean);

} // namespace imaging
