#include "imaging/colour_samples.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <memory>

using namespace imaging;

namespace {

struct Size {
    std::uint32_t width, height, padding;
};

void PrintTo(const Size &size, std::ostream *out) {
    *out << size.width << "x" << size.height;
}

// The rows of the 2 x 2 colour pattern that repeats from the image's corner.
struct Pattern {
    const char *fourcc;
    const char *rows[2];
};

constexpr Pattern kPatterns[] = {{"B1BG", {"BG", "GR"}},
                                 {"B1GB", {"GB", "RG"}},
                                 {"B1GR", {"GR", "BG"}},
                                 {"B1RG", {"RG", "GB"}},
                                 {"Y800", {"GB", "RG"}}};

std::uint32_t FourCcOf(const char *code) {
    return FourCc({code[0], code[1], code[2], code[3], 0});
}

std::unique_ptr<ColourSamples> OneSample(std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
    auto samples = std::make_unique<ColourSamples>();
    samples->count = 1;
    samples->sample[0] = {red, green, blue};
    CountColours(*samples);
    return samples;
}

} // namespace

class SampleColoursOfSize : public testing::TestWithParam<Size> {};

// Looks every pixel of a cell up in the colour pattern, instead of by the place of the cell.
TEST_P(SampleColoursOfSize, TakesEveryCellsColoursByThePattern) {
    const auto [width, height, padding] = GetParam();
    for (const Pattern &pattern : kPatterns) {
        SourceBuffer source(FourCcOf(pattern.fourcc), width, height, padding);
        source.Fill(Noise::kFullRange, width + height);
        auto samples = std::make_unique<ColourSamples>();
        SampleColours(source.image, *samples);

        const bool blueFirst = pattern.rows[0][0] == 'B' || pattern.rows[0][1] == 'B';
        const std::uint32_t originY = blueFirst ? 0 : 1;
        const std::uint32_t originX = pattern.rows[originY][0] == 'G' ? 0 : 1;
        std::uint32_t count = 0;
        for (std::uint32_t y = height / 31; y < height - 1; y += height / 31) {
            for (std::uint32_t x = width / 41; x < width - 1; x += width / 41) {
                const std::uint32_t top = y + originY;
                const std::uint32_t left = x + originX;
                if (top + 1 >= height || left + 1 >= width || count == 1500)
                    continue;
                std::uint8_t red = 0, green = 0, blue = 0;
                for (std::uint32_t i : {3u, 2u, 1u, 0u}) { // the first row's green is read last
                    const std::uint8_t value = source.Row(top + i / 2)[left + i % 2];
                    switch (pattern.rows[(top + i / 2) % 2][(left + i % 2) % 2]) {
                    case 'R':
                        red = value;
                        break;
                    case 'G':
                        green = value;
                        break;
                    default:
                        blue = value;
                    }
                }
                ASSERT_LT(count, samples->count);
                const ColourSample &got = samples->sample[count++];
                ASSERT_TRUE(got.red == red && got.green == green && got.blue == blue)
                    << pattern.fourcc << " x " << x << " y " << y;
            }
        }
        EXPECT_EQ(samples->count, count) << pattern.fourcc;
    }
}

// 320 x 240 and the ones below it have more cells than the buffer holds, and cells that reach a row below the image.
INSTANTIATE_TEST_SUITE_P(Sizes, SampleColoursOfSize,
                         testing::Values(Size{2592, 1944, 0}, Size{641, 481, 3}, Size{320, 240, 0}, Size{81, 61, 0},
                                         Size{64, 48, 7}, Size{43, 63, 0}, Size{41, 31, 0}),
                         testing::PrintToStringParamName());

TEST(SampleColours, FindsNoSamplesWithoutAGridOrWithTooShortABuffer) {
    auto samples = std::make_unique<ColourSamples>();
    for (const Size &size : {Size{40, 480, 0}, Size{640, 30, 0}, Size{1, 1, 0}}) {
        SourceBuffer source(kFourCcBayerBg, size.width, size.height);
        samples->count = 7;
        SampleColours(source.image, *samples);
        EXPECT_EQ(samples->count, 0u);
    }
    SourceBuffer source(kFourCcBayerBg, 640, 480);
    --source.image.size;
    SampleColours(source.image, *samples);
    EXPECT_EQ(samples->count, 0u);
    EXPECT_EQ(MeanColours(*samples, {64, 64, 64}), (ColourMeans{0, 0, 0}));
}

TEST(MeanColours, AmplifiesAndCutsOffEachSample) {
    struct Case {
        std::uint8_t level;
        std::int32_t gain, mean;
    };
    for (const auto &[level, gain, mean] : {Case{100, 64, 100},
                                            {64, 255, 255},
                                            {65, 255, 255},
                                            {63, 255, 251},
                                            {255, 32, 127},
                                            {255, 0, 0},
                                            {200, -5, 0},
                                            {50, 300, 199},
                                            {255, 64, 255}})
        EXPECT_EQ(MeanColours(*OneSample(level, 0, level), {gain, 64, gain}), (ColourMeans{mean, 0, mean}))
            << int{level} << " * " << gain;

    auto samples = OneSample(10, 10, 200);
    samples->count = 3;
    samples->sample[1] = {10, 11, 100};
    samples->sample[2] = {12, 12, 3};
    CountColours(*samples);
    EXPECT_EQ(MeanColours(*samples, {64, 64, 128}), (ColourMeans{10, 11, (255 + 200 + 6) / 3}));
    samples->count = 0xFFFFFFFF; // the buffer is shared with others
    CountColours(*samples);
    EXPECT_EQ(MeanColours(*samples, {64, 64, 64}), (ColourMeans{0, 0, 0})); // 1497 black ones are among them
}

TEST(CorrectMeans, TruncatesTowardsZeroAndClamps) {
    constexpr std::int16_t kMatrix[9] = {65, 0, 0, 0, -1, 63, 200, 0, 0};
    EXPECT_EQ(CorrectMeans({100, 63, 1}, kMatrix), (ColourMeans{101, 0, 255}));
    EXPECT_EQ(Luminance({255, 255, 255}), 254);
    EXPECT_EQ(Luminance({100, 0, 0}), 29);
    EXPECT_EQ(Luminance({0, 100, 50}), (15000 + 1450) / 256);
}
