// The controls of a camera, as properties of its filter: the two standard sets with their ranges in basic support, and
// the driver's own image controls and colour matrix, which tell their range with every value.
#pragma once

#include "host/client/ks_file.h"
#include "host/client/property_set.h"

#include <optional>

namespace host::client {

struct ControlId {
    GUID set; // kVideoProcAmpSet, kCameraControlSet, kPrivateImageSet or kColourMatrixSet
    ULONG id;
    ULONG part = 0; // of the two registers that image control 125 holds
};

// Flags and capabilities, as the video property sets have them.
inline constexpr ULONG kControlAutomatic = 1;
inline constexpr ULONG kControlManual = 2;

struct ControlSetting {
    LONG value = 0;
    ULONG flags = 0;
    ULONG capabilities = 0; // modes that the control knows; a set ignores it
};

// Nothing where the driver does not tell.
struct ControlRange {
    ULONG access = 0; // KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET; 0: the camera does not have the control
    std::optional<LONG> minimum;
    std::optional<LONG> maximum;
    std::optional<LONG> step;
    std::optional<LONG> defaultValue;
};

// A control that the camera lacks is success with access 0. IRQL of all: PASSIVE_LEVEL.
NTSTATUS GetControlRange(KsFile &filter, const ControlId &control, ControlRange &range);
NTSTATUS GetControl(KsFile &filter, const ControlId &control, ControlSetting &setting);
NTSTATUS SetControl(KsFile &filter, const ControlId &control, const ControlSetting &setting);

} // namespace host::client
