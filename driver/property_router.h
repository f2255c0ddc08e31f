// From a property request of the filter to whoever answers it.
#pragma once

#include "driver/property_request.h"

namespace uvc {

class UvcDevice;

// The get, set and support handler of every filter item. STATUS_INVALID_PARAMETER for a request without filter or
// device and for a caller buffer that cannot be read, STATUS_ACCESS_VIOLATION for a fault while handling, else the
// router's status. IRQL: PASSIVE_LEVEL.
NTSTATUS HandleFilterProperty(PIRP irp, PKSIDENTIFIER property, PVOID data);

// Picks the answerer by property set; STATUS_NOT_IMPLEMENTED for any other set, STATUS_DEVICE_NOT_CONNECTED while the
// device has no camera. IRQL: PASSIVE_LEVEL.
NTSTATUS RouteProperty(UvcDevice &device, PropertyRequest &request);

} // namespace uvc
