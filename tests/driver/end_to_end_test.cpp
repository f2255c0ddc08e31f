// From the sensor to the application, byte for byte.
#include "tests/driver/capture_rig.h"
#include "uvc_drv/properties.h"

#include <algorithm>
#include <cstring>

namespace uvc::driver_test {

namespace {

// The exposure that a delivered frame shows, at or after `from`; nullopt when it is none of the sensor's.
std::optional<std::uint64_t> ExposureOf(std::span<const std::uint8_t> frame, host::cameras::SimulatedCamera &camera,
                                        std::uint64_t from) {
    constexpr std::uint64_t kMostLost = 12; // frames that a worker two behind may have refused
    const host::cameras::StreamState stream = camera.CommittedFormat();
    for (std::uint64_t number = from; number < from + kMostLost; ++number) {
        const std::vector<std::uint8_t> expected = camera.ExpectedFrame(stream.formatIndex, stream.frameIndex, number);
        if (expected.size() == frame.size() && std::memcmp(expected.data(), frame.data(), frame.size()) == 0)
            return number;
    }
    return std::nullopt;
}

// Runs `range` for `count` frames and expects every one to be an exposure of its own, in order.
void ExpectSensorFrames(Rig &rig, const KS_DATARANGE_VIDEO &range, unsigned count) {
    ASSERT_EQ(rig.app.OpenPin(range), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    std::uint64_t next = 0;
    for (unsigned i = 0; i < count; ++i) {
        host::client::Frame *frame = rig.app.Next();
        ASSERT_TRUE(frame) << "no frame after " << i;
        ASSERT_EQ(frame->Status(), STATUS_SUCCESS);
        EXPECT_EQ(frame->Header().DataUsed, frame->Header().FrameExtent);
        const auto exposure = ExposureOf(frame->Data(), *rig.camera, next);
        ASSERT_TRUE(exposure) << "frame " << i << " is no exposure from " << next << " on";
        next = *exposure + 1;
        // Exposures that did not come were told as lost; of later ones that the worker refuses the pin hears earlier.
        EXPECT_EQ(frame->Info().PictureNumber - frame->Info().DropCount, i + 1);
        EXPECT_GE(frame->Info().PictureNumber, static_cast<LONGLONG>(next));
        rig.app.Return(*frame, *rig.camera);
    }
    rig.app.pin.Close();
    rig.app.frames.clear();
}

bool IsRaw(const KS_DATARANGE_VIDEO &range) {
    return range.VideoInfoHeader.bmiHeader.biCompression != 0;
}

class EveryModel : public testing::TestWithParam<std::string> {};

TEST_P(EveryModel, DeliversItsSensorInEveryRawFormat) {
    Rig rig(GetParam() + ",mark=on");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    const auto ranges = rig.app.Ranges();
    ASSERT_FALSE(ranges.empty());
    for (const KS_DATARANGE_VIDEO &range : ranges) {
        const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
        SCOPED_TRACE(testing::Message() << std::hex << bitmap.biCompression << std::dec << " " << bitmap.biWidth << "x"
                                        << bitmap.biHeight);
        if (IsRaw(range))
            ASSERT_NO_FATAL_FAILURE(ExpectSensorFrames(rig, range, bitmap.biWidth > 1600 ? 2 : 4));
    }
}

INSTANTIATE_TEST_SUITE_P(Capture, EveryModel, testing::ValuesIn(ModelNames()),
                         [](const auto &info) { return info.param.substr(info.param.find(':') + 1); });

struct Mode {
    const char *name;
    const char *camera;
    ULONG maximumTransferSize;
};

class EveryAssembly : public testing::TestWithParam<Mode> {};

TEST_P(EveryAssembly, IsExactOverManyFrames) {
    host::client::ComputerOptions options;
    options.plug.maximumTransferSize = GetParam().maximumTransferSize;
    Rig rig(std::string(GetParam().camera) + ",mark=on", options);
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    const auto range = FindRange(rig.app.Ranges(), FourCc("Y800"), 640);
    ASSERT_TRUE(range);
    ExpectSensorFrames(rig, *range, 60);
}

// Whatever an exposure is lost for, the pin hears of it once: too few buffers, a worker two frames behind, images that
// arrive short.
TEST_P(EveryAssembly, TellsOfEveryFrame) {
    struct Cause {
        const char *name;
        unsigned frames;
        LONGLONG rounds;                 // in which the application takes what has come
        std::uint64_t shortTransfer = 0; // from the start on
    };
    const Cause causes[] = {
        {"nothing queued", 0, 3}, {"too little queued", 1, 20}, {"too much asked for", 8, 20}, {"cut short", 8, 4, 5}};
    for (const Cause &cause : causes) {
        SCOPED_TRACE(cause.name);
        host::client::ComputerOptions options;
        options.plug.maximumTransferSize = GetParam().maximumTransferSize;
        Rig rig(std::string(GetParam().camera), options);
        ASSERT_EQ(rig.started, STATUS_SUCCESS);
        ASSERT_EQ(rig.app.OpenPin(*FindRange(rig.app.Ranges(), FourCc("Y800"), 640)), STATUS_SUCCESS);
        ASSERT_EQ(rig.app.Pause(cause.frames), STATUS_SUCCESS);
        ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
        host::FaultPlan plan;
        if (cause.shortTransfer != 0)
            plan.FailTransfer(cause.shortTransfer, host::TransferFault::Short);
        rig.computer.Machine().Arm(plan);

        LONGLONG delivered = 0;
        for (LONGLONG round = 0; round < cause.rounds; ++round) {
            for (int credits = 0; credits < 5; ++credits)
                rig.camera->GrantFrame();
            LARGE_INTEGER delay{.QuadPart = -100 * 10'000};
            KeDelayExecutionThread(KernelMode, FALSE, &delay); // over when nothing is on its way any more
            host::client::Frame *frame = nullptr;
            for (std::size_t queued = rig.app.pin.Queued();
                 queued != 0 && rig.app.pin.NextFrame(&frame, 0) == STATUS_SUCCESS; --queued) {
                EXPECT_EQ(frame->Status(), STATUS_SUCCESS);
                EXPECT_EQ(frame->Info().PictureNumber - frame->Info().DropCount, ++delivered);
                ASSERT_EQ(rig.app.pin.Queue(*frame), STATUS_SUCCESS);
            }
        }
        KSPROPERTY_DROPPEDFRAMES_CURRENT_S told{};
        ASSERT_EQ(rig.app.pin.GetBlock(PROPSETID_VIDCAP_DROPPEDFRAMES, KSPROPERTY_DROPPEDFRAMES_CURRENT, BytesOf(told)),
                  STATUS_SUCCESS);
        EXPECT_EQ(told.PictureNumber, static_cast<LONGLONG>(rig.camera->Counters().framesStarted));
        EXPECT_EQ(told.DropCount, told.PictureNumber - delivered);
        EXPECT_EQ(rig.computer.Machine().Faults().FaultsDealt(), cause.shortTransfer != 0 ? 1u : 0u);
        EXPECT_EQ(delivered != 0, cause.frames != 0);
        rig.app.pin.Close();
        rig.app.frames.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Capture, EveryAssembly,
                         testing::Values(Mode{"Direct", "sim:generic", 0x400000},
                                         Mode{"DirectShortHeaders", "sim:generic,header=2,payload=4096", 0x400000},
                                         Mode{"DirectWithoutEndOfFrame", "sim:8101,header=6", 0x400000},
                                         Mode{"Collecting", "sim:8201,payload=16384", 0x400000},
                                         Mode{"CollectingOddPayloads", "sim:8201,payload=5000", 0x400000},
                                         Mode{"WholeTransfer", "sim:8201,payload=frame", 0x400000},
                                         Mode{"WholeTransferLimitZero", "sim:8201,payload=frame", 0},
                                         Mode{"WholeTransferLimitLeft", "sim:8201,payload=frame", 0xFFFFFFFF},
                                         Mode{"LargePayloads", "sim:8201,payload=frame", 0x30000}),
                         [](const auto &info) { return std::string(info.param.name); });

// A paced camera in virtual time: the clock, the interval and the counters agree.
TEST(Capture, StampsTimeDurationAndNumbers) {
    constexpr LONGLONG kInterval = 333333;
    Rig rig("sim:generic");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    rig.camera->SetFreeRun(false);
    auto range = FindRange(rig.app.Ranges(), FourCc("YUY2"), 640);
    ASSERT_TRUE(range);
    range->VideoInfoHeader.AvgTimePerFrame = kInterval;
    ASSERT_EQ(rig.app.OpenPin(*range), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.clock.Open(rig.app.pin), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.AssignClock(&rig.app.clock), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);

    LONGLONG last = -1;
    for (int i = 1; i <= 30; ++i) {
        host::client::Frame *frame = rig.app.Next();
        ASSERT_TRUE(frame);
        const KSSTREAM_HEADER &header = frame->Header();
        EXPECT_EQ(header.OptionsFlags & (KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID),
                  static_cast<ULONG>(KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID));
        EXPECT_EQ(header.Duration, kInterval);
        EXPECT_EQ(header.PresentationTime.Numerator, 1u);
        EXPECT_EQ(header.PresentationTime.Denominator, 1u);
        if (last >= 0)
            EXPECT_NEAR(static_cast<double>(header.PresentationTime.Time - last), static_cast<double>(kInterval), 2.0);
        last = header.PresentationTime.Time;
        EXPECT_EQ(frame->Info().PictureNumber, i);
        rig.app.Return(*frame, *rig.camera);
    }
    rig.app.clock.Close();
}

} // namespace

} // namespace uvc::driver_test
