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

KS_DATARANGE_VIDEO ChooseRange(Session &session, const CaptureOptions &options) {
    std::vector<KS_DATARANGE_VIDEO> ranges;
    session.Require(session.Filter().DataRanges(kCapturePin, ranges), "cannot ask for formats");
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

void SwitchOverlayOn(Session &session) {
    ULONG on = 1;
    session.Require(session.Filter().Property(kDriverParameterSet, kOverlayParameter, KSPROPERTY_TYPE_SET, {},
                                              host::client::BytesOf(on)),
                    "cannot switch the overlay on");
}

// What one run has seen.
struct Tally {
    unsigned delivered = 0;
    unsigned failed = 0;     // came back with a failure status
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

// The capture pin of an opened camera, running, with frames queued.
class Stream {
  public:
    Stream(Session &session, const CaptureOptions &options);

    const PixelLayout &Layout() const { return layout_; }

    // The next frame, delivered or failed. Throws Failure when none comes.
    host::client::Frame &Next(unsigned taken);
    void Return(host::client::Frame &frame);
    void Stop() { pin_.Close(); }

  private:
    void QueueFrames(std::size_t size);

    Session &session_;
    PixelLayout layout_;
    std::vector<std::unique_ptr<host::client::Frame>> frames_; // outlive the pin, which they are queued to
    host::client::Pin pin_;
    host::client::Clock clock_;
};

Stream::Stream(Session &session, const CaptureOptions &options) : session_(session) {
    host::client::Filter &filter = session.Filter();
    const KS_DATARANGE_VIDEO range = ChooseRange(session, options);
    if (options.overlay)
        SwitchOverlayOn(session);
    std::vector<std::uint8_t> format;
    session.Require(filter.Intersect(kCapturePin, host::client::BytesOf(range), format),
                    "the driver refuses " + Describe(options));
    const auto &bitmap =
        reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER *>(format.data())->VideoInfoHeader.bmiHeader;
    layout_ = {FourCcOf(bitmap), static_cast<int>(bitmap.biWidth), static_cast<int>(bitmap.biHeight),
               bitmap.biBitCount};
    session.Require(pin_.Open(filter, kCapturePin, format), "cannot open a pin for " + Describe(options));
    if (NT_SUCCESS(clock_.Open(pin_)))
        static_cast<void>(pin_.AssignClock(&clock_)); // without a clock frames carry no time
    // A stopped pin takes no frames.
    session.Require(pin_.SetState(KSSTATE_PAUSE), "cannot claim " + options.camera);
    QueueFrames(bitmap.biSizeImage);
    session.Require(pin_.SetState(KSSTATE_RUN), "cannot start the stream");
}

void Stream::QueueFrames(std::size_t size) {
    constexpr unsigned kUsualFrames = 3;
    KSALLOCATOR_FRAMING_EX framing{};
    const unsigned wanted = NT_SUCCESS(pin_.Framing(framing)) ? framing.FramingItem[0].Frames : kUsualFrames;
    for (unsigned i = 0; i < wanted + kSpareFrames; ++i) {
        frames_.push_back(std::make_unique<host::client::Frame>(size));
        Return(*frames_.back());
    }
}

host::client::Frame &Stream::Next(unsigned taken) {
    host::client::Frame *frame = nullptr;
    NTSTATUS status = pin_.NextFrame(&frame, kFrameTimeoutMs);
    session_.RequireConnected("after " + std::to_string(taken) + " frames");
    if (status == STATUS_TIMEOUT)
        throw Failure(ExitCode::TimedOut, "no frame for 5 seconds after " + std::to_string(taken));
    session_.Require(status, "cannot wait for a frame");
    return *frame;
}

void Stream::Return(host::client::Frame &frame) {
    session_.Require(pin_.Queue(frame), "cannot queue a frame");
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
    Stream stream(session, options);

    std::signal(SIGINT, [](int) { interrupted = 1; });
    Tally tally;
    auto frames = nlohmann::ordered_json::array();
    const auto start = std::chrono::steady_clock::now();
    while (tally.delivered < options.frames && interrupted == 0) {
        host::client::Frame &frame = stream.Next(tally.delivered);
        if (NT_SUCCESS(frame.Status())) {
            ++tally.delivered;
            tally.incomplete = frame.Info().DropCount;
            output.Write(stream.Layout(), frame.Data(), tally.delivered);
            if (options.json)
                frames.push_back(FrameJson(frame));
        } else {
            ++tally.failed;
        }
        if (options.freeRun)
            session.Camera().GrantFrame();
        stream.Return(frame);
    }
    tally.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const host::cameras::CameraCounters counters = session.Camera().Counters();
    stream.Stop();
    PrintSummary(options, stream.Layout(), tally, counters, std::move(frames));
}

} // namespace uvcam
