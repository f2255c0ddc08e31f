#include "imaging/colour_samples.h"

#include "imaging/demosaic.h"

namespace imaging {
namespace {

// Where a cell has its colours: 0 its first row, 1 the one below; 0 its first column, 1 the one right of it.
struct Site {
    std::uint8_t row;
    std::uint8_t column;
};

struct Cell {
    Site red;
    Site green; // of the two greens the one in the first row
    Site blue;
};

// By the parities of the cell's place, row first, counted from a green pixel in a blue row.
constexpr Cell kCells[2][2] = {
    {{.red = {1, 0}, .green = {0, 0}, .blue = {0, 1}}, {.red = {1, 1}, .green = {0, 1}, .blue = {0, 0}}},
    {{.red = {0, 0}, .green = {0, 1}, .blue = {1, 1}}, {.red = {0, 1}, .green = {0, 0}, .blue = {1, 0}}},
};

// The first green pixel in a blue row, by the phase of row 0.
constexpr Site kOrigins[kPhases] = {{0, 1}, {0, 0}, {1, 1}, {1, 0}};

std::int32_t Mean(const std::uint16_t (&histogram)[kColourLevels], std::int32_t gain, std::uint32_t count) {
    const std::int32_t factor = gain < 0 ? 0 : gain > 255 ? 255 : gain;
    std::int32_t sum = 0;
    for (std::int32_t level = 0; level < static_cast<std::int32_t>(kColourLevels); ++level) {
        const std::int32_t amplified = level * factor >> 6;
        sum += histogram[level] * (amplified > 255 ? 255 : amplified);
    }
    return sum / static_cast<std::int32_t>(count);
}

std::uint32_t CountOf(const ColourSamples &samples) {
    return samples.count > kMaximumColourSamples ? kMaximumColourSamples : samples.count;
}

} // namespace

void SampleColours(const ImageDescriptor &image, ColourSamples &samples) {
    samples.count = 0;
    const std::uint32_t rowStep = image.height / 31;
    const std::uint32_t columnStep = image.width / 41;
    if (rowStep != 0 && columnStep != 0 && HoldsRows(image, image.width, image.stride, image.height)) {
        const Site origin = kOrigins[static_cast<std::uint32_t>(PhaseOfFourCc(image.fourcc))];
        for (std::uint32_t y = rowStep; y + origin.row + 1 < image.height; y += rowStep) {
            const std::uint8_t *row = image.data + (std::size_t{y} + origin.row) * image.stride + origin.column;
            for (std::uint32_t x = columnStep; x + origin.column + 1 < image.width; x += columnStep) {
                if (samples.count == kMaximumColourSamples)
                    break;
                const Cell &cell = kCells[y % 2][x % 2];
                const auto at = [&](Site site) { return row[x + site.column + std::size_t{site.row} * image.stride]; };
                samples.sample[samples.count++] = {.red = at(cell.red), .green = at(cell.green), .blue = at(cell.blue)};
            }
        }
    }
    CountColours(samples);
}

void CountColours(ColourSamples &samples) {
    __builtin_memset(&samples.histograms, 0, sizeof(samples.histograms));
    const std::uint32_t count = CountOf(samples);
    for (std::uint32_t i = 0; i < count; ++i) {
        const ColourSample &sample = samples.sample[i];
        ++samples.histograms.red[sample.red];
        ++samples.histograms.green[sample.green];
        ++samples.histograms.blue[sample.blue];
    }
}

ColourMeans MeanColours(const ColourSamples &samples, const ColourGains &gains) {
    const std::uint32_t count = CountOf(samples);
    if (count == 0)
        return {.red = 0, .green = 0, .blue = 0};
    return {.red = Mean(samples.histograms.red, gains.red, count),
            .green = Mean(samples.histograms.green, gains.green, count),
            .blue = Mean(samples.histograms.blue, gains.blue, count)};
}

ColourMeans CorrectMeans(const ColourMeans &means, const std::int16_t (&matrix)[kMatrixCoefficients]) {
    const auto weigh = [&](std::uint32_t row) {
        const std::int16_t *c = matrix + 3 * row;
        const std::int32_t sum = (c[0] * means.red + c[1] * means.green + c[2] * means.blue) / kUnity;
        return sum < 0 ? 0 : sum > 255 ? 255 : sum;
    };
    return {.red = weigh(0), .green = weigh(1), .blue = weigh(2)};
}

} // namespace imaging
