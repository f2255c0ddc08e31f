// Grey images to "Y800" and "RGB3", scalar and in vectors.
//
// Smoothing is a 2 x 2 mean of each pixel with its right and upper neighbours: it removes the pattern of a colour
// filter from a mosaic read as grey, at the price of half a pixel's shift. The first row is not smoothed, the last
// column neither. The vector forms round each of the two halves of the mean up; they work on the first `width` - 16
// columns rounded up to a multiple of 16 and leave the rest of a row to the scalar formula.
#pragma once

#include "imaging/image.h"

#include <cstddef>

namespace imaging {

// Two buffers of the same size. A negative step writes bottom-up.
struct GreyRows {
    std::uint32_t width;  // pixels
    std::uint32_t height; // rows
    std::uint8_t *destination;
    std::ptrdiff_t destinationStep; // bytes
    const std::uint8_t *source;
    std::ptrdiff_t sourceStep; // bytes
};

// Grey to grey: writes rows 1 and up. The aligned form needs destination and step at multiples of 16.
void SmoothGrey(const GreyRows &rows);
void SmoothGreyAligned(const GreyRows &rows);
void SmoothGreyUnaligned(const GreyRows &rows);

// Grey to three equal bytes. All forms give the same result.
void ExpandGreyToRgb24(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown);
void ExpandGreyToRgb24Sse2(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown);
void ExpandGreyToRgb24Ssse3(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown);

// Smoothed grey to three equal bytes: row 0 only expanded, the others smoothed first.
void SmoothGreyToRgb24(const GreyRows &rows);
void SmoothGreyToRgb24Sse2(const GreyRows &rows);
void SmoothGreyToRgb24Ssse3(const GreyRows &rows);

} // namespace imaging
