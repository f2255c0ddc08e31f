#include "usb/video_format.h"

#include <algorithm>

namespace uvc {

// Subtypes made from a FOURCC share all but their first 32 bits.
#define UVC_FOURCC_SUBTYPE(code)                                                                                       \
    {                                                                                                                  \
        code, 0x0000, 0x0010, {                                                                                        \
            0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71                                                             \
        }                                                                                                              \
    }

const GUID kSubtypeY800 = UVC_FOURCC_SUBTYPE(0x30303859);
const GUID kSubtypeBy8 = UVC_FOURCC_SUBTYPE(0x20385942);
const GUID kSubtypeYuy2 = UVC_FOURCC_SUBTYPE(0x32595559);
const GUID kSubtypeRgb24 = {0xe436eb7d, 0x524f, 0x11ce, {0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70}};
const GUID kSubtypeRgb32 = {0xe436eb7e, 0x524f, 0x11ce, {0x9f, 0x53, 0x00, 0x20, 0xaf, 0x0b, 0xa7, 0x70}};

namespace {

// Rates are computed in thousandths of a unit per 100 ns and brought back to whole seconds at the end, so that the
// interval divides a large number.
constexpr ULONGLONG kRateScale = 10'000'000'000;
constexpr ULONGLONG kRateDivisor = 1000;

constexpr ULONG kNominalFramesPerSecond = 30;

// Bits of one frame, in the 32 bits that the structures have room for.
ULONG BitsPerFrame(LONG width, LONG height, USHORT bitsPerPixel) {
    return static_cast<ULONG>(width) * static_cast<ULONG>(height) * bitsPerPixel;
}

ULONGLONG Magnitude(LONG value) {
    return static_cast<ULONGLONG>(value < 0 ? -static_cast<LONGLONG>(value) : value);
}

ULONG BitRate(ULONGLONG bits, LONGLONG interval) {
    return static_cast<ULONG>(bits * (kRateScale / static_cast<ULONGLONG>(interval)) / kRateDivisor);
}

KS_BITMAPINFOHEADER BitmapHeader(const GUID &subtype, LONG width, LONG height, USHORT bitsPerPixel, ULONG imageSize) {
    return {.biSize = sizeof(KS_BITMAPINFOHEADER),
            .biWidth = width,
            .biHeight = height,
            .biPlanes = 1,
            .biBitCount = bitsPerPixel,
            .biCompression = CompressionOf(subtype),
            .biSizeImage = imageSize};
}

bool LiesInSteps(LONGLONG value, LONGLONG minimum, LONGLONG maximum, LONGLONG step) {
    if (value < minimum || value > maximum)
        return false;
    return step != 0 ? (value - minimum) % step == 0 : value == minimum;
}

} // namespace

ULONG CompressionOf(const GUID &subtype) {
    return IsEqualGUID(subtype, kSubtypeRgb24) || IsEqualGUID(subtype, kSubtypeRgb32) ? 0 : subtype.Data1;
}

void BuildVideoRange(const GUID &subtype, LONG width, LONG height, USHORT bitsPerPixel, LONGLONG defaultInterval,
                     LONGLONG minimumInterval, LONGLONG maximumInterval, KS_DATARANGE_VIDEO &range) {
    static_assert(sizeof(range) == 296);
    defaultInterval = std::max<LONGLONG>(defaultInterval, 1);
    minimumInterval = std::max<LONGLONG>(minimumInterval, 1);
    maximumInterval = std::max<LONGLONG>(maximumInterval, 1);
    const ULONG bits = BitsPerFrame(width, height, bitsPerPixel);
    const ULONG imageSize = bits / 8;
    const auto bitsPerSecond = static_cast<LONG>(BitRate(Magnitude(static_cast<LONG>(bits)), minimumInterval));
    const SIZE size{width, height};
    const RECT whole{0, 0, width, height};

    range = {};
    range.DataRange = {.FormatSize = sizeof(range),
                       .SampleSize = imageSize,
                       .MajorFormat = KSDATAFORMAT_TYPE_VIDEO,
                       .SubFormat = subtype,
                       .Specifier = KSDATAFORMAT_SPECIFIER_VIDEOINFO};
    range.bFixedSizeSamples = TRUE;
    range.bTemporalCompression = TRUE;
    range.ConfigCaps = {.guid = KSDATAFORMAT_SPECIFIER_VIDEOINFO,
                        .InputSize = size,
                        .MinCroppingSize = size,
                        .MaxCroppingSize = size,
                        .CropGranularityX = 1,
                        .CropGranularityY = 1,
                        .CropAlignX = 1,
                        .CropAlignY = 1,
                        .MinOutputSize = size,
                        .MaxOutputSize = size,
                        .OutputGranularityX = 1,
                        .OutputGranularityY = 1,
                        .MinFrameInterval = minimumInterval,
                        .MaxFrameInterval = maximumInterval,
                        .MinBitsPerSecond = bitsPerSecond,
                        .MaxBitsPerSecond = bitsPerSecond};
    range.VideoInfoHeader = {.rcSource = whole,
                             .rcTarget = whole,
                             .dwBitRate = BitRate(ULONGLONG{imageSize} * 8, defaultInterval),
                             .AvgTimePerFrame = defaultInterval,
                             .bmiHeader = BitmapHeader(subtype, width, height, bitsPerPixel, imageSize)};
}

void DeriveFormatRecord(FormatRecord &record, const FormatRecord &source, const GUID &subtype, USHORT bitsPerPixel) {
    const KS_VIDEO_STREAM_CONFIG_CAPS &caps = source.range.ConfigCaps;
    const KS_VIDEOINFOHEADER &header = source.range.VideoInfoHeader;
    record.formatIndex = source.formatIndex;
    record.frameIndex = source.frameIndex;
    BuildVideoRange(subtype, header.bmiHeader.biWidth, header.bmiHeader.biHeight, bitsPerPixel, header.AvgTimePerFrame,
                    caps.MinFrameInterval, caps.MaxFrameInterval, record.range);
    record.range.ConfigCaps.MinOutputSize = caps.MinOutputSize;
    record.range.ConfigCaps.MaxOutputSize = caps.MaxOutputSize;
    record.range.ConfigCaps.OutputGranularityX = caps.OutputGranularityX;
    record.range.ConfigCaps.OutputGranularityY = caps.OutputGranularityY;
}

void BuildSensorHeader(const GUID &subtype, LONG width, LONG height, USHORT bitsPerPixel, LONGLONG defaultInterval,
                       KS_VIDEOINFOHEADER &header) {
    static_assert(sizeof(header) == 88);
    const auto imageSize =
        static_cast<ULONG>(Magnitude(static_cast<LONG>(BitsPerFrame(width, height, bitsPerPixel)) / 8));
    header = {.dwBitRate = imageSize * 8 * kNominalFramesPerSecond, // whatever the interval
              .AvgTimePerFrame = defaultInterval,
              .bmiHeader = BitmapHeader(subtype, width, height, bitsPerPixel, imageSize)};
}

bool FormatMatchesRange(const KS_VIDEOINFOHEADER &format, const KS_DATARANGE_VIDEO &range) {
    const KS_BITMAPINFOHEADER &image = format.bmiHeader;
    const KS_BITMAPINFOHEADER &offered = range.VideoInfoHeader.bmiHeader;
    const KS_VIDEO_STREAM_CONFIG_CAPS &caps = range.ConfigCaps;
    return image.biCompression == offered.biCompression && image.biBitCount == offered.biBitCount &&
           LiesInSteps(image.biWidth, caps.MinOutputSize.cx, caps.MaxOutputSize.cx, caps.OutputGranularityX) &&
           LiesInSteps(static_cast<LONGLONG>(Magnitude(image.biHeight)), caps.MinOutputSize.cy, caps.MaxOutputSize.cy,
                       caps.OutputGranularityY) &&
           RtlEqualMemory(&format.rcSource, &format.rcTarget, sizeof(format.rcSource));
}

} // namespace uvc
