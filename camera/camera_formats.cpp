// From the camera's descriptors to the formats that are offered, and from a chosen format back to the camera.
#include "camera/descriptor_parser.h"
#include "camera/uvc_camera.h"

#include <algorithm>
#include <span>

namespace uvc {

namespace {

struct IntervalLimits {
    LONGLONG minimum;
    LONGLONG maximum;
};

// Lists need not be sorted.
IntervalLimits LimitsOf(FrameDescription frame) {
    if (frame.intervalCount == 0)
        return {frame.defaultInterval, frame.defaultInterval};
    LONGLONG first = frame.intervals.U32();
    IntervalLimits limits{first, first};
    for (ULONG i = 1; i < frame.intervalCount; ++i) {
        LONGLONG interval = frame.intervals.U32();
        limits.minimum = std::min(limits.minimum, interval);
        limits.maximum = std::max(limits.maximum, interval);
    }
    return limits;
}

struct OutputFormat {
    const GUID *subtype;
    USHORT bitsPerPixel;
};

constexpr USHORT kSensorBits = 8; // what the conversion reads

} // namespace

NTSTATUS UvcCamera::BuildFormatList() {
    ULONG frameCount = 0;
    for (ULONG i = 0; i < descriptors->formatCount; ++i)
        frameCount += descriptors->formats[i].frameCount;
    NTSTATUS status = formats.Reserve(frameCount);
    if (!NT_SUCCESS(status))
        return status;

    // A frame that cannot be taken ends the walk, and what the list has until then is offered.
    status = AddDescribedFrames();
    if (status == STATUS_INSUFFICIENT_RESOURCES)
        return status;
    status = FinishFormats();
    formatsReady = NT_SUCCESS(status);
    return status;
}

NTSTATUS UvcCamera::AddDescribedFrames() {
    for (ULONG i = 0; i < descriptors->formatCount; ++i) {
        const DescribedFormat &format = descriptors->formats[i];
        for (ULONG j = 0; j < format.frameCount; ++j) {
            NTSTATUS status = format.frameBased != 0 ? AddOtherFrame(format.format, format.frames[j])
                                                     : AddUncompressedFrame(format.format, format.frames[j]);
            if (!NT_SUCCESS(status))
                return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS UvcCamera::AddUncompressedFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    return AddSensorFrame(formatDescriptor, frameDescriptor, 0);
}

NTSTATUS UvcCamera::AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    return AddSensorFrame(formatDescriptor, frameDescriptor, 0);
}

NTSTATUS UvcCamera::AddSensorFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor, USHORT bitsPerPixel) {
    FormatDescription format;
    FrameDescription frame;
    if (!ReadFormatDescriptor(formatDescriptor, format) || !ReadFrameDescriptor(frameDescriptor, frame))
        return STATUS_INVALID_PARAMETER;

    IntervalLimits limits = LimitsOf(frame);
    FormatRecord record{.formatIndex = format.index, .frameIndex = frame.index};
    BuildVideoRange(format.subtype, frame.width, frame.height, bitsPerPixel != 0 ? bitsPerPixel : format.bitsPerPixel,
                    frame.defaultInterval, limits.minimum, limits.maximum, record.range);
    return formats.Append(record);
}

NTSTATUS UvcCamera::FinishFormats() {
    return STATUS_SUCCESS;
}

// The best output comes first. A monochrome image reaches RGB32 only as a copy of its bytes, so that comes last.
NTSTATUS UvcCamera::AddConvertedFormats(bool colour) {
    static constexpr OutputFormat kColourOutputs[] = {
        {&kSubtypeRgb32, 32}, {&kSubtypeRgb24, 24}, {&kSubtypeY800, 8}, {&kSubtypeBy8, 8}};
    static constexpr OutputFormat kGreyOutputs[] = {{&kSubtypeY800, 8}, {&kSubtypeRgb24, 24}, {&kSubtypeRgb32, 32}};

    using Outputs = std::span<const OutputFormat>;
    const ULONG sensorCount = formats.Count();
    for (ULONG i = 0; i < sensorCount; ++i) {
        for (const OutputFormat &output : colour ? Outputs(kColourOutputs) : Outputs(kGreyOutputs)) {
            const FormatRecord source = formats[i]; // appending moves the list
            const KS_BITMAPINFOHEADER &image = source.range.VideoInfoHeader.bmiHeader;
            if (image.biBitCount != kSensorBits || HasFormat(*output.subtype, image.biWidth, image.biHeight))
                continue;
            FormatRecord record;
            DeriveFormatRecord(record, source, *output.subtype, output.bitsPerPixel);
            NTSTATUS status = formats.Append(record);
            if (!NT_SUCCESS(status))
                return status;
        }
    }
    return STATUS_SUCCESS;
}

bool UvcCamera::HasFormat(const GUID &subtype) const {
    return std::any_of(formats.begin(), formats.end(),
                       [&](const FormatRecord &record) { return record.range.DataRange.SubFormat == subtype; });
}

bool UvcCamera::HasFormat(const GUID &subtype, LONG width, LONG height) const {
    return std::any_of(formats.begin(), formats.end(), [&](const FormatRecord &record) {
        const KS_BITMAPINFOHEADER &image = record.range.VideoInfoHeader.bmiHeader;
        return record.range.DataRange.SubFormat == subtype && image.biWidth == width && image.biHeight == height;
    });
}

NTSTATUS UvcCamera::BuildProbeRequest(const KS_VIDEOINFOHEADER &format, ProbeCommitBlock &block) {
    auto record = std::find_if(formats.begin(), formats.end(),
                               [&](const FormatRecord &offered) { return FormatMatchesRange(format, offered.range); });
    if (record == formats.end())
        return STATUS_INVALID_PARAMETER;
    block = {};
    block.bmHint = kKeepFrameInterval;
    block.bFormatIndex = static_cast<UCHAR>(record->formatIndex);
    block.bFrameIndex = static_cast<UCHAR>(record->frameIndex);
    block.dwFrameInterval = static_cast<ULONG>(format.AvgTimePerFrame);
    return STATUS_SUCCESS;
}

NTSTATUS UvcCamera::CheckProbeResult(const ProbeCommitBlock &asked, const ProbeCommitBlock &got) {
    bool same = got.bFormatIndex == asked.bFormatIndex && got.bFrameIndex == asked.bFrameIndex;
    return same ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

void UvcCamera::FillImageParameters(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    FormatDescription format;
    FrameDescription frame;
    if (ReadFormatDescriptor(formatDescriptor, format) && ReadFrameDescriptor(frameDescriptor, frame))
        BuildSensorHeader(format.subtype, frame.width, frame.height, format.bitsPerPixel, frame.defaultInterval,
                          stream.sensor);
}

NTSTATUS UvcCamera::QueryFrameIntervals(ULONG rangeIndex, LONG width, LONG height, LONGLONG *intervals, ULONG room,
                                        ULONG &count) {
    count = 0;
    if (rangeIndex >= formats.Count())
        return STATUS_INVALID_PARAMETER;
    const FormatRecord &record = formats[rangeIndex];
    const KS_BITMAPINFOHEADER &image = record.range.VideoInfoHeader.bmiHeader;
    if (width != image.biWidth || height != image.biHeight)
        return STATUS_INVALID_PARAMETER;

    auto offer = [&](LONGLONG interval) {
        interval = std::max(interval, LONGLONG{1});
        if (room == 0)
            ++count;
        else if (count < room)
            intervals[count++] = interval;
    };

    if (intervalQuery_ != nullptr) {
        FrameIntervalList list;
        NTSTATUS status = intervalQuery_(*this, record.range.VideoInfoHeader, list);
        for (const FrameIntervalEntry &entry : list)
            offer(entry.interval);
        return status;
    }

    const UCHAR *formatDescriptor = nullptr;
    const UCHAR *frameDescriptor = nullptr;
    FrameDescription frame;
    if (!FindDescribedFrame(*descriptors, record.formatIndex, record.frameIndex, formatDescriptor, frameDescriptor) ||
        !ReadFrameDescriptor(frameDescriptor, frame))
        return STATUS_INVALID_PARAMETER;
    for (ULONG i = 0; i < frame.intervalCount; ++i)
        offer(frame.intervals.U32());
    return STATUS_SUCCESS;
}

} // namespace uvc
