// A device's own copy of the filter descriptor: its data ranges and property items follow from the connected camera.
#pragma once

#include "platform/platform.h"

namespace uvc {

class UvcDevice;

// Builds the copy; every block belongs to the device's allocation list. STATUS_INSUFFICIENT_RESOURCES, or the status of
// the data ranges: STATUS_INVALID_PARAMETER while the camera's format list is not ready, STATUS_BUFFER_OVERFLOW when it
// has grown meanwhile. IRQL: PASSIVE_LEVEL.
NTSTATUS BuildDeviceDescriptors(UvcDevice &device, KSFILTER_DESCRIPTOR *&filterDescriptor);

} // namespace uvc
