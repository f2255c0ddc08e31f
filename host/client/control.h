// The controls of a camera, as properties of its filter: the two standard sets with their ranges in basic support, and
// the driver's own image controls and colour matrix, which tell their range with every value.
#pragma once

#include "host/client/ks_file.h"
#include "uvc_drv/properties.h"

#include <optional>

namespace host::client {

// The standard sets, by the platform's names for their bytes.
inline constexpr GUID kVideoProcAmpSet = {STATICGUIDOF(PROPSETID_VIDCAP_VIDEOPROCAMP)};
inline constexpr GUID kCameraControlSet = {STATICGUIDOF(PROPSETID_VIDCAP_CAMERACONTROL)};

struct ControlId {
    GUID set; // one of these two, PROPSETID_PRIVATE_IMAGE or PROPSETID_PRIVATE_COLORMATRIX
    ULONG id;
    ULONG part = 0; // of the two registers that image control 125 holds
};

struct ControlSetting {
    LONG value = 0;
    ULONG flags = 0;        // UVC_CONTROL_AUTOMATIC, UVC_CONTROL_MANUAL and those of the triggers
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
