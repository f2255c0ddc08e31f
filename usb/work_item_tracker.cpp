#include "usb/work_item_tracker.h"

#include "platform/pool.h"

namespace uvc {

namespace {

struct alignas(MEMORY_ALLOCATION_ALIGNMENT) TrackedItem {
    WorkItemTracker *tracker;
    PIO_WORKITEM item;
    WorkItemRoutine routine;
    void *context;

    void *ContextCopy() { return this + 1; }
};

using TrackedItemPointer = PoolPointer<TrackedItem, pool_tag::WorkItem>;

void RunItem(PDEVICE_OBJECT device, PVOID context) {
    TrackedItemPointer tracked(static_cast<TrackedItem *>(context));
    tracked->routine(device, tracked->context);
    WorkItemTracker &tracker = *tracked->tracker;
    IoFreeWorkItem(tracked->item);
    tracked.Reset();
    RundownLeave(tracker.items); // the owner of the tracker may go on from here
}

TrackedItemPointer MakeItem(WorkItemTracker &tracker, WorkItemRoutine routine, void *context, ULONG contextSize) {
    auto tracked = TrackedItemPointer::Allocate(NonPagedPool, contextSize);
    if (!tracked)
        return tracked;
    *tracked = {.tracker = &tracker,
                .item = IoAllocateWorkItem(tracker.device),
                .routine = routine,
                .context = contextSize != 0 ? tracked->ContextCopy() : context};
    if (tracked->item == nullptr) {
        tracked.Reset();
        return tracked;
    }
    if (contextSize != 0)
        RtlCopyMemory(tracked->ContextCopy(), context, contextSize);
    return tracked;
}

} // namespace

void WorkItemTrackerInitialise(WorkItemTracker &tracker, PDEVICE_OBJECT device) {
    RundownInitialise(tracker.items);
    tracker.device = device;
}

void WorkItemOpen(WorkItemTracker &tracker) {
    RundownOpen(tracker.items);
}

NTSTATUS WorkItemQueue(WorkItemTracker &tracker, WorkItemRoutine routine, void *context, ULONG contextSize) {
    if (!RundownEnter(tracker.items))
        return STATUS_CANCELLED;
    TrackedItemPointer tracked = MakeItem(tracker, routine, context, contextSize);
    if (!tracked) {
        RundownLeave(tracker.items);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TrackedItem *queued = tracked.Release(); // belongs to RunItem from the moment it is queued
    IoQueueWorkItem(queued->item, RunItem, DelayedWorkQueue, queued);
    return STATUS_SUCCESS;
}

void WorkItemClose(WorkItemTracker &tracker) {
    RundownClose(tracker.items);
}

} // namespace uvc
