#include "imaging/conversion.h"
#include "imaging/grey.h"
#include "imaging/processor_features.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace imaging;

namespace {

constexpr std::int16_t kIdentity[9] = {64, 0, 0, 0, 64, 0, 0, 0, 64};

enum class Set { kScalar, kSse2, kSse41 };

constexpr std::uint32_t Features(Set set) {
    return (set == Set::kScalar ? 0 : set == Set::kSse2 ? kFeatureSse2 : kFeatureSse41) << kFeatureShift;
}

bool Runs(Set set) {
    return (Features(set) & ~(DetectProcessorFeatures() << kFeatureShift)) == 0;
}

// The value of a smoothed column; vectors take all columns of whole steps that begin below width - 16.
int Smoothed(const std::uint8_t *above, const std::uint8_t *current, int x, int width, bool vectors) {
    if (x == width - 1)
        return current[x];
    const auto mean = [](int a, int b) { return (a + b + 1) / 2; };
    if (vectors && x / 16 * 16 < width - 16)
        return mean(mean(above[x], current[x]), mean(above[x + 1], current[x + 1]));
    return (above[x] + current[x] + above[x + 1] + current[x + 1]) / 4;
}

} // namespace

// Every form of the grey kernels through the dispatch, which knows their thresholds.
TEST(ConvertMonoFrame, GreyOutputsEqualTheirDefinition) {
    struct Way {
        std::uint32_t pixelBytes, flags;
        Set set;
    };
    std::vector<Way> ways;
    for (std::uint32_t pixelBytes : {1u, 3u}) {
        for (std::uint32_t flags : {0u, std::uint32_t{kSmooth}, std::uint32_t{kOrientation}, kSmooth | kOrientation}) {
            for (Set set : {Set::kScalar, Set::kSse2, Set::kSse41}) {
                if (Runs(set))
                    ways.push_back({pixelBytes, flags, set});
            }
        }
    }
    std::uint32_t seed = 0;
    const auto expectDefinition = [&seed](const Way &way, std::uint32_t width, std::uint32_t height, bool aligned,
                                          Noise noise) {
        const std::uint32_t pixelBytes = way.pixelBytes;
        ++seed;
        // Only the way to 24 bits looks at the stride of the source.
        SourceBuffer source(kFourCcGrey8, width, height, pixelBytes == 3 ? seed % 3 : 0, seed % 7);
        source.Fill(noise, seed);
        const std::uint32_t padding = aligned ? (16 - width * pixelBytes % 16) % 16 : seed % 5;
        FrameBuffer output(pixelBytes == 3 ? kFourCcRgb24 : kFourCcGrey8, width, height, pixelBytes, padding,
                           aligned ? 0 : 1 + seed % 15);
        ConvertMonoFrame(output.image, source.image, way.flags | Features(way.set));
        ASSERT_TRUE(output.CanariesAlive() && source.Unchanged());
        const bool topDown = ((way.flags & kOrientation) != 0) == (pixelBytes == 3);
        const bool vectors = way.set != Set::kScalar && (pixelBytes == 3 || width >= 32);
        for (std::uint32_t y = 0; y < height; ++y) {
            const std::uint8_t *row = output.Row(topDown ? y : height - 1 - y);
            for (std::uint32_t i = 0; i < width * pixelBytes; ++i) {
                const auto x = static_cast<int>(i / pixelBytes);
                const int want = (way.flags & kSmooth) != 0 && y > 0
                                     ? Smoothed(source.Row(y - 1), source.Row(y), x, static_cast<int>(width), vectors)
                                     : source.Row(y)[x];
                ASSERT_EQ(row[i], want) << "x " << x << " y " << y;
            }
        }
    };
    for (const Way &way : ways) {
        for (std::uint32_t width = 1; width <= 81; ++width) {
            for (std::uint32_t height : {1u, 2u, 5u}) {
                for (bool aligned : {false, true}) {
                    for (Noise noise : {Noise::kFullRange, Noise::kSmallSteps, Noise::kBlackAndWhite}) {
                        expectDefinition(way, width, height, aligned, noise);
                        ASSERT_FALSE(HasFatalFailure())
                            << width << "x" << height << " bytes " << way.pixelBytes << " flags " << way.flags
                            << " set " << static_cast<int>(way.set) << " aligned " << aligned;
                    }
                }
            }
        }
    }
}

// What each path does with each destination, in bytes of a 64 x 4 source.
TEST(Conversion, DestinationFormatChoosesThePath) {
    enum class Way { kStraight, kFlipped, kDemosaic, kExpand, kSourceBytes };
    struct Case {
        const char *destination;
        std::uint32_t pixelBytes;
        Way colour, mono;
    };
    constexpr Case kCases[] = {
        {"BY8 ", 1, Way::kFlipped, Way::kFlipped},         {"Y800", 1, Way::kFlipped, Way::kFlipped},
        {"B1BG", 1, Way::kFlipped, Way::kFlipped},         {"B1GB", 1, Way::kFlipped, Way::kFlipped},
        {"B1GR", 1, Way::kFlipped, Way::kFlipped},         {"B1RG", 1, Way::kFlipped, Way::kFlipped},
        {"YUY2", 2, Way::kFlipped, Way::kFlipped},         {"RGB3", 3, Way::kDemosaic, Way::kExpand},
        {"RGB4", 4, Way::kDemosaic, Way::kSourceBytes},    {"UYVY", 2, Way::kSourceBytes, Way::kSourceBytes},
        {"I420", 1, Way::kSourceBytes, Way::kSourceBytes},
    };
    for (const Case &c : kCases) {
        for (bool colour : {true, false}) {
            SourceBuffer source(kFourCcGrey8, 64, 4);
            source.Fill(Noise::kFullRange, 0);
            char code[5] = {c.destination[0], c.destination[1], c.destination[2], c.destination[3], 0};
            FrameBuffer output(FourCc(code), 64, 4, c.pixelBytes);
            if (colour)
                ConvertColourFrame(output.image, source.image, kIdentity, {}, kOrientation);
            else
                ConvertMonoFrame(output.image, source.image, kOrientation);
            const Way way = colour ? c.colour : c.mono;
            EXPECT_TRUE(output.CanariesAlive()) << c.destination;
            const bool same = std::memcmp(output.Row(way == Way::kFlipped ? 3 : 0), source.Row(0), 64) == 0;
            EXPECT_EQ(same, way == Way::kFlipped || way == Way::kSourceBytes) << c.destination;
            // Rows are copied one byte a pixel, the fallback as one block; whatever is behind is not written.
            const std::uint32_t written = way == Way::kDemosaic || way == Way::kExpand ? 4 * 64 * c.pixelBytes
                                          : way == Way::kSourceBytes                   ? 256
                                                                                       : 3 * 64 * c.pixelBytes + 64;
            const auto bytes = output.Bytes().subspan(written);
            EXPECT_TRUE(std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == kCanary; })) << c.destination;
            if (way == Way::kExpand) {
                EXPECT_EQ(output.Row(2)[3 * 63 + 2], source.Row(2)[63]);
            }
        }
    }
}

TEST(Conversion, NothingBeyondABufferIsTouched) {
    FrameBuffer large(kFourCcGrey8, 64, 4, 1);
    FrameBuffer small(FourCc("UYVY"), 64, 3, 1);
    ConvertColourFrame(small.image, large.image, kIdentity, {}, 0); // the block copy stops at the smaller buffer
    ConvertMonoFrame(large.image, small.image, 0);                  // refused: the source has too few rows
    EXPECT_EQ(large.Row(0)[0], kCanary);
    EXPECT_TRUE(small.CanariesAlive());
    for (std::uint32_t fourcc : {kFourCcGrey8, kFourCcRgb24, kFourCcYuy2}) {
        for (std::uint32_t smooth : {0u, std::uint32_t{kSmooth}}) {
            small.image.fourcc = fourcc;
            small.image.height = 4; // one row more than its buffer holds
            ConvertMonoFrame(small.image, large.image, smooth);
            ConvertColourFrame(small.image, large.image, kIdentity, {}, smooth);
            small.image.height = 0;
            ConvertMonoFrame(small.image, large.image, smooth);
            EXPECT_TRUE(small.CanariesAlive());
        }
    }
    // Without an image to convert, the fallback still copies its bytes.
    small.image.fourcc = FourCc("UYVY");
    large.Row(0)[0] = 1;
    ConvertMonoFrame(small.image, large.image, 0);
    EXPECT_EQ(small.Row(0)[0], 1);
}

TEST(ProcessorFeatures, AreThoseOfTheCompilerAndStay) {
    const std::uint32_t features = DetectProcessorFeatures();
    EXPECT_EQ(DetectProcessorFeatures(), features);
    EXPECT_EQ(features & ~0x7Fu, 0u);
    EXPECT_EQ(features & 7, 7u); // any 64-bit processor
    EXPECT_EQ((features & kFeatureSse3) != 0, __builtin_cpu_supports("sse3") != 0);
    EXPECT_EQ((features & kFeatureSsse3) != 0, __builtin_cpu_supports("ssse3") != 0);
    EXPECT_EQ((features & kFeatureSse41) != 0, __builtin_cpu_supports("sse4.1") != 0);
    EXPECT_EQ((features & kFeatureSse42) != 0, __builtin_cpu_supports("sse4.2") != 0);
}
