#include "driver/pin_format.h"

#include "driver/capture_pin.h"
#include "usb/video_format.h"

#include <cstddef>

namespace uvc {

namespace {

// What stands before the bitmap header in each enclosing structure.
constexpr ULONG kFormatBeforeBitmap = sizeof(KSDATAFORMAT) + kInfoBeforeBitmap;
constexpr ULONG kRangeBeforeBitmap = offsetof(KS_DATARANGE_VIDEO, VideoInfoHeader) + kInfoBeforeBitmap;
static_assert(kInfoBeforeBitmap == 48 && kFormatBeforeBitmap == 112 && kRangeBeforeBitmap == 256);
static_assert(sizeof(KS_DATAFORMAT_VIDEOINFOHEADER) == 152);

bool IsVideoInfo(const KSDATAFORMAT &format, ULONG minimumSize) {
    return IsEqualGUID(format.Specifier, KSDATAFORMAT_SPECIFIER_VIDEOINFO) && format.FormatSize >= minimumSize;
}

// Whether a bitmap header of `biSize` bytes behind `before` others fits `available`. Anything below the standard 40
// bytes would leave fields that are read and written here outside the block.
bool HeaderFits(ULONG biSize, ULONG before, ULONG available) {
    ULONG needed = 0;
    return biSize >= sizeof(KS_BITMAPINFOHEADER) && !__builtin_add_overflow(biSize, before, &needed) &&
           needed <= available;
}

ULONG AbsoluteHeight(LONG height) {
    return height < 0 ? 0u - static_cast<ULONG>(height) : static_cast<ULONG>(height);
}

bool SameKindOfStream(const KS_DATARANGE_VIDEO &a, const KS_DATARANGE_VIDEO &b) {
    return a.bFixedSizeSamples == b.bFixedSizeSamples && a.bTemporalCompression == b.bTemporalCompression &&
           a.StreamDescriptionFlags == b.StreamDescriptionFlags && a.MemoryAllocationFlags == b.MemoryAllocationFlags &&
           RtlCompareMemory(&a.ConfigCaps, &b.ConfigCaps, sizeof(a.ConfigCaps)) == sizeof(a.ConfigCaps);
}

// Rows rounded up to 4 bytes, as a bitmap has them. 32-bit arithmetic that keeps the low bits: the result is what the
// client may allocate, never what the driver writes.
ULONG ImageSize(const KS_BITMAPINFOHEADER &bitmap) {
    const ULONG stride = ((static_cast<ULONG>(bitmap.biBitCount) * static_cast<ULONG>(bitmap.biWidth) + 31) / 8) & ~3u;
    return stride * AbsoluteHeight(bitmap.biHeight);
}

} // namespace

NTSTATUS IntersectVideoFormat(PVOID, PIRP, PKSP_PIN, PKSDATARANGE callerRange, PKSDATARANGE descriptorRange,
                              ULONG bufferSize, PVOID data, PULONG dataSize) {
    if (!IsVideoInfo(*callerRange, sizeof(KS_DATARANGE_VIDEO)))
        return STATUS_NO_MATCH;
    const auto &caller = *reinterpret_cast<const KS_DATARANGE_VIDEO *>(callerRange);
    const auto &offered = *reinterpret_cast<const KS_DATARANGE_VIDEO *>(descriptorRange);
    if (!SameKindOfStream(caller, offered))
        return STATUS_NO_MATCH;

    const ULONG biSize = caller.VideoInfoHeader.bmiHeader.biSize;
    if (!HeaderFits(biSize, kRangeBeforeBitmap, callerRange->FormatSize))
        return STATUS_INVALID_PARAMETER;
    const ULONG size = biSize + kFormatBeforeBitmap;
    if (bufferSize == 0) {
        *dataSize = size;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (bufferSize < size)
        return STATUS_BUFFER_TOO_SMALL;

    *dataSize = size;
    auto &format = *static_cast<KS_DATAFORMAT_VIDEOINFOHEADER *>(data);
    KS_VIDEOINFOHEADER &info = format.VideoInfoHeader;
    format.DataFormat = offered.DataRange;
    format.DataFormat.FormatSize = size;
    RtlCopyMemory(&info, &caller.VideoInfoHeader, biSize + kInfoBeforeBitmap);
    info.bmiHeader.biSizeImage = ImageSize(info.bmiHeader);
    format.DataFormat.SampleSize = info.bmiHeader.biSizeImage;
    info.rcSource = {};
    info.rcTarget = {};
    return STATUS_SUCCESS;
}

NTSTATUS SetCapturePinFormat(PKSPIN pin, PKSDATAFORMAT oldFormat, PKSMULTIPLE_ITEM, const KSDATARANGE *range,
                             const KSATTRIBUTE_LIST *) {
    const KSDATAFORMAT &connection = *pin->ConnectionFormat;
    if (!IsVideoInfo(connection, sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)))
        return STATUS_NO_MATCH;
    const auto &info = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER &>(connection).VideoInfoHeader;
    const KS_BITMAPINFOHEADER &bitmap = info.bmiHeader;
    if (!HeaderFits(bitmap.biSize, kFormatBeforeBitmap, connection.FormatSize))
        return STATUS_INVALID_PARAMETER;
    if (!FormatMatchesRange(info, *reinterpret_cast<const KS_DATARANGE_VIDEO *>(range)))
        return STATUS_NO_MATCH;

    ULONG pixels = 0;
    ULONG bytes = 0;
    if (__builtin_mul_overflow(static_cast<ULONG>(bitmap.biWidth), AbsoluteHeight(bitmap.biHeight), &pixels) ||
        __builtin_mul_overflow(pixels, static_cast<ULONG>(bitmap.biBitCount / 8), &bytes) || bitmap.biSizeImage < bytes)
        return STATUS_INVALID_PARAMETER;

    if (oldFormat == nullptr)
        return STATUS_SUCCESS; // the initial format; the pin has no context of its own yet

    CapturePin *context = CapturePin::From(pin);
    if (pin->DeviceState != KSSTATE_STOP) {
        KS_VIDEOINFOHEADER flipped = info;
        flipped.bmiHeader.biHeight = static_cast<LONG>(0u - static_cast<ULONG>(flipped.bmiHeader.biHeight));
        if (RtlCompareMemory(&flipped, context->format, sizeof(flipped)) != sizeof(flipped))
            return STATUS_INVALID_DEVICE_STATE;
    }
    return context->SetPinFormat() != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

} // namespace uvc
