// Work items that a stop can wait for.
#pragma once

#include "usb/rundown.h"

namespace uvc {

using WorkItemRoutine = void (*)(PDEVICE_OBJECT device, void *context);

struct WorkItemTracker {
    Rundown items;         // queued or running
    PDEVICE_OBJECT device; // for IoAllocateWorkItem
};

// Created closed, with nothing outstanding. IRQL: any.
void WorkItemTrackerInitialise(WorkItemTracker &tracker, PDEVICE_OBJECT device);

// Lets items in. IRQL: <= DISPATCH_LEVEL.
void WorkItemOpen(WorkItemTracker &tracker);

// Queues routine(device, context) on the delayed work queue; with a context size above 0 the item carries a copy of
// that many bytes, aligned for any type, which lives until the routine returns. STATUS_CANCELLED while closing,
// STATUS_INSUFFICIENT_RESOURCES without memory. IRQL: <= DISPATCH_LEVEL.
NTSTATUS WorkItemQueue(WorkItemTracker &tracker, WorkItemRoutine routine, void *context, ULONG contextSize);

// Refuses further items and waits until none is outstanding. IRQL: PASSIVE_LEVEL. Lock: none that an item takes.
void WorkItemClose(WorkItemTracker &tracker);

} // namespace uvc
