// The bus driver: what it answers as the owner of the devices' physical device objects.
#pragma once

#include "platform/platform.h"

namespace host::usb {

// Its entry point, for host::LoadDriver.
NTSTATUS NTAPI BusDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

} // namespace host::usb
