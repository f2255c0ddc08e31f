// Requests that the I/O manager builds on someone's behalf.
#pragma once

#include "host/executive/irp.h"

#include <functional>

namespace host {

// What a device control passes, in user's or kernel's terms.
struct DeviceControl {
    ULONG code = 0;
    void *input = nullptr;
    ULONG inputLength = 0;
    void *output = nullptr;
    ULONG outputLength = 0;
};

// Lays the buffers out by the method of the code, in the next stack location. A bad buffer of a direct method gives the
// exception's status, and the request has then no buffers.
NTSTATUS SetDeviceControl(PIRP irp, const DeviceControl &control, bool internal, KPROCESSOR_MODE mode);

// Copies back and frees what SetDeviceControl made. IRQL: <= DISPATCH_LEVEL.
void EndDeviceControl(PIRP irp);

// Sends a request of the managers to the top of the device's stack and waits until it is complete. `prepare` fills the
// first stack location. IRQL: PASSIVE_LEVEL.
NTSTATUS SendAndWait(PDEVICE_OBJECT device, NTSTATUS initial,
                     const std::function<void(PIRP, PIO_STACK_LOCATION)> &prepare, ULONG_PTR *information = nullptr);

} // namespace host
