#include "imaging/demosaic.h"
#include "imaging/processor_features.h"
#include "tests/imaging/frame_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>

using namespace imaging;

namespace {

struct KernelSet {
    const char *name;
    std::uint32_t features;
    bool vector;
    const RowKernel *kernels;
};

const KernelSet kSets[] = {
    {"scalar", 0, false, kScalarRowKernels},
    {"SSE2", kFeatureSse2, true, kSse2RowKernels},
    {"SSE4.1", kFeatureSse41, true, kSse41RowKernels},
};

bool Runs(const KernelSet &set) {
    return (DetectProcessorFeatures() & set.features) == set.features;
}

struct Mosaic {
    std::uint32_t fourcc;
    const char *cells; // the colours of the first and the second row
};

constexpr Mosaic kMosaics[] = {
    {FourCc("B1BG"), "BGGR"}, {FourCc("B1GB"), "GBRG"}, {FourCc("B1GR"), "GRBG"}, {FourCc("B1RG"), "RGGB"}};

struct Settings {
    std::int16_t matrix[9];
    std::int32_t red, green, blue;
};

// Two that correct colours, then two in which 16-bit sums saturate.
constexpr std::size_t kOrdinarySettings = 2;
constexpr Settings kSettings[] = {
    {{90, -13, -13, -13, 90, -13, -13, -13, 90}, 100, 64, 85},
    {{64, 0, 0, 0, 64, 0, 0, 0, 64}, 64, 65, 64},
    {{127, 127, -128, -128, 127, 127, 127, -128, 127}, 255, 128, 1},
    {{-7, 33, 1, 127, -128, 127, 127, 127, 127}, 300, -5, 63},
};

// One pixel at a time, straight from the definition. `vector` chooses the arithmetic of the vector sets.
class Model {
  public:
    Model(FrameBuffer &source, const char *cells, std::uint32_t mode, const Settings &settings, bool vector)
        : source_(source), cells_(cells), mode_(mode), settings_(settings), vector_(vector) {}

    // Blue, green, red.
    std::array<int, 3> Pixel(int x, int y) const {
        const int width = static_cast<int>(source_.image.width);
        x = std::clamp(x, 1, width - 2);
        std::array<int, 3> pixel{};
        const auto part = [&](char colour) -> int & { return pixel[colour == 'B' ? 0 : colour == 'G' ? 1 : 2]; };
        const int l = At(x - 1, y), r = At(x + 1, y), u = At(x, y - 1), d = At(x, y + 1), m = At(x, y);
        const int ul = At(x - 1, y - 1), ur = At(x + 1, y - 1), ll = At(x - 1, y + 1), lr = At(x + 1, y + 1);
        if (Colour(x, y) == 'G') {
            part(Colour(x + 1, y)) = Mean(l, r);
            part(Colour(x, y + 1)) = Mean(u, d);
            const bool smooth = (mode_ & kModeSmooth) != 0 && std::abs(ul - ur) <= 6 && std::abs(ul - ll) <= 6;
            const int smoothed = vector_ ? Mean(Mean(Mean(ul, ll), Mean(ur, lr)), m) : (ul + ur + ll + lr + 4 * m) / 8;
            part('G') = smooth ? smoothed : m;
        } else {
            const int h = std::abs(l - r), v = std::abs(u - d);
            part(Colour(x, y)) = m;
            part('G') = h < v ? Mean(l, r) : h > v ? Mean(u, d) : Mean4(u, d, l, r);
            part(Colour(x + 1, y + 1)) = Mean4(ul, ll, ur, lr);
        }
        return (mode_ & kModeMatrix) != 0 ? Weighted(pixel) : pixel;
    }

  private:
    char Colour(int x, int y) const { return cells_[(y & 1) * 2 + (x & 1)]; }

    int At(int x, int y) const {
        const int height = static_cast<int>(source_.image.height);
        const char colour = Colour(x, y);
        const int row = y < 0 ? 1 : y >= height ? height - 2 : y;
        const int sample = source_.Row(static_cast<std::uint32_t>(row))[x];
        if ((mode_ & kModeGains) == 0)
            return sample;
        const int gain = colour == 'B' ? settings_.blue : colour == 'G' ? settings_.green : settings_.red;
        return std::min(sample * std::clamp(gain, 0, 255) / 64, 255);
    }

    int Mean(int a, int b) const { return (a + b + (vector_ ? 1 : 0)) / 2; }
    int Mean4(int a, int b, int c, int d) const { return vector_ ? Mean(Mean(a, b), Mean(c, d)) : (a + b + c + d) / 4; }

    std::array<int, 3> Weighted(const std::array<int, 3> &pixel) const {
        std::array<int, 3> result{};
        for (int row = 0; row < 3; ++row) {
            const std::int16_t *m = settings_.matrix + 3 * row;
            const auto saturate = [](int sum) { return std::clamp(sum, -32768, 32767); };
            const int products[3] = {m[0] * pixel[2], m[1] * pixel[1], m[2] * pixel[0]};
            const int own = products[row], others = products[(row + 1) % 3] + products[(row + 2) % 3];
            const int value = vector_ ? saturate(saturate(others) + own) >> 6 : (others + own) / 64;
            result[static_cast<std::size_t>(2 - row)] = std::clamp(value, 0, 255);
        }
        return result;
    }

    FrameBuffer &source_;
    const char *cells_;
    std::uint32_t mode_;
    const Settings &settings_;
    bool vector_;
};

void Convert(const KernelSet &set, std::uint32_t mode, bool topDown, FrameBuffer &source, FrameBuffer &destination,
             const Settings &settings) {
    GainRecords gains{};
    gains.red.current = settings.red;
    gains.green.current = settings.green;
    gains.blue.current = settings.blue;
    const std::uint32_t flags = (mode & 7) | (topDown ? kOrientation : 0) | set.features << kFeatureShift;
    DemosaicToRgb(destination.image, source.image, settings.matrix, gains, flags);
}

class DemosaicModes : public testing::TestWithParam<std::uint32_t> {};

} // namespace

// All sets, phases and orders, widths around every step, odd strides and addresses.
TEST_P(DemosaicModes, EverySetEqualsTheModelOfItsArithmetic) {
    const std::uint32_t mode = GetParam();
    const std::uint32_t pixelBytes = (mode & kModeRgb24) != 0 ? 3 : 4;
    std::uint32_t seed = 0;
    int largest[std::size(kSets)] = {}; // difference from the scalar set, but for extreme matrices
    for (std::uint32_t width = 4; width <= 80; width += width < 16 ? 4 : 2) {
        for (const Mosaic &mosaic : kMosaics) {
            for (bool topDown : {false, true}) {
                const std::uint32_t height = 2 + ++seed % 5;
                const Settings &settings = kSettings[(seed + seed / 8) % std::size(kSettings)];
                SourceBuffer source(mosaic.fourcc, width, height, 0, seed % 17);
                source.Fill(static_cast<Noise>(seed % 3), seed);
                for (std::size_t s = 0; s < std::size(kSets); ++s) {
                    if (!Runs(kSets[s]))
                        continue;
                    FrameBuffer output(pixelBytes == 3 ? kFourCcRgb24 : kFourCcRgb32, width, height, pixelBytes,
                                       seed / 8 % 4 * 7, seed % 13);
                    Convert(kSets[s], mode, topDown, source, output, settings);
                    ASSERT_TRUE(output.CanariesAlive() && source.Unchanged()) << kSets[s].name << " width " << width;
                    const Model model(source, mosaic.cells, mode, settings, kSets[s].vector);
                    const Model reference(source, mosaic.cells, mode, settings, false);
                    for (std::uint32_t y = 0; y < height; ++y) {
                        const std::uint8_t *row = output.Row(topDown ? y : height - 1 - y);
                        for (std::uint32_t x = 0; x < width; ++x) {
                            const auto want = model.Pixel(static_cast<int>(x), static_cast<int>(y));
                            const auto exact = reference.Pixel(static_cast<int>(x), static_cast<int>(y));
                            for (std::uint32_t c = 0; c < 3; ++c) {
                                const int got = row[x * pixelBytes + c];
                                if (&settings < kSettings + kOrdinarySettings)
                                    largest[s] = std::max(largest[s], std::abs(got - exact[c]));
                                ASSERT_EQ(got, want[c])
                                    << kSets[s].name << " " << mosaic.cells << " width " << width << " height "
                                    << height << " x " << x << " y " << y << " component " << c << " seed " << seed;
                            }
                        }
                    }
                }
            }
        }
    }
    for (std::size_t s = 1; s < std::size(kSets); ++s)
        EXPECT_LE(largest[s], (mode & kModeMatrix) != 0 ? 2 : 1) << kSets[s].name;
}

INSTANTIATE_TEST_SUITE_P(All, DemosaicModes, testing::Range(0u, kModes));

TEST(Demosaic, KnownPixels) {
    struct Case {
        const char *what;
        std::uint32_t mode;
        std::uint8_t colour, green; // of the whole mosaic
        Settings settings;
        std::uint8_t blue, greenOut, red;
    };
    constexpr Settings kUnityGains = {{64, 0, 0, 0, 64, 0, 0, 0, 64}, 64, 64, 64};
    const Case cases[] = {
        {"flat grey", 0, 100, 100, kUnityGains, 100, 100, 100},
        {"flat grey, all on", 15, 100, 100, kUnityGains, 100, 100, 100},
        {"gain 255 of 64 is white", 2, 64, 64, {{}, 255, 255, 255}, 255, 255, 255},
        {"gain 255 of 63", 10, 63, 63, {{}, 255, 255, 255}, 251, 251, 251},
        {"gain 255 of 65 saturates", 10, 65, 65, {{}, 255, 255, 255}, 255, 255, 255},
        {"negative sums are black", 9, 200, 10, {{0, 0, -64, 0, 64, 0, 32, 0, 32}, 64, 64, 64}, 200, 10, 0},
        {"large sums stay white", 9, 255, 255, {{127, 127, 127, 0, 64, 0, 0, 0, 64}, 64, 64, 64}, 255, 255, 255},
    };
    for (const Case &c : cases) {
        for (const KernelSet &set : kSets) {
            if (!Runs(set))
                continue;
            SourceBuffer source(kFourCcBayerBg, 40, 4);
            for (std::uint32_t i = 0; i < 160; ++i)
                source.image.data[i] = (i / 40 + i) % 2 == 0 ? c.colour : c.green;
            const std::uint32_t pixelBytes = (c.mode & kModeRgb24) != 0 ? 3 : 4;
            FrameBuffer output(pixelBytes == 3 ? kFourCcRgb24 : kFourCcRgb32, 40, 4, pixelBytes);
            Convert(set, c.mode, true, source, output, c.settings);
            for (std::uint32_t i = 0; i < 160; ++i) {
                const std::uint8_t *pixel = output.image.data + i * pixelBytes;
                ASSERT_TRUE(pixel[0] == c.blue && pixel[1] == c.greenOut && pixel[2] == c.red)
                    << c.what << ", " << set.name << ", pixel " << i << ": " << +pixel[0] << " " << +pixel[1] << " "
                    << +pixel[2];
            }
        }
    }
}

TEST(Demosaic, UnknownMosaicsAreGreenBlue) {
    for (std::uint32_t fourcc : {0u, kFourCcBayer8, kFourCcGrey8, FourCc("B1XX")})
        EXPECT_EQ(PhaseOfFourCc(fourcc), BayerPhase::kGreenBlue);
}

TEST(Demosaic, ChoosesTheKernelOncePerFrame) {
    struct Case {
        std::uint32_t features, options;
        std::uint32_t fourcc;
        std::uint8_t blue, green, red;
        const RowKernel *set;
        std::uint32_t mode;
    };
    constexpr std::uint32_t kLevel7 = 320; // neither of the two bits that are looked at
    const Case cases[] = {
        {127, 7, kFourCcRgb24, 64, 65, 64, kSse41RowKernels, 15},
        {96, 0, kFourCcRgb32, 64, 64, 64, kSse41RowKernels, 0},
        {31, 5, kFourCcRgb32, 11, 12, 13, kSse2RowKernels, 5},
        {7, 2, kFourCcRgb24, 255, 0, 1, kSse2RowKernels, 10},
        {3, 7, kFourCcRgb24, 64, 64, 64, kScalarRowKernels, 13},
        {kLevel7, 2, kFourCcRgb32, 64, 64, 64, kScalarRowKernels, 0},
    };
    for (const Case &c : cases) {
        KernelTables tables{};
        DemosaicParameters parameters{
            .options = c.options, .features = c.features, .redGain = c.red, .blueGain = c.blue, .greenGain = c.green};
        const ImageDescriptor destination{.fourcc = c.fourcc};
        EXPECT_EQ(SelectRowKernel(destination, parameters, tables), c.set[c.mode]);
        EXPECT_EQ(tables.mode, c.mode);
    }
}

TEST(Demosaic, LeavesAloneWhatItCannotConvertInsideTheBuffers) {
    struct Case {
        const char *what;
        std::uint32_t width, height, sourceRows, stride;
    };
    constexpr Case kCases[] = {
        {"odd width", 65, 4, 4, 195},
        {"two columns", 2, 4, 4, 6},
        {"one row", 64, 1, 4, 192},
        {"no rows", 64, 0, 4, 192},
        {"source one row short", 64, 4, 3, 192},
        {"stride too large", 64, 4, 4, 193},
    };
    for (const Case &c : kCases) {
        SourceBuffer source(kFourCcBayerBg, c.width, c.sourceRows);
        FrameBuffer output(kFourCcRgb24, c.width, 4, 3);
        output.image.height = c.height;
        output.image.stride = c.stride;
        for (const KernelSet &set : kSets)
            Convert(set, kModeRgb24, false, source, output, kSettings[0]);
        EXPECT_TRUE(std::ranges::all_of(output.Bytes(), [](std::uint8_t byte) { return byte == kCanary; })) << c.what;
        EXPECT_TRUE(output.CanariesAlive()) << c.what;
    }
}
