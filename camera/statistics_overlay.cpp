#include "camera/uvc_camera.h"
#include "imaging/overlay.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr LONG kSmallestWidth = 97;
constexpr LONG kSmallestHeight = 101;
constexpr LONG kTextX = 25;
constexpr LONG kBannerY = 20;
constexpr LONG kInfoY = 40;
constexpr LONG kCountersY = 60;

// The pixel format to draw in; 0 draws nothing.
ULONG OverlayFormatOf(const KS_BITMAPINFOHEADER &image) {
    if (image.biCompression == imaging::kFourCcBayer8)
        return imaging::kFourCcGrey8;
    if (image.biCompression != 0)
        return image.biCompression;
    switch (image.biBitCount) {
    case 24:
        return imaging::kFourCcRgb24;
    case 32:
        return imaging::kFourCcRgb32;
    default:
        return 0;
    }
}

} // namespace

void UvcCamera::DrawStatistics(const FrameRecord &frame) {
    if (!SharedLoad(parameters.statisticsOverlay))
        return;
    const KS_BITMAPINFOHEADER &output = stream.output.bmiHeader;
    const LONG signedHeight = SharedLoad(output.biHeight); // a flip may come while the stream runs
    const LONGLONG height = signedHeight < 0 ? -LONGLONG{signedHeight} : signedHeight;
    const ULONG format = OverlayFormatOf(output);
    if (output.biWidth < kSmallestWidth || height < kSmallestHeight || format == 0)
        return;

    const ULONG stride = output.biBitCount * static_cast<ULONG>(output.biWidth) / 8;
    // A device may announce no bits at all, and an application's buffer may be smaller than its format says.
    if (stride == 0 || static_cast<ULONGLONG>(stride) * static_cast<ULONGLONG>(height) > frame.size)
        return;

    const imaging::OverlayImage image{
        .format = format,
        .data = frame.data,
        .width = output.biWidth,
        .height = signedHeight,
        .stride = stride,
    };
    auto draw = [&image](LONG y, const char *text) {
        imaging::DrawOverlayText(image, {.x = kTextX, .y = y}, imaging::kOverlayWhite, text, 1, imaging::kOverlayBlue);
    };

    char counters[100];
    const ULONG rate = SharedLoad(stream.rate.hundredths);
    static_cast<void>(
        RtlStringCbPrintfA(counters, sizeof(counters), "id %d, dropped=%d, not-dropped=%d, buf=%d, fps=%d.%02d",
                           SharedLoad(stream.lastFid), SharedLoad(stream.dropped), SharedLoad(stream.delivered),
                           SharedLoad(stream.noBuffer), rate / 100, rate % 100));
    draw(kBannerY, bannerText);
    draw(kInfoY, infoText);
    draw(kCountersY, counters);
}

} // namespace uvc
