// The brightness of every pixel of a delivered frame.
#pragma once

#include "apps/uvcam/picture.h"

#include "imaging/image.h"

#include <cstdint>
#include <span>
#include <vector>

namespace uvcam {

class Luminance {
  public:
    explicit Luminance(const PixelLayout &layout) : layout_(layout) {}

    // An 8-bit image that lives until the next call; a raw mosaic counts as it is. Rows go from top to bottom.
    // Throws Failure for a layout that cannot be shown or a frame that is too short for it.
    imaging::ImageDescriptor Of(std::span<const std::uint8_t> frame);

  private:
    const PixelLayout layout_;
    std::vector<std::uint8_t> pixels_;
};

} // namespace uvcam
