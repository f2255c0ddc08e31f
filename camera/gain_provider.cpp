#include "camera/gain_provider.h"

#include "camera/uvc_camera.h"
#include "camera/uvc_selector.h"
#include "usb/uvc_request.h"

namespace uvc {

const ControlItem GainProvider::kItems[] = {
    {.propertySet = kVideoProcAmpSet,
     .propertyId = KSPROPERTY_VIDEOPROCAMP_GAIN,
     .get = Get,
     .set = Set,
     .modeCount = 2,
     .mappings = {{kProcessingUnit, kGainSelector}}},
};

GainProvider::GainProvider() : PropertyProvider(kItems) {}

NTSTATUS GainProvider::Attach(UvcCamera &camera) {
    state_ = {};
    UvcControl *control = camera.controls.Find(kProcessingUnit, kGainSelector);
    control_.Attach(camera, control);
    if (control == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    state_.minimum = UvcControlNumber(*control, control->minimum);
    const LONG maximum = UvcControlNumber(*control, control->maximum);
    state_.maximum = maximum > state_.minimum ? maximum - 1 : maximum; // the sensors clip at their last step
    state_.defaultValue = UvcControlNumber(*control, control->defaultValue);
    return STATUS_SUCCESS;
}

NTSTATUS GainProvider::Get(const ControlRequest &request) {
    auto &provider = *static_cast<GainProvider *>(request.provider);
    const GainState &state = provider.state_;
    ControlAnswer answer{.capabilities = kControlAutomatic | kControlManual,
                         .minimum = state.minimum,
                         .maximum = state.maximum,
                         .defaultValue = state.defaultValue,
                         .resolution = 1};
    NTSTATUS status = provider.control_.Tell(request, answer);
    return NT_SUCCESS(status) ? AnswerControl(request, answer) : status;
}

NTSTATUS GainProvider::Set(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    return static_cast<GainProvider *>(request.provider)->control_.Set(request.camera, setting);
}

} // namespace uvc
