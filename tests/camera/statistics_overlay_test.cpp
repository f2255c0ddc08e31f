#include "imaging/image.h"
#include "imaging/overlay.h"
#include "tests/camera/plugged_camera.h"

#include <array>

namespace uvc::camera_test {
namespace {

constexpr const char *kBanner = "uvc_drv, ver=2.1.5.616 build (fre) Tue May  3 11:48:55 2011";

TEST(StatisticsOverlay, DrawsThreeLinesIntoFramesThatHoldThem) {
    struct Case {
        const char *name;
        ULONG compression;
        USHORT bits;
        LONG width;
        LONG height;
        ULONG drawnAs; // 0: not drawn
        LONG missing = 0;
    };
    const Case cases[] = {
        {"RGB24", 0, 24, 640, 480, imaging::kFourCcRgb24},
        {"RGB24 top-down", 0, 24, 640, -480, imaging::kFourCcRgb24},
        {"RGB32", 0, 32, 320, 240, imaging::kFourCcRgb32},
        {"RGB of 16 bits", 0, 16, 320, 240, 0},
        {"no bits", imaging::kFourCcGrey8, 0, 320, 240, 0},
        {"grey", imaging::kFourCcGrey8, 8, 320, 240, imaging::kFourCcGrey8},
        {"grey with negative height", imaging::kFourCcGrey8, 8, 320, -240, imaging::kFourCcGrey8},
        {"mosaic", imaging::kFourCcBayer8, 8, 320, 240, imaging::kFourCcGrey8},
        {"YUY2", imaging::kFourCcYuy2, 16, 640, 480, imaging::kFourCcYuy2},
        {"smallest", imaging::kFourCcGrey8, 8, 97, 101, imaging::kFourCcGrey8},
        {"too narrow", imaging::kFourCcGrey8, 8, 96, 101, 0},
        {"too low", imaging::kFourCcGrey8, 8, 97, -100, 0},
        {"buffer of an application that is a byte short", imaging::kFourCcGrey8, 8, 320, 240, 0, 1},
    };
    PluggedCamera plugged("sim:8101");
    StreamState &stream = plugged.camera.stream;
    stream.lastFid = 1;
    stream.dropped = 2;
    stream.delivered = 345;
    stream.noBuffer = 6;
    stream.rate.hundredths = 2907;
    for (bool on : {true, false}) {
        EXPECT_EQ(plugged.camera.SetParameter(1, on), STATUS_SUCCESS);
        for (const Case &test : cases) {
            SCOPED_TRACE(test.name);
            const ULONG stride = test.bits * static_cast<ULONG>(test.width) / 8;
            const ULONG size = stride * static_cast<ULONG>(std::abs(test.height));
            std::vector<std::uint8_t> expected(size, 0x5A), pixels(size, 0x5A);
            if (on && test.drawnAs != 0) {
                imaging::OverlayImage image{test.drawnAs, expected.data(), test.width, test.height, stride};
                imaging::DrawOverlayText(image, {25, 20}, 1, kBanner, 1, 6);
                imaging::DrawOverlayText(image, {25, 40}, 1, "firmware_rev=291", 1, 6);
                imaging::DrawOverlayText(image, {25, 60}, 1, "id 1, dropped=2, not-dropped=345, buf=6, fps=29.07", 1,
                                         6);
                EXPECT_NE(expected, pixels);
            }
            stream.output.bmiHeader = {.biSize = 40,
                                       .biWidth = test.width,
                                       .biHeight = test.height,
                                       .biPlanes = 1,
                                       .biBitCount = test.bits,
                                       .biCompression = test.compression};
            FrameRecord frame;
            frame.data = pixels.data();
            frame.size = size - static_cast<ULONG>(test.missing);
            plugged.camera.DrawStatistics(frame);
            EXPECT_EQ(pixels, expected);
        }
    }
}

} // namespace
} // namespace uvc::camera_test
