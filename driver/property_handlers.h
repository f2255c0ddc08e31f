// The answerers of the filter's property sets, one per set. All return STATUS_NOT_IMPLEMENTED for an id or a kind of
// request that they do not know, and hand failures of the camera on unchanged. IRQL: PASSIVE_LEVEL. Lock: none.
#pragma once

#include "driver/property_request.h"

namespace uvc {

class UvcCamera;
class UvcDevice;

using PropertyHandler = NTSTATUS (*)(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// Who made the camera, and which one it is. STATUS_INVALID_PARAMETER for a buffer that is too short.
NTSTATUS HandleDeviceInformation(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// The driver's version, and the camera object's own description. STATUS_INVALID_PARAMETER for a buffer that is too
// short.
NTSTATUS HandleDriverInformation(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// The two standard sets of camera controls. STATUS_INVALID_PARAMETER for a buffer that is too short.
NTSTATUS HandleVideoProcAmp(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);
NTSTATUS HandleCameraControl(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// Our own sets of camera controls. STATUS_INVALID_PARAMETER for a buffer that is too short.
NTSTATUS HandleImageControl(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);
NTSTATUS HandleColourMatrix(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// Triggers and frame intervals. STATUS_INVALID_PARAMETER for a buffer that is too short; a question for the frame
// intervals without a buffer is STATUS_BUFFER_OVERFLOW and tells the size.
NTSTATUS HandleVideoControl(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

// The numbered driver parameters of the camera object. STATUS_NOT_IMPLEMENTED for a buffer that is too short.
NTSTATUS HandleDriverParameter(UvcDevice &device, UvcCamera &camera, PropertyRequest &request);

} // namespace uvc
