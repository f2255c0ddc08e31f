#include "camera/focus_provider.h"

#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "camera/uvc_selector.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

constexpr LONG kFullTravelMs = 1000;
constexpr LONG kShortestMoveMs = 250; // longest way: a quarter of the range beyond the best position

// What the family offers, whatever its motor counts in.
constexpr LONG kPositionMaximum = 1000;
constexpr LONG kPositionDefault = 500;

FocusProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<FocusProvider *>(request.provider);
}

ULONGLONG Now() {
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    return static_cast<ULONGLONG>(time.QuadPart);
}

} // namespace

const ControlItem FocusProvider::kItems[] = {
    {.propertySet = kCameraControlSet,
     .propertyId = KSPROPERTY_CAMERACONTROL_FOCUS,
     .get = GetPosition,
     .set = SetPosition,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kAutofocusId,
     .get = GetTrigger,
     .set = SetTrigger,
     .modeCount = 0,
     .mappings = {}},
};

FocusProvider::FocusProvider() : PropertyProvider(kItems) {}

NTSTATUS FocusProvider::Attach(UvcCamera &camera) {
    UvcControl *control = camera.controls.Find(kInputTerminal, kFocusSelector);
    search_ = {};
    command_.Attach(camera, control);
    if (control == nullptr)
        return STATUS_SUCCESS;
    search_.SetMotor({.minimum = UvcControlNumber(*control, control->minimum),
                      .maximum = UvcControlNumber(*control, control->maximum),
                      .fullTravelTime = kFullTravelMs,
                      .minimumSettleTime = kShortestMoveMs});
    search_.SetPosition(UvcControlNumber(*control, SharedLoad(control->current)));
    return STATUS_SUCCESS;
}

void FocusProvider::Judge(const imaging::ImageDescriptor &source, WorkItemTracker &tracker) {
    if (!Present() || !search_.Running())
        return;
    const LONG position = search_.Position();
    LONG target = 0;
    // Without the move the next score is still that of where the motor is.
    if (search_.Step(source, Now(), target) && !NT_SUCCESS(command_.Queue(tracker, target)))
        search_.SetPosition(position);
}

NTSTATUS FocusProvider::GetPosition(const ControlRequest &request) {
    const FocusProvider &provider = ProviderOf(request);
    if (!provider.Present())
        return STATUS_NOT_IMPLEMENTED;
    return AnswerControl(request, {.value = provider.search_.Position(),
                                   .maximum = kPositionMaximum,
                                   .defaultValue = kPositionDefault,
                                   .resolution = 1});
}

NTSTATUS FocusProvider::SetPosition(const ControlRequest &request) {
    FocusProvider &provider = ProviderOf(request);
    ControlSetting setting;
    NTSTATUS status = provider.Present() ? ReadControlSetting(request, setting) : STATUS_NOT_IMPLEMENTED;
    if (NT_SUCCESS(status))
        status = provider.command_.Send(setting.value);
    if (NT_SUCCESS(status))
        provider.search_.MoveTo(setting.value, Now());
    return status;
}

NTSTATUS FocusProvider::GetTrigger(const ControlRequest &request) {
    return ProviderOf(request).Present() ? AnswerControl(request, {.maximum = 1, .resolution = 1})
                                         : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS FocusProvider::SetTrigger(const ControlRequest &request) {
    FocusProvider &provider = ProviderOf(request);
    ControlSetting setting;
    NTSTATUS status = provider.Present() ? ReadControlSetting(request, setting) : STATUS_NOT_IMPLEMENTED;
    if (NT_SUCCESS(status) && setting.value != 0)
        provider.search_.Trigger();
    return status;
}

} // namespace uvc
