#include "imaging/overlay.h"

#include "imaging/image.h"

#include <cstddef>

namespace imaging {
namespace {

constexpr std::int32_t kBoxRows = 10; // eight of the glyphs and the border
constexpr std::int32_t kCellPixels = 9;
constexpr std::uint32_t kDrawnBackground = kOverlayWhite;
constexpr std::uint32_t kDrawnReserved = 1;
constexpr std::uint32_t kDrawnText = kOverlayBlue;

// The colours by code, in grey.
constexpr std::uint8_t kGreyLevels[] = {0, 255, 178, 225, 149, 105, 29, 76};
static_assert(sizeof(kGreyLevels) == kOverlayRed + 1);

std::int64_t Rows(const OverlayImage &image) {
    const std::int64_t height = image.height;
    return height < 0 ? -height : height;
}

// Whether a pixel of the box is text. Column 0 is the border; then every character has its eight pixels and a gap.
bool IsText(const char *text, std::int32_t column, std::int32_t row) {
    if (row == 0 || row == kBoxRows - 1 || column % kCellPixels == 0)
        return false;
    const auto character = static_cast<unsigned char>(text[column / kCellPixels]);
    return (kOverlayFont[character][row - 1] >> (kCellPixels - 1 - column % kCellPixels) & 1) != 0;
}

// How many pixels of `pixelBytes` a row has: a device may announce fewer bits than its format's pixels have.
std::int64_t Columns(const OverlayImage &image, std::uint32_t pixelBytes) {
    const std::int64_t room = image.stride / pixelBytes;
    return image.width < room ? image.width : room;
}

// Walks the pixels of the box that are in the first `columns` of the image. Put gets the offset of the image row, the
// column of the box and whether the pixel is text.
template <class Put>
void DrawBox(const OverlayImage &image, OverlayPoint point, const char *text, std::int32_t boxWidth,
             std::int64_t columns, bool bottomUp, const Put &put) {
    const std::int64_t rows = Rows(image);
    for (std::int32_t row = 0; row < kBoxRows; ++row) {
        const std::int64_t y = std::int64_t{point.y} + row;
        if (y < 0 || y >= rows)
            continue;
        const std::int64_t offset = (bottomUp ? rows - 1 - y : y) * image.stride;
        for (std::int32_t column = 0; column < boxWidth; ++column) {
            const std::int64_t x = std::int64_t{point.x} + column;
            if (x >= columns)
                break;
            if (x >= 0)
                put(offset, column, IsText(text, column, row));
        }
    }
}

// A white box with red text.
template <std::uint32_t kPixelBytes>
void DrawRgb(const OverlayImage &image, OverlayPoint point, const char *text, std::int32_t boxWidth) {
    constexpr std::uint8_t kWhite[] = {0xFF, 0xFF, 0xFF, 0x00};
    constexpr std::uint8_t kRed[] = {0x00, 0x00, 0xFF, 0x00};
    DrawBox(image, point, text, boxWidth, Columns(image, kPixelBytes), image.height >= 0,
            [&](std::int64_t offset, std::int32_t column, bool isText) {
                std::uint8_t *pixel = image.data + offset + (std::int64_t{point.x} + column) * kPixelBytes;
                for (std::uint32_t i = 0; i < kPixelBytes; ++i)
                    pixel[i] = isText ? kRed[i] : kWhite[i];
            });
}

struct YuvColour {
    std::uint8_t y;
    std::uint8_t u;
    std::uint8_t v;
};

// The places of the components in a macro-pixel.
struct YuvLayout {
    std::uint32_t firstY;
    std::uint32_t u;
    std::uint32_t secondY;
    std::uint32_t v;
};

void DrawYuv(const OverlayImage &image, OverlayPoint point, const char *text, std::int32_t boxWidth,
             const YuvLayout &layout) {
    constexpr YuvColour kWhite = {.y = 235, .u = 128, .v = 128};
    constexpr YuvColour kRed = {.y = 81, .u = 90, .v = 240};
    const std::int64_t size = Rows(image) * image.stride;
    DrawBox(image, point, text, boxWidth, image.width, false,
            [&](std::int64_t offset, std::int32_t column, bool isText) {
                // The corner is counted in macro-pixels, the box advances in pixels: a long line runs into the next
                // row, in the last row of the frame only to its end.
                const std::int64_t parity = std::int64_t{point.x & 1} + column;
                const std::int64_t place = offset + 4 * (point.x + parity / 2);
                if (place < 0 || place + 4 > size)
                    return;
                std::uint8_t *macroPixel = image.data + place;
                const YuvColour &colour = isText ? kRed : kWhite;
                if (parity % 2 == 0) {
                    macroPixel[layout.u] = colour.u;
                    macroPixel[layout.firstY] = colour.y;
                    macroPixel[layout.secondY] = colour.y;
                } else {
                    macroPixel[layout.v] = colour.v;
                }
            });
}

std::int32_t LengthOf(const char *text) {
    std::int32_t length = 0;
    while (text != nullptr && text[length] != '\0')
        ++length;
    return length;
}

} // namespace

void DrawTextRgb32(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                   std::uint32_t, std::int32_t boxWidth) {
    DrawRgb<4>(image, point, text, boxWidth);
}

void DrawTextRgb24(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                   std::uint32_t, std::int32_t boxWidth) {
    DrawRgb<3>(image, point, text, boxWidth);
}

void DrawTextUyvy(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                  std::uint32_t, std::int32_t boxWidth) {
    DrawYuv(image, point, text, boxWidth, {.firstY = 1, .u = 0, .secondY = 3, .v = 2});
}

void DrawTextYuy2(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                  std::uint32_t, std::int32_t boxWidth) {
    DrawYuv(image, point, text, boxWidth, {.firstY = 0, .u = 1, .secondY = 2, .v = 3});
}

void DrawTextGrey8(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                   std::uint32_t, std::int32_t boxWidth) {
    DrawBox(image, point, text, boxWidth, Columns(image, 1), false,
            [&](std::int64_t offset, std::int32_t column, bool isText) {
                image.data[offset + point.x + column] = kGreyLevels[isText ? kDrawnText : kDrawnBackground];
            });
}

void DrawOverlayText(const OverlayImage &image, OverlayPoint point, std::uint32_t, const char *text, std::uint32_t,
                     std::uint32_t) {
    const std::int32_t boxWidth = kCellPixels * LengthOf(text) + 1;
    const auto rows = static_cast<std::int32_t>(Rows(image));
    if (point.x == image.width || point.y == rows)
        return;
    if (point.x == kCentred)
        point.x = image.width < 0 ? 0 : image.width / 2 - boxWidth / 2;
    if (point.y == kCentred)
        point.y = rows > kBoxRows ? rows / 2 - kBoxRows / 2 : 0;

    auto draw = DrawTextGrey8;
    switch (image.format) {
    case kFourCcRgb32:
        draw = DrawTextRgb32;
        break;
    case kFourCcRgb24:
        draw = DrawTextRgb24;
        break;
    case kFourCcUyvy:
        draw = DrawTextUyvy;
        break;
    case kFourCcYuy2:
        draw = DrawTextYuy2;
        break;
    default:
        break;
    }
    draw(image, point, kDrawnBackground, text, kDrawnReserved, kDrawnText, boxWidth);
}

} // namespace imaging
