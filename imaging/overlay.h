// One line of text drawn into a frame: a box of 8 x 8 characters with a border of one pixel and a gap of one between
// them.
#pragma once

#include <cstdint>

namespace imaging {

inline constexpr std::uint32_t kGlyphs = 256;
inline constexpr std::uint32_t kGlyphRows = 8;

// The glyphs of code page 437; row 0 is the top one, bit 7 of a row its leftmost pixel.
extern const std::uint8_t kOverlayFont[kGlyphs][kGlyphRows];

// The frame to draw into. `data` holds |height| rows of `stride` bytes, and nothing beyond them is written. RGB frames
// are bottom-up with a positive height and top-down with a negative one; all others are top-down, whatever the sign.
struct OverlayImage {
    std::uint32_t format; // "RGB4", "RGB3", "UYVY", "YUY2"; anything else is drawn as 8-bit grey
    std::uint8_t *data;
    std::int32_t width;   // pixels
    std::int32_t height;  // rows
    std::uint32_t stride; // bytes
};

inline constexpr std::int32_t kCentred = -1;

// The upper left corner of the box, in pixels of the displayed picture; kCentred centres in that direction.
struct OverlayPoint {
    std::int32_t x;
    std::int32_t y;
};

// Colours have codes; the routines below draw in fixed ones, the text red on white (dark grey on white in 8 bits), and
// take the codes only to pass them on.
enum OverlayColour : std::uint32_t {
    kOverlayBlack,
    kOverlayWhite,
    kOverlayCyan,
    kOverlayYellow,
    kOverlayGreen,
    kOverlayMagenta,
    kOverlayBlue,
    kOverlayRed,
};

// Draws `text`, zero-terminated ASCII or null, clipped at the edges of the frame. Touches only the frame: any IRQL at
// which that may be touched. Lock: none.
void DrawOverlayText(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                     std::uint32_t reserved, std::uint32_t textColour);

// The same for one format, at a point that is not centred, in a box `boxWidth` pixels wide.
void DrawTextRgb32(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                   std::uint32_t reserved, std::uint32_t textColour, std::int32_t boxWidth);
void DrawTextRgb24(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                   std::uint32_t reserved, std::uint32_t textColour, std::int32_t boxWidth);
// A unit of x is a macro-pixel of two pixels here, and a text may run past the right edge into the next row.
void DrawTextUyvy(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                  std::uint32_t reserved, std::uint32_t textColour, std::int32_t boxWidth);
void DrawTextYuy2(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                  std::uint32_t reserved, std::uint32_t textColour, std::int32_t boxWidth);
void DrawTextGrey8(const OverlayImage &image, OverlayPoint point, std::uint32_t background, const char *text,
                   std::uint32_t reserved, std::uint32_t textColour, std::int32_t boxWidth);

} // namespace imaging
