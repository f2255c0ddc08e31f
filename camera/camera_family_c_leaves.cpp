#include "camera/camera_family_c_leaves.h"

#include "platform/shared_field.h"
#include "usb/uvc_request.h"

#include <iterator>

namespace uvc {

namespace {

// Offered in this order, which is not always that of the codes; the roundings are those of each sensor's firmware.
constexpr FrameIntervalEntry kC1Width320[] = {{62500, 7}, {83333, 6}, {125000, 0}, {166666, 1}, {333333, 2}};
constexpr FrameIntervalEntry kC1Width640[] = {{114942, 7}, {166666, 6},  {333333, 0},
                                              {666666, 2}, {1333332, 3}, {2000000, 4}};
constexpr FrameIntervalEntry kC1OtherWidths[] = {{131578, 7}, {166666, 6},  {333333, 0},
                                                 {666666, 2}, {1333332, 3}, {2000000, 4}};
constexpr FrameIntervalEntry kC2Width2048[] = {{1000000, 0}, {1333332, 1}, {2000000, 2}, {2666664, 3}};
constexpr FrameIntervalEntry kC2Width1024[] = {{281690, 0}, {333333, 1}, {666666, 2}, {1000000, 3}};
constexpr FrameIntervalEntry kC3[] = {{361000, 0}, {500000, 1}, {666666, 2}, {1333333, 3}};
constexpr FrameIntervalEntry kC4[] = {{370009, 0}, {500000, 1}, {666666, 2}, {1333333, 3}, {2000000, 4}};
constexpr FrameIntervalEntry kC5[] = {{666666, 2}, {1333333, 3}, {2000000, 4}};

static_assert(std::size(kC1Width320) == 5);
static_assert(std::size(kC1Width640) == 6);
static_assert(std::size(kC1OtherWidths) == 6);
static_assert(std::size(kC2Width2048) == 4);
static_assert(std::size(kC2Width1024) == 4);
static_assert(std::size(kC3) == 4);
static_assert(std::size(kC4) == 5);
static_assert(std::size(kC5) == 3);

constexpr UCHAR kModeFlags = 16; // of all sensors but one

} // namespace

// This firmware takes a mode only after its current setting has been read.
NTSTATUS CameraFamilyC1::ApplyStreamingMode() {
    ProbeCommitBlock current{};
    static_cast<void>(UvcStreamingRequest(*this, false, kGetCur, current));
    return SendStreamingMode(kModeFlags, static_cast<USHORT>(CapabilityBit()), 1);
}

NTSTATUS CameraFamilyC1::GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) {
    switch (format.bmiHeader.biWidth) {
    case 320:
        list = kC1Width320;
        break;
    case 640:
        list = kC1Width640;
        break;
    default:
        list = kC1OtherWidths;
        break;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC2::ApplyStreamingMode() {
    return SendStreamingMode(kModeFlags, static_cast<USHORT>(CapabilityBit()), 2);
}

NTSTATUS CameraFamilyC2::GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) {
    switch (format.bmiHeader.biWidth) {
    case 2048:
        list = kC2Width2048;
        return STATUS_SUCCESS;
    case 1024:
        list = kC2Width1024;
        return STATUS_SUCCESS;
    default:
        list = {};
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS CameraFamilyC3::AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    if (formats.Count() == 1)
        return STATUS_SUCCESS;
    return CameraFamilyC::AddOtherFrame(formatDescriptor, frameDescriptor);
}

NTSTATUS CameraFamilyC3::ApplyStreamingMode() {
    return SendStreamingMode(kModeFlags, 0, static_cast<USHORT>(SharedLoad(streamingMode_)));
}

NTSTATUS CameraFamilyC3::GetFrameIntervals(const KS_VIDEOINFOHEADER &, FrameIntervalList &list) {
    list = kC3;
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC4::ApplyStreamingMode() {
    return SendStreamingMode(kModeFlags, 1, 3);
}

NTSTATUS CameraFamilyC4::GetFrameIntervals(const KS_VIDEOINFOHEADER &, FrameIntervalList &list) {
    list = kC4;
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC5::ApplyStreamingMode() {
    return SendStreamingMode(0, 1, 1);
}

NTSTATUS CameraFamilyC5::GetFrameIntervals(const KS_VIDEOINFOHEADER &, FrameIntervalList &list) {
    list = kC5;
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC6::ApplyStreamingMode() {
    return SendStreamingMode(kModeFlags, static_cast<USHORT>(CapabilityBit()), 2);
}

} // namespace uvc
