// Control values that outlive the plug: registry values in the subkey "Settings" of the device's hardware key. Each
// saved control has a REG_DWORD with its value and one named "<name> Auto" with its flags.
#pragma once

#include "platform/platform.h"

namespace uvc {

// A stored setting on its way back to its control.
struct StoredSetting {
    const GUID &set;
    ULONG id;
    ULONG blockSize; // of the set request: a ControlValueBlock or a ControlExtendedBlock
    LONG value;
    ULONG flags;
};

// IRQL: PASSIVE_LEVEL. Lock: none.
using ApplySetting = void (*)(const StoredSetting &setting, void *context);

// Stores value and flags of a control. Returns the status of opening the key; the writes themselves may fail silently.
// STATUS_NOT_IMPLEMENTED for a control that is not persistent. IRQL: PASSIVE_LEVEL.
NTSTATUS SaveSetting(PDEVICE_OBJECT physicalDevice, const GUID &set, ULONG id, LONG value, ULONG flags);

// Hands every stored setting to `apply`, in the order of the table. Returns the status of opening the key.
// IRQL: PASSIVE_LEVEL.
NTSTATUS RestoreSettings(PDEVICE_OBJECT physicalDevice, ApplySetting apply, void *context);

} // namespace uvc
