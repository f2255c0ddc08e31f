// Our own property sets of camera controls: image controls and colour matrix. The camera object reads and fills the
// caller's block itself, since some controls have layouts of their own.
#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"
#include "driver/saved_settings.h"

namespace uvc {

namespace {

struct BlockLayout {
    ControlRequestKind kind;
    ULONG size;
    ULONG headerSize; // of the property header in front
};

constexpr BlockLayout kOrdinary = {kControlExtendedValue, sizeof(ControlExtendedBlock), sizeof(KSPROPERTY)};
constexpr BlockLayout kRegister = {kControlRegister, 40, sizeof(KSPROPERTY)};
constexpr BlockLayout kRegisters = {kControlRegisters, 88, sizeof(KSPROPERTY)};
constexpr BlockLayout kDefectList = {kControlDefectList, 1028, 0};

const BlockLayout &LayoutOf(ULONG set, ULONG id) {
    if (set == kPrivateImageSet && id == kRegisterId)
        return kRegister;
    if (set == kPrivateImageSet && id == kRegisterPairId)
        return kRegisters;
    if (set == kPrivateColourMatrixSet && id >= kDefectsId && id <= kDefectsBinned4Id)
        return kDefectList;
    return kOrdinary;
}

NTSTATUS Get(UvcCamera &camera, ULONG set, PropertyRequest &request) {
    const BlockLayout &layout = LayoutOf(set, request.property->Id);
    void *block = AnswerBuffer(request, layout.size);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    RtlZeroMemory(block, layout.size);
    RtlCopyMemory(block, request.property, layout.headerSize);
    NTSTATUS status = camera.GetControl(set, request.property->Id, layout.kind, block, layout.size);
    if (NT_SUCCESS(status))
        request.information = layout.size;
    return status;
}

NTSTATUS Set(UvcDevice &device, UvcCamera &camera, ULONG set, PropertyRequest &request) {
    const ULONG id = request.property->Id;
    const BlockLayout &layout = LayoutOf(set, id);
    void *block = SettingBuffer(request, layout.size);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (layout.kind != kControlExtendedValue)
        return camera.SetControl(set, id, layout.kind, block, layout.size);

    const auto *setting = static_cast<const ControlExtendedBlock *>(block);
    const LONG value = setting->value;
    const ULONG flags = setting->flags;
    NTSTATUS status = camera.SetControl(set, id, layout.kind, block, layout.size);
    if (NT_SUCCESS(status))
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

NTSTATUS HandleImageControl(UvcDevice &device, UvcCamera &camera, PropertyRequest &request) {
    return Handle(device, camera, kPrivateImageSet, request);
}

NTSTATUS HandleColourMatrix(UvcDevice &device, UvcCamera &camera, PropertyRequest &request) {
    return Handle(device, camera, kPrivateColourMatrixSet, request);
}

} // namespace uvc
