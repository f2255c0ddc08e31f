// From a raw sensor to an application in the formats that the driver converts to, while an application changes how.
#include "imaging/conversion.h"
#include "imaging/processor_features.h"
#include "tests/driver/capture_rig.h"
#include "uvc_drv/properties.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <tuple>

namespace uvc::driver_test {

namespace {

constexpr ULONG kOverlayParameter = 1;
constexpr ULONG kInstructionSetParameter = 26;

using Image = std::vector<std::uint8_t>;

struct Model {
    const char *text;
    ULONG mosaic; // 0: monochrome
};

constexpr Model kModels[] = {
    {"sim:8201", imaging::kFourCcBayerBg}, {"sim:8102", imaging::kFourCcBayerRg}, {"sim:8202", 0}};

struct Output {
    USHORT bits;
    ULONG compression;
    ULONG format; // what the conversion calls it
};

constexpr Output kOutputs[] = {
    {24, 0, imaging::kFourCcRgb24}, {32, 0, imaging::kFourCcRgb32}, {8, FourCc("Y800"), imaging::kFourCcGrey8}};

// A level as an application asks for it, and the features that the conversion goes by.
struct Level {
    ULONG number;
    ULONG features;
};

constexpr ULONG kDetected = ~ULONG{0};

class Conversion : public testing::TestWithParam<std::tuple<Model, Output>> {
  protected:
    // Streams in the smallest size.
    void SetUp() override {
        ASSERT_EQ(rig.started, STATUS_SUCCESS);
        std::optional<KS_DATARANGE_VIDEO> range;
        for (const KS_DATARANGE_VIDEO &offered : rig.app.Ranges()) {
            const KS_BITMAPINFOHEADER &bitmap = offered.VideoInfoHeader.bmiHeader;
            if (bitmap.biCompression == output.compression && bitmap.biBitCount == output.bits &&
                (!range || bitmap.biWidth < range->VideoInfoHeader.bmiHeader.biWidth))
                range = offered;
        }
        ASSERT_TRUE(range);
        ASSERT_EQ(rig.app.OpenPin(*range), STATUS_SUCCESS);
        if (mosaic != 0) { // the gains stay as they are
            KSPROPERTY_VIDEOPROCAMP_S manual{};
            manual.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
            ASSERT_EQ(rig.app.filter.SetBlock(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE,
                                              {reinterpret_cast<std::uint8_t *>(&manual), sizeof(manual)}),
                      STATUS_SUCCESS);
        }
        ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
        width = static_cast<ULONG>(rig.app.Info().bmiHeader.biWidth);
        height = static_cast<ULONG>(rig.app.Info().bmiHeader.biHeight);
        stride = width * output.bits / 8;
    }

    void Set(ULONG parameter, ULONG value) {
        ASSERT_EQ(
            rig.app.filter.Property(PROPSETID_DRIVER_PARAMETER, parameter, KSPROPERTY_TYPE_SET, {}, BytesOf(value)),
            STATUS_SUCCESS);
    }

    // The default corrections written over `image`.
    void Convert(Image &image, std::uint64_t exposure, ULONG features) {
        const host::cameras::StreamState stream = rig.camera->CommittedFormat();
        Image raw = rig.camera->ExpectedFrame(stream.formatIndex, stream.frameIndex, exposure);
        const auto describe = [this](Image &bytes, ULONG fourCc, ULONG step) {
            return imaging::ImageDescriptor{.data = bytes.data(),
                                            .size = static_cast<ULONG>(bytes.size()),
                                            .fourcc = fourCc,
                                            .width = width,
                                            .height = height,
                                            .stride = step};
        };
        const auto destination = describe(image, output.format, stride);
        const auto source = describe(raw, mosaic != 0 ? mosaic : imaging::kFourCcGrey8, width);
        const ULONG flags = (features & imaging::DetectProcessorFeatures()) << imaging::kFeatureShift;
        if (mosaic == 0) {
            imaging::ConvertMonoFrame(destination, source, flags);
            return;
        }
        constexpr std::int16_t kMatrix[] = {90, -13, -13, -13, 90, -13, -13, -13, 90};
        constexpr imaging::GainRecords kGains = {
            .blue = {.current = 64}, .red = {.current = 64}, .green = {.current = 64}};
        imaging::ConvertColourFrame(destination, source, kMatrix, kGains,
                                    flags | imaging::kApplyMatrix | imaging::kApplyGains);
    }

    // Where row `y` of the picture begins.
    std::size_t Row(std::size_t y) const { return (output.compression == 0 ? height - 1 - y : y) * stride; }

    // The exposure at or after `from` that a delivered frame shows, converted with any of the features. What a
    // conversion does not write, and with `lines` the rows of the statistics, may be anything.
    std::optional<std::uint64_t> ExposureOf(std::span<const std::uint8_t> delivered, std::uint64_t from,
                                            std::initializer_list<ULONG> features, bool lines) {
        constexpr std::uint64_t kMostLost = 6; // frames that a worker two behind may have refused
        for (std::uint64_t number = from; number < from + kMostLost; ++number) {
            for (ULONG mask : features) {
                Image image(delivered.begin(), delivered.end());
                Convert(image, number, mask);
                for (std::size_t y : {20, 40, 60}) {
                    for (std::size_t row = y; lines && row < y + 10; ++row)
                        std::memcpy(image.data() + Row(row), delivered.data() + Row(row), stride);
                }
                if (std::ranges::equal(delivered, image))
                    return number;
            }
        }
        return std::nullopt;
    }

    // The first line begins with a white border.
    bool HasLines(std::span<const std::uint8_t> delivered) const {
        const std::size_t pixelBytes = output.bits / 8;
        for (std::size_t x = 25; x < 50; ++x) {
            const std::uint8_t *pixel = delivered.data() + Row(20) + x * pixelBytes;
            if (!std::all_of(pixel, pixel + std::min<std::size_t>(pixelBytes, 3), [](int byte) { return byte == 255; }))
                return false;
        }
        return true;
    }

    ULONG mosaic = std::get<Model>(GetParam()).mosaic;
    Output output = std::get<Output>(GetParam());
    Rig rig{std::string(std::get<Model>(GetParam()).text) + ",mark=on,noise=3"};
    ULONG width = 0;
    ULONG height = 0;
    ULONG stride = 0;
};

// Settings change while frames are on their way, and every frame is one exposure, converted with the set before or
// after the change, with the statistics on or not.
TEST_P(Conversion, DeliversWhatItsSettingsMakeOfTheSensor) {
    constexpr Level kLevels[] = {{0, kDetected}, {1, 0}, {3, 7}, {6, 96}, {0, kDetected}};
    constexpr int kFramesOnTheWay = 8; // queued, in the worker or in transfers when a setting changes
    std::uint64_t next = 0;
    ULONG before = kDetected;
    bool lines = false;
    for (const Level &level : kLevels) {
        lines = !lines;
        ASSERT_NO_FATAL_FAILURE(Set(kInstructionSetParameter, level.number));
        ASSERT_NO_FATAL_FAILURE(Set(kOverlayParameter, lines));
        for (int i = 1; i <= kFramesOnTheWay; ++i) {
            host::client::Frame *frame = rig.app.Next();
            ASSERT_TRUE(frame);
            ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
            const bool settled = i == kFramesOnTheWay;
            const auto exposure =
                ExposureOf(frame->Data(), next, {level.features, settled ? level.features : before}, lines || !settled);
            ASSERT_TRUE(exposure) << "level " << level.number << ", frame " << i << ", from exposure " << next;
            next = *exposure + 1;
            if (settled)
                EXPECT_EQ(HasLines(frame->Data()), lines);
            std::ranges::fill(frame->Buffer(), std::uint8_t{0}); // what is not written shows no old lines
            rig.app.Return(*frame, *rig.camera);
        }
        before = level.features;
    }
}

INSTANTIATE_TEST_SUITE_P(Capture, Conversion, testing::Combine(testing::ValuesIn(kModels), testing::ValuesIn(kOutputs)),
                         [](const auto &info) {
                             return std::string(std::get<Model>(info.param).text + 4) + "To" +
                                    std::to_string(std::get<Output>(info.param).bits) + "Bits";
                         });

} // namespace

} // namespace uvc::driver_test
