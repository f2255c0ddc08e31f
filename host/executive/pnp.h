// What the I/O and plug-and-play managers do for a driver: load it, build a device stack over a PDO, start, stop,
// remove. Everything reaches the driver through its entry point, AddDevice and PnP IRPs, as on Windows.
#pragma once

#include "platform/platform.h"

namespace host {

// Makes a DRIVER_OBJECT and runs `entry` at PASSIVE_LEVEL. On failure nothing stays.
NTSTATUS LoadDriver(const WCHAR *serviceName, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT *driver);

// Calls DriverUnload (if any) and deletes the driver object. Device objects that are left are a violation.
void UnloadDriver(PDRIVER_OBJECT driver);

// A device that a bus driver has found: `pdo` is owned by `pdo->DriverObject`. Gives it its hardware key
// (PLUGPLAY_REGKEY_DEVICE), which is found again under the same instance path when the device comes back.
void RegisterPdo(PDEVICE_OBJECT pdo, const WCHAR *instancePath);

// Calls AddDevice of `function`, then sends IRP_MN_QUERY_CAPABILITIES and IRP_MN_START_DEVICE down the stack. When the
// start fails the stack is removed again and the status returned.
NTSTATUS StartDeviceStack(PDEVICE_OBJECT pdo, PDRIVER_OBJECT function);

// IRP_MN_QUERY_STOP_DEVICE and IRP_MN_STOP_DEVICE, and a later restart of the same stack.
NTSTATUS StopDeviceStack(PDEVICE_OBJECT pdo);
NTSTATUS RestartDeviceStack(PDEVICE_OBJECT pdo);

// IRP_MN_SURPRISE_REMOVAL (when `surprise`), then, once the last handle on the stack is closed, IRP_MN_REMOVE_DEVICE.
// Returns after the remove has been sent or, with open handles, after the surprise removal; the remove then follows by
// itself with the last close.
void RemoveDeviceStack(PDEVICE_OBJECT pdo, bool surprise);

} // namespace host
