// A pin: one stream of a filter, its connection format, its state and its frames.
#pragma once

#include "host/streaming/filter.h"
#include "host/streaming/frame_queue.h"

#include <atomic>
#include <span>

namespace host::streaming {

struct Clock;

struct Pin : Object, KSPIN {
    static constexpr ObjectKind kKind = ObjectKind::Pin;

    LIST_ENTRY link; // Filter::pins, under the control mutex
    Filter *filter;
    PFILE_OBJECT filterFile; // kept open by the pin
    ObjectBag bag;
    FrameQueue queue;
    Clock *clock; // the master clock or null; under the control mutex

    // Processing (pin_process.cpp).
    StrictMutex processing;
    LONGLONG processingSince; // when the processing mutex was taken
    std::atomic<KSSTATE> state;
    PIO_WORKITEM workItem; // null when the driver has no process routine
    KSPIN_LOCK workLock;   // for the next three
    bool workQueued;
    bool workRunning;
    KEVENT workIdle; // neither queued nor running

    // IRP_MJ_CREATE under a filter: `parameters` are a KSPIN_CONNECT and a KSDATAFORMAT.
    static NTSTATUS Open(Filter &filter, PIRP irp, std::span<const UCHAR> parameters);
    // IRP_MJ_CLEANUP: stops and gives back what is queued. IRP_MJ_CLOSE: tells the driver and frees.
    void Cleanup();
    void Close(PIRP irp);

    // IOCTL_KS_READ_STREAM: STATUS_PENDING, or why not.
    NTSTATUS ReadStream(PIRP irp);

    // Lock of these: control mutex held.
    NTSTATUS SetState(KSSTATE target);
    void Stop() { SetState(KSSTATE_STOP); }
    NTSTATUS SetFormat(const KSDATAFORMAT &format);
    NTSTATUS SetMasterClock(Clock *master);

    // Calls the driver's process routine, here or from a work item. IRQL: DISPATCH_LEVEL when asynchronous.
    void AttemptProcessing(bool asynchronous);
    void Process();
    void AcquireProcessing(const char *routine);
    void ReleaseProcessing(const char *routine);
};

// Whether two ranges or formats agree in major format, sub format and specifier, wildcards counting as any.
bool RangesAgree(const KSDATARANGE &one, const KSDATARANGE &other);

// Calls `use` with each of the descriptor's ranges that agrees with `wanted`, until it answers other than
// STATUS_NO_MATCH; the answer, or STATUS_NO_MATCH.
template <class Use>
NTSTATUS ForMatchingRanges(const KSPIN_DESCRIPTOR_EX &descriptor, const KSDATAFORMAT &wanted, Use use) {
    const KSPIN_DESCRIPTOR &ranges = descriptor.PinDescriptor;
    for (ULONG i = 0; i < ranges.DataRangesCount; ++i) {
        if (!RangesAgree(*ranges.DataRanges[i], wanted))
            continue;
        NTSTATUS status = use(ranges.DataRanges[i]);
        if (status != STATUS_NO_MATCH)
            return status;
    }
    return STATUS_NO_MATCH;
}

// IOCTL_KS_PROPERTY on a pin; does not complete the request.
NTSTATUS PinProperty(Pin &pin, PIRP irp);

} // namespace host::streaming
