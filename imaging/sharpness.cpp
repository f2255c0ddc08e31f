#include "imaging/sharpness.h"

#include <cstddef>

namespace imaging {
namespace {

constexpr std::int32_t kQuad = 4;                 // a block is two quads of 4 x 4 pixels
constexpr std::int32_t kPairOfBlocks = 4 * kQuad; // pixels along the row or column
constexpr std::uint32_t kMaximumTileColumns = 128;

// The sum of 4 x 4 pixels: pairs of columns in the two halves of a word.
std::int32_t QuadSum(const std::uint8_t *data, std::size_t stride) {
    std::uint32_t sums = 0;
    for (std::int32_t row = 0; row < kQuad; ++row, data += stride) {
        std::uint32_t pixels;
        __builtin_memcpy(&pixels, data, sizeof(pixels));
        sums += (pixels & 0x00FF00FF) + (pixels >> 8 & 0x00FF00FF);
    }
    return static_cast<std::int32_t>((sums & 0xFFFF) + (sums >> 16));
}

// The largest step between the two blocks of a pair at `places` places, each one quad, `quadStep` bytes, further.
std::int32_t LargestStep(const std::uint8_t *data, std::size_t stride, std::size_t quadStep, std::int32_t places) {
    if (places <= 0)
        return 0;
    std::int32_t quads[3];
    for (std::int32_t &quad : quads) {
        quad = QuadSum(data, stride);
        data += quadStep;
    }
    std::int32_t largest = 0;
    for (std::int32_t place = 0; place < places; ++place, data += quadStep) {
        const std::int32_t next = QuadSum(data, stride);
        const std::int32_t step = (quads[0] + quads[1]) / 16 - (quads[2] + next) / 16;
        const std::int32_t size = step < 0 ? -step : step;
        if (size > largest)
            largest = size;
        quads[0] = quads[1];
        quads[1] = quads[2];
        quads[2] = next;
    }
    return largest;
}

} // namespace

std::int32_t SharpnessScore(const ImageDescriptor &image, const Region &region) {
    const std::int32_t width = region.width;
    const std::int32_t height = region.height;
    if (width <= kPairOfBlocks || height <= 0 || region.x < 0 || region.y < 0 ||
        std::int64_t{region.x} + width > image.width || std::int64_t{region.y} + height > image.height ||
        !HoldsRows(image, image.width, image.stride, image.height))
        return 0;

    const std::size_t stride = image.stride;
    const std::uint8_t *origin = image.data + static_cast<std::size_t>(region.y) * stride + region.x;
    const std::int64_t rowsBelow = std::int64_t{image.height} - region.y;   // in the image, from the region's top
    const std::int64_t columnsRight = std::int64_t{image.width} - region.x; // and from its left
    const std::int32_t places = (width - kPairOfBlocks + kQuad - 1) / kQuad;

    std::int32_t score = 0;
    const std::int32_t rowStep = height / 8 + 1;
    for (std::int32_t y = rowStep; y < height && y + kQuad <= rowsBelow; y += rowStep)
        score += LargestStep(origin + static_cast<std::size_t>(y) * stride, stride, kQuad, places);

    const std::int64_t fitting = rowsBelow / kQuad - (kPairOfBlocks / kQuad - 1); // a region may be wider than high
    const auto placesDown = static_cast<std::int32_t>(fitting < places ? fitting : places);
    const std::int32_t columnStep = width / 8 + 1;
    for (std::int32_t x = columnStep; x < width && x + kQuad / 2 <= columnsRight; x += columnStep)
        score += LargestStep(origin + x - kQuad / 2, stride, kQuad * stride, placesDown);
    return score;
}

bool ChooseRegion(const ImageDescriptor &image, Region &region) {
    const std::uint32_t columns = image.width / kTileSize;
    const std::uint32_t rows = image.height / kTileSize;
    if (columns == 0 || rows == 0 || columns > kMaximumTileColumns ||
        !HoldsRows(image, image.width, image.stride, image.height))
        return false;
    const std::uint32_t left = image.width % kTileSize / 2;
    const std::uint32_t top = image.height % kTileSize / 2;
    const auto tile = [&](std::uint32_t row, std::uint32_t column) {
        return Region{.x = static_cast<std::int32_t>(left + column * kTileSize),
                      .y = static_cast<std::int32_t>(top + row * kTileSize),
                      .width = kTileSize,
                      .height = kTileSize};
    };

    // The scores of three rows of tiles, each with a zero at both ends that stands for the tiles beyond the edge. A
    // score is at most 14 steps of 510.
    std::uint16_t scores[3][kMaximumTileColumns + 2] = {};
    std::int32_t best = -1;
    for (std::uint32_t row = 0; row <= rows; ++row) {
        for (std::uint32_t column = 0; column < columns; ++column)
            scores[row % 3][column + 1] =
                row == rows ? 0 : static_cast<std::uint16_t>(SharpnessScore(image, tile(row, column)));
        if (row == 0)
            continue;
        for (std::uint32_t column = 0; column < columns; ++column) {
            std::int32_t neighbourhood = 0;
            for (const auto &line : scores)
                neighbourhood += line[column] + line[column + 1] + line[column + 2];
            if (neighbourhood > best) {
                best = neighbourhood;
                region = tile(row - 1, column);
            }
        }
    }
    return true;
}

} // namespace imaging
