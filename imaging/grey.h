// Grey images to "Y800" and "RGB3", scalar and in vectors.
//
// Smoothing is the mean of a pixel and its neighbours above, right and above right: it removes the pattern of a colour
// filter from a mosaic read as grey, at the price of half a pixel's shift. The first row is not smoothed, the last
// column neither. The scalar formula rounds down. The vector forms take the mean of two means and round each of the
// three up; they work on whole vectors as long as a column is left behind them, and leave the rest of a row, 1 to 16
// columns, to the scalar formula.
#pragma once

#include "imaging/image.h"

#include <cstddef>

namespace imaging {

// Rows of `width` pixels in two buffers. A negative step writes bottom-up.
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
