#include "tests/host/cameras/camera_harness.h"

#include <fstream>
#include <sstream>

namespace host::cameras {
namespace {

Bytes ReadData(const std::string &name) {
    std::ifstream file(std::string(UVC_TEST_DATA) + "/cameras/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

struct Real {
    std::string slug;
    bool bulk;
};

std::vector<Real> RealCameras() {
    std::ifstream index(std::string(UVC_TEST_DATA) + "/cameras/index.tsv");
    std::vector<Real> cameras;
    std::string line;
    std::getline(index, line);
    while (std::getline(index, line)) {
        std::istringstream fields(line);
        Real camera;
        std::string bulk;
        fields >> camera.slug >> bulk;
        camera.bulk = bulk == "yes";
        cameras.push_back(camera);
    }
    return cameras;
}

class RealCameraTest : public testing::TestWithParam<Real> {};
INSTANTIATE_TEST_SUITE_P(All, RealCameraTest, testing::ValuesIn(RealCameras()), [](const auto &info) {
    std::string name = info.param.slug;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST_P(RealCameraTest, AnswersWithItsBytesAndStreamsIfItCan) {
    const std::string base = std::string(UVC_TEST_DATA) + "/cameras/" + GetParam().slug;
    const auto camera = Make("file:" + base + ".dev.bin," + base + ".cfg.bin");
    const Bytes device = ReadData(GetParam().slug + ".dev.bin");
    const Bytes configuration = ReadData(GetParam().slug + ".cfg.bin");
    EXPECT_EQ(Get(*camera, 0x80, 6, 0x0100, 0, 18), device);
    EXPECT_EQ(Get(*camera, 0x80, 6, 0x0200, 0, 4096), configuration);
    EXPECT_EQ(camera->IsHighSpeed(), Little(device, 2, 2) >= 0x0200);
    EXPECT_EQ(camera->model().productId, Little(device, 10, 2));
    EXPECT_TRUE(Get(*camera, 0x80, 6, 0x0300, 0x409, 255));
    EXPECT_FALSE(Set(*camera, 0x00, 9, static_cast<std::uint16_t>(configuration[5] + 1), 0));
    ASSERT_TRUE(Set(*camera, 0x00, 9, configuration[5], 0));

    Bytes buffer(1 << 20);
    const auto first = camera->BulkIn(camera->Function().bulkEndpoint, buffer, 0);
    EXPECT_EQ(first.status == usb::TransferStatus::Ok, GetParam().bulk);
    if (GetParam().bulk) {
        const StreamState state = camera->CommittedFormat();
        camera->ResetEndpoint(camera->Function().bulkEndpoint);
        std::size_t bytes = 0;
        for (;;) {
            const auto result = camera->BulkIn(camera->Function().bulkEndpoint, buffer, 1'000'000);
            ASSERT_EQ(result.status, usb::TransferStatus::Ok);
            bytes += result.length - buffer[0];
            if ((buffer[1] & 2) != 0)
                break;
        }
        EXPECT_EQ(bytes, state.raster.bytes);
        const Bytes expected = camera->ExpectedFrame(state.formatIndex, state.frameIndex, 3);
        EXPECT_EQ(expected.size(), bytes);
    }
}

// Every prefix and every single broken byte: nothing is read outside the bytes (sanitizers watch), nothing hangs.
TEST_P(RealCameraTest, SurvivesBrokenDescriptors) {
    const Bytes device = ReadData(GetParam().slug + ".dev.bin");
    const Bytes whole = ReadData(GetParam().slug + ".cfg.bin");
    std::size_t most = 0;
    for (std::size_t length = 0; length <= whole.size(); ++length)
        most =
            std::max(most, ParseVideoFunction(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)))
                               .formats.size());
    EXPECT_EQ(most, ParseVideoFunction(whole).formats.size());
    for (std::size_t at = 9; at < whole.size(); ++at) {
        for (std::uint8_t value : {0x00, 0x01, 0xFF}) {
            Bytes broken = whole;
            broken[at] = value;
            std::string reason;
            const auto camera = MakeCamera(device, broken, {}, reason);
            ASSERT_NE(camera, nullptr);
            Set(*camera, 0x00, 9, broken[5], 0);
            SetProbe(*camera, Block(255, 255, 1));
            camera->CommittedFormat();
        }
    }
}

// Device and configuration of a small full-speed camera with one 16 x 8 YUY2 frame.
struct HandMade {
    Bytes device{18, 1, 0x10, 1, 0xEF, 2, 1, 64, 0x34, 0x12, 0x78, 0x56, 0, 1, 0, 4, 0, 1};
    Bytes configuration;

    explicit HandMade(std::uint8_t bitsPerPixel = 16) {
        const Bytes parts[] = {
            {9, 2, 0, 0, 2, 7, 0, 0x80, 250},
            {9, 4, 0, 0, 0, 14, 1, 0, 0},
            {13, 0x24, 1, 0, 1, 40, 0, 0, 0, 0, 0, 1, 1},
            {18, 0x24, 2, 1, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0x08, 0x00, 0x02}, // bits 3 and 17
            {11, 0x24, 5, 2, 1, 0, 0, 2, 0x01, 0x10, 0},                         // bits 0 and 12
            {9, 4, 1, 0, 1, 14, 2, 0, 0},
            {14, 0x24, 1, 1, 71, 0, 0x83, 0, 3, 0, 0, 0, 1, 0},
            {27, 0x24, 4,    1, 1,    'Y',  'U',  'Y',          '2', 0, 0, 0x10, 0, 0x80,
             0,  0,    0xAA, 0, 0x38, 0x9B, 0x71, bitsPerPixel, 1,   0, 0, 0,    0},
            {30, 0x24, 5, 1, 0, 16, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0x15, 0x16, 5, 0, 1, 0x15, 0x16, 5, 0},
            {7, 5, 0x83, 2, 64, 0, 0},
        };
        for (const Bytes &part : parts)
            configuration.insert(configuration.end(), part.begin(), part.end());
        configuration[2] = static_cast<std::uint8_t>(configuration.size());
    }

    std::shared_ptr<SimulatedCamera> Camera() const {
        std::string reason;
        auto camera = MakeCamera(device, configuration, {}, reason);
        EXPECT_NE(camera, nullptr) << reason;
        return camera;
    }
};

TEST(FileCamera, IsWhatItsDescriptorsSay) {
    const auto camera = HandMade().Camera();
    EXPECT_FALSE(camera->IsHighSpeed());
    ASSERT_TRUE(Set(*camera, 0x00, 9, 7, 0));
    EXPECT_EQ(Get(*camera, 0xA1, 0x81, 0x0100, 1, 34)->size(), 26u) << "UVC 1.0";
    const StreamState state = camera->CommittedFormat();
    EXPECT_EQ(state.raster, (Raster{PixelFormat::Yuy2, 16, 8, 256}));
    EXPECT_EQ(state.interval, 333333u);

    Bytes buffer(4096);
    const auto result = camera->BulkIn(0x83, buffer, 0);
    EXPECT_EQ(result.length, 268u);
    EXPECT_EQ(Bytes(buffer.begin() + 12, buffer.begin() + 268), camera->ExpectedFrame(1, 1, 0));

    // Standard selectors: bit 3 exposure time, bit 17 focus automatic, bit 0 brightness, bit 12 white balance
    // automatic.
    const std::pair<std::uint16_t, std::uint16_t> kAnswering[] = {
        {0x0400, 0x0100}, {0x0800, 0x0100}, {0x0200, 0x0200}, {0x0B00, 0x0200}};
    for (int entity = 1; entity <= 2; ++entity) {
        for (int selector = 1; selector <= 20; ++selector) {
            const std::pair<std::uint16_t, std::uint16_t> place{selector << 8, entity << 8};
            const bool answers = std::find(std::begin(kAnswering), std::end(kAnswering), place) != std::end(kAnswering);
            EXPECT_EQ(Get(*camera, 0xA1, 0x81, place.first, place.second, 4).has_value(), answers)
                << entity << "." << selector;
        }
    }
}

TEST(FileCamera, DoesNotTrustAFormatThatContradictsItself) {
    for (std::uint8_t bits : {1, 8, 12, 255}) {
        const auto camera = HandMade(bits).Camera();
        ASSERT_TRUE(Set(*camera, 0x00, 9, 7, 0));
        const StreamState state = camera->CommittedFormat();
        EXPECT_EQ(state.raster.pixels, PixelFormat::Opaque);
        EXPECT_EQ(camera->ExpectedFrame(1, 1, 0).size(), 16u * 8 * bits / 8);
    }
}

TEST(FileCamera, RefusesWhatIsNoDescriptor) {
    const HandMade good;
    const struct {
        Bytes device, configuration;
        const char *reason;
    } kRows[] = {
        {{}, good.configuration, "not a device descriptor"},
        {Bytes(good.device.begin(), good.device.end() - 1), good.configuration, "not a device descriptor"},
        {good.configuration, good.configuration, "not a device descriptor"},
        {good.device, {}, "not a configuration descriptor"},
        {good.device, good.device, "not a configuration descriptor"},
        {good.device, {8, 2, 8, 0, 1, 1, 0, 0x80}, "not a configuration descriptor"},
    };
    for (const auto &row : kRows) {
        std::string reason;
        EXPECT_EQ(MakeCamera(row.device, row.configuration, {}, reason), nullptr);
        EXPECT_EQ(reason, row.reason);
    }
}

} // namespace
} // namespace host::cameras
