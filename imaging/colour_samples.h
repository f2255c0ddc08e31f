// Colour samples of a Bayer image, and what automatic white balance and exposure of a colour camera want to know of
// them.
#pragma once

#include "imaging/image.h"

#include <cstddef>

namespace imaging {

struct ColourSample {
    std::uint8_t red;
    std::uint8_t green;
    std::uint8_t blue;
};

inline constexpr std::uint32_t kMaximumColourSamples = 1500;
inline constexpr std::uint32_t kColourLevels = 256;

// How many samples have each level of a channel. Balancing takes the means of the same samples with many gains; over a
// histogram each costs one product per level instead of one per sample.
struct ColourHistograms {
    std::uint16_t red[kColourLevels];
    std::uint16_t green[kColourLevels];
    std::uint16_t blue[kColourLevels];
};

// The samples of one image, in a buffer of fixed size: the samples first, their number behind the last there can be.
struct ColourSamples {
    ColourSample sample[kMaximumColourSamples];
    std::uint32_t count;
    ColourHistograms histograms; // of the samples
    std::uint8_t unused[6248];
};
static_assert(sizeof(ColourSample) == 3 && offsetof(ColourSamples, count) == 4500 && sizeof(ColourSamples) == 12288);

// Samples a mosaic on a grid of some 30 x 40 cells of 2 x 2 pixels and counts the histograms. The phase is that of the
// image's FOURCC. Cells that reach outside the image are left out, and so is everything beyond the 1500th sample. No
// samples of an image that is narrower than 41 or lower than 31 pixels or whose rows are not inside its buffer.
void SampleColours(const ImageDescriptor &image, ColourSamples &samples);

// Counts the histograms of samples that did not come from SampleColours. A count above 1500 is taken as 1500.
void CountColours(ColourSamples &samples);

// White-balance gains in units of 1/64. Any value may be given; it is clamped to 0..255 where it is used.
struct ColourGains {
    std::int32_t red;
    std::int32_t green;
    std::int32_t blue;

    friend bool operator==(const ColourGains &, const ColourGains &) = default;
};

// 0 to 255 each.
struct ColourMeans {
    std::int32_t red;
    std::int32_t green;
    std::int32_t blue;

    friend bool operator==(const ColourMeans &, const ColourMeans &) = default;
};

// The means of the samples, rounded down, each sample amplified and cut off at 255 as in the conversion. All 0 without
// samples.
ColourMeans MeanColours(const ColourSamples &samples, const ColourGains &gains);

// The means through a colour matrix, with the rounding of the scalar conversion.
ColourMeans CorrectMeans(const ColourMeans &means, const std::int16_t (&matrix)[kMatrixCoefficients]);

constexpr std::int32_t Luminance(const ColourMeans &means) {
    return (76 * means.red + 150 * means.green + 29 * means.blue) >> 8;
}

} // namespace imaging
