#include "imaging/defect_pixels.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <memory>

using namespace imaging;

namespace {

constexpr std::uint32_t kWidth = 20;
constexpr std::uint32_t kHeight = 4;

// Corrects one pixel of a noisy image and tells which pixel changed to what, (0, 0) for none.
struct Change {
    std::uint32_t x, y;
    int value;

    friend bool operator==(const Change &, const Change &) = default;
};

Change Correct(SourceBuffer &source, DefectPixel pixel, std::uint32_t x0, std::uint32_t y0) {
    source.Fill(Noise::kFullRange, 3);
    const std::vector<std::uint8_t> before(source.Bytes().begin(), source.Bytes().end());
    auto list = std::make_unique<DefectPixelList>(DefectPixelList{.count = 1, .pixels = {pixel}});
    CorrectDefects(source.image, *list, x0, y0);
    Change change{};
    for (std::uint32_t i = 0; i < before.size(); ++i) {
        if (source.Bytes()[i] != before[i])
            change = {i % source.image.stride, i / source.image.stride, source.Bytes()[i]};
    }
    return change;
}

} // namespace

TEST(CorrectDefects, TakesNeighboursOfTheSameColour) {
    for (const char *code : {"B1BG", "B1GB", "B1GR", "B1RG", "BY8 ", "Y800", "YUY2", "RGB3"}) {
        SourceBuffer source(FourCc({code[0], code[1], code[2], code[3], 0}), kWidth, kHeight, 5);
        source.Fill(Noise::kFullRange, 3);
        const std::uint8_t *p = source.Row(2) + 9;
        const Change grey{9, 2, (p[-2] + p[2] + p[-1] + p[1]) >> 2};
        const Change mosaic{9, 2, (p[-4] + p[4] + p[-2] + p[2]) >> 2};
        const std::string_view name(code);
        const Change want = name == "Y800" ? grey : name == "YUY2" || name == "RGB3" ? Change{} : mosaic;
        EXPECT_EQ(Correct(source, {9, 2}, 0, 0), want) << code;
    }
}

TEST(CorrectDefects, LeavesTheOuterFourColumnsAndWhatIsOutside) {
    struct Case {
        DefectPixel pixel;
        std::uint32_t x0, y0;
        bool corrected;
    };
    for (const auto &[pixel, x0, y0, corrected] : {Case{{3, 0}, 0, 0, false},
                                                   {{4, 0}, 0, 0, true},
                                                   {{15, 3}, 0, 0, true},
                                                   {{16, 3}, 0, 0, false},
                                                   {{15, 4}, 0, 0, false},
                                                   {{103, 50}, 100, 50, false},
                                                   {{104, 50}, 100, 50, true},
                                                   {{104, 49}, 100, 50, false},
                                                   {{115, 53}, 100, 50, true},
                                                   {{115, 54}, 100, 50, false},
                                                   {{65535, 65535}, 65520, 65534, true},
                                                   {{10, 2}, 0xFFFFFFFF, 0, false}}) {
        SourceBuffer source(kFourCcBayer8, kWidth, kHeight);
        const Change change = Correct(source, pixel, x0, y0);
        EXPECT_EQ(change.x, corrected ? pixel.x - x0 : 0) << pixel.x << "," << pixel.y;
        EXPECT_EQ(change.y, corrected ? pixel.y - y0 : 0) << pixel.x << "," << pixel.y;
    }
    SourceBuffer narrow(kFourCcGrey8, 8, 2);
    SourceBuffer cut(kFourCcGrey8, kWidth, kHeight);
    --cut.image.size;
    for (std::uint16_t x = 0; x < 8; ++x)
        EXPECT_EQ(Correct(narrow, {x, 1}, 0, 0), Change{});
    EXPECT_EQ(Correct(cut, {9, 0}, 0, 0), Change{});
}

TEST(CorrectDefects, ReadsNoMoreThanTheListHolds) {
    auto list = std::make_unique<DefectPixelList>();
    list->count = 0xFFFFFFFF;
    for (std::uint32_t i = 0; i < kMaximumDefectPixels; ++i)
        list->pixels[i] = {static_cast<std::uint16_t>(4 + i), 0};
    SourceBuffer source(kFourCcGrey8, 300, 1);
    source.Fill(Noise::kBlackAndWhite, 1);
    source.Row(0)[259] = 77; // the last entry
    CorrectDefects(source.image, *list, 0, 0);
    EXPECT_NE(source.Row(0)[259], 77);
}

TEST(CorrectDefects, BinningChoosesTheListAndDividesTheOffset) {
    struct Case {
        std::uint32_t binning, offsetX, offsetY, column, row;
    };
    auto lists = std::make_unique<DefectPixelLists>();
    lists->full = {.count = 1, .pixels = {{108, 51}}};
    lists->binned2 = {.count = 1, .pixels = {{60, 30}}};
    lists->binned4 = {.count = 1, .pixels = {{30, 14}}};
    for (const auto &[binning, offsetX, offsetY, column, row] :
         {Case{1, 100, 50, 8, 1}, {2, 100, 50, 10, 5}, {4, 100, 50, 5, 2}, {0, 100, 50, 8, 1}, {3, 303, 152, 7, 1}}) {
        SourceBuffer source(kFourCcGrey8, 24, 8);
        std::ranges::fill(source.Bytes(), 10);
        source.Row(row)[column] = 200;
        CorrectDefects(source.image, *lists, binning, offsetX, offsetY);
        EXPECT_EQ(source.Row(row)[column], 10) << binning;
    }
}
