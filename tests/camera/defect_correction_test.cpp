// The defective pixels of a simulated sensor against the same sensor without defects.
#include "camera/camera_family_c.h"
#include "camera/control_id.h"
#include "tests/camera/plugged_camera.h"

#include <algorithm>

namespace uvc::camera_test {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Part {
    LONG width; // of the frame
    LONG binning;
    LONG x, y; // offsets
};

class Sensor : public PluggedCamera {
  public:
    Sensor(const std::string &text, const Part &part) : PluggedCamera(text) {
        for (const FormatRecord &record : camera.formats) {
            const KS_VIDEOINFOHEADER &info = record.range.VideoInfoHeader;
            if (info.bmiHeader.biWidth == part.width) {
                EXPECT_EQ(UvcNegotiateStream(camera, info), STATUS_SUCCESS);
                break;
            }
        }
        for (auto [id, value] : {std::pair{kBinningId, part.binning}, {kOffsetXId, part.x}, {kOffsetYId, part.y}}) {
            ControlExtendedBlock block{};
            block.value = value;
            block.flags = kControlManual;
            EXPECT_EQ(camera.SetControl(kPrivateImageSet, id, kControlExtendedValue, &block, sizeof(block)),
                      STATUS_SUCCESS);
        }
        const host::cameras::StreamState stream = device->CommittedFormat();
        width = stream.raster.width;
        height = stream.raster.height;
        raw = device->ExpectedFrame(stream.formatIndex, stream.frameIndex, 1000); // with these settings
    }

    // As the conversion sees it.
    Bytes Processed() {
        Bytes bytes = raw;
        imaging::ImageDescriptor image{.data = bytes.data(),
                                       .size = static_cast<ULONG>(bytes.size()),
                                       .fourcc = imaging::kFourCcBayerGr,
                                       .width = width,
                                       .height = height,
                                       .stride = width};
        static_cast<CameraFamilyC &>(camera).ProcessRawFrame(image, false);
        return bytes;
    }

    ULONG width;
    ULONG height;
    Bytes raw;
};

TEST(DefectCorrection, TakesAwayTheDefectsAndNothingElse) {
    constexpr ULONG kMargin = 4; // columns that are never corrected
    const Part parts[] = {{2592, 1, 0, 0},      {1296, 2, 0, 0},    {640, 4, 0, 0},     {1296, 1, 100, 50},
                          {1296, 1, 1296, 972}, {640, 2, 300, 200}, {640, 1, 1000, 64}, {640, 4, 32, 16}};
    for (const Part &part : parts) {
        SCOPED_TRACE(testing::Message() << part.width << " binned " << part.binning << " at " << part.x << ","
                                        << part.y);
        // On a flat scene the mean of the neighbours is the pixel itself.
        Bytes clean;
        {
            Sensor sensor("sim:8205,scene=flat", part);
            clean = sensor.raw;
            EXPECT_EQ(sensor.Processed(), clean);
        }
        Sensor spoiled("sim:8205,defects=100,scene=flat", part);
        ASSERT_EQ(spoiled.raw.size(), clean.size());
        ASSERT_EQ(spoiled.raw.size(), static_cast<std::size_t>(spoiled.width) * spoiled.height);
        const Bytes corrected = spoiled.Processed();
        unsigned defects = 0, left = 0;
        for (std::size_t i = 0; i < corrected.size(); ++i) {
            const std::size_t column = i % spoiled.width;
            if (column < kMargin || column >= spoiled.width - kMargin) {
                EXPECT_EQ(corrected[i], spoiled.raw[i]) << column;
                continue;
            }
            defects += spoiled.raw[i] != clean[i];
            left += corrected[i] != clean[i];
        }
        EXPECT_GT(defects, part.width == 640 && part.binning < 4 ? 1u : 10u);
        EXPECT_EQ(left, 0u);

        // With correction off nothing is touched.
        ControlExtendedBlock off{};
        EXPECT_EQ(spoiled.camera.SetControl(kPrivateColourMatrixSet, kDefectCorrectionId, kControlExtendedValue, &off,
                                            sizeof(off)),
                  STATUS_SUCCESS);
        EXPECT_EQ(spoiled.Processed(), spoiled.raw);
    }
}

} // namespace
} // namespace uvc::camera_test
