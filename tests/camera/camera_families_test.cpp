#include "camera/camera_family_c.h"
#include "camera/colour_correction.h"
#include "tests/camera/plugged_camera.h"

#include <cstring>
#include <limits>

namespace uvc::camera_test {
namespace {

TEST(CameraFamilies, TellWhoTheyAre) {
    struct Case {
        const char *text;
        ULONG kind;
        ULONG sensorCode;
        ULONG revision;
        const char *infoText;
    };
    const Case cases[] = {
        {"sim:generic", 0, 0, 0, ""},
        {"sim:8101", 6, 4, 0x0123, "firmware_rev=291"},
        {"sim:8102", 6, 2, 0x0204, "firmware_rev=516"},
        {"sim:8201", 6, 2, 301, "firmware_rev=301"},
        {"sim:8202", 6, 1, 302, "firmware_rev=302"},
        {"sim:8207", 6, 2, 0, ""},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.text);
        PluggedCamera plugged(test.text);
        const host::cameras::Model &model = plugged.device->model();
        CameraInfo info;
        std::memset(&info, 0xCC, sizeof(info));
        plugged.camera.GetCameraInfo(info);
        EXPECT_EQ(info.product, model.product);
        EXPECT_EQ(info.manufacturer, model.manufacturer);
        EXPECT_EQ(info.serialText, model.serial);
        EXPECT_EQ(info.serial, std::stoull(std::string(model.serial), nullptr, 16));
        EXPECT_EQ(info.vendorId, model.vendorId);
        EXPECT_EQ(info.productId, model.productId);
        EXPECT_EQ(info.informationKind, test.kind);
        EXPECT_EQ(info.sensorCode, test.sensorCode);
        EXPECT_EQ(info.version, ULONGLONG{test.revision} << 32);
        EXPECT_EQ(info.reserved[0] | info.reserved[1], 0u);
        EXPECT_STREQ(plugged.camera.infoText, test.infoText);
        EXPECT_STREQ(plugged.camera.bannerText, "uvc_drv, ver=2.1.5.616 build (fre) Tue May  3 11:48:55 2011");
    }
}

// Flags, mode and variant of the streaming mode, then the code of the interval that is nearest to the format's.
TEST(CameraFamilies, SendModeAndRateAfterACommit) {
    struct Case {
        const char *text;
        ULONG range;
        LONGLONG interval;
        std::vector<std::string> requests;
    };
    const Case cases[] = {
        {"sim:generic", 0, 333333, {}},
        {"sim:8201", 0, 333333, {"40 21 0001 0001 10", "40 22 0000 0000"}},
        {"sim:8201", 0, 1, {"40 21 0001 0001 10", "40 22 0007 0000"}},
        {"sim:8201", 0, std::numeric_limits<LONGLONG>::min(), {"40 21 0001 0001 10", "40 22 0007 0000"}},
        {"sim:8201", 1, 166000, {"40 21 0001 0001 10", "40 22 0001 0000"}},
        {"sim:8202", 2, 9999999, {"40 21 0000 0001 10", "40 22 0004 0000"}},
        {"sim:8203", 0, 2000000, {"40 21 0001 0002 10", "40 22 0002 0000"}},
        {"sim:8204", 0, 666666, {"40 21 0000 0000 10", "40 22 0002 0000"}},
        {"sim:8206", 0, 333333, {"40 21 0001 0001 00", "40 22 0002 0000"}},
        {"sim:8207", 0, 333333, {"40 21 0001 0002 10"}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(std::string(test.text) + ' ' + std::to_string(test.range));
        PluggedCamera plugged(test.text);
        KS_VIDEOINFOHEADER format = plugged.camera.formats[test.range].range.VideoInfoHeader;
        // The camera takes codes of the frame that was probed last.
        ProbeCommitBlock block;
        ASSERT_EQ(plugged.camera.BuildProbeRequest(format, block), STATUS_SUCCESS);
        ASSERT_EQ(UvcStreamingRequest(plugged.camera, false, 1, block), STATUS_SUCCESS);
        format.AvgTimePerFrame = test.interval;
        plugged.camera.OnCommitted(format);
        EXPECT_EQ(plugged.TakeVendorRequests(), test.requests);
    }
}

TEST(CameraFamilies, UnknownPatternsNameNoColours) {
    constexpr ULONG kNames[] = {imaging::kFourCcBayerBg, imaging::kFourCcBayerGb, imaging::kFourCcBayerGr,
                                imaging::kFourCcBayerRg, 0};
    for (ULONG pattern = 0; pattern < std::size(kNames); ++pattern) {
        imaging::ImageDescriptor source{.fourcc = imaging::kFourCcGrey8};
        LabelSource({.fourcc = imaging::kFourCcRgb24}, pattern, source);
        EXPECT_EQ(source.fourcc, kNames[pattern]) << pattern;
    }
}

class CountingCamera final : public CameraFamilyC {
  public:
    CountingCamera(PDEVICE_OBJECT device, FrameSink *sink, ULONG interval) : CameraFamilyC(device, sink) {
        statisticsInterval_ = interval;
    }
    void ProcessRawFrame(imaging::ImageDescriptor &, bool statistics) override { judged += statistics ? 'x' : '.'; }

    std::string judged;
};

TEST(CameraFamilies, JudgeOneFrameOfAnInterval) {
    PluggedCamera plugged("sim:8202");
    for (const auto &[interval, judged] :
         {std::pair{0, "xxxxxxxxx"}, {1, "xxxxxxxxx"}, {2, ".x.x.x.x."}, {4, "...x...x."}}) {
        CountingCamera camera(plugged.plugged.pdo, &plugged.plugged.sink, static_cast<ULONG>(interval));
        imaging::ImageDescriptor destination{.fourcc = imaging::kFourCcGrey8}, source = destination;
        for (int i = 0; i < 9; ++i)
            camera.ConvertFrame(destination, source, 0);
        EXPECT_EQ(camera.judged, judged);
    }
}

// Whatever fails at start: a clear status, nothing left, and the next attempt works.
TEST(CameraFamilies, SurviveEveryFailingAllocationAndTransfer) {
    for (const char *text : {"sim:generic", "sim:8102", "sim:8201"}) {
        for (bool transfers : {false, true}) {
            PluggedDevice plugged{Simulated(text)};
            plugged.camera->Destroy(1);
            for (std::uint64_t nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(text) + (transfers ? " transfer " : " allocation ") + std::to_string(nth));
                host::FaultPlan plan;
                if (transfers)
                    plan.FailTransfer(nth, host::TransferFault::Stall);
                else
                    plan.FailNth(host::FaultSite::PoolAllocation, nth);
                plugged.runtime.Arm(plan);
                const ModelTableEntry *model = FindModel(plugged.bus.IdentityOf(plugged.pdo).product);
                plugged.camera =
                    (model != nullptr ? model->factory : MakeCamera<UvcCamera>)(plugged.pdo, &plugged.sink);
                bool dealt = plugged.runtime.Faults().FaultsDealt() != 0;
                if (plugged.camera == nullptr) {
                    ASSERT_TRUE(dealt);
                    continue;
                }
                NTSTATUS status = plugged.camera->Initialise();
                dealt = plugged.runtime.Faults().FaultsDealt() != 0;
                plugged.runtime.Arm({});
                if (!dealt) {
                    EXPECT_EQ(status, STATUS_SUCCESS);
                    break;
                }
                if (!NT_SUCCESS(status) && !transfers) {
                    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
                }
                plugged.camera->Destroy(1);
                plugged.camera = nullptr;
            }
        }
    }
}

} // namespace
} // namespace uvc::camera_test
