// Between the property router and the settings that outlive the plug.
#pragma once

#include "platform/platform.h"

namespace uvc {

class UvcDevice;

// Remembers what a client has set, if the control is one that is remembered. Fails silently: the control is set
// whether or not it will be again after the next start. IRQL: PASSIVE_LEVEL.
void PersistSetting(UvcDevice &device, const GUID &set, ULONG id, LONG value, ULONG flags);

// Sets every remembered control of the device's camera, as a client would. A control that the camera lacks or refuses
// is passed over. IRQL: PASSIVE_LEVEL.
void ReplaySettings(UvcDevice &device);

} // namespace uvc
