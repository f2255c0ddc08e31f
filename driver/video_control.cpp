// The video-control property set: external and software trigger, and the frame intervals of a format.
#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"

namespace uvc {

namespace {

// Flags of the external trigger that a change of the switch clears.
constexpr ULONG kTriggerFlags = 7;

NTSTATUS GetCapabilities(UvcCamera &camera, PropertyRequest &request) {
    using Block = KSPROPERTY_VIDEOCONTROL_CAPS_S;
    static_assert(sizeof(Block) == 32);
    auto *answer = StartAnswer<Block>(request);
    if (answer == nullptr)
        return STATUS_INVALID_PARAMETER;
    // The software trigger has always gone without a flag.
    answer->VideoControlCaps =
        camera.ItemExists(kPrivateImageSet, kExternalTriggerId) ? KS_VideoControlFlag_ExternalTriggerEnable : 0;
    return STATUS_SUCCESS;
}

NTSTATUS GetMode(UvcCamera &camera, PropertyRequest &request) {
    using Block = KSPROPERTY_VIDEOCONTROL_MODE_S;
    static_assert(sizeof(Block) == 32);
    if (AnswerBuffer(request, sizeof(Block)) == nullptr)
        return STATUS_INVALID_PARAMETER;
    ControlExtendedBlock trigger{};
    NTSTATUS status =
        camera.GetControl(kPrivateImageSet, kExternalTriggerId, kControlExtendedValue, &trigger, sizeof(trigger));
    if (!NT_SUCCESS(status))
        return status;
    StartAnswer<Block>(request)->Mode =
        (trigger.flags & kTriggerOff) == 0 ? KS_VideoControlFlag_ExternalTriggerEnable : 0;
    return status;
}

NTSTATUS SwitchTrigger(UvcCamera &camera, bool on) {
    ControlExtendedBlock trigger{};
    NTSTATUS status =
        camera.GetControl(kPrivateImageSet, kExternalTriggerId, kControlExtendedValue, &trigger, sizeof(trigger));
    if (!NT_SUCCESS(status))
        return status;
    trigger.flags = on ? trigger.flags & ~kTriggerFlags : trigger.flags | kTriggerOff;
    return camera.SetControl(kPrivateImageSet, kExternalTriggerId, kControlExtendedValue, &trigger, sizeof(trigger));
}

NTSTATUS TriggerOnce(UvcCamera &camera) {
    ControlExtendedBlock trigger{};
    trigger.flags = kTriggerOnce;
    return camera.SetControl(kPrivateImageSet, kSoftwareTriggerId, kControlExtendedValue, &trigger, sizeof(trigger));
}

// The status is that of the last write. A camera without external trigger has it off already.
NTSTATUS SetMode(UvcCamera &camera, PropertyRequest &request) {
    using Block = KSPROPERTY_VIDEOCONTROL_MODE_S;
    const auto *setting = static_cast<const Block *>(SettingBuffer(request, sizeof(Block)));
    if (setting == nullptr)
        return STATUS_INVALID_PARAMETER;
    const LONG mode = setting->Mode;
    const bool on = (mode & KS_VideoControlFlag_ExternalTriggerEnable) != 0;
    NTSTATUS status = on ? STATUS_NOT_IMPLEMENTED : STATUS_SUCCESS;
    if (camera.ItemExists(kPrivateImageSet, kExternalTriggerId))
        status = SwitchTrigger(camera, on);
    if ((mode & KS_VideoControlFlag_Trigger) != 0)
        status = TriggerOnce(camera);
    return status;
}

// What a request for the intervals of a format says behind the property header.
struct FrameRatesInstance {
    ULONG streamIndex;
    ULONG rangeIndex;
    SIZE dimensions;
};
static_assert(sizeof(KSPROPERTY) + sizeof(FrameRatesInstance) == sizeof(KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S));

NTSTATUS GetFrameRates(UvcCamera &camera, PropertyRequest &request) {
    FrameRatesInstance wanted;
    if (!camera.formatsReady || request.instance == nullptr ||
        request.inputLength < sizeof(KSPROPERTY) + sizeof(wanted))
        return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(&wanted, request.instance, sizeof(wanted));
    auto query = [&](LONGLONG *intervals, ULONG room, ULONG &count) {
        return camera.QueryFrameIntervals(wanted.rangeIndex, wanted.dimensions.cx, wanted.dimensions.cy, intervals,
                                          room, count);
    };
    auto size = [](ULONG count) { return static_cast<ULONG>(count * sizeof(LONGLONG) + sizeof(KSMULTIPLE_ITEM)); };

    ULONG count = 0;
    if (request.outputLength == 0) {
        NTSTATUS status = query(nullptr, 0, count);
        if (!NT_SUCCESS(status))
            return status;
        request.information = size(count);
        return STATUS_BUFFER_OVERFLOW;
    }

    auto *head = static_cast<KSMULTIPLE_ITEM *>(AnswerBuffer(request, sizeof(KSMULTIPLE_ITEM)));
    if (head == nullptr)
        return STATUS_INVALID_PARAMETER;
    const ULONG room = (request.outputLength - static_cast<ULONG>(sizeof(*head))) / sizeof(LONGLONG);
    NTSTATUS status = query(reinterpret_cast<LONGLONG *>(head + 1), room, count);
    if (!NT_SUCCESS(status))
        return status;
    // Without room the camera counts; a head that stands alone tells of no interval.
    if (room == 0)
        count = 0;
    *head = {.Size = size(count), .Count = count};
    request.information = head->Size;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS HandleVideoControl(UvcDevice &, UvcCamera &camera, PropertyRequest &request) {
    switch (request.property->Id) {
    case KSPROPERTY_VIDEOCONTROL_CAPS:
        return IsGet(request) ? GetCapabilities(camera, request) : STATUS_NOT_IMPLEMENTED;
    case KSPROPERTY_VIDEOCONTROL_MODE:
        if (IsSet(request))
            return SetMode(camera, request);
        return IsGet(request) ? GetMode(camera, request) : STATUS_NOT_IMPLEMENTED;
    case KSPROPERTY_VIDEOCONTROL_FRAME_RATES:
        return IsGet(request) ? GetFrameRates(camera, request) : STATUS_NOT_IMPLEMENTED;
    default:
        return STATUS_NOT_IMPLEMENTED;
    }
}

} // namespace uvc
