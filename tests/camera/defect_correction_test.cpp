// The defective pixels of a simulated sensor against the same sensor without defects.
#include "camera/camera_family_c.h"
#include "camera/control_id.h"
#include "tests/camera/plugged_camera.h"

#include <algorithm>

namespace uvc::camera_test {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Step {
    ULONG id;
    LONG value;
    bool taken = true;
};

struct Part {
    const char *camera;
    LONG width;              // of the frame
    std::vector<Step> steps; // after the commit
    ULONG binning;           // that this comes to
};

std::vector<Step> Binned(LONG binning, LONG x, LONG y) {
    return {{kBinningId, binning}, {kOffsetXId, x}, {kOffsetYId, y}};
}

class Sensor : public PluggedCamera {
  public:
    Sensor(const Part &part, const std::string &options) : PluggedCamera(part.camera + options) {
        for (const FormatRecord &record : camera.formats) {
            const KS_VIDEOINFOHEADER &info = record.range.VideoInfoHeader;
            if (info.bmiHeader.biWidth == part.width) {
                EXPECT_EQ(UvcNegotiateStream(camera, info), STATUS_SUCCESS);
                break;
            }
        }
        for (const Step &step : part.steps) {
            ControlExtendedBlock block{};
            block.value = step.value;
            block.flags = kControlManual;
            EXPECT_EQ(
                NT_SUCCESS(camera.SetControl(kPrivateImageSet, step.id, kControlExtendedValue, &block, sizeof(block))),
                step.taken)
                << step.id;
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
                                       .fourcc =
                                           device->model().colour ? imaging::kFourCcBayerGr : imaging::kFourCcGrey8,
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
    const Part parts[] = {
        // The frame size alone decides.
        {"sim:8201", 1280, {}, 1},
        {"sim:8201", 640, {}, 2},
        {"sim:8201", 320, {}, 4},
        {"sim:8202", 1280, {}, 1},
        {"sim:8202", 640, {}, 2},
        {"sim:8202", 320, {}, 4},
        {"sim:8203", 2048, {}, 1},
        {"sim:8203", 1024, {}, 2},
        {"sim:8204", 2592, {}, 1},
        {"sim:8206", 2592, {}, 1},
        {"sim:8206", 1296, {}, 2},
        {"sim:8201", 640, {{kBinningId, 4, false}}, 2},
        // So does the host.
        {"sim:8205", 2592, Binned(1, 0, 0), 1},
        {"sim:8205", 1296, Binned(2, 0, 0), 2},
        {"sim:8205", 640, Binned(4, 0, 0), 4},
        {"sim:8205", 1296, Binned(1, 100, 50), 1},
        {"sim:8205", 1296, Binned(1, 1296, 972), 1},
        {"sim:8205", 640, Binned(2, 300, 200), 2},
        {"sim:8205", 640, Binned(1, 1000, 64), 1},
        {"sim:8205", 640, Binned(4, 32, 16), 4},
        // The camera does not take what it was asked for.
        {"sim:8205", 640, Binned(2, 307, 205), 2},
        {"sim:8205", 1296, Binned(4, 7, 7), 2},
        {"sim:8205", 640, Binned(1, 1951, 1463), 1},
        // A new binning moves the offsets.
        {"sim:8205", 640, {{kBinningId, 1}, {kOffsetXId, 1006}, {kOffsetYId, 66}, {kBinningId, 4}}, 4},
        {"sim:8205", 640, {{kBinningId, 1}, {kOffsetXId, 1006}, {kOffsetYId, 66}, {kBinningId, 2}}, 2},
        {"sim:8205", 640, {{kOffsetXId, 33}, {kOffsetYId, 25}, {kBinningId, 2}}, 2},
        // What it refuses changes nothing.
        {"sim:8205", 640, {{kBinningId, 2}, {kOffsetXId, 300}, {kOffsetYId, 200}, {kBinningId, 3, false}}, 2},
        {"sim:8205", 1296, {{kBinningId, 0, false}, {kBinningId, 3, false}}, 2},
    };
    for (const Part &part : parts) {
        SCOPED_TRACE(testing::Message() << part.camera << " " << part.width << ", part " << &part - parts);
        // On a flat scene the mean of the neighbours is the pixel itself.
        Bytes clean;
        {
            Sensor sensor(part, ",scene=flat");
            clean = sensor.raw;
            EXPECT_EQ(sensor.Processed(), clean);
        }
        Sensor spoiled(part, ",defects=100,scene=flat");
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
        // As many as the part of the sensor has, more or less.
        const host::cameras::Model &model = spoiled.device->model();
        EXPECT_GT(defects, 50 * spoiled.raw.size() * part.binning * part.binning /
                               (static_cast<ULONG>(model.sensorWidth) * model.sensorHeight));
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
