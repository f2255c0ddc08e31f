#include "host/client/control.h"

#include <cstring>

namespace host::client {

namespace {

// The longest block; those of single controls are its beginning, cut where they tell less.
using ControlBlock = UVC_REGISTER_PAIR_S;
constexpr std::size_t kStandardSize = sizeof(KSPROPERTY_VIDEOPROCAMP_S);
static_assert(kStandardSize == 40 && sizeof(KSPROPERTY_CAMERACONTROL_S) == kStandardSize);
static_assert(offsetof(ControlBlock, Registers[0].Step) == sizeof(UVC_CONTROL_S));

bool IsStandard(const ControlId &control) {
    return IsEqualGUID(control.set, kVideoProcAmpSet) || IsEqualGUID(control.set, kCameraControlSet);
}

std::size_t BlockSize(const ControlId &control) {
    if (IsStandard(control) || (IsEqualGUID(control.set, PROPSETID_PRIVATE_IMAGE) && control.id == UVC_IMAGE_REGISTER))
        return kStandardSize;
    if (IsEqualGUID(control.set, PROPSETID_PRIVATE_IMAGE) && control.id == UVC_IMAGE_REGISTER_PAIR)
        return sizeof(ControlBlock);
    return sizeof(UVC_CONTROL_S);
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
    ControlBlock block{};
    const UVC_REGISTER_OF_PAIR &words = block.Registers[control.part];
    // A control that can only be set, or whose camera does not answer, has no range.
    if (!NT_SUCCESS(filter.GetBlock(control.set, control.id, BlockOf(control, block))) ||
        BlockSize(control) < sizeof(UVC_CONTROL_S) || words.Minimum >= words.Maximum)
        return STATUS_SUCCESS;
    range.minimum = words.Minimum;
    range.maximum = words.Maximum;
    range.defaultValue = words.Default;
    if (words.Step != 0)
        range.step = words.Step;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GetControlRange(KsFile &filter, const ControlId &control, ControlRange &range) {
    range = {};
    return IsStandard(control) ? GetStandardRange(filter, control, range) : GetPrivateRange(filter, control, range);
}

NTSTATUS GetControl(KsFile &filter, const ControlId &control, ControlSetting &setting) {
    ControlBlock block{};
    const NTSTATUS status = filter.GetBlock(control.set, control.id, BlockOf(control, block));
    const UVC_REGISTER_OF_PAIR &words = block.Registers[control.part];
    if (NT_SUCCESS(status))
        setting = {.value = words.Value, .flags = words.Flags, .capabilities = words.Capabilities};
    return status;
}

NTSTATUS SetControl(KsFile &filter, const ControlId &control, const ControlSetting &setting) {
    ControlBlock block{};
    // Registers go together: the other one keeps its value.
    if (BlockSize(control) == sizeof(block)) {
        const NTSTATUS status = filter.GetBlock(control.set, control.id, BlockOf(control, block));
        if (!NT_SUCCESS(status))
            return status;
    }
    block.Registers[control.part].Value = setting.value;
    block.Registers[control.part].Flags = setting.flags;
    return filter.SetBlock(control.set, control.id, BlockOf(control, block));
}

} // namespace host::client
