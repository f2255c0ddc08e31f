#include "camera/family_a_controls.h"

#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "camera/uvc_selector.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

enum ExtensionSelector : ULONG {
    kExposureAutoSelector = 1,
    kGainAutoSelector = 2,
    kOnePushWhiteBalanceSelector = 3,
    kExposureReferenceSelector = 4,
    kExternalTriggerSelector = 5,
    kFirstRegisterOfPairSelector = 6,
    kSecondRegisterOfPairSelector = 7,
    kRegisterSelector = 8,
    kExposureLimitSelector = 9,
    kExposureLimitFollowsCameraSelector = 10,
    kFirstGeneralValueSelector = 11, // the first of three
    kSoftwareTriggerSelector = 15,
};

// The handlers here send nothing for a request that they cannot serve, unlike the generic ones.

NTSTATUS AnswerRaw(const ControlRequest &request, const UvcControl &control, ULONGLONG raw, ULONG flags) {
    return AnswerControl(request, {.value = UvcControlNumber(control, raw),
                                   .flags = flags,
                                   .minimum = UvcControlNumber(control, control.minimum),
                                   .maximum = UvcControlNumber(control, control.maximum),
                                   .defaultValue = UvcControlNumber(control, control.defaultValue),
                                   .resolution = UvcControlNumber(control, control.resolution)});
}

// Reads the control unless only its range is asked for.
NTSTATUS ReadForAnswer(const ControlRequest &request, UvcControl *control, ULONGLONG &raw) {
    if (control == nullptr || !CanAnswerControl(request))
        return STATUS_NOT_IMPLEMENTED;
    return request.kind == kControlRange ? STATUS_SUCCESS : UvcReadControl(request.camera, *control, raw);
}

NTSTATUS GetExternalTrigger(const ControlRequest &request) {
    UvcControl *trigger = request.controls[0];
    ULONGLONG raw = 0;
    NTSTATUS status = ReadForAnswer(request, trigger, raw);
    return NT_SUCCESS(status) ? AnswerRaw(request, *trigger, raw, raw != 0 ? 0 : ULONG{kTriggerOff}) : status;
}

NTSTATUS SetExternalTrigger(const ControlRequest &request) {
    UvcControl *trigger = request.controls[0];
    if (trigger == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    return UvcWriteControl(request.camera, *trigger, (setting.flags & kTriggerOff) != 0 ? 0 : 1);
}

NTSTATUS GetSoftwareTrigger(const ControlRequest &request) {
    UvcControl *trigger = request.controls[0];
    ULONGLONG raw = 0;
    NTSTATUS status = ReadForAnswer(request, trigger, raw);
    return NT_SUCCESS(status) ? AnswerRaw(request, *trigger, raw, kControlManual) : status;
}

NTSTATUS SetSoftwareTrigger(const ControlRequest &request) {
    UvcControl *trigger = request.controls[0];
    if (trigger == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status) || (setting.flags & kTriggerOnce) == 0)
        return status;
    return UvcWriteControl(request.camera, *trigger, 1);
}

// The block of the single register is laid out like that of kControlValue.
ControlRequest AsValueRequest(const ControlRequest &request) {
    ControlRequest plain = request;
    plain.kind = kControlValue;
    return plain;
}

NTSTATUS GetRegister(const ControlRequest &request) {
    if (request.kind != kControlRegister)
        return STATUS_NOT_IMPLEMENTED;
    const ControlRequest plain = AsValueRequest(request);
    UvcControl *single = plain.controls[0];
    ULONGLONG raw = 0;
    NTSTATUS status = ReadForAnswer(plain, single, raw);
    return NT_SUCCESS(status) ? AnswerRaw(plain, *single, raw, kControlManual) : status;
}

NTSTATUS SetRegister(const ControlRequest &request) {
    UvcControl *single = request.controls[0];
    if (request.kind != kControlRegister || single == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(AsValueRequest(request), setting);
    return NT_SUCCESS(status) ? UvcWriteControl(request.camera, *single, static_cast<ULONG>(setting.value)) : status;
}

NTSTATUS GetRegisterPair(const ControlRequest &request) {
    UvcControl *first = request.controls[0];
    UvcControl *second = request.controls[1];
    if (request.kind != kControlRegisters || request.buffer == nullptr ||
        request.length < sizeof(ControlRegistersBlock) || first == nullptr || second == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ULONGLONG firstRaw = 0;
    ULONGLONG secondRaw = 0;
    NTSTATUS status = UvcReadControl(request.camera, *first, firstRaw);
    if (NT_SUCCESS(status))
        status = UvcReadControl(request.camera, *second, secondRaw);
    if (!NT_SUCCESS(status))
        return status;
    auto describe = [](const UvcControl &control, ULONGLONG raw) {
        return ControlRegisterGroup{.value = UvcControlNumber(control, raw),
                                    .flags = kControlManual,
                                    .capabilities = kControlManual,
                                    .minimum = UvcControlNumber(control, control.minimum),
                                    .maximum = UvcControlNumber(control, control.maximum),
                                    .defaultValue = UvcControlNumber(control, control.defaultValue),
                                    .resolution = UvcControlNumber(control, control.resolution),
                                    .reserved = 0};
    };
    auto &block = *static_cast<ControlRegistersBlock *>(request.buffer);
    block.registers[0] = describe(*first, firstRaw);
    block.registers[1] = describe(*second, secondRaw);
    return STATUS_SUCCESS;
}

NTSTATUS SetRegisterPair(const ControlRequest &request) {
    UvcControl *first = request.controls[0];
    UvcControl *second = request.controls[1];
    if (request.kind != kControlRegisters || first == nullptr || second == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    if (request.buffer == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (request.length < sizeof(ControlRegistersBlock))
        return STATUS_INVALID_BUFFER_SIZE;
    const auto &block = *static_cast<const ControlRegistersBlock *>(request.buffer);
    NTSTATUS status = UvcWriteControl(request.camera, *first, static_cast<ULONG>(block.registers[0].value));
    if (NT_SUCCESS(status))
        status = UvcWriteControl(request.camera, *second, static_cast<ULONG>(block.registers[1].value));
    return status;
}

constexpr ControlItem kSoftwareTriggerItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kSoftwareTriggerId,
     .get = GetSoftwareTrigger,
     .set = SetSoftwareTrigger,
     .modeCount = 2,
     .mappings = {{kExtensionUnit, kSoftwareTriggerSelector}, {kExtensionUnit, kExternalTriggerSelector}}},
};

constexpr ControlItem kRegisterPairItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kRegisterPairId,
     .get = GetRegisterPair,
     .set = SetRegisterPair,
     .modeCount = 2,
     .mappings = {{kExtensionUnit, kFirstRegisterOfPairSelector}, {kExtensionUnit, kSecondRegisterOfPairSelector}}},
};

constexpr ControlItem kWhiteBalanceItems[] = {
    {.propertySet = kVideoProcAmpSet,
     .propertyId = KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 2,
     .mappings = {{kProcessingUnit, kWhiteBalanceTemperatureSelector},
                  {kProcessingUnit, kWhiteBalanceComponentAutoSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kOnePushWhiteBalanceId,
     .get = nullptr,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kOnePushWhiteBalanceSelector}}},
};

constexpr ControlItem kRegisterItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kRegisterId,
     .get = GetRegister,
     .set = SetRegister,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kRegisterSelector}}},
};

constexpr ControlItem kExposureItems[] = {
    {.propertySet = kCameraControlSet,
     .propertyId = KSPROPERTY_CAMERACONTROL_EXPOSURE,
     .get = GetExposureControl,
     .set = SetExposureControl,
     .modeCount = 2,
     .mappings = {{kInputTerminal, kExposureTimeSelector}, {kExtensionUnit, kExposureAutoSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureReferenceId,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kExposureReferenceSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureLimitId,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kExposureLimitSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kExposureLimitFollowsCameraId,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kExposureLimitFollowsCameraSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kCameraExposureId,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 2,
     .mappings = {{kInputTerminal, kExposureTimeSelector}, {kExtensionUnit, kExposureAutoSelector}}},
};

constexpr ControlItem kExternalTriggerItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kExternalTriggerId,
     .get = GetExternalTrigger,
     .set = SetExternalTrigger,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kExternalTriggerSelector}}},
};

constexpr ControlItem kGainItems[] = {
    {.propertySet = kVideoProcAmpSet,
     .propertyId = KSPROPERTY_VIDEOPROCAMP_GAIN,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kProcessingUnit, kGainSelector}, {kExtensionUnit, kGainAutoSelector}}},
};

constexpr ControlItem kGeneralValuesItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kFirstGeneralValueId,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kFirstGeneralValueSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kFirstGeneralValueId + 1,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kFirstGeneralValueSelector + 1}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kFirstGeneralValueId + 2,
     .get = GetGenericControl,
     .set = SetGenericControl,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kFirstGeneralValueSelector + 2}}},
};

constexpr std::span<const ControlItem> kProviders[] = {
    kSoftwareTriggerItems, kRegisterPairItems,    kWhiteBalanceItems, kRegisterItems,
    kExposureItems,        kExternalTriggerItems, kGainItems,         kGeneralValuesItems,
};
static_assert(std::size(kProviders) == kFamilyAProviders);

} // namespace

std::span<const ControlItem> FamilyAControls(ULONG provider) {
    return kProviders[provider];
}

} // namespace uvc
