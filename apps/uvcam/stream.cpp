#include "apps/uvcam/stream.h"

#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/format_name.h"

#include <algorithm>
#include <cmath>
#include <csignal>

namespace uvcam {

namespace {

constexpr double kTicksPerSecond = 1e7;
constexpr ULONG kCapturePin = 0;
constexpr LONGLONG kFrameTimeoutMs = 5000;
constexpr unsigned kSpareFrames = 2; // queued beyond what the pin asks for, so that writing a file costs no frame

volatile std::sig_atomic_t interrupted = 0;

std::string Describe(const StreamOptions &options) {
    std::string text = options.format.empty() ? "a format" : options.format;
    if (options.size)
        text += " at " + std::to_string(options.size->width) + "x" + std::to_string(options.size->height);
    return text;
}

bool Fits(const KS_DATARANGE_VIDEO &range, const StreamOptions &options) {
    const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
    return (options.format.empty() || NamesFormat(options.format, FourCcOf(bitmap))) &&
           (!options.size || (options.size->width == bitmap.biWidth && options.size->height == bitmap.biHeight));
}

KS_DATARANGE_VIDEO ChooseRange(Session &session, const StreamOptions &options) {
    std::vector<KS_DATARANGE_VIDEO> ranges;
    session.Require(session.Filter().DataRanges(kCapturePin, ranges), "cannot ask for formats");
    auto range =
        std::find_if(ranges.begin(), ranges.end(), [&](const auto &offered) { return Fits(offered, options); });
    if (range == ranges.end())
        throw Failure(ExitCode::NotOffered,
                      session.Name() + " does not offer " + Describe(options) + "; see `uvcam formats`");
    if (options.framesPerSecond) {
        const LONGLONG interval = std::llround(kTicksPerSecond / *options.framesPerSecond);
        // A person's 30 is the camera's 29.97.
        constexpr LONGLONG kTolerance = 100;
        const KS_VIDEO_STREAM_CONFIG_CAPS &caps = range->ConfigCaps;
        if (interval + interval / kTolerance < caps.MinFrameInterval ||
            interval - interval / kTolerance > caps.MaxFrameInterval)
            throw Failure(ExitCode::NotOffered,
                          session.Name() + " does not offer " + Describe(options) + " at that frame rate");
        range->VideoInfoHeader.AvgTimePerFrame = std::clamp(interval, caps.MinFrameInterval, caps.MaxFrameInterval);
    }
    return *range;
}

// Those for a camera at rest, and those that it would give up when the stream starts.
std::pair<std::vector<Assignment>, std::vector<Assignment>> Split(const std::vector<Assignment> &settings) {
    std::pair<std::vector<Assignment>, std::vector<Assignment>> parts;
    for (const Assignment &setting : settings)
        (setting.row->streamOnly ? parts.second : parts.first).push_back(setting);
    return parts;
}

} // namespace

Stream::Stream(Session &session, const StreamOptions &options) : session_(session) {
    host::client::Filter &filter = session.Filter();
    Check(session, options.settings);
    const auto [early, late] = Split(options.settings);
    const KS_DATARANGE_VIDEO range = ChooseRange(session, options);
    Apply(session, early);
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
    session.Require(pin_.SetState(KSSTATE_PAUSE), "cannot claim " + session.Name());
    QueueFrames(bitmap.biSizeImage);
    session.Require(pin_.SetState(KSSTATE_RUN), "cannot start the stream");
    if (!late.empty())
        ApplyWhileRunning(late);
}

// Until pictures show what is set: as many as may be finished by now, one on its way through the driver, and those that
// a sensor exposes before it follows.
void Stream::ApplyWhileRunning(const std::vector<Assignment> &settings) {
    constexpr std::size_t kOnTheWay = 1;
    constexpr std::size_t kSensorDelay = 2;
    Apply(session_, settings);
    for (std::size_t i = 0; i < frames_.size() + kOnTheWay + kSensorDelay; ++i)
        Return(Next(0));
}

void Stream::QueueFrames(std::size_t size) {
    constexpr unsigned kUsualFrames = 3;
    KSALLOCATOR_FRAMING_EX framing{};
    const unsigned wanted = NT_SUCCESS(pin_.Framing(framing)) ? framing.FramingItem[0].Frames : kUsualFrames;
    for (unsigned i = 0; i < wanted + kSpareFrames; ++i) {
        frames_.push_back(std::make_unique<host::client::Frame>(size));
        Queue(*frames_.back());
    }
}

void Stream::Queue(host::client::Frame &frame) {
    session_.Require(pin_.Queue(frame), "cannot queue a frame");
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
    if (session_.IsFreeRunning())
        session_.Camera().GrantFrame();
    Queue(frame);
}

void CatchInterrupts() {
    std::signal(SIGINT, [](int) { interrupted = 1; });
}

bool IsInterrupted() {
    return interrupted != 0;
}

} // namespace uvcam
