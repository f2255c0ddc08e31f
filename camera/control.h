// Control items: how a property request finds what answers it. A camera without control items answers every request
// with "not implemented".
#pragma once

#include "platform/platform.h"

namespace uvc {

// The property sets as the camera's operations number them.
enum ControlSet : ULONG {
    kVideoProcAmpSet = 3,
    kCameraControlSet = 4,
    kPrivateImageSet = 5,
    kPrivateColourMatrixSet = 7,
};

// What a control request asks for; decides the layout of its buffer.
enum ControlRequestKind : ULONG {
    kControlValue = 0,         // KSPROPERTY header, value, flags, capabilities: 40 bytes
    kControlRange = 1,         // minimum, maximum, default, resolution, capabilities: 20 bytes, no header
    kControlExtendedValue = 2, // as 0, then minimum, maximum, default: 48 bytes
};

} // namespace uvc
