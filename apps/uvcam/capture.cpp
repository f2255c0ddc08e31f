#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/picture.h"
#include "apps/uvcam/progress.h"
#include "apps/uvcam/session.h"
#include "apps/uvcam/stream.h"

#include "uvc_drv/properties.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>

namespace uvcam {

namespace {

void SwitchOverlayOn(Session &session) {
    ULONG on = 1;
    session.Require(session.Filter().Property(PROPSETID_DRIVER_PARAMETER, UVC_PARAMETER_STATISTICS_OVERLAY,
                                              KSPROPERTY_TYPE_SET, {}, host::client::BytesOf(on)),
                    "cannot switch the overlay on");
}

// What one run has seen.
struct Tally {
    unsigned delivered = 0;
    unsigned failed = 0; // came back with a failure status
    LONGLONG lost = 0;   // exposures that brought no frame: none was queued, it came short, the worker was behind
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
                                             {"dropped", tally.lost},
                                             {"failed", tally.failed},
                                             {"missedBySensor", camera.framesDropped},
                                             {"fps", rate},
                                             {"frames", std::move(frames)}};
        std::printf("%s\n", summary.dump(2).c_str());
        return;
    }
    std::fprintf(
        stderr,
        "%u frames of %s %dx%d delivered in %.2f s (%.1f fps); dropped: %lld by the driver, %u cancelled, %llu "
        "not fetched in time\n",
        tally.delivered, layout.fourCc.c_str(), layout.width, std::abs(layout.height), tally.seconds, rate,
        static_cast<long long>(tally.lost), tally.failed, static_cast<unsigned long long>(camera.framesDropped));
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
    if (options.overlay)
        SwitchOverlayOn(session);
    Stream stream(session, options.stream);

    CatchInterrupts();
    Tally tally;
    auto frames = nlohmann::ordered_json::array();
    Progress progress;
    const auto start = std::chrono::steady_clock::now();
    while (tally.delivered < options.frames && !IsInterrupted()) {
        host::client::Frame &frame = stream.Next(tally.delivered);
        if (NT_SUCCESS(frame.Status())) {
            ++tally.delivered;
            tally.lost = frame.Info().DropCount;
            output.Write(stream.Layout(), frame.Data(), tally.delivered);
            if (options.json)
                frames.push_back(FrameJson(frame));
        } else {
            ++tally.failed;
        }
        stream.Return(frame);
        tally.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        progress.Show(tally.delivered, options.frames, tally.seconds, tally.lost);
    }
    progress.Clear();
    const host::cameras::CameraCounters counters = session.Camera().Counters();
    stream.Stop();
    PrintSummary(options, stream.Layout(), tally, counters, std::move(frames));
}

} // namespace uvcam
