// The controls that family A adds to the generic ones, most of them in its extension unit (docs/camera-protocol.md).
#pragma once

#include "camera/control.h"

namespace uvc {

// One general-purpose register of a control's block.
struct ControlRegisterGroup {
    LONG value;
    ULONG flags;
    ULONG capabilities;
    LONG minimum;
    LONG maximum;
    LONG defaultValue;
    LONG resolution;
    ULONG reserved;
};

// Block of kControlRegisters. A set takes the two values.
struct ControlRegistersBlock {
    KSPROPERTY property;
    ControlRegisterGroup registers[2];
};
static_assert(sizeof(ControlRegistersBlock) == 88);

// One table to a provider.
inline constexpr ULONG kFamilyAProviders = 8;
std::span<const ControlItem> FamilyAControls(ULONG provider);

} // namespace uvc
