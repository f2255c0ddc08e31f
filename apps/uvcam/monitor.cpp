#include "apps/uvcam/camera_control.h"
#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/format_name.h"
#include "apps/uvcam/luminance.h"
#include "apps/uvcam/session.h"

#include "imaging/brightness.h"
#include "imaging/sharpness.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace uvcam {

namespace {

using Json = nlohmann::ordered_json;

// What the automatics are there for: the picture in colours where the camera has them, else its grey one. A raw mosaic
// would do for brightness and sharpness, but the driver balances colours only where it makes them.
StreamOptions ChooseFormat(Session &session, StreamOptions options) {
    if (!options.format.empty())
        return options;
    std::vector<KS_DATARANGE_VIDEO> ranges;
    session.Require(session.Filter().DataRanges(0, ranges), "cannot ask for formats");
    for (const char *wanted : {"RGB3", "Y800"}) {
        const bool offered = std::ranges::any_of(ranges, [&](const KS_DATARANGE_VIDEO &range) {
            return NamesFormat(wanted, FourCcOf(range.VideoInfoHeader.bmiHeader));
        });
        if (offered) {
            options.format = wanted;
            break;
        }
    }
    return options;
}

// The controls that the automatics move; nothing for those that the camera lacks.
class Watched {
  public:
    Watched(Session &session, const char *name) : session_(session), row_(RequireControl(name)) {
        offered_ = ReadControl(session, row_).has_value();
    }
    Json Read() const {
        host::client::ControlSetting setting;
        if (!offered_ || !NT_SUCCESS(GetControl(session_.Filter(), row_.control, setting)))
            return {};
        return setting.value;
    }

  private:
    Session &session_;
    const ControlRow &row_;
    bool offered_;
};

// How sharp the middle of the picture is: its inner half each way, but no more than a few tiles of the autofocus.
Json ScoreOf(const imaging::ImageDescriptor &image) {
    constexpr std::uint32_t kLargest = 2 * imaging::kTileSize;
    const auto side = static_cast<std::int32_t>(std::min({image.width / 2, image.height / 2, kLargest}));
    return imaging::SharpnessScore(image, {.x = (static_cast<std::int32_t>(image.width) - side) / 2,
                                           .y = (static_cast<std::int32_t>(image.height) - side) / 2,
                                           .width = side,
                                           .height = side});
}

Json MeanOf(const imaging::ImageDescriptor &image) {
    std::uint32_t mean;
    return imaging::MeasureBrightness(image, mean) ? Json(mean) : Json();
}

std::string Cell(const Json &value) {
    return value.is_null() ? "-" : value.dump();
}

void Print(const Json &frame) {
    const Json &balance = frame["wb"];
    std::printf("%6s  mean %3s  exposure %5s  gain %4s  wb %3s %3s %3s  focus %4s  score %5s  dropped %s\n",
                Cell(frame["frame"]).c_str(), Cell(frame["mean"]).c_str(), Cell(frame["exposure"]).c_str(),
                Cell(frame["gain"]).c_str(), Cell(balance[0]).c_str(), Cell(balance[1]).c_str(),
                Cell(balance[2]).c_str(), Cell(frame["focus"]).c_str(), Cell(frame["score"]).c_str(),
                Cell(frame["dropped"]).c_str());
}

} // namespace

void Monitor(const MonitorOptions &options) {
    Session session(
        {.camera = options.camera, .scene = options.scene, .settings = options.settings, .freeRun = options.freeRun});
    Stream stream(session, ChooseFormat(session, options.stream));
    const Watched exposure(session, "Exposure"), gain(session, "Gain"), red(session, "WhiteBalance Red"),
        green(session, "WhiteBalance Green"), blue(session, "WhiteBalance Blue"), focus(session, "Focus");

    CatchInterrupts();
    Luminance luminance(stream.Layout());
    for (unsigned delivered = 0; (options.frames == 0 || delivered < options.frames) && !IsInterrupted();) {
        host::client::Frame &frame = stream.Next(delivered);
        if (NT_SUCCESS(frame.Status())) {
            ++delivered;
            const imaging::ImageDescriptor image = luminance.Of(frame.Data());
            const Json line{{"frame", frame.Info().PictureNumber},
                            {"mean", MeanOf(image)},
                            {"exposure", exposure.Read()},
                            {"gain", gain.Read()},
                            {"wb", Json::array({red.Read(), green.Read(), blue.Read()})},
                            {"focus", focus.Read()},
                            {"score", ScoreOf(image)},
                            {"delivered", delivered},
                            {"dropped", frame.Info().DropCount}};
            if (options.json)
                std::printf("%s\n", line.dump().c_str());
            else
                Print(line);
            std::fflush(stdout); // for whoever reads it as it comes
        }
        stream.Return(frame);
    }
    stream.Stop();
}

} // namespace uvcam
