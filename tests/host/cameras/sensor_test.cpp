#include "tests/host/cameras/camera_harness.h"

#include <png.h>

#include <cmath>
#include <cstdio>
#include <numeric>

namespace host::cameras {
namespace {

constexpr int kQuarters[4][3] = {{200, 10, 20}, {30, 210, 40}, {50, 60, 220}, {100, 100, 100}};

// A 64 x 48 picture of four flat quarters: red, green, blue, grey.
class SceneFile {
  public:
    SceneFile() {
        std::vector<Rgb> pixels;
        for (int y = 0; y < 48; ++y) {
            for (int x = 0; x < 64; ++x) {
                const int *colour = kQuarters[y / 24 * 2 + x / 32];
                pixels.push_back({static_cast<std::uint8_t>(colour[0]), static_cast<std::uint8_t>(colour[1]),
                                  static_cast<std::uint8_t>(colour[2])});
            }
        }
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        image.width = 64;
        image.height = 48;
        image.format = PNG_FORMAT_RGB;
        EXPECT_TRUE(png_image_write_to_file(&image, path_.c_str(), 0, pixels.data(), 0, nullptr));
    }
    ~SceneFile() { std::remove(path_.c_str()); }

    const std::string &Path() const { return path_; }

  private:
    std::string path_ = testing::TempDir() + "scene-" +
                        std::to_string(testing::UnitTest::GetInstance()->random_seed()) +
                        testing::UnitTest::GetInstance()->current_test_info()->name() + ".png";
};

std::shared_ptr<SimulatedCamera> WithScene(const std::string &text, const SceneFile &scene) {
    auto camera = Make(text);
    std::string reason;
    EXPECT_TRUE(camera->SetScene(scene.Path(), reason)) << reason;
    EXPECT_TRUE(Configure(*camera));
    return camera;
}

TEST(Sensor, FiltersTheSceneInTheModelsPattern) {
    const SceneFile scene;
    const struct {
        const char *name;
        const char *filters; // row 0: even, odd; row 1: even, odd
    } kRows[] = {{"sim:8201", "BGGR"}, {"sim:8203", "GBRG"}, {"sim:8205", "GRBG"}, {"sim:8206", "RGGB"}};
    for (const auto &row : kRows) {
        const auto camera = WithScene(row.name, scene);
        const StreamFrame frame = camera->Function().formats[0].frames.back();
        const Bytes bytes = camera->ExpectedFrame(1, frame.index, 0);
        for (std::size_t quarter = 0; quarter < 4; ++quarter) {
            const std::size_t x = (quarter % 2 == 0 ? 1 : 3) * frame.width / 4u & ~1u;
            const std::size_t y = (quarter / 2 == 0 ? 1 : 3) * frame.height / 4u & ~1u;
            for (std::size_t cell = 0; cell < 4; ++cell) {
                const std::size_t channel = std::string_view("RGB").find(row.filters[cell]);
                EXPECT_EQ(bytes.at((y + cell / 2) * frame.width + x + cell % 2), kQuarters[quarter][channel])
                    << row.name << " quarter " << quarter << " cell " << cell;
            }
        }
    }
}

TEST(Sensor, MakesGreyAndYuvOfTheScene) {
    const SceneFile scene;
    const auto camera = WithScene("sim:generic", scene);
    const Bytes grey = camera->ExpectedFrame(2, 2, 0);
    const Bytes yuy2 = camera->ExpectedFrame(1, 2, 0);
    const std::size_t places[] = {60 * 320 + 80, 60 * 320 + 240, 180 * 320 + 80, 180 * 320 + 240};
    for (std::size_t i = 0; i < 4; ++i) {
        const double r = kQuarters[i][0] / 255.0;
        const double g = kQuarters[i][1] / 255.0;
        const double b = kQuarters[i][2] / 255.0;
        EXPECT_NEAR(grey[places[i]], 255 * (0.299 * r + 0.587 * g + 0.114 * b), 0.6) << i;
        // BT.601, studio range
        const std::uint8_t *pixel = &yuy2[places[i] * 2];
        const double luma = 16 + 65.481 * r + 128.553 * g + 24.966 * b;
        EXPECT_NEAR(pixel[0], luma, 1.01) << i;
        EXPECT_NEAR(pixel[1], 128 - 37.797 * r - 74.203 * g + 112 * b, 1.01) << i;
        EXPECT_NEAR(pixel[2], luma, 1.01) << i;
        EXPECT_NEAR(pixel[3], 128 + 112 * r - 93.786 * g - 18.214 * b, 1.01) << i;
    }
}

double Mean(const Bytes &bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), 0.0) / static_cast<double>(bytes.size());
}

TEST(Sensor, ShowsExposureAndGainAfterTheLatency) {
    const SceneFile scene;
    const auto camera = WithScene("sim:8202,latency=2", scene);
    ASSERT_TRUE(Commit(*camera, 1, 2, 62500));
    const double usual = Mean(ReadFrame(*camera, 0));
    // Exposure 333 to 111: from the third next frame on.
    ASSERT_TRUE(Set(*camera, 0x21, 1, 0x0400, 0x0100, {111, 0, 0, 0}));
    const double kFactors[] = {1, 1, 1.0 / 3, 1.0 / 3};
    for (int i = 0; i < 4; ++i) {
        if (i == 3) {
            ASSERT_TRUE(Set(*camera, 0x21, 1, 0x0400, 0x0200, {128, 0})); // gain 2, seen later
        }
        const Bytes frame = ReadFrame(*camera, 62500 * (i + 1));
        EXPECT_NEAR(Mean(frame), usual * kFactors[i], 0.6) << i;
        EXPECT_EQ(frame, camera->ExpectedFrame(1, 2, static_cast<std::uint64_t>(i + 1)));
    }
    ReadFrame(*camera, 62500 * 5);
    EXPECT_NEAR(Mean(ReadFrame(*camera, 62500 * 6)), usual * 2 / 3, 0.6);
    EXPECT_NEAR(Mean(camera->ExpectedFrame(1, 2, 0)), usual, 1e-9) << "what was, stays known";
}

TEST(Sensor, ShowsScenesThatNeedNoFile) {
    const auto flat = Make("sim:8202,scene=flat");
    EXPECT_EQ(flat->ExpectedFrame(1, 2, 0), Bytes(320 * 240, 128));
    const auto grey = Make("sim:8201,scene=grey");
    const auto chart = Make("sim:8201");
    const Bytes neutral = grey->ExpectedFrame(1, 2, 0);
    EXPECT_NE(neutral, chart->ExpectedFrame(1, 2, 0));
    // The same brightness through every filter: green against its blue and red neighbours, over the whole picture.
    double sums[3] = {};
    for (std::size_t y = 0; y < 240; ++y)
        for (std::size_t x = 0; x < 320; ++x)
            sums[y % 2 + x % 2] += neutral[y * 320 + x];
    EXPECT_NEAR(sums[0] / 19200, sums[1] / 38400, 1);
    EXPECT_NEAR(sums[2] / 19200, sums[1] / 38400, 1);
    std::string reason;
    EXPECT_TRUE(chart->SetScene("grey", reason));
    EXPECT_EQ(chart->ExpectedFrame(1, 2, 0), neutral);
    EXPECT_EQ(MakeCamera("sim:8201,scene=absent.png", reason), nullptr);
    EXPECT_TRUE(reason.starts_with("absent.png: ")) << reason;
}

// The differences of blocks of pixels, as an autofocus looks at them.
double Sharpness(const Bytes &frame, std::size_t width) {
    double sum = 0;
    for (std::size_t row = 0; row < frame.size() / width; row += 24) {
        int best = 0;
        for (std::size_t x = 0; x + 16 <= width; x += 4) {
            int difference = 0;
            for (std::size_t i = 0; i < 8; ++i)
                difference += frame[row * width + x + i] - frame[row * width + x + i + 8];
            best = std::max(best, std::abs(difference));
        }
        sum += best;
    }
    return sum;
}

TEST(FocusMotor, MovesEvenlyAndShowsWhereItIs) {
    const auto camera = Make("sim:8205,sharp=900");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 3, 370009));
    const auto move = [&](std::uint16_t position, usb::Ticks now) {
        Bytes data{static_cast<std::uint8_t>(position), static_cast<std::uint8_t>(position >> 8)};
        return camera->Control({0x21, 1, 0x0600, 0x0100, 2}, data, now).status == usb::TransferStatus::Ok;
    };
    constexpr usb::Ticks kStart = 100'000'000;
    ASSERT_TRUE(move(900, kStart)); // from 500: 320 ms
    const struct {
        usb::Ticks at;
        int position;
    } kRows[] = {{-5, 500}, {0, 500}, {1'600'000, 700}, {3'192'000, 899}, {3'200'000, 900}, {90'000'000, 900}};
    for (const auto &row : kRows)
        EXPECT_EQ(camera->FocusAt(kStart + row.at), row.position) << row.at;
    EXPECT_FALSE(move(1001, kStart));

    const Bytes sharp = camera->ExpectedFrame(1, 3, 0);
    std::vector<Bytes> frames;
    for (int i = 0; i < 12; ++i)
        frames.push_back(ReadFrame(*camera, kStart + i * 370'009));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i], camera->ExpectedFrame(1, 3, i)) << "what was, stays known";
        EXPECT_EQ(frames[i] == sharp, i >= 9) << i;
        if (i > 0 && i < 9) {
            EXPECT_GT(Sharpness(frames[i], 640), Sharpness(frames[i - 1], 640)) << i;
        }
    }
    // Half-way to the other end it turns round.
    ASSERT_TRUE(move(0, kStart + 10'000'000));
    ASSERT_TRUE(move(1000, kStart + 13'200'000));
    EXPECT_EQ(camera->FocusAt(kStart + 13'200'000), 500);
    EXPECT_EQ(camera->FocusAt(kStart + 15'200'000), 750);
    camera->ResetPort();
    EXPECT_EQ(camera->FocusAt(kStart + 15'200'000), 500);
}

TEST(Sensor, NoiseDefectsAndMarkAreWhatTheOptionsSay) {
    const SceneFile scene;
    const auto clean = WithScene("sim:8202", scene);
    const auto noisy = WithScene("sim:8202,noise=5,seed=7", scene);
    const Bytes base = clean->ExpectedFrame(1, 1, 0);
    const Bytes first = noisy->ExpectedFrame(1, 1, 0);
    const Bytes second = noisy->ExpectedFrame(1, 1, 1);
    double mean = 0;
    double square = 0;
    double product = 0;
    for (std::size_t i = 0; i < base.size(); ++i) {
        const double a = first[i] - base[i];
        const double b = second[i] - base[i];
        mean += a;
        square += a * a;
        product += a * b;
    }
    const auto count = static_cast<double>(base.size());
    EXPECT_NEAR(mean / count, 0, 0.1);
    EXPECT_NEAR(std::sqrt(square / count), 5, 0.1);
    EXPECT_NEAR(product / square, 0, 0.02) << "frames are independent";
    EXPECT_EQ(noisy->ExpectedFrame(1, 1, 0), first);
    EXPECT_NE(WithScene("sim:8202,noise=5,seed=8", scene)->ExpectedFrame(1, 1, 0), first);

    const auto marked = WithScene("sim:8202,mark=on,defects=40", scene);
    const Bytes frame = marked->ExpectedFrame(1, 1, 0x80000005);
    std::uint32_t number = 0;
    for (std::size_t cell = 0; cell < 32; ++cell)
        number = number << 1 | (frame[(cell / 16 * 8 + 4) * 640 + cell % 16 * 8 + 4] > 128 ? 1 : 0);
    EXPECT_EQ(number, 0x80000005u);
    std::size_t different = 0;
    for (std::size_t i = 16 * 640; i < base.size(); ++i)
        different += frame[i] != base[i] ? 1 : 0;
    EXPECT_GE(different, 36u);
    EXPECT_LE(different, 40u);
    for (const Defect &defect : marked->Defects()) {
        if (defect.y / 2 >= 16) {
            EXPECT_EQ(frame[std::size_t{defect.y / 2u} * 640 + defect.x / 2u], defect.level);
        }
    }
}

TEST(Sensor, SharesOneFrameAsLongAsNothingChanges) {
    Sensor sensor(*FindModel("8202"), {});
    const Raster raster{PixelFormat::Grey8, 320, 240, 76800};
    EXPECT_EQ(sensor.Expose(raster, {}, 0), sensor.Expose(raster, {}, 1));
    const FrameBytes held = sensor.Expose(raster, {}, 2);
    const Bytes copy = *held;
    sensor.Expose(raster, {.exposure = 0.5}, 3);
    EXPECT_EQ(*held, copy) << "a frame on its way stays as it is";
}

TEST(Sensor, RefusesAnUnreadableScene) {
    const auto camera = Make("sim:8202");
    const Bytes before = camera->ExpectedFrame(1, 2, 0);
    std::string reason;
    EXPECT_FALSE(camera->SetScene("absent.png", reason));
    EXPECT_TRUE(reason.starts_with("absent.png: ")) << reason;
    EXPECT_FALSE(camera->SetScene(std::string(UVC_TEST_DATA) + "/cameras/index.tsv", reason));
    EXPECT_EQ(camera->ExpectedFrame(1, 2, 0), before);
}

} // namespace
} // namespace host::cameras
