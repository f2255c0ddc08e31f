// Which part of the sensor a frame shows, and how finely: docs/camera-protocol.md.
#pragma once

#include <algorithm>
#include <cstdint>

namespace host::cameras {

struct Extent {
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    friend bool operator==(const Extent &, const Extent &) = default;
};

// The frame begins at (x, y) of the unbinned sensor; each of its pixels is binning x binning sensor pixels of one
// colour. Offsets are even multiples of the binning, so that the colour pattern stays.
struct Region {
    std::uint32_t binning = 1;
    std::uint32_t x = 0;
    std::uint32_t y = 0;

    friend bool operator==(const Region &, const Region &) = default;
};

constexpr bool LiesOn(Extent sensor, Extent frame, const Region &region) {
    return region.x + frame.width * region.binning <= sensor.width &&
           region.y + frame.height * region.binning <= sensor.height;
}

// The largest of 1, 2 and 4, up to `limit`, with which the frame lies on the sensor; 1 for one that is too large.
constexpr std::uint32_t LargestBinning(Extent sensor, Extent frame, std::uint32_t limit) {
    for (std::uint32_t binning = 4; binning > 1; binning /= 2)
        if (binning <= limit && LiesOn(sensor, frame, {.binning = binning}))
            return binning;
    return 1;
}

// The offset next to `wanted` (at or below it) with which `length` binned pixels lie on a side of the sensor.
constexpr std::uint32_t FitOffset(std::uint32_t side, std::uint32_t length, std::uint32_t binning,
                                  std::uint32_t wanted) {
    const std::uint32_t used = length * binning;
    const std::uint32_t room = side > used ? side - used : 0;
    return std::min(wanted, room) / (2 * binning) * (2 * binning);
}

// Where a sensor pixel goes when the sensor is binned. On a colour sensor each block of 2 x binning pixels a side
// becomes one group of two by two, each the sum of its own colour.
constexpr std::uint32_t BinnedPlace(std::uint32_t place, std::uint32_t binning, bool colour) {
    return colour ? place / (2 * binning) * 2 + place % 2 : place / binning;
}

} // namespace host::cameras
