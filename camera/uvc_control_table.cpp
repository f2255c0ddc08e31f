#include "camera/uvc_control_table.h"

#include "camera/descriptor_parser.h"
#include "camera/uvc_camera.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

#include <algorithm>

namespace uvc {

namespace {

// Sizes by selector (UVC 1.1, sections 4.2.2.1 and 4.2.2.3); 0: the camera has to be asked. Standard controls need not
// answer GET_LEN.
constexpr UCHAR kCameraTerminalSizes[] = {0, 1, 1, 1, 4, 1, 2, 2, 1, 2, 1, 2, 3, 8, 4, 2, 2, 1};
constexpr UCHAR kProcessingUnitSizes[] = {0, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 1, 4, 1, 2, 2, 1, 1, 1};
static_assert(std::size(kCameraTerminalSizes) == 1 + 17); // CT_PRIVACY_CONTROL is the last
static_assert(std::size(kProcessingUnitSizes) == 1 + 18); // PU_ANALOG_LOCK_STATUS_CONTROL is the last

constexpr ULONG kHighestSelector = 0xFF; // a selector travels in one byte

constexpr ULONG kLengthBytes = 2;
constexpr ULONG kInfoBytes = 1;

// As UvcUnitRequest takes it.
struct UnitRequest {
    UCHAR code;
    UCHAR reserved[3];
    USHORT length;
    USHORT reserved2;
    ULONGLONG value;
};
static_assert(offsetof(UnitRequest, length) == 4 && offsetof(UnitRequest, value) == kUnitRequestHeader);

// One request of `length` bytes on the control's selector; `value` changes only when it succeeds. An answer that is
// shorter than asked for is extended with zeros, no answer at all is a failure.
NTSTATUS Send(UvcCamera &camera, const UvcControl &control, UvcRequestCode code, ULONG length, ULONGLONG &value) {
    UnitRequest request{.code = code, .length = static_cast<USHORT>(length), .value = code == kSetCur ? value : 0};
    ULONG transferred = 0;
    NTSTATUS status = UvcUnitRequest(camera, reinterpret_cast<UCHAR *>(&request), static_cast<UCHAR>(control.unitId),
                                     static_cast<UCHAR>(control.selector), transferred);
    if (NT_SUCCESS(status) && code != kSetCur && length != 0 && transferred == 0)
        status = STATUS_UNSUCCESSFUL;
    if (NT_SUCCESS(status))
        value = request.value;
    return status;
}

ULONG StandardSize(ULONG kind, ULONG selector) {
    if (kind == kInputTerminal && selector < std::size(kCameraTerminalSizes))
        return kCameraTerminalSizes[selector];
    if (kind == kProcessingUnit && selector < std::size(kProcessingUnitSizes))
        return kProcessingUnitSizes[selector];
    return 0;
}

bool Ask(UvcCamera &camera, const UvcControl &control, UvcRequestCode code, ULONG length, ULONGLONG &value) {
    return NT_SUCCESS(Send(camera, control, code, length, value));
}

// Reads the attributes; false when the control does not answer what every control has to. A control that does not tell
// its size is there all the same, without attributes.
bool Query(UvcCamera &camera, UvcControl &control) {
    control.size = StandardSize(control.kind, control.selector);
    if (control.size == 0) {
        ULONGLONG length = 0;
        if (!Ask(camera, control, kGetLen, kLengthBytes, length) || length == 0)
            return true;
        control.size = static_cast<ULONG>(std::min<ULONGLONG>(length, sizeof(control.current)));
    }

    ULONGLONG info = 0;
    if (!Ask(camera, control, kGetInfo, kInfoBytes, info))
        return false;
    control.info = static_cast<UCHAR>(info);
    UvcReadRange(camera, control);
    return Ask(camera, control, kGetCur, control.size, control.current);
}

} // namespace

void UvcControlTable::Build(UvcCamera &camera) {
    const DescriptorBlock &block = *camera.descriptors;
    const struct {
        ULONG kind;
        const UCHAR *descriptor;
    } entities[] = {
        {kInputTerminal, block.cameraTerminal},
        {kProcessingUnit, block.processingUnit},
        {kExtensionUnit, block.extensionUnit},
    };

    count_ = 0;
    // Those that are left out count too: descriptors full of controls that nobody answers must not hold up the start.
    ULONG announced = 0;
    for (const auto &entity : entities) {
        UCHAR unitId;
        if (!NT_SUCCESS(UvcGetEntityId(camera, entity.kind, unitId)))
            continue;
        const auto bits = EntityControls(entity.descriptor);
        const ULONG selectors = std::min(static_cast<ULONG>(bits.size()) * 8, kHighestSelector);
        for (ULONG bit = 0; bit < selectors; ++bit) {
            if ((bits[bit / 8] >> bit % 8 & 1) == 0)
                continue;
            if (announced++ == kMaximumUvcControls)
                return;
            controls_[count_] = {.kind = entity.kind, .selector = bit + 1, .unitId = unitId};
            if (Query(camera, controls_[count_]))
                ++count_;
        }
    }
}

UvcControl *UvcControlTable::Find(ULONG kind, ULONG selector) {
    for (ULONG i = 0; i < count_; ++i)
        if (controls_[i].kind == kind && controls_[i].selector == selector)
            return &controls_[i];
    return nullptr;
}

LONG UvcControlNumber(const UvcControl &control, ULONGLONG value) {
    switch (control.size) {
    case 1:
        return static_cast<UCHAR>(value);
    case 2:
        return static_cast<SHORT>(value);
    case 4:
        return static_cast<LONG>(value);
    default:
        return 0;
    }
}

void UvcReadRange(UvcCamera &camera, UvcControl &control) {
    control.resolutionValid = Ask(camera, control, kGetRes, control.size, control.resolution);
    const bool minimumValid = Ask(camera, control, kGetMin, control.size, control.minimum);
    const bool maximumValid = Ask(camera, control, kGetMax, control.size, control.maximum);
    control.rangeValid = minimumValid || maximumValid;
    control.defaultValid = Ask(camera, control, kGetDef, control.size, control.defaultValue);
}

NTSTATUS UvcReadControl(UvcCamera &camera, UvcControl &control, ULONGLONG &value) {
    NTSTATUS status = Send(camera, control, kGetCur, control.size, value);
    if (NT_SUCCESS(status))
        SharedStore(control.current, value);
    return status;
}

NTSTATUS UvcWriteControl(UvcCamera &camera, UvcControl &control, ULONGLONG value) {
    SharedStore(control.current, value);
    return Send(camera, control, kSetCur, control.size, value);
}

} // namespace uvc
