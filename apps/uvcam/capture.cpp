#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/format_name.h"
#include "apps/uvcam/picture.h"
#include "apps/uvcam/session.h"

#include "host/client/pin.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

namespace uvcam {

namespace {

constexpr double kTicksPerSecond = 1e7;
constexpr ULONG kCapturePin = 0;
constexpr LONGLONG kFrameTimeoutMs = 5000;
constexpr unsigned kSpareFrames = 2; // queued beyond what the pin asks for, so that writing a file costs no frame
constexpr ULONG kOverlayParameter = 1;

// {6E0C59B1-3C83-4A78-9838-10D5C883E3CB}: the driver's numbered parameters.
constexpr GUID kDriverParameterSet = {0x6E0C59B1, 0x3C83, 0x4A78, {0x98, 0x38, 0x10, 0xD5, 0xC8, 0x83, 0xE3, 0xCB}};

volatile std::sig_atomic_t interrupted = 0;

std::string Describe(const CaptureOptions &options) {
    std::string text = options.format.empty() ? "a format" : options.format;
    if (options.size)
        text += " at " + std::to_string(options.size->width) + "x" + std::to_string(options.size->height);
    return text;
}

bool Fits(const KS_DATARANGE_VIDEO &range, const CaptureOptions &options) {
    const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
    return (options.format.empty() || NamesFormat(options.format, FourCcOf(bitmap))) &&
           (!options.size || (options.size->width == bitmap.biWidth && options.size->height == bitmap.biHeight));
}

KS_DATARANGE_VIDEO ChooseRange(host::client::Filter &filter, const CaptureOptions &options) {
    std::vector<KS_DATARANGE_VIDEO> ranges;
    NTSTATUS status = filter.DataRanges(kCapturePin, ranges);
    if (!NT_SUCCESS(status))
        throw StatusFailure("cannot ask " + options.camera + " for its formats", status);
    auto range =
        std::find_if(ranges.begin(), ranges.end(), [&](const auto &offered) { return Fits(offered, options); });
    if (range == ranges.end())
        throw Failure(ExitCode::NotOffered,
                      options.camera + " does not offer " + Describe(options) + "; see `uvcam formats`");
    if (options.framesPerSecond) {
        const LONGLONG interval = std::llround(kTicksPerSecond / *options.framesPerSecond);
        // A person's 30 is the camera's 29.97.
        constexpr LONGLONG kTolerance = 100;
        const KS_VIDEO_STREAM_CONFIG_CAPS &caps = range->ConfigCaps;
        if (interval + interval / kTolerance < caps.MinFrameInterval ||
            interval - interval / kTolerance > caps.MaxFrameInterval)
            throw Failure(ExitCode::NotOffered,
                          options.camera + " does not offer " + Describe(options) + " at that frame rate");
        range->VideoInfoHeader.AvgTimePerFrame = std::clamp(interval, caps.MinFrameInterval, caps.MaxFrameInterval);
    }
    return *range;
}

void SwitchOverlayOn(host::client::Filter &filter) {
    ULONG on = 1;
    NTSTATUS status =
        filter.Property(kDriverParameterSet, kOverlayParameter, KSPROPERTY_TYPE_SET, {}, host::client::BytesOf(on));
    if (!NT_SUCCESS(status))
        throw StatusFailure("cannot switch the overlay on", status);
}

// What one run has seen.
struct Tally {
    unsigned delivered = 0;
    unsigned failed = 0; // came back with a failure status
    LONGLONG lastPicture = 0;
    LONGLONG incomplete = 0; // frame intervals that the driver dropped
    double seconds = 0;
};

nlohmann::ordered_json FrameJson(host::client::Frame &frame) {
    const KSSTREAM_HEADER &header = frame.Header();
    const bool timed = (header.OptionsFlags & KSSTREAM_HEADER_OPTIONSF_TIMEVALID) != 0;
    return {{"picture", frame.Info().PictureNumber},
            {"dropped", frame.Info().DropCount},
            {"time", timed ? nlohmann::ordered_json(header.PresentationTime.Time) : nlohmann::ordered_json()},
            {"duration", header.Duration},
            {"bytes", header.DataUsed}};
}

void PrintSummary(const CaptureOptions &options, const PixelLayout &layout, const Tally &tally,
                  const host::cameras::CameraCounters &camera, nlohmann::ordered_json frames) {
    const double rate = tally.seconds > 0 ? tally.delivered / tally.seconds : 0;
    if (options.json) {
        const nlohmann::ordered_json summary{{"camera", options.camera},
                                             {"format", layout.fourCc},
                                             {"width", layout.width},
                                             {"height", std::abs(layout.height)},
                                             {"delivered", tally.delivered},
                                             {"dropped", tally.incomplete},
                                             {"failed", tally.failed},
                                             {"missedBySensor", camera.framesDropped},
                                             {"fps", rate},
                                             {"frames", std::move(frames)}};
        std::printf("%s\n", summary.dump(2).c_str());
        return;
    }
    std::fprintf(stderr,
                 "%u frames of %s %dx%d delivered in %.2f s (%.1f fps); dropped: %lld incomplete, %u cancelled, %llu "
                 "not fetched in time\n",
                 tally.delivered, layout.fourCc.c_str(), layout.width, std::abs(layout.height), tally.seconds, rate,
                 static_cast<long long>(tally.incomplete), tally.failed,
                 static_cast<unsigned long long>(camera.framesDropped));
}

} // namespace

void Capture(const CaptureOptions &options) {
    FrameOutput output(options.output);
    if (options.json && output.ToStdout())
        throw Failure(ExitCode::Usage, "--json and --output - both want stdout");

    Session session({.camera = options.camera,
                     .scene = options.scene,
                     .faults = options.faults,
                     .settings = options.settings,
                     .maximumTransfer = options.maximumTransfer,
                     .freeRun = options.freeRun});
    host::client::Filter &filter = session.Filter();
    const KS_DATARANGE_VIDEO range = ChooseRange(filter, options);
    if (options.overlay)
        SwitchOverlayOn(filter);

    std::vector<std::uint8_t> format;
    NTSTATUS status = filter.Intersect(kCapturePin, host::client::BytesOf(range), format);
    if (!NT_SUCCESS(status))
        throw StatusFailure("the driver refuses " + Describe(options), status);
    const auto &info = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER *>(format.data())->VideoInfoHeader;
    const PixelLayout layout{FourCcOf(info.bmiHeader), static_cast<int>(info.bmiHeader.biWidth),
                             static_cast<int>(info.bmiHeader.biHeight), info.bmiHeader.biBitCount};

    std::vector<std::unique_ptr<host::client::Frame>> frames; // outlive the pin, which they are queued to
    host::client::Pin pin;
    host::client::Clock clock;
    status = pin.Open(filter, kCapturePin, format);
    if (!NT_SUCCESS(status))
        throw StatusFailure("cannot open a pin for " + Describe(options), status);
    KSALLOCATOR_FRAMING_EX framing{};
    if (!NT_SUCCESS(pin.Framing(framing)))
        framing.FramingItem[0].Frames = 3;
    if (NT_SUCCESS(clock.Open(pin)))
        static_cast<void>(pin.AssignClock(&clock)); // without a clock frames carry no time
    status = pin.SetState(KSSTATE_PAUSE);           // a stopped pin takes no frames
    if (!NT_SUCCESS(status))
        throw StatusFailure("cannot claim " + options.camera, status);
    for (unsigned i = 0; i < framing.FramingItem[0].Frames + kSpareFrames; ++i) {
        frames.push_back(std::make_unique<host::client::Frame>(info.bmiHeader.biSizeImage));
        status = pin.Queue(*frames.back());
        if (!NT_SUCCESS(status))
            throw StatusFailure("cannot queue a frame", status);
    }

    status = pin.SetState(KSSTATE_RUN);
    if (!NT_SUCCESS(status))
        throw StatusFailure("cannot start the stream", status);

    std::signal(SIGINT, [](int) { interrupted = 1; });
    Tally tally;
    auto frameList = nlohmann::ordered_json::array();
    const auto start = std::chrono::steady_clock::now();
    while (tally.delivered < options.frames && interrupted == 0) {
        host::client::Frame *frame = nullptr;
        status = pin.NextFrame(&frame, kFrameTimeoutMs);
        if (status == STATUS_TIMEOUT)
            throw Failure(ExitCode::TimedOut, "no frame for 5 seconds after " + std::to_string(tally.delivered));
        if (!NT_SUCCESS(status))
            throw StatusFailure("cannot wait for a frame", status);
        if (!session.Computer().IsConnected())
            throw Failure(ExitCode::DeviceLost,
                          options.camera + " is gone after " + std::to_string(tally.delivered) + " frames");
        if (NT_SUCCESS(frame->Status())) {
            ++tally.delivered;
            tally.lastPicture = frame->Info().PictureNumber;
            tally.incomplete = frame->Info().DropCount;
            output.Write(layout, frame->Data(), tally.delivered);
            if (options.json)
                frameList.push_back(FrameJson(*frame));
        } else {
            ++tally.failed;
        }
        if (options.freeRun)
            session.Camera().GrantFrame();
        status = pin.Queue(*frame);
        if (!NT_SUCCESS(status))
            throw StatusFailure("cannot queue a frame", status);
    }
    tally.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const host::cameras::CameraCounters counters = session.Camera().Counters();
    pin.Close();
    PrintSummary(options, layout, tally, counters, std::move(frameList));
}

} // namespace uvcam
