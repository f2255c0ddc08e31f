// What a camera's strings are good for beside being shown: its names stand in the device's hardware key, for people who
// look for them there, and its serial number is a number.
#pragma once

#include "platform/platform.h"

namespace uvc {

// Writes "VendorName" and "ModelName"; an empty text is not written. Returns the status of the last write, or of
// opening the key. IRQL: PASSIVE_LEVEL.
NTSTATUS StoreDeviceNames(PDEVICE_OBJECT physicalDevice, const UNICODE_STRING &vendor, const UNICODE_STRING &model);

// The first 8 characters of a serial number, read as hexadecimal; 0 when they are no number. IRQL: PASSIVE_LEVEL.
ULONG SerialNumberOf(UNICODE_STRING text);

} // namespace uvc
