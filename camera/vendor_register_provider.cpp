#include "camera/vendor_register_provider.h"

#include "camera/control_id.h"
#include "platform/shared_field.h"

#include <iterator>
#include <limits>

namespace uvc {

namespace {

constexpr ULONG kRegisterCount = 16;
constexpr ULONG kWriteFlag = 1;

constexpr ULONG kSingleRegisterIds[] = {214, 215, 216, 226, 227, 228, 229}; // of registers 1 to 7

USHORT SingleRegister(const ControlRequest &request) {
    ULONG index = 0;
    while (kSingleRegisterIds[index] != request.item.propertyId)
        ++index;
    return static_cast<USHORT>(index + 1);
}

NTSTATUS GetSingle(const ControlRequest &request) {
    if (!CanAnswerControl(request))
        return STATUS_NOT_IMPLEMENTED;
    ULONG value = 0;
    NTSTATUS status = STATUS_SUCCESS;
    if (request.kind != kControlRange)
        status = ReadRegister(request.camera, SingleRegister(request), value);
    if (!NT_SUCCESS(status))
        return status;
    return AnswerControl(request, {.value = static_cast<LONG>(value),
                                   .minimum = std::numeric_limits<LONG>::min(),
                                   .maximum = std::numeric_limits<LONG>::max(),
                                   .resolution = 1});
}

NTSTATUS SetSingle(const ControlRequest &request) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (!NT_SUCCESS(status))
        return status;
    return WriteRegister(request.camera, SingleRegister(request), static_cast<ULONG>(setting.value));
}

bool HasBlock(const ControlRequest &request) {
    return request.kind == kControlRegister && request.buffer != nullptr && request.length >= sizeof(RegisterBlock);
}

constexpr ControlItem Single(ULONG id) {
    return {.propertySet = kPrivateImageSet,
            .propertyId = id,
            .get = GetSingle,
            .set = SetSingle,
            .modeCount = 0,
            .mappings = {}};
}

} // namespace

const ControlItem VendorRegisterProvider::kItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kRegisterId,
     .get = GetSelected,
     .set = SetSelected,
     .modeCount = 0,
     .mappings = {}},
    Single(kSingleRegisterIds[0]),
    Single(kSingleRegisterIds[1]),
    Single(kSingleRegisterIds[2]),
    Single(kSingleRegisterIds[3]),
    Single(kSingleRegisterIds[4]),
    Single(kSingleRegisterIds[5]),
    Single(kSingleRegisterIds[6]),
};

NTSTATUS ReadRegister(UvcCamera &camera, ULONG index, ULONG &value) {
    return VendorRead(camera, kReadRegister, 0, static_cast<USHORT>(index), &value, sizeof(value));
}

NTSTATUS WriteRegister(UvcCamera &camera, ULONG index, ULONG value) {
    return VendorSend(camera, kWriteRegister, 0, static_cast<USHORT>(index), &value, sizeof(value));
}

VendorRegisterProvider::VendorRegisterProvider(const CameraDescription &description)
    : PropertyProvider(kItems), description_(description) {}

NTSTATUS VendorRegisterProvider::Attach(UvcCamera &) {
    SharedStore(selected_, 0u);
    return description_.registerBlock ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS VendorRegisterProvider::GetSelected(const ControlRequest &request) {
    if (!HasBlock(request))
        return STATUS_NOT_IMPLEMENTED;
    const ULONG index = SharedLoad(static_cast<VendorRegisterProvider *>(request.provider)->selected_);
    ULONG value = 0;
    NTSTATUS status = ReadRegister(request.camera, index, value);
    if (!NT_SUCCESS(status))
        return status;
    auto &block = *static_cast<RegisterBlock *>(request.buffer);
    block.index = index;
    block.value = value;
    block.flags = 0;
    return status;
}

NTSTATUS VendorRegisterProvider::SetSelected(const ControlRequest &request) {
    if (!HasBlock(request))
        return STATUS_NOT_IMPLEMENTED;
    const auto &block = *static_cast<const RegisterBlock *>(request.buffer);
    if (block.index >= kRegisterCount)
        return STATUS_INVALID_PARAMETER;
    SharedStore(static_cast<VendorRegisterProvider *>(request.provider)->selected_, block.index);
    return (block.flags & kWriteFlag) != 0 ? WriteRegister(request.camera, block.index, block.value) : STATUS_SUCCESS;
}

} // namespace uvc
