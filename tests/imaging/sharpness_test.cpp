#include "imaging/sharpness.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace imaging;

namespace {

// Twice the mean of the 8 x 4 or 4 x 8 pixels at a place of the image.
int Block(SourceBuffer &source, int x, int y, int width, int height) {
    int sum = 0;
    for (int row = y; row < y + height; ++row) {
        for (int column = x; column < x + width; ++column)
            sum += source.Row(static_cast<std::uint32_t>(row))[column];
    }
    return sum / 16;
}

// Pixel by pixel; for regions whose blocks are all inside the image.
int Score(SourceBuffer &source, const Region &region) {
    int score = 0;
    for (int y = region.height / 8 + 1; y < region.height; y += region.height / 8 + 1) {
        int largest = 0;
        for (int x = 0; x + 16 < region.width; x += 4)
            largest = std::max(largest, std::abs(Block(source, region.x + x, region.y + y, 8, 4) -
                                                 Block(source, region.x + x + 8, region.y + y, 8, 4)));
        score += largest;
    }
    for (int x = region.width / 8 + 1; x < region.width; x += region.width / 8 + 1) {
        int largest = 0;
        for (int y = 0; y + 16 < region.width; y += 4)
            largest = std::max(largest, std::abs(Block(source, region.x + x - 2, region.y + y, 4, 8) -
                                                 Block(source, region.x + x - 2, region.y + y + 8, 4, 8)));
        score += largest;
    }
    return score;
}

// One white column of a block's width makes the tile at (x, y) sharp.
void Sharpen(SourceBuffer &source, std::uint32_t x, std::uint32_t y, std::uint8_t level) {
    for (std::uint32_t row = y; row < y + 128; ++row)
        std::fill_n(source.Row(row) + x + 64, 8, level);
}

} // namespace

TEST(SharpnessScore, EqualsTheSumOfTheLargestSteps) {
    SourceBuffer source(kFourCcGrey8, 321, 243, 3);
    for (Noise noise : {Noise::kFullRange, Noise::kSmallSteps, Noise::kBlackAndWhite}) {
        source.Fill(noise, 5);
        for (const Region &region : {Region{0, 0, 128, 128},
                                     {193, 115, 128, 128},
                                     {7, 9, 128, 128},
                                     {1, 2, 17, 17},
                                     {3, 3, 20, 31},
                                     {0, 0, 21, 100},
                                     {5, 5, 60, 61},
                                     {10, 10, 200, 128}})
            EXPECT_EQ(SharpnessScore(source.image, region), Score(source, region)) << region.width << " " << region.x;
    }
}

TEST(SharpnessScore, EdgesCountTwiceTheirHeight) {
    SourceBuffer source(kFourCcGrey8, 128, 128);
    std::ranges::fill(source.Bytes(), 50);
    EXPECT_EQ(SharpnessScore(source.image, {0, 0, 128, 128}), 0);
    for (std::uint32_t y = 0; y < 128; ++y)
        std::fill_n(source.Row(y) + 64, 64, std::uint8_t{150});
    EXPECT_EQ(SharpnessScore(source.image, {0, 0, 128, 128}), 7 * 200);
}

TEST(SharpnessScore, StaysInsideTheImage) {
    for (const auto &[width, height] : {std::pair{20u, 20u}, {40u, 18u}, {128u, 128u}, {200u, 9u}, {300u, 17u}}) {
        SourceBuffer source(kFourCcGrey8, width, height);
        source.Fill(Noise::kBlackAndWhite, width);
        const auto w = static_cast<std::int32_t>(width);
        const auto h = static_cast<std::int32_t>(height);
        EXPECT_GE(SharpnessScore(source.image, {0, 0, w, h}), 0);
        for (const Region &region : {Region{1, 0, w, h}, {0, 1, w, h}, {-1, 0, w, h}, {0, 0, 16, h}, {0, 0, w, -1}})
            EXPECT_EQ(SharpnessScore(source.image, region), 0) << region.x << " " << region.y << " " << region.width;
        --source.image.size;
        EXPECT_EQ(SharpnessScore(source.image, {0, 0, w, h}), 0);
    }
}

TEST(ChooseRegion, TakesTheTileInTheSharpestNeighbourhood) {
    // 5 x 4 tiles behind margins of 7 and 5.
    SourceBuffer source(kFourCcGrey8, 5 * 128 + 15, 4 * 128 + 11, 1);
    const auto expect = [&](std::int32_t column, std::int32_t row) {
        Region region{};
        ASSERT_TRUE(ChooseRegion(source.image, region));
        EXPECT_EQ(region, (Region{7 + column * 128, 5 + row * 128, 128, 128})) << column << "," << row;
    };
    std::ranges::fill(source.Bytes(), 0);
    expect(0, 0); // all equal
    Sharpen(source, 7 + 4 * 128, 5 + 3 * 128, 100);
    expect(3, 2); // the first that touches the corner tile
    Sharpen(source, 7 + 2 * 128, 5 + 3 * 128, 60);
    expect(3, 2);
    Sharpen(source, 7 + 0 * 128, 5 + 0 * 128, 170); // more than both, but alone it is the first of four
    expect(0, 0);
    std::ranges::fill(source.Bytes(), 0);
    Sharpen(source, 7 + 1 * 128, 5 + 0 * 128, 90);
    Sharpen(source, 7 + 3 * 128, 5 + 2 * 128, 90);
    expect(2, 1); // between the two
}

TEST(ChooseRegion, NeedsATile) {
    Region region{1, 2, 3, 4};
    for (const auto &[width, height] : {std::pair{127u, 480u}, {640u, 127u}, {129u * 128u, 128u}}) {
        SourceBuffer source(kFourCcGrey8, width, height);
        EXPECT_FALSE(ChooseRegion(source.image, region));
    }
    EXPECT_EQ(region, (Region{1, 2, 3, 4}));
    SourceBuffer single(kFourCcGrey8, 130, 255);
    single.Fill(Noise::kFullRange, 1);
    ASSERT_TRUE(ChooseRegion(single.image, region));
    EXPECT_EQ(region, (Region{1, 63, 128, 128}));
}
