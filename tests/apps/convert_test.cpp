#include "tests/apps/uvcam.h"

#include <algorithm>

namespace uvcam_test {
namespace {

constexpr int kWidth = 48;
constexpr int kHeight = 12;
const char *const kSets[] = {"scalar", "sse2", "sse4.1"};

struct Colour {
    int red, green, blue;
};

// Colours of a 2 x 2 cell by rows.
struct Pattern {
    const char *fourCc;
    const char *cell;
};
constexpr Pattern kPatterns[] = {
    {"B1BG", "BGGR"}, {"B1GB", "GBRG"}, {"b1gr", "GRBG"}, {"B1RG", "RGGB"}, {"by8", "GBRG"}};

// An even colour, seen through the filter.
std::string Mosaic(const char *cell, const Colour &colour) {
    std::string mosaic;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const char filter = cell[y % 2 * 2 + x % 2];
            mosaic += static_cast<char>(filter == 'R' ? colour.red : filter == 'G' ? colour.green : colour.blue);
        }
    }
    return mosaic;
}

std::string Rows(const std::string &bytes, std::size_t rowBytes, bool reversed) {
    std::string rows;
    for (std::size_t at = 0; at < bytes.size(); at += rowBytes)
        rows.insert(reversed ? 0 : rows.size(), bytes.substr(at, rowBytes));
    return rows;
}

// Numbers every pixel.
std::string Counted() {
    std::string bytes;
    for (int i = 0; i < kWidth * kHeight; ++i)
        bytes += static_cast<char>(i * 37 + i / kWidth);
    return bytes;
}

class ConvertTest : public UvcamTest {
  protected:
    std::string Convert(const std::string &options, const std::string &input) {
        const Outcome outcome = Run("convert --size 48x12 " + options + " - -", input);
        EXPECT_EQ(outcome.code, 0) << options << ": " << outcome.err;
        return outcome.out;
    }
};

TEST_F(ConvertTest, AnEvenColourComesOutOfEveryMosaicAndSet) {
    struct Case {
        const char *options;
        Colour expected;
    };
    const Case cases[] = {
        {"", {200, 100, 48}},
        {" --smooth", {200, 100, 48}},
        {" --gains 32,64,128", {100, 100, 96}},
        {" --gains 64,80,-5", {200, 125, 0}},
        {" --gains 128,64,300", {255, 100, 191}}, // 255 is the largest gain there is
        {" --matrix 0,64,0,0,0,64,64,0,0", {100, 48, 200}},
        {" --matrix -64,128,0,0,64,0,0,0,64 --smooth", {0, 100, 48}},
        {" --gains 32,64,64 --matrix 0,64,0,64,0,0,0,0,64", {100, 100, 48}},
    };
    for (const Pattern &pattern : kPatterns) {
        const std::string mosaic = Mosaic(pattern.cell, {200, 100, 48});
        for (const Case &c : cases) {
            for (const char *set : kSets) {
                for (const int bytes : {3, 4}) {
                    const std::string options = std::string("--from ") + pattern.fourCc + " --to RGB" +
                                                std::to_string(bytes) + " --isa " + set + c.options;
                    const std::string pixels = Convert(options, mosaic);
                    ASSERT_EQ(pixels.size(), std::size_t(kWidth * kHeight * bytes));
                    const int expected[] = {c.expected.blue, c.expected.green, c.expected.red};
                    for (std::size_t i = 0; i < pixels.size(); ++i) {
                        const std::size_t channel = i % static_cast<std::size_t>(bytes);
                        if (channel < 3)
                            ASSERT_EQ(static_cast<std::uint8_t>(pixels[i]), expected[channel])
                                << options << " byte " << i;
                    }
                }
            }
        }
    }
}

TEST_F(ConvertTest, RgbIsBottomUpUnlessToldCopiesTheOtherWayRound) {
    const std::string counted = Counted();
    std::string rgb;
    for (const char level : counted)
        rgb.append(3, level);
    struct Case {
        const char *options;
        const std::string &bytes;
        std::size_t rowBytes;
        bool reversedTopDown;
    };
    const Case cases[] = {
        {"--from Y800 --to RGB3", rgb, 3 * kWidth, false}, {"--from Y800 --to Y800", counted, kWidth, true},
        {"--from Y800 --to BY8", counted, kWidth, true},   {"--from B1GR --to Y800", counted, kWidth, true},
        {"--from B1GR --to B1RG", counted, kWidth, true},  {"--from BY8 --to B1BG", counted, kWidth, true},
    };
    for (const Case &c : cases) {
        for (const char *set : kSets) {
            const std::string options = std::string(c.options) + " --isa " + set;
            EXPECT_TRUE(Convert(options, counted) == Rows(c.bytes, c.rowBytes, !c.reversedTopDown)) << options;
            EXPECT_TRUE(Convert(options + " --top-down", counted) == Rows(c.bytes, c.rowBytes, c.reversedTopDown))
                << options;
        }
    }
    // Colours follow their rows.
    const std::string mosaic = Mosaic("BGGR", {200, 100, 48});
    const std::string two = mosaic.substr(0, mosaic.size() / 2) + std::string(mosaic.size() / 2, '\0');
    EXPECT_EQ(Convert("--from B1BG --to RGB3", two)[2], '\0');
    EXPECT_EQ(static_cast<std::uint8_t>(Convert("--from B1BG --to RGB3 --top-down", two)[2]), 200);
}

TEST_F(ConvertTest, GreySmoothingEvensOutACheckerboard) {
    std::string board;
    for (int i = 0; i < kWidth * kHeight; ++i)
        board += static_cast<char>((i / kWidth + i) % 2 != 0 ? 200 : 0);
    for (const char *set : kSets) {
        const std::string smooth = Convert(std::string("--from Y800 --to Y800 --smooth --isa ") + set, board);
        ASSERT_EQ(smooth.size(), board.size());
        EXPECT_TRUE(smooth.substr(0, kWidth) == board.substr(0, kWidth)) << "the first row has none above it";
        for (int y = 1; y < kHeight; ++y)
            for (int x = 0; x + 1 < kWidth; ++x)
                ASSERT_EQ(static_cast<std::uint8_t>(smooth[static_cast<std::size_t>(y * kWidth + x)]), 100) << set;
    }
}

// What has no conversion of its own.
TEST_F(ConvertTest, BytesAsTheyAre) {
    const std::string counted = Counted();
    const std::string rgb32 = Convert("--from Y800 --to RGB4", counted);
    ASSERT_EQ(rgb32.size(), 4 * counted.size());
    EXPECT_TRUE(rgb32.substr(0, counted.size()) == counted);
    const std::string yuy2 = Convert("--from BY8 --to YUY2", counted);
    ASSERT_EQ(yuy2.size(), 2 * counted.size());
    for (std::size_t row = 0; row < kHeight; ++row)
        EXPECT_TRUE(yuy2.substr(row * 2 * kWidth, kWidth) == counted.substr(row * kWidth, kWidth)) << row;
}

TEST_F(ConvertTest, FilesInAndOut) {
    WriteFile(PathOf("in"), Counted());
    const Outcome outcome = Run("convert --size 48x12 --from Y800 --to BY8 @in @out");
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_TRUE(ReadFile(PathOf("out")) == Counted());
}

} // namespace
} // namespace uvcam_test
