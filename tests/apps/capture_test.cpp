#include "tests/apps/uvcam.h"

#include <nlohmann/json.hpp>
#include <png.h>

namespace uvcam_test {
namespace {

using nlohmann::json;

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr std::size_t kPixels = std::size_t{kWidth} * kHeight;

// Every pixel says where it is: no two neighbours, rows or columns are alike.
std::uint8_t LevelAt(int x, int y) {
    return static_cast<std::uint8_t>(7 * x + 31 * y + (x * y >> 5));
}

class CaptureTest : public UvcamTest {
  protected:
    // Grey, or red with a blue lower half.
    std::string WriteScene(bool colour) {
        std::vector<std::uint8_t> rgb;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const std::uint8_t level = LevelAt(x, y);
                if (!colour)
                    rgb.insert(rgb.end(), {level, level, level});
                else if (y < kHeight / 2)
                    rgb.insert(rgb.end(), {200, 60, 20});
                else
                    rgb.insert(rgb.end(), {20, 60, 200});
            }
        }
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        image.width = kWidth;
        image.height = kHeight;
        image.format = PNG_FORMAT_RGB;
        EXPECT_NE(png_image_write_to_file(&image, PathOf("scene.png").c_str(), 0, rgb.data(), 0, nullptr), 0);
        return " --size 320x240 --free-run --scene @scene.png ";
    }
    std::vector<std::uint8_t> ReadPng(const std::string &name, png_uint_32 format) {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        EXPECT_NE(png_image_begin_read_from_file(&image, PathOf(name).c_str()), 0) << image.message;
        EXPECT_EQ(image.format, format) << "the file's own";
        EXPECT_EQ(image.width, unsigned{kWidth});
        EXPECT_EQ(image.height, unsigned{kHeight});
        std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
        EXPECT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0) << image.message;
        return pixels;
    }
};

std::string Picture() {
    std::string picture;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            picture += static_cast<char>(LevelAt(x, y));
    return picture;
}

// The frame number that the camera drew: 32 cells of 8 x 8 pixels, black or white, in two rows.
unsigned MarkOf(std::span<const char> frame) {
    unsigned number = 0;
    for (int cell = 0; cell < 32; ++cell) {
        const int x = cell % 16 * 8 + 4;
        const int y = cell / 16 * 8 + 4;
        number = number << 1 | (static_cast<std::uint8_t>(frame[static_cast<std::size_t>(y * kWidth + x)]) >= 128);
    }
    return number;
}

TEST_F(CaptureTest, EveryByteOfEveryFrameInEveryModeOfAssembly) {
    struct Mode {
        const char *camera;
        const char *options;
    };
    const Mode modes[] = {
        {"sim:8101", ""},                               // direct
        {"sim:generic,payload=3000,header=2", ""},      // direct, payloads that fill no packet
        {"sim:8201,payload=16384", ""},                 // collecting
        {"sim:8201,payload=5000,header=6,eof=off", ""}, // collecting, frames told apart by their identifier
        {"sim:8202", ""},                               // whole transfers
        {"sim:8201,payload=frame,header=2", ""},        // whole transfers out of a mosaic
        {"sim:8202", " --max-transfer 40960"},          // payloads of two transfers
    };
    constexpr unsigned kFrames = 300;
    const std::string scene = WriteScene(false);
    const std::string picture = Picture();
    constexpr std::size_t kMarkRows = 16;
    for (const Mode &mode : modes) {
        SCOPED_TRACE(std::string(mode.camera) + mode.options);
        const Outcome outcome = Run("capture " + std::string(mode.camera) + ",mark=on" + mode.options +
                                    " --format Y800 --frames 300 --output -" + scene.substr(0, scene.size() - 1));
        ASSERT_EQ(outcome.code, 0) << outcome.err;
        ASSERT_EQ(outcome.out.size(), kFrames * kPixels);
        unsigned previous = 0;
        for (unsigned i = 0; i < kFrames; ++i) {
            const std::span frame(outcome.out.data() + i * kPixels, kPixels);
            const unsigned number = MarkOf(frame);
            if (i != 0)
                ASSERT_GT(number, previous) << "frame " << i;
            previous = number;
            // What is drawn over.
            const std::string_view below(frame.data() + kMarkRows * kWidth, kPixels - kMarkRows * kWidth);
            ASSERT_TRUE(below == std::string_view(picture).substr(kMarkRows * kWidth)) << "frame " << i;
        }
        // Under a heavy load the camera may lose patience and expose one that nobody takes.
        EXPECT_LE(previous, kFrames + 5);
    }
}

TEST_F(CaptureTest, Files) {
    const std::string scene = WriteScene(false);
    const std::string picture = Picture();
    struct Case {
        const char *pattern;
        const char *second; // the second frame's name
        const char *head;
    };
    const Case cases[] = {{"@raw-%d.raw", "raw-2.raw", ""},
                          {"@plain.raw", "plain.raw", ""},
                          {"@netpbm-%03d.pgm", "netpbm-002.pgm", "P5\n320 240\n255\n"},
                          {"@png-%04d.png", "png-0002.png", nullptr}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pattern);
        const Outcome outcome =
            Run(std::string("capture sim:8101 --format Y800 --frames 2 --output ") + c.pattern + scene + "--fps 60");
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_EQ(outcome.out, "");
        EXPECT_NE(outcome.err.find("2 frames of Y800 320x240"), std::string::npos) << outcome.err;
        if (c.head != nullptr) {
            EXPECT_TRUE(ReadFile(PathOf(c.second)) == c.head + picture);
        } else {
            const std::vector<std::uint8_t> pixels = ReadPng(c.second, PNG_FORMAT_GRAY);
            EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), picture.begin(), picture.end(),
                                   [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }));
        }
    }
}

// A bitmap's rows go from bottom to top, a picture's from top to bottom; blue comes first in a bitmap.
TEST_F(CaptureTest, ColourPicturesStandUpright) {
    const std::string scene = WriteScene(true);
    for (const auto &[camera, format, bytes] :
         {std::tuple{"sim:8201", "RGB3", 3}, {"sim:8201", "RGB4", 4}, {"sim:8101", "YUY2", 2}}) {
        SCOPED_TRACE(format);
        const std::string line = std::string("capture ") + camera + " --format " + format + scene + "--output ";
        const Outcome raw = Run(line + "-");
        EXPECT_EQ(raw.code, 0) << raw.err;
        ASSERT_EQ(raw.out.size(), kPixels * static_cast<std::size_t>(bytes));
        if (bytes != 2) {
            EXPECT_GT(static_cast<std::uint8_t>(raw.out[0]), 150) << "the lowest row is blue";
            EXPECT_LT(static_cast<std::uint8_t>(raw.out[2]), 50);
        }
        EXPECT_EQ(Run(line + "@upright.png").code, 0);
        const std::vector<std::uint8_t> pixels = ReadPng("upright.png", PNG_FORMAT_RGB);
        // The driver corrects the colours of some cameras: what is red stays red.
        for (const auto &[row, strong, weak] : {std::tuple{10, 0, 2}, {kHeight - 10, 2, 0}}) {
            const std::uint8_t *pixel = pixels.data() + 3 * (row * kWidth + kWidth / 2);
            EXPECT_GT(pixel[strong], 180) << "row " << row;
            EXPECT_NEAR(pixel[1], 50, 20);
            EXPECT_LT(pixel[weak], 40);
        }
    }
}

TEST_F(CaptureTest, TheOverlayIsDrawnAtTheTop) {
    const std::string line = "capture sim:8101 --format Y800 --output -" + WriteScene(false);
    const std::string plain = Run(line + "--fps 60").out;
    const std::string drawn = Run(line + "--overlay").out;
    ASSERT_EQ(plain.size(), kPixels);
    ASSERT_EQ(drawn.size(), kPixels);
    constexpr std::size_t kRows = 80;
    EXPECT_FALSE(plain.substr(0, kRows * kWidth) == drawn.substr(0, kRows * kWidth));
    EXPECT_TRUE(plain.substr(kRows * kWidth) == drawn.substr(kRows * kWidth));
}

// The camera gives up region and binning when a stream starts; the very first frame shows them all the same.
TEST_F(CaptureTest, SettingsShowInTheFirstFrame) {
    const auto capture = [this](const std::string &region) {
        const Outcome outcome = Run("capture sim:8205 --format BY8 --size 640x480 --free-run --frames 2 --output - "
                                    "--set Exposure=300 Gain=manual " +
                                    region);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_EQ(outcome.err.find("uvcam: "), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out.size(), 2u * 640 * 480);
        EXPECT_TRUE(outcome.out.substr(0, 640 * 480) == outcome.out.substr(640 * 480)) << "the frames are alike";
        return outcome.out;
    };
    const std::string first = capture("Binning=1 HorizontalOffset=400 VerticalOffset=300");
    const std::string moved = capture("Binning=1 HorizontalOffset=440 VerticalOffset=310");
    ASSERT_EQ(first.size(), moved.size());
    for (std::size_t y = 0; y < 470; ++y)
        ASSERT_TRUE(first.substr((y + 10) * 640 + 40, 600) == moved.substr(y * 640, 600)) << "row " << y;
    EXPECT_FALSE(first == capture("Binning=2 HorizontalOffset=400 VerticalOffset=300"));
    EXPECT_EQ(Run("capture sim:8205 --free-run --set Exposure=300 Binning=3 --output @refused.png").code, 1);
    const Outcome least = Run("monitor sim:8205 --size 640x480 --free-run --frames 1 --set HorizontalOffset=41");
    EXPECT_EQ(least.err, "uvcam: HorizontalOffset is 32, not 41\n") << "binned by 4 it does not fit";
    EXPECT_EQ(Run("capture sim:8101 --set Gain=99 Exposure=20001").code, 2);
    EXPECT_EQ(Run("get sim:8101 Gain").out, "Gain=64\n") << "nothing is half done";
}

TEST_F(CaptureTest, PacedFramesAreTimedAnIntervalApart) {
    const Outcome outcome = Run("capture sim:8202 --size 320x240 --fps 60 --frames 6 --json");
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    const json summary = json::parse(outcome.out);
    EXPECT_EQ(summary["camera"], "sim:8202");
    EXPECT_EQ(summary["format"], "Y800");
    EXPECT_EQ(summary["width"], 320);
    EXPECT_EQ(summary["height"], 240);
    EXPECT_EQ(summary["delivered"], 6);
    EXPECT_EQ(summary["failed"], 0);
    EXPECT_GT(summary["fps"], 1.0);
    ASSERT_EQ(summary["frames"].size(), 6u);
    long long previous = 0;
    for (const json &frame : summary["frames"]) {
        EXPECT_EQ(frame["bytes"], 320 * 240);
        EXPECT_NEAR(frame["duration"].get<int>(), 166666, 1);
        EXPECT_GT(frame["picture"], 0);
        EXPECT_GE(frame["time"].get<long long>(), previous);
        previous = frame["time"];
    }
    EXPECT_GE(previous, 3 * 166666) << "real time has passed";
}

TEST_F(CaptureTest, Listings) {
    const Outcome text = Run("list");
    const Outcome list = Run("list --json");
    ASSERT_EQ(list.code, 0) << list.err;
    const json cameras = json::parse(list.out);
    ASSERT_EQ(cameras.size(), 10u);
    EXPECT_EQ(std::count(text.out.begin(), text.out.end(), '\n'), 10);
    for (const json &camera : cameras) {
        const std::string name = camera.at("name");
        SCOPED_TRACE(name);
        EXPECT_NE(text.out.find(name), std::string::npos);
        EXPECT_NE(text.out.find(camera.at("title").get<std::string>()), std::string::npos);
        EXPECT_TRUE(camera.at("vendor").is_number_unsigned());
        EXPECT_TRUE(camera.at("product").is_number_unsigned());

        const Outcome formats = Run("formats " + name + " --json");
        ASSERT_EQ(formats.code, 0) << formats.err;
        const json offered = json::parse(formats.out);
        EXPECT_FALSE(offered.empty());
        for (const json &format : offered) {
            EXPECT_EQ(format.at("format").get<std::string>().size(), 4u);
            EXPECT_GE(format.at("width"), 320);
            EXPECT_GE(format.at("height"), 240);
            EXPECT_GE(format.at("bits"), 8);
            EXPECT_GT(format.at("fpsMinimum"), 0.0);
            EXPECT_GE(format.at("fpsMaximum"), format.at("fpsMinimum"));
            EXPECT_FALSE(format.at("template"));
        }
    }
    const Outcome formats = Run("formats sim:8202");
    EXPECT_TRUE(formats.out.starts_with("Y800   640x480    8 bit")) << formats.out;
}

} // namespace
} // namespace uvcam_test
