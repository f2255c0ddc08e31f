// The camera's names in the device's hardware key, for people who look for them there.
#pragma once

#include "platform/platform.h"

namespace uvc {

// Writes "VendorName" and "ModelName"; an empty text is not written. Returns the status of the last write, or of
// opening the key. IRQL: PASSIVE_LEVEL.
NTSTATUS StoreDeviceNames(PDEVICE_OBJECT physicalDevice, const UNICODE_STRING &vendor, const UNICODE_STRING &model);

} // namespace uvc
