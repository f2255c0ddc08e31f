// The two standard property sets of camera controls.
#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"
#include "driver/saved_settings.h"
#include "uvc_drv/properties.h"

namespace uvc {

namespace {

NTSTATUS Get(UvcCamera &camera, ULONG set, PropertyRequest &request) {
    if (AnswerBuffer(request, sizeof(ControlValueBlock)) == nullptr)
        return STATUS_INVALID_PARAMETER;
    ControlValueBlock block{};
    NTSTATUS status = camera.GetControl(set, request.property->Id, kControlValue, &block, sizeof(block));
    if (!NT_SUCCESS(status))
        return status;
    auto *answer = StartAnswer<ControlValueBlock>(request);
    answer->value = block.value;
    answer->flags = block.flags;
    answer->capabilities = block.capabilities;
    return status;
}

// The standard unit of exposure is a coarse logarithm. What is remembered is what the camera made of it.
void PersistExposure(UvcDevice &device, UvcCamera &camera) {
    ControlExtendedBlock exposure{};
    NTSTATUS status =
        camera.GetControl(kPrivateImageSet, kCameraExposureId, kControlExtendedValue, &exposure, sizeof(exposure));
    if (NT_SUCCESS(status))
        PersistSetting(device, PROPSETID_PRIVATE_IMAGE, kCameraExposureId, exposure.value, exposure.flags);
}

NTSTATUS Set(UvcDevice &device, UvcCamera &camera, ULONG set, PropertyRequest &request) {
    const auto *setting = static_cast<const ControlValueBlock *>(SettingBuffer(request, sizeof(ControlValueBlock)));
    if (setting == nullptr)
        return STATUS_INVALID_PARAMETER;
    const ULONG id = request.property->Id;
    const LONG value = setting->value;
    const ULONG flags = setting->flags;
    ControlValueBlock block{.property = {}, .value = value, .flags = flags, .capabilities = 0};
    NTSTATUS status = camera.SetControl(set, id, kControlValue, &block, sizeof(block));
    if (!NT_SUCCESS(status))
        return status;
    if (set == kCameraControlSet && id == KSPROPERTY_CAMERACONTROL_EXPOSURE)
        PersistExposure(device, camera);
    else
        PersistSetting(device, request.property->Set, id, value, flags);
    return status;
}

NTSTATUS Handle(UvcDevice &device, UvcCamera &camera, ULONG set, PropertyRequest &request) {
    if (IsSupportQuery(request))
        return AnswerSupport(request, camera.ItemExists(set, request.property->Id) ? kGetAndSet : 0);
    if (IsSet(request))
        return Set(device, camera, set, request);
    if (IsGet(request))
        return Get(camera, set, request);
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace

NTSTATUS HandleVideoProcAmp(UvcDevice &device, UvcCamera &camera, PropertyRequest &request) {
    return Handle(device, camera, kVideoProcAmpSet, request);
}

NTSTATUS HandleCameraControl(UvcDevice &device, UvcCamera &camera, PropertyRequest &request) {
    return Handle(device, camera, kCameraControlSet, request);
}

} // namespace uvc
