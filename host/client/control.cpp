#include "host/client/control.h"

#include <cstring>

namespace host::client {

namespace {

constexpr ULONG kRegisterControl = 122;     // of the image controls
constexpr ULONG kRegisterPairControl = 125; // likewise

// What a block tells about its control. Those of the standard sets, and of the register, end before the range.
struct ControlWords {
    LONG value = 0;
    ULONG flags = 0;
    ULONG capabilities = 0;
    LONG minimum = 0;
    LONG maximum = 0;
    LONG defaultValue = 0;
    LONG step = 0; // from here on only of a pair of registers
    ULONG reserved = 0;
};

struct ControlBlock {
    KSPROPERTY property{};
    ControlWords words[2];
};
constexpr std::size_t kStandardSize = sizeof(KSPROPERTY_VIDEOPROCAMP_S);
constexpr std::size_t kPrivateSize = 48;
static_assert(kStandardSize == 40 && sizeof(KSPROPERTY_CAMERACONTROL_S) == kStandardSize);
static_assert(sizeof(KSPROPERTY) + offsetof(ControlWords, step) == kPrivateSize && sizeof(ControlBlock) == 88);

bool IsStandard(const ControlId &control) {
    return IsEqualGUID(control.set, kVideoProcAmpSet) || IsEqualGUID(control.set, kCameraControlSet);
}

std::size_t BlockSize(const ControlId &control) {
    if (IsStandard(control) || (IsEqualGUID(control.set, kPrivateImageSet) && control.id == kRegisterControl))
        return kStandardSize;
    if (IsEqualGUID(control.set, kPrivateImageSet) && control.id == kRegisterPairControl)
        return sizeof(ControlBlock);
    return kPrivateSize;
}

Bytes BlockOf(const ControlId &control, ControlBlock &block) {
    return {reinterpret_cast<std::uint8_t *>(&block), BlockSize(control)};
}

NTSTATUS GetStandardRange(KsFile &filter, const ControlId &control, ControlRange &range) {
    PropertyRange found;
    const NTSTATUS status = filter.BasicSupport(control.set, control.id, found);
    if (status == STATUS_NOT_FOUND)
        return STATUS_SUCCESS;
    if (!NT_SUCCESS(status))
        return status;
    range.access = found.access;
    // A camera that did not answer when the driver asked for the range has one without a step and an extent.
    if (!found.hasRange || (found.minimum == found.maximum && found.step == 0))
        return STATUS_SUCCESS;
    range.minimum = found.minimum;
    range.maximum = found.maximum;
    if (found.step != 0)
        range.step = found.step;
    if (found.hasDefault)
        range.defaultValue = found.defaultValue;
    return STATUS_SUCCESS;
}

NTSTATUS GetPrivateRange(KsFile &filter, const ControlId &control, ControlRange &range) {
    // The property that goes in must be as long as the block that would come out.
    std::vector<std::uint8_t> rest(BlockSize(control) - sizeof(KSPROPERTY));
    ULONG access = 0;
    NTSTATUS status = filter.Property(control.set, control.id, KSPROPERTY_TYPE_BASICSUPPORT, rest, BytesOf(access));
    if (!NT_SUCCESS(status) || access == 0)
        return status;
    range.access = access;
    ControlBlock block;
    const ControlWords &words = block.words[control.part];
    // A control that can only be set, or whose camera does not answer, has no range.
    if (!NT_SUCCESS(filter.GetBlock(control.set, control.id, BlockOf(control, block))) ||
        BlockSize(control) < kPrivateSize || words.minimum >= words.maximum)
        return STATUS_SUCCESS;
    range.minimum = words.minimum;
    range.maximum = words.maximum;
    range.defaultValue = words.defaultValue;
    if (words.step != 0)
        range.step = words.step;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GetControlRange(KsFile &filter, const ControlId &control, ControlRange &range) {
    range = {};
    return IsStandard(control) ? GetStandardRange(filter, control, range) : GetPrivateRange(filter, control, range);
}

NTSTATUS GetControl(KsFile &filter, const ControlId &control, ControlSetting &setting) {
    ControlBlock block;
    const NTSTATUS status = filter.GetBlock(control.set, control.id, BlockOf(control, block));
    const ControlWords &words = block.words[control.part];
    if (NT_SUCCESS(status))
        setting = {.value = words.value, .flags = words.flags, .capabilities = words.capabilities};
    return status;
}

NTSTATUS SetControl(KsFile &filter, const ControlId &control, const ControlSetting &setting) {
    ControlBlock block;
    // Registers go together: the other one keeps its value.
    if (BlockSize(control) == sizeof(block)) {
        const NTSTATUS status = filter.GetBlock(control.set, control.id, BlockOf(control, block));
        if (!NT_SUCCESS(status))
            return status;
    }
    block.words[control.part].value = setting.value;
    block.words[control.part].flags = setting.flags;
    return filter.SetBlock(control.set, control.id, BlockOf(control, block));
}

} // namespace host::client
