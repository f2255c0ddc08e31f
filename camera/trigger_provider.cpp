#include "camera/trigger_provider.h"

#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "camera/uvc_selector.h"
#include "camera/vendor_protocol.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

NTSTATUS GetExternalTrigger(const ControlRequest &request) {
    UvcControl *control = request.controls[0];
    if (control == nullptr || !CanAnswerControl(request))
        return STATUS_NOT_IMPLEMENTED;
    ULONGLONG raw = 0;
    NTSTATUS status = UvcReadControl(request.camera, *control, raw);
    if (!NT_SUCCESS(status))
        return status;
    const bool on = raw != 0;
    return AnswerControl(request, {.value = on, .flags = on ? 0 : ULONG{kTriggerOff}, .maximum = 1, .resolution = 1});
}

NTSTATUS SetExternalTrigger(const ControlRequest &request) {
    UvcControl *control = request.controls[0];
    if (control == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    return UvcWriteControl(request.camera, *control, (setting.flags & kTriggerOff) != 0 ? 0 : 1);
}

NTSTATUS GetSoftwareTrigger(const ControlRequest &request) {
    return AnswerControl(request, {.resolution = 1});
}

NTSTATUS SetSoftwareTrigger(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (NT_SUCCESS(status) && (setting.flags & kTriggerOnce) != 0)
        status = VendorSend(request.camera, kTriggerExposure, 0, 0, nullptr, 0);
    return status;
}

constexpr ControlItem kItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kExternalTriggerId,
     .get = GetExternalTrigger,
     .set = SetExternalTrigger,
     .modeCount = 1,
     .mappings = {{kInputTerminal, kExternalTriggerSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kSoftwareTriggerId,
     .get = GetSoftwareTrigger,
     .set = SetSoftwareTrigger,
     .modeCount = 1,
     .mappings = {{kInputTerminal, kExternalTriggerSelector}}},
};

} // namespace

TriggerProvider::TriggerProvider() : PropertyProvider(kItems) {}

NTSTATUS TriggerProvider::Attach(UvcCamera &camera) {
    return camera.controls.Find(kInputTerminal, kExternalTriggerSelector) != nullptr ? STATUS_SUCCESS
                                                                                     : STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
