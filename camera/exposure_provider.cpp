#include "camera/exposure_provider.h"

#include "camera/control_id.h"
#include "camera/exposure_value.h"
#include "camera/uvc_camera.h"
#include "camera/uvc_selector.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

ExposureProvider &ProviderOf(const ControlRequest &request) {
    return *static_cast<ExposureProvider *>(request.provider);
}

// The one control is offered in two units.
bool IsInSeconds(const ControlRequest &request) {
    return request.item.propertySet == kCameraControlSet;
}

} // namespace

const ControlItem ExposureProvider::kItems[] = {
    {.propertySet = kCameraControlSet,
     .propertyId = KSPROPERTY_CAMERACONTROL_EXPOSURE,
     .get = GetExposure,
     .set = SetExposure,
     .modeCount = 2,
     .mappings = {{kInputTerminal, kExposureTimeSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kCameraExposureId,
     .get = GetExposure,
     .set = SetExposure,
     .modeCount = 2,
     .mappings = {{kInputTerminal, kExposureTimeSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureReferenceId,
     .get = GetLimits,
     .set = SetLimits,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureLimitId,
     .get = GetLimits,
     .set = SetLimits,
     .modeCount = 0,
     .mappings = {}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureLimitFollowsCameraId,
     .get = GetLimits,
     .set = SetLimits,
     .modeCount = 0,
     .mappings = {}},
};

ExposureProvider::ExposureProvider() : PropertyProvider(kItems) {}

NTSTATUS ExposureProvider::Attach(UvcCamera &camera) {
    state_ = {};
    UvcControl *control = camera.controls.Find(kInputTerminal, kExposureTimeSelector);
    control_.Attach(camera, control);
    if (control == nullptr)
        return STATUS_SUCCESS;
    // The limit of the automatic stays at its default until an application sets it.
    state_.minimum = state_.limitMinimum = UvcControlNumber(*control, control->minimum);
    state_.maximum = state_.limitMaximum = state_.cameraMaximum = UvcControlNumber(*control, control->maximum);
    state_.defaultValue = UvcControlNumber(*control, control->defaultValue);
    return STATUS_SUCCESS;
}

NTSTATUS ExposureProvider::GetExposure(const ControlRequest &request) {
    ExposureProvider &provider = ProviderOf(request);
    const ExposureState &state = provider.state_;
    ControlAnswer answer{
        .minimum = state.minimum, .maximum = state.maximum, .defaultValue = state.defaultValue, .resolution = 1};
    NTSTATUS status = provider.control_.Tell(request, answer);
    if (!NT_SUCCESS(status))
        return status;
    if (IsInSeconds(request)) {
        answer.capabilities = kControlAutomatic | kControlManual;
        for (LONG *field : {&answer.value, &answer.minimum, &answer.maximum, &answer.defaultValue})
            *field = ExposureValue(*field);
    }
    return AnswerControl(request, answer);
}

NTSTATUS ExposureProvider::SetExposure(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    if (IsInSeconds(request))
        setting.value = ExposureUnits(setting.value);
    return ProviderOf(request).control_.Set(request.camera, setting);
}

NTSTATUS ExposureProvider::GetLimits(const ControlRequest &request) {
    const ExposureState &state = ProviderOf(request).state_;
    switch (request.item.propertyId) {
    case kExposureReferenceId:
        return AnswerControl(request, {.value = SharedLoad(state.reference),
                                       .minimum = state.referenceMinimum,
                                       .maximum = state.referenceMaximum,
                                       .defaultValue = state.referenceDefault,
                                       .resolution = 1});
    case kExposureLimitId:
        return AnswerControl(request, {.value = SharedLoad(state.autoMaximum),
                                       .minimum = state.limitMinimum,
                                       .maximum = state.limitMaximum,
                                       .defaultValue = state.limitDefault,
                                       .resolution = 1});
    default:
        return AnswerControl(
            request, {.value = SharedLoad(state.limitFollowsCamera), .maximum = 1, .defaultValue = 1, .resolution = 1});
    }
}

NTSTATUS ExposureProvider::SetLimits(const ControlRequest &request) {
    ExposureState &state = ProviderOf(request).state_;
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    switch (request.item.propertyId) {
    case kExposureReferenceId:
        SharedStore(state.reference, setting.value);
        return status;
    case kExposureLimitFollowsCameraId:
        SharedStore(state.limitFollowsCamera, setting.value != 0);
        if (setting.value != 0)
            SharedStore(state.autoMaximum, state.cameraMaximum);
        return status;
    default: {
        const bool follows = SharedLoad(state.limitFollowsCamera);
        SharedStore(state.autoMaximum, follows ? state.cameraMaximum : setting.value);
        return status;
    }
    }
}

} // namespace uvc
