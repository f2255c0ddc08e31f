// The device object of AVStream: the functional device over a PDO, its filter factories, its place in plug and play.
#pragma once

#include "host/streaming/mutex.h"
#include "host/streaming/object.h"
#include "host/streaming/object_bag.h"

#include <atomic>

namespace host::streaming {

// What KsInitializeDriver keeps with the driver object.
struct DriverRecord {
    const KSDEVICE_DESCRIPTOR *descriptor;
    std::atomic<LONG> clockInterfaces; // reference clock interfaces the driver has not released
};

// Lives in the device extension of its functional device.
struct Device : Object, KSDEVICE {
    static constexpr ObjectKind kKind = ObjectKind::Device;

    StrictMutex mutex; // factories and filters; taken before any control mutex
    DriverRecord *driver;
    ObjectBag bag;
    LIST_ENTRY factories;
    std::atomic<bool> gone; // surprise-removed: opens, stream requests and steps up fail from here on

    static Device *From(PDEVICE_OBJECT functionalDevice);

    const KSDEVICE_DISPATCH *Dispatch() const { return Descriptor->Dispatch; }
    // Brings every open pin to KSSTATE_STOP. Lock: takes the device mutex, then each control mutex.
    void StopPins(const char *routine);
};

// The AddDevice routine and the dispatch routines of every AVStream driver. IRQL: PASSIVE_LEVEL.
NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT physicalDevice);
NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT functionalDevice, PIRP irp);
NTSTATUS NTAPI DispatchToLower(PDEVICE_OBJECT functionalDevice, PIRP irp);

// Completes a request that the model has finished.
NTSTATUS Complete(PIRP irp, NTSTATUS status);

} // namespace host::streaming
