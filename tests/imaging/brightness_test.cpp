#include "imaging/brightness.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

using namespace imaging;

TEST(MeasureBrightness, TakesTheMeanOverMultiplesOfTheStep) {
    struct Case {
        std::uint32_t width, height, padding;
    };
    for (const auto &[width, height, padding] :
         {Case{41, 31, 0}, {82, 62, 3}, {83, 93, 0}, {640, 480, 0}, {641, 487, 5}, {320, 240, 64}}) {
        SourceBuffer source(kFourCcGrey8, width, height, padding);
        source.Fill(Noise::kFullRange, width);
        std::uint64_t sum = 0;
        std::uint32_t count = 0;
        for (std::uint32_t y = 1; y < height; ++y) {
            for (std::uint32_t x = 1; x < width; ++x) {
                if (y % (height / 31) == 0 && x % (width / 41) == 0) {
                    sum += source.Row(y)[x];
                    ++count;
                }
            }
        }
        std::uint32_t mean = 999;
        EXPECT_TRUE(MeasureBrightness(source.image, mean));
        EXPECT_EQ(mean, sum / count) << width << "x" << height;
    }
}

TEST(MeasureBrightness, LeavesImagesWithoutAGridAlone) {
    for (const auto &[width, height] : {std::pair{40u, 480u}, {640u, 30u}, {1u, 1u}}) {
        SourceBuffer source(kFourCcGrey8, width, height);
        std::uint32_t mean = 999;
        EXPECT_FALSE(MeasureBrightness(source.image, mean));
        EXPECT_EQ(mean, 999u);
    }
    SourceBuffer source(kFourCcGrey8, 64, 48);
    std::uint32_t mean = 0;
    for (ImageDescriptor image = source.image; auto field : {&ImageDescriptor::size, &ImageDescriptor::height}) {
        image.*field = field == &ImageDescriptor::size ? source.image.size - 1 : 0;
        EXPECT_FALSE(MeasureBrightness(image, mean));
        image = source.image;
    }
}
