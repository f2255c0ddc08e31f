#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/format_name.h"
#include "apps/uvcam/session.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace uvcam {

namespace {

constexpr double kTicksPerSecond = 1e7;

// The pin's own two ranges, which stand in for those of a camera that announces none the driver can stream.
bool IsTemplate(const KS_DATARANGE_VIDEO &range) {
    return range.ConfigCaps.OutputGranularityX == 8;
}

} // namespace

void Formats(const FormatsOptions &options) {
    Session session({.camera = options.camera, .settings = options.settings});
    std::vector<KS_DATARANGE_VIDEO> ranges;
    session.Require(session.Filter().DataRanges(0, ranges), "cannot ask for formats");
    if (std::any_of(ranges.begin(), ranges.end(), IsTemplate))
        std::fprintf(stderr,
                     "%s announces no uncompressed or frame-based format; the driver's templates follow, which "
                     "it cannot stream\n",
                     options.camera.c_str());

    auto formats = nlohmann::ordered_json::array();
    for (const KS_DATARANGE_VIDEO &range : ranges) {
        const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
        const std::string fourCc = FourCcOf(bitmap);
        const KS_VIDEO_STREAM_CONFIG_CAPS &caps = range.ConfigCaps;
        const double slowest = kTicksPerSecond / static_cast<double>(std::max<LONGLONG>(caps.MaxFrameInterval, 1));
        const double fastest = kTicksPerSecond / static_cast<double>(std::max<LONGLONG>(caps.MinFrameInterval, 1));
        if (options.json)
            formats.push_back({{"format", fourCc},
                               {"width", bitmap.biWidth},
                               {"height", bitmap.biHeight},
                               {"bits", bitmap.biBitCount},
                               {"fpsMinimum", slowest},
                               {"fpsMaximum", fastest},
                               {"template", IsTemplate(range)}});
        else
            std::printf("%s  %4dx%-4d  %2d bit  %6.2f to %6.2f fps\n", fourCc.c_str(), static_cast<int>(bitmap.biWidth),
                        static_cast<int>(bitmap.biHeight), bitmap.biBitCount, slowest, fastest);
    }
    if (options.json)
        std::printf("%s\n", formats.dump(2).c_str());
}

} // namespace uvcam
