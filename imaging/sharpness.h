// How sharp a part of an 8-bit image is, for the autofocus.
#pragma once

#include "imaging/image.h"

namespace imaging {

// Pixels.
struct Region {
    std::int32_t x;
    std::int32_t y;
    std::int32_t width;
    std::int32_t height;

    friend bool operator==(const Region &, const Region &) = default;
};

inline constexpr std::uint32_t kTileSize = 128;

// Looks at some seven rows and seven columns of the region, evenly spaced, and adds for each the largest step between
// two neighbouring blocks that slide along it. A block is 8 x 4 pixels and counts with twice its mean, so that a step
// from black to white is 510. Along columns the blocks slide as far as the region is wide. 0 for a region narrower than
// 17 pixels or not inside the image; blocks that would reach outside the image are left out.
std::int32_t SharpnessScore(const ImageDescriptor &image, const Region &region);

// The tile of 128 x 128 pixels of which itself and its neighbours have the highest sum of scores; the first in row
// order among equals. The tiles are centred in the image. False, and `region` as it was, for an image that has no tile,
// that is wider than 128 tiles or whose rows are not inside its buffer.
bool ChooseRegion(const ImageDescriptor &image, Region &region);

} // namespace imaging
