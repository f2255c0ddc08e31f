#include "imaging/image.h"
#include "imaging/overlay.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

using namespace imaging;

namespace {

void Draw(FrameBuffer &frame, OverlayPoint point, const char *text, bool negative = false) {
    const auto height = static_cast<std::int32_t>(frame.image.height);
    const OverlayImage image{frame.image.fourcc, frame.image.data, static_cast<std::int32_t>(frame.image.width),
                             negative ? -height : height, frame.image.stride};
    DrawOverlayText(image, point, kOverlayWhite, text, 1, kOverlayBlue);
}

// A grey frame as text: '.' untouched, '#' text, ' ' background.
std::string Picture(FrameBuffer &frame, std::uint32_t row) {
    std::string line;
    for (std::uint32_t x = 0; x < frame.image.width; ++x) {
        const std::uint8_t byte = frame.Row(row)[x];
        line += byte == kCanary ? '.' : byte == 29 ? '#' : byte == 255 ? ' ' : '?';
    }
    return line;
}

} // namespace

TEST(OverlayText, DrawsGlyphsInABoxAndClipsAtEveryEdge) {
    struct Case {
        const char *what;
        OverlayPoint point;
        const char *text;
        std::uint32_t row;
        const char *want;
    };
    constexpr Case kCases[] = {
        {"row above", {2, 1}, "Hi", 0, "........................"},
        {"top border", {2, 1}, "Hi", 1, "..                   ..."},
        {"first glyph row", {2, 1}, "Hi", 2, ".. ##  ##     ##     ..."},
        {"bottom border", {2, 1}, "Hi", 10, "..                   ..."},
        {"row below", {2, 1}, "Hi", 11, "........................"},
        {"cut on the right", {19, 1}, "H", 2, "................... ##  "},
        {"empty text", {3, 0}, "", 9, "... ...................."},
        {"null text", {3, 0}, nullptr, 5, "... ...................."},
        {"cut at the bottom", {0, 3}, "_", 11, " ######## .............."},
        {"at the width", {24, 0}, "H", 4, "........................"},
        {"at the height", {0, 12}, "H", 11, "........................"},
        {"centred", {kCentred, kCentred}, "_", 9, "....... ######## ......."},
        {"centred and too wide", {kCentred, 0}, "____", 8, "### ######## ######## ##"},
        {"right of the frame", {30, 0}, "H", 4, "........................"},
        {"left of the frame", {-4, 0}, "_", 8, "##### .................."},
        {"above the frame", {0, -8}, "_", 0, " ######## .............."},
        {"beyond ASCII", {0, 0}, "\xDC", 8, " ######## .............."},
    };
    for (const Case &c : kCases) {
        FrameBuffer frame(kFourCcGrey8, 24, 12, 1, 3, 5);
        Draw(frame, c.point, c.text);
        EXPECT_TRUE(frame.CanariesAlive()) << c.what;
        EXPECT_EQ(Picture(frame, c.row), c.want) << c.what;
    }
}

TEST(OverlayText, CentresWithWholeHalves) {
    FrameBuffer wide(kFourCcGrey8, 640, 10, 1);
    Draw(wide, {kCentred, kCentred}, "ten digits");
    EXPECT_EQ(Picture(wide, 0), std::string(275, '.') + std::string(91, ' ') + std::string(274, '.'));
    FrameBuffer low(kFourCcGrey8, 16, 11, 1);
    Draw(low, {0, kCentred}, "");
    EXPECT_EQ(Picture(low, 0)[0], ' '); // 11 / 2 - 5
}

// The first pixel of '_' is background, those behind it text: what each format writes for them, and where.
TEST(OverlayText, EveryFormatHasItsColoursAndRowOrder) {
    struct Case {
        const char *format;
        std::uint32_t pixelBytes;
        bool negative;
        bool bottomUp;
        std::uint32_t offset; // in the row, of x = 2
        std::vector<std::uint8_t> want;
    };
    const std::uint8_t k = kCanary;
    const Case cases[] = {
        {"RGB4", 4, false, true, 8, {255, 255, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0}},
        {"RGB4", 4, true, false, 8, {255, 255, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0}},
        {"RGB3", 3, false, true, 6, {255, 255, 255, 0, 0, 255, 0, 0, 255}},
        {"RGB3", 3, true, false, 6, {255, 255, 255, 0, 0, 255, 0, 0, 255}},
        {"Y800", 1, true, false, 2, {255, 29, 29}},
        {"XYZ ", 1, false, false, 2, {255, 29, 29}},
        // Pairs: the first pixel gives U and both Y, the second V.
        {"YUY2", 2, false, false, 8, {235, 128, 235, 240, 81, 90, 81, 240}},
        {"UYVY", 2, true, false, 8, {128, 235, 240, 235, 90, 81, 240, 81}},
    };
    for (const Case &c : cases) {
        char code[5] = {c.format[0], c.format[1], c.format[2], c.format[3], 0};
        FrameBuffer frame(FourCc(code), 40, 12, c.pixelBytes, 4);
        Draw(frame, {2, 1}, "_", c.negative);
        EXPECT_TRUE(frame.CanariesAlive()) << c.format;
        const std::uint32_t row = 1 + 8; // the lowest glyph row
        const std::uint8_t *bytes = frame.Row(c.bottomUp ? 11 - row : row) + c.offset;
        EXPECT_EQ(std::vector<std::uint8_t>(bytes, bytes + c.want.size()), c.want) << c.format;
        EXPECT_EQ(bytes[-1], k) << c.format;
    }

    // At an odd x the first pixel is the second of its pair.
    FrameBuffer odd(kFourCcYuy2, 40, 10, 2);
    Draw(odd, {3, 0}, "_");
    const std::uint8_t want[] = {k, k, k, 128, 81, 90, 81, 240};
    EXPECT_EQ(std::memcmp(odd.Row(8) + 12, want, sizeof want), 0);
}

TEST(OverlayText, LongLinesInMacroPixelsStayInTheFrame) {
    for (std::uint32_t fourcc : {kFourCcYuy2, kFourCcUyvy}) {
        FrameBuffer frame(fourcc, 40, 12, 2);
        frame.image.height = 10;
        Draw(frame, {25, 0}, "0123456789");
        EXPECT_TRUE(frame.CanariesAlive());
        // Fifteen pixels from byte 100 on: up to byte 132 of a row of 80, and none of them behind row 9.
        EXPECT_NE(frame.Row(2)[40], kCanary);
        EXPECT_EQ(frame.Row(2)[52], kCanary);
        EXPECT_EQ(std::count(frame.Row(10), frame.Row(12), kCanary), 160);
    }
}

// Rows shorter than the pixels of the format make them: the box ends with the row, whatever the width says.
TEST(OverlayText, StaysInRowsThatAreTooShortForTheirFormat) {
    for (const char *format : {"RGB4", "RGB3", "YUY2", "UYVY", "Y800"}) {
        for (std::uint32_t stride : {0u, 1u, 11u}) {
            for (bool negative : {false, true}) {
                char code[5] = {format[0], format[1], format[2], format[3], 0};
                FrameBuffer frame(FourCc(code), stride, 12, 1);
                frame.image.width = 88;
                Draw(frame, {2, 1}, "0123456", negative);
                EXPECT_TRUE(frame.CanariesAlive()) << format << " " << stride;
            }
        }
    }
}

TEST(OverlayFont, GlyphsAreDistinctAndKeepTheirGap) {
    for (std::uint32_t a = 0; a < kGlyphs; ++a) {
        const bool blank = a == 0 || a == ' ' || a == 255;
        for (std::uint32_t b = a + 1; b < kGlyphs; ++b) {
            const bool bothBlank = blank && (b == ' ' || b == 255);
            EXPECT_EQ(std::memcmp(kOverlayFont[a], kOverlayFont[b], kGlyphRows) == 0, bothBlank) << a << " " << b;
        }
    }
    for (std::uint32_t c = '0'; c <= 'z'; ++c) {
        // Letters and digits leave their rightmost column free and stand on the same line.
        if (!std::isalnum(static_cast<int>(c)))
            continue;
        std::uint8_t columns = 0;
        for (std::uint8_t row : kOverlayFont[c])
            columns |= row;
        EXPECT_EQ(columns & 1, 0) << c;
        EXPECT_NE(kOverlayFont[c][6], 0) << c;
    }
    constexpr std::uint8_t kA[] = {0x30, 0x78, 0xCC, 0xCC, 0xFC, 0xCC, 0xCC, 0x00};
    EXPECT_EQ(std::memcmp(kOverlayFont[0x41], kA, sizeof kA), 0);
}
