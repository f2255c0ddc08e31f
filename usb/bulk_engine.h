// The bulk transfer engine: a fixed number of reusable transfers in flight on the video pipe.
#pragma once

#include "platform/pool.h"
#include "usb/work_item_tracker.h"

namespace uvc {

class UvcCamera;
struct BulkStreamEngine;
struct BulkTransfer;

// Takes a completed transfer. STATUS_SUCCESS: the transfer goes straight back to the bus;
// STATUS_MORE_PROCESSING_REQUIRED: the consumer keeps it and hands it back with BulkEngineHandBack; any other failure
// retires the transfer until the next start. IRQL: DISPATCH_LEVEL.
using PayloadCallback = NTSTATUS (*)(BulkStreamEngine &engine, BulkTransfer &transfer, UvcCamera &owner,
                                     const UCHAR *buffer, ULONG length);

struct BulkTransfer {
    BulkStreamEngine *engine;
    _URB_BULK_OR_INTERRUPT_TRANSFER urb;
    PIRP irp;
    LONG inFlight; // atomic
    KEVENT done;   // signalled while the transfer is idle and nobody is about to resubmit it
    UCHAR *buffer; // non-paged, `size` bytes
    ULONG size;
    PMDL mdl;
};

struct BulkStreamEngine {
    bool zeroBuffers; // clear each buffer before every submission; may change while transfers flow
    UvcCamera *owner;
    PayloadCallback callback; // may be null
    bool started;
    LONG stopping; // atomic: completions must not resubmit
    USBD_PIPE_INFORMATION *pipe;
    PDEVICE_OBJECT lowerDevice;
    BulkTransfer *transfers;
    ULONG transferCount;
    WorkItemTracker workItems;
    LONG resetPending; // atomic: a reset work item is queued or running

    // Passed by every resubmission and closed by a stop or a reset before it aborts the pipe: an abort does not reach a
    // transfer that is still on its way down.
    Rundown resubmissions;
    KEVENT launched; // signalled once a start has submitted its transfers; a reset waits, so that only one of both does
};

// A zeroed engine with its tracker closed, or null without memory. Resets run on behalf of `workItemDevice`. IRQL:
// PASSIVE_LEVEL.
BulkStreamEngine *BulkEngineCreate(UvcCamera &owner, PDEVICE_OBJECT lowerDevice, PDEVICE_OBJECT workItemDevice,
                                   USBD_PIPE_INFORMATION *pipe, PayloadCallback callback, bool zeroBuffers);

// Stops the engine if need be and frees it. IRQL: PASSIVE_LEVEL.
void BulkEngineDestroy(BulkStreamEngine *engine);

// Builds and submits the transfers; a size of 0 means 8 packets of the pipe. Does nothing when started. On failure
// nothing is left in flight or allocated. Fewer transfers than asked for are a success as long as there is one (none
// asked for is a success too). IRQL: PASSIVE_LEVEL.
NTSTATUS BulkEngineStart(BulkStreamEngine &engine, ULONG transferSize, ULONG transferCount);

// Ends all transfers and frees them, after any reset in progress; returns the status of the abort request. Does nothing
// when not started. IRQL: PASSIVE_LEVEL. Lock: none that the payload callback takes.
NTSTATUS BulkEngineStop(BulkStreamEngine &engine);

// Sends one idle transfer to the bus. IRQL: <= DISPATCH_LEVEL.
NTSTATUS BulkEngineSubmit(BulkStreamEngine &engine, BulkTransfer &transfer);

// A consumer hands back a transfer it kept: resubmitted, or left idle when its request was cancelled, the engine is
// stopping or a reset is pending. IRQL: <= DISPATCH_LEVEL.
void BulkEngineHandBack(BulkStreamEngine &engine, BulkTransfer &transfer);

} // namespace uvc
