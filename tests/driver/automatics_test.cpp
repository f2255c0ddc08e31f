// The driver's automatics on a simulated sensor: what a light, a colour cast, a lens out of focus or broken pixels do
// to the picture, and what is left of that once the driver has seen it.
#include "camera/control.h"
#include "camera/control_id.h"
#include "host/client/control.h"
#include "imaging/brightness.h"
#include "imaging/colour_samples.h"
#include "tests/driver/capture_rig.h"
#include "uvc_drv/properties.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace uvc::driver_test {

namespace {

using Frame = host::client::Frame;

constexpr ULONG kGrey = 8; // bits a pixel
constexpr ULONG kRgb = 24;

// A capture at the camera's own pace, so that virtual time moves with the frames.
class Capture {
  public:
    Capture(const std::string &text, ULONG bits, LONG width) : rig(text) {
        EXPECT_EQ(rig.started, STATUS_SUCCESS);
        rig.camera->SetFreeRun(false);
        for (const KS_DATARANGE_VIDEO &range : rig.app.Ranges()) {
            const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
            const ULONG compression = bits == 8 ? imaging::kFourCcGrey8 : ULONG{KS_BI_RGB};
            if (bitmap.biCompression == compression && bitmap.biBitCount == bits && bitmap.biWidth == width) {
                EXPECT_EQ(rig.app.OpenPin(range), STATUS_SUCCESS);
                return;
            }
        }
        ADD_FAILURE() << "no such format";
    }

    void Set(const GUID &set, ULONG id, LONG value, ULONG flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL) {
        EXPECT_EQ(host::client::SetControl(rig.app.filter, {set, id}, {.value = value, .flags = flags}),
                  STATUS_SUCCESS);
    }
    LONG Get(const GUID &set, ULONG id) {
        host::client::ControlSetting setting;
        EXPECT_EQ(host::client::GetControl(rig.app.filter, {set, id}, setting), STATUS_SUCCESS);
        return setting.value;
    }

    void Run() { ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS); }

    // Frames go by; the last one stays in hand.
    void Watch(unsigned frames) {
        for (unsigned i = 0; i < frames; ++i) {
            if (last != nullptr)
                EXPECT_EQ(rig.app.pin.Queue(*last), STATUS_SUCCESS);
            last = rig.app.Next();
            ASSERT_TRUE(last);
            ASSERT_EQ(last->Status(), STATUS_SUCCESS);
        }
    }

    // Brightness of the grey frame in hand.
    ULONG Brightness() {
        const KS_BITMAPINFOHEADER &bitmap = rig.app.Info().bmiHeader;
        const imaging::ImageDescriptor image{.data = last->Buffer().data(),
                                             .size = bitmap.biSizeImage,
                                             .fourcc = imaging::kFourCcGrey8,
                                             .width = static_cast<ULONG>(bitmap.biWidth),
                                             .height = static_cast<ULONG>(std::abs(bitmap.biHeight)),
                                             .stride = static_cast<ULONG>(bitmap.biWidth)};
        std::uint32_t mean = 0;
        EXPECT_TRUE(imaging::MeasureBrightness(image, mean));
        return mean;
    }

    // The values that SET_CUR gave a control since the start or the last call.
    std::vector<LONG> TakeSets(ULONG entity, ULONG selector) {
        std::vector<LONG> sets;
        for (const host::cameras::ControlRecord &record : rig.camera->ControlLog()) {
            if (record.setup.requestType == 0x21 && record.setup.index == entity << 8 &&
                record.setup.value == selector << 8)
                sets.push_back(record.data[0] | record.data[1] << 8);
        }
        rig.camera->ClearControlLog();
        return sets;
    }

    Rig rig;
    Frame *last = nullptr;
};

constexpr ULONG kTerminal = 1;
constexpr ULONG kProcessing = 2;

class AutoExposure : public testing::TestWithParam<std::tuple<const char *, int>> {};

// From a scene eight times too bright and eight times too dark, whatever the sensor's delay up to that of the interval.
TEST_P(AutoExposure, BringsTheSceneToItsReference) {
    const auto [light, latency] = GetParam();
    Capture capture("sim:8202,scene=flat,light=" + std::string(light) + ",latency=" + std::to_string(latency), kGrey,
                    320);
    capture.Set(PROPSETID_PRIVATE_IMAGE, kExposureLimitFollowsCameraId, 1); // beyond 333
    capture.Run();
    capture.Watch(4);
    EXPECT_TRUE(capture.Brightness() < 30 || capture.Brightness() > 230) << capture.Brightness();
    // At most 16 steps of the law, one in four frames, and two frames that are on their way.
    capture.Watch(66);
    // The short exposure of the bright scene stalls a little early: its steps are rounded down.
    EXPECT_GE(capture.Brightness(), std::string_view(light) == "8" ? 115u : 125u);
    EXPECT_LE(capture.Brightness(), 130u);
    EXPECT_FALSE(capture.TakeSets(kTerminal, 4).empty());
    capture.Watch(20);
    EXPECT_EQ(capture.TakeSets(kTerminal, 4), std::vector<LONG>{}); // at rest
    EXPECT_EQ(capture.TakeSets(kProcessing, 4), std::vector<LONG>{});
}

INSTANTIATE_TEST_SUITE_P(Automatics, AutoExposure,
                         testing::Combine(testing::Values("8", "0.125"), testing::Values(0, 1, 2, 3)),
                         [](const auto &info) {
                             return std::string(std::string(std::get<0>(info.param)) == "8" ? "Bright" : "Dark") +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST(AutoExposureLimits, GainTakesOverAtTheLimit) {
    Capture capture("sim:8202,scene=flat,light=0.25", kGrey, 320);
    capture.Run();
    capture.Watch(120);
    EXPECT_EQ(capture.Get(PROPSETID_PRIVATE_IMAGE, kCameraExposureId), 333); // as long as nobody raises the limit
    EXPECT_GE(capture.Get(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN), 200);
    EXPECT_GE(capture.Brightness(), 115u);
    EXPECT_LE(capture.Brightness(), 130u);

    // What an application sets stays, and the other automatic goes on.
    capture.Set(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, 64);
    capture.Set(PROPSETID_PRIVATE_IMAGE, kCameraExposureId, 300);
    capture.TakeSets(kTerminal, 4);
    capture.Watch(40);
    EXPECT_EQ(capture.TakeSets(kTerminal, 4), std::vector<LONG>{});
    EXPECT_EQ(capture.Get(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN), 64);
    EXPECT_EQ(capture.Get(PROPSETID_PRIVATE_IMAGE, kCameraExposureId), 300);
    EXPECT_LT(capture.Brightness(), 60u);
}

struct Cast {
    const char *camera;
    LONG width;
    ULONG mosaic;
    const char *kelvin;
    bool onePush = false;
};
void PrintTo(const Cast &cast, std::ostream *out) {
    *out << cast.camera << " " << cast.kelvin;
}

class AutoWhiteBalance : public testing::TestWithParam<Cast> {};

// A grey scene in reddish and in bluish light: the means of the picture's channels meet.
TEST_P(AutoWhiteBalance, TakesTheCastOffAGreyScene) {
    const Cast &cast = GetParam();
    Capture capture(std::string(cast.camera) + ",scene=grey,kelvin=" + cast.kelvin, kRgb, cast.width);
    capture.Set(PROPSETID_PRIVATE_COLORMATRIX, kMatrixEnableId, 0); // gains alone
    if (cast.onePush) {
        capture.Set(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE, 0);
        capture.Set(PROPSETID_PRIVATE_IMAGE, kOnePushWhiteBalanceId, 1);
        // Once it is done nothing follows a brightness that goes on changing.
        capture.Set(PROPSETID_PRIVATE_IMAGE, kCameraExposureId, 200);
        capture.Set(PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, 64);
    }
    capture.Run();
    capture.Watch(1);
    const auto spread = [](const std::array<double, 3> &means) {
        return *std::max_element(means.begin(), means.end()) - *std::min_element(means.begin(), means.end());
    };
    const auto means = [&] {
        std::array<double, 3> sums{};
        const auto bytes = capture.last->Data();
        for (std::size_t i = 0; i < bytes.size(); ++i)
            sums[i % 3] += bytes[i];
        for (double &sum : sums)
            sum /= static_cast<double>(bytes.size()) / 3;
        return sums;
    };
    EXPECT_GT(spread(means()), 10);
    capture.Watch(100);
    EXPECT_LT(spread(means()), 4); // of the grid of samples they are within 2:

    const host::cameras::StreamState stream = capture.rig.camera->CommittedFormat();
    auto raw = capture.rig.camera->ExpectedFrame(stream.formatIndex, stream.frameIndex, 100);
    const KS_BITMAPINFOHEADER &bitmap = capture.rig.app.Info().bmiHeader;
    const auto width = static_cast<ULONG>(bitmap.biWidth);
    auto samples = std::make_unique<imaging::ColourSamples>();
    imaging::SampleColours({.data = raw.data(),
                            .size = static_cast<ULONG>(raw.size()),
                            .fourcc = cast.mosaic,
                            .width = width,
                            .height = static_cast<ULONG>(std::abs(bitmap.biHeight)),
                            .stride = width},
                           *samples);
    const imaging::ColourMeans balanced =
        imaging::MeanColours(*samples, {.red = capture.Get(PROPSETID_PRIVATE_IMAGE, kWhiteBalanceRedId),
                                        .green = capture.Get(PROPSETID_PRIVATE_IMAGE, kWhiteBalanceGreenId),
                                        .blue = capture.Get(PROPSETID_PRIVATE_IMAGE, kWhiteBalanceBlueId)});
    EXPECT_LE(std::max({balanced.red, balanced.green, balanced.blue}) -
                  std::min({balanced.red, balanced.green, balanced.blue}),
              2);
}

INSTANTIATE_TEST_SUITE_P(Automatics, AutoWhiteBalance,
                         testing::Values(Cast{"sim:8201", 320, imaging::kFourCcBayerBg, "2800"},
                                         Cast{"sim:8201", 320, imaging::kFourCcBayerBg, "9000"},
                                         Cast{"sim:8201", 320, imaging::kFourCcBayerBg, "2800", true},
                                         Cast{"sim:8102", 640, imaging::kFourCcBayerRg, "2800"},
                                         Cast{"sim:8102", 640, imaging::kFourCcBayerRg, "9000"}),
                         [](const auto &info) {
                             return std::string(info.param.camera + 4) + "At" + info.param.kelvin +
                                    (info.param.onePush ? "OnePush" : "");
                         });

struct FocusCase {
    LONG start;
    int sharp;
    int noise; // of the pixels, in levels
};

class Autofocus : public testing::TestWithParam<FocusCase> {};

TEST_P(Autofocus, FindsTheSharpPosition) {
    const auto [start, sharp, noise] = GetParam();
    Capture capture("sim:8205,sharp=" + std::to_string(sharp) + ",noise=" + std::to_string(noise), kGrey, 640);
    capture.Set(PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_FOCUS, start);
    capture.Run();
    capture.TakeSets(kTerminal, 6);
    capture.Set(PROPSETID_PRIVATE_IMAGE, kAutofocusId, 1); // the motor is still on its way to the start
    capture.Watch(330);
    EXPECT_NEAR(capture.Get(PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_FOCUS), sharp,
                noise == 0 ? 5 : 15);
    EXPECT_GE(capture.TakeSets(kTerminal, 6).size(), 4u);
    capture.Watch(10);
    EXPECT_EQ(capture.TakeSets(kTerminal, 6), std::vector<LONG>{}); // over
}

INSTANTIATE_TEST_SUITE_P(Automatics, Autofocus,
                         testing::Values(FocusCase{0, 350, 0}, FocusCase{200, 700, 0}, FocusCase{500, 100, 0},
                                         FocusCase{800, 700, 0}, FocusCase{1000, 300, 0}, FocusCase{1000, 600, 0},
                                         FocusCase{300, 500, 3}, FocusCase{700, 400, 3}),
                         [](const auto &info) {
                             return "From" + std::to_string(info.param.start) + "To" +
                                    std::to_string(info.param.sharp) + (info.param.noise != 0 ? "Noisy" : "");
                         });

// Whatever fails while the automatics are at work, and wherever in their work the stream is stopped or the cable
// pulled: nothing is left behind, and the next capture works.
struct Trouble {
    const char *name;
    host::FaultSite site;
    host::TransferFault fault = host::TransferFault::Stall;
};
void PrintTo(const Trouble &trouble, std::ostream *out) {
    *out << trouble.name;
}

class AutomaticsInTrouble : public testing::TestWithParam<Trouble> {};

// Frames in bright and coloured light and out of focus, so that every judged one asks for other settings. Ends where it
// fails, by a stop or by pulling the cable.
void Judge(host::client::Computer &computer, const host::FaultPlan &plan, unsigned frames, bool pull,
           NTSTATUS &status) {
    auto camera = Camera("sim:8205,light=8,kelvin=2800,sharp=100,defects=9,payload=frame");
    ASSERT_EQ(computer.PlugIn(camera), STATUS_SUCCESS);
    {
        Application app;
        ASSERT_EQ(app.OpenFilter(), STATUS_SUCCESS);
        const auto range = FindRange(app.Ranges(), KS_BI_RGB, 640);
        ASSERT_TRUE(range);
        ASSERT_EQ(app.OpenPin(*range), STATUS_SUCCESS);
        ControlExtendedBlock autofocus{};
        autofocus.value = 1;
        EXPECT_EQ(app.filter.SetBlock(PROPSETID_PRIVATE_IMAGE, kAutofocusId,
                                      {reinterpret_cast<std::uint8_t *>(&autofocus), sizeof(autofocus)}),
                  STATUS_SUCCESS);
        ASSERT_EQ(app.Run(), STATUS_SUCCESS);
        computer.Machine().Arm(plan);
        status = STATUS_SUCCESS;
        for (unsigned i = 0; i < frames && NT_SUCCESS(status); ++i) {
            Frame *frame = app.Next();
            status = frame != nullptr ? frame->Status() : STATUS_IO_TIMEOUT;
            if (NT_SUCCESS(status)) {
                camera->GrantFrame();
                status = app.pin.Queue(*frame);
            }
        }
        if (pull)
            computer.Unplug();
        else if (!NT_SUCCESS(app.pin.SetState(KSSTATE_STOP))) // the request itself may meet the fault
            EXPECT_EQ(app.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
    }
    if (!pull)
        computer.Unplug();
}

TEST_P(AutomaticsInTrouble, EndsCleanlyAndWorksAgain) {
    const Trouble &trouble = GetParam();
    host::client::Computer computer(DriverEntry);
    host::Runtime &machine = computer.Machine();
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ASSERT_NO_FATAL_FAILURE(Judge(computer, {}, 9, false, status));
    ASSERT_EQ(status, STATUS_SUCCESS);
    const host::Runtime::PoolUse before = machine.OutstandingPool();
    // The first frame moves the motor, the fourth and the eighth are judged.
    for (unsigned frames : {1, 4, 9}) {
        std::uint64_t nth = 1;
        for (bool dealt = true; dealt; ++nth) {
            SCOPED_TRACE(testing::Message() << frames << " frames, fault " << nth);
            host::FaultPlan plan;
            if (trouble.site == host::FaultSite::UsbTransfer)
                plan.FailTransfer(nth, trouble.fault);
            else
                plan.FailNth(trouble.site, nth);
            const bool pull = nth % 2 == 0;
            ASSERT_NO_FATAL_FAILURE(Judge(computer, plan, frames, pull, status));
            dealt = machine.Faults().FaultsDealt() != 0;
            machine.Arm({});
            EXPECT_EQ(machine.OutstandingPool().blocks, before.blocks);
        }
        EXPECT_GT(nth, 2u); // a sweep in which nothing failed would prove nothing
    }
    ASSERT_NO_FATAL_FAILURE(Judge(computer, {}, 9, false, status));
    EXPECT_EQ(status, STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Automatics, AutomaticsInTrouble,
                         testing::Values(Trouble{"WorkItems", host::FaultSite::WorkItem},
                                         Trouble{"Pool", host::FaultSite::PoolAllocation},
                                         Trouble{"Requests", host::FaultSite::Irp},
                                         Trouble{"Stall", host::FaultSite::UsbTransfer, host::TransferFault::Stall},
                                         Trouble{"Hang", host::FaultSite::UsbTransfer, host::TransferFault::Hang},
                                         Trouble{"Delay", host::FaultSite::UsbTransfer, host::TransferFault::Delay},
                                         Trouble{"Gone", host::FaultSite::UsbTransfer, host::TransferFault::Gone}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace

} // namespace uvc::driver_test
