#include "usb/bulk_engine.h"

#include "platform/shared_field.h"
#include "usb/usb_request.h"

#include <algorithm>
#include <span>

namespace uvc {

namespace {

constexpr ULONG kDefaultPacketsPerTransfer = 8;
constexpr LONGLONG kBusyPortDelay = 500'000; // 50 ms in 100 ns

using EnginePointer = PoolPointer<BulkStreamEngine, pool_tag::Context>;

std::span<BulkTransfer> Transfers(BulkStreamEngine &engine) {
    return {engine.transfers, engine.transferCount};
}

void Await(KEVENT &event) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
}

// The last touch: whoever waits for the transfer may free it from here on.
void LeaveIdle(BulkTransfer &transfer) {
    if (SharedLoad(transfer.inFlight) == 0)
        KeSetEvent(&transfer.done, IO_NO_INCREMENT, FALSE);
}

// Sends an idle transfer back to the bus unless a stop or a reset wants the pipe quiet.
void Resubmit(BulkStreamEngine &engine, BulkTransfer &transfer) {
    if (!RundownEnter(engine.resubmissions)) {
        LeaveIdle(transfer);
        return;
    }
    // A reset that could not be queued opens the way again, perhaps behind a stop that has closed it.
    const bool stopping = SharedLoad(engine.stopping) != 0;
    if (!stopping)
        static_cast<void>(BulkEngineSubmit(engine, transfer)); // a refused request completes like any other
    RundownLeave(engine.resubmissions);
    if (stopping)
        LeaveIdle(transfer);
}

// Makes every transfer come back. An abort may have failed in the bus driver without saying so: whatever is still in
// flight after it is cancelled, so that a stop never waits for a camera that has nothing to say. Resubmission is closed
// by then, so no request is reused meanwhile.
NTSTATUS AbortTransfers(BulkStreamEngine &engine) {
    NTSTATUS status = UsbPipeRequest(engine.lowerDevice, engine.pipe, URB_FUNCTION_ABORT_PIPE);
    for (BulkTransfer &transfer : Transfers(engine))
        if (SharedLoad(transfer.inFlight) != 0)
            IoCancelIrp(transfer.irp);
    return status;
}

void AwaitTransfers(BulkStreamEngine &engine) {
    for (BulkTransfer &transfer : Transfers(engine))
        Await(transfer.done);
}

NTSTATUS ResetPipe(BulkStreamEngine &engine) {
    return UsbPipeRequest(engine.lowerDevice, engine.pipe, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL);
}

NTSTATUS ResetPipeOrPort(BulkStreamEngine &engine) {
    NTSTATUS status = ResetPipe(engine);
    if (!NT_SUCCESS(status))
        status = UsbSendInternalIoctl(engine.lowerDevice, IOCTL_INTERNAL_USB_RESET_PORT);
    if (status == USBD_STATUS_ERROR_BUSY) {
        LARGE_INTEGER delay{.QuadPart = -kBusyPortDelay};
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
        status = ResetPipe(engine);
    }
    return status;
}

// Work item: brings the pipe back after babble, with all transfers, the retired ones too. Errors end here: without a
// working pipe the transfers stay idle until the next start.
void RecoverFromBabble(PDEVICE_OBJECT, void *context) {
    auto &engine = *static_cast<BulkStreamEngine *>(context);
    Await(engine.launched);
    RundownClose(engine.resubmissions);
    static_cast<void>(AbortTransfers(engine));
    AwaitTransfers(engine);
    if (NT_SUCCESS(ResetPipeOrPort(engine))) {
        RundownOpen(engine.resubmissions);
        for (BulkTransfer &transfer : Transfers(engine))
            if (SharedLoad(engine.stopping) == 0)
                static_cast<void>(BulkEngineSubmit(engine, transfer));
    }
    InterlockedExchange(&engine.resetPending, 0);
}

void RequestReset(BulkStreamEngine &engine) {
    if (InterlockedExchange(&engine.resetPending, 1) != 0)
        return;
    RundownRefuse(engine.resubmissions);
    if (NT_SUCCESS(WorkItemQueue(engine.workItems, RecoverFromBabble, &engine, 0)))
        return;
    RundownOpen(engine.resubmissions);
    InterlockedExchange(&engine.resetPending, 0);
}

// What becomes of a transfer that has come back.
NTSTATUS Judge(BulkStreamEngine &engine, BulkTransfer &transfer) {
    const NTSTATUS status = transfer.irp->IoStatus.Status;
    if (SharedLoad(transfer.irp->Cancel) || status == STATUS_CANCELLED)
        return STATUS_CANCELLED;
    const USBD_STATUS urbStatus = transfer.urb.Hdr.Status;
    if (NT_SUCCESS(status) && urbStatus == USBD_STATUS_SUCCESS) {
        if (engine.callback == nullptr)
            return STATUS_SUCCESS;
        const ULONG received = std::min(transfer.urb.TransferBufferLength, transfer.size);
        return engine.callback(engine, transfer, *engine.owner, transfer.buffer, received);
    }
    if (urbStatus == USBD_STATUS_BABBLE_DETECTED)
        RequestReset(engine);
    return STATUS_CANCELLED;
}

NTSTATUS OnTransferComplete(PDEVICE_OBJECT, PIRP, PVOID context) {
    auto &transfer = *static_cast<BulkTransfer *>(context);
    BulkStreamEngine &engine = *transfer.engine;
    InterlockedDecrement(&transfer.inFlight);
    const NTSTATUS verdict = Judge(engine, transfer);
    // A kept transfer is the consumer's, who may have handed it back already, and a stop may have freed it since.
    if (verdict == STATUS_MORE_PROCESSING_REQUIRED)
        return STATUS_MORE_PROCESSING_REQUIRED;
    if (NT_SUCCESS(verdict))
        Resubmit(engine, transfer);
    else
        LeaveIdle(transfer);
    return STATUS_MORE_PROCESSING_REQUIRED; // the engine owns the request
}

void FreeTransfer(BulkTransfer &transfer) {
    if (transfer.mdl != nullptr)
        IoFreeMdl(transfer.mdl);
    if (transfer.buffer != nullptr)
        ExFreePoolWithTag(transfer.buffer, pool_tag::UsbPipe);
    if (transfer.irp != nullptr)
        IoFreeIrp(transfer.irp);
    transfer = {};
}

void FreeTransfers(BulkStreamEngine &engine) {
    for (BulkTransfer &transfer : Transfers(engine))
        FreeTransfer(transfer);
    if (engine.transfers != nullptr)
        ExFreePoolWithTag(engine.transfers, pool_tag::Array);
    engine.transfers = nullptr;
    engine.transferCount = 0;
}

// Idle, so that a stop does not wait for a transfer that was never submitted. False without memory, with nothing kept.
bool BuildTransfer(BulkStreamEngine &engine, BulkTransfer &transfer, ULONG size) {
    transfer.engine = &engine;
    transfer.size = size;
    KeInitializeEvent(&transfer.done, NotificationEvent, TRUE);
    transfer.irp = IoAllocateIrp(static_cast<CCHAR>(engine.lowerDevice->StackSize + 1), FALSE);
    transfer.buffer = static_cast<UCHAR *>(PoolAllocateZeroed(NonPagedPool, size, pool_tag::UsbPipe));
    if (transfer.buffer != nullptr)
        transfer.mdl = IoAllocateMdl(transfer.buffer, size, FALSE, FALSE, nullptr);
    if (transfer.irp == nullptr || transfer.mdl == nullptr) {
        FreeTransfer(transfer);
        return false;
    }
    MmBuildMdlForNonPagedPool(transfer.mdl);
    return true;
}

// As many transfers as memory allows; one is enough for video to flow.
NTSTATUS BuildTransfers(BulkStreamEngine &engine, ULONG size, ULONG count) {
    FreeTransfers(engine);
    if (count == 0)
        return STATUS_SUCCESS;
    ULONG bytes = 0; // the count is a client's number: an absurd one is refused before that much is zeroed
    if (__builtin_mul_overflow(count, static_cast<ULONG>(sizeof(BulkTransfer)), &bytes))
        return STATUS_INSUFFICIENT_RESOURCES;
    engine.transfers = static_cast<BulkTransfer *>(PoolAllocateZeroed(NonPagedPool, bytes, pool_tag::Array));
    if (engine.transfers == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    while (engine.transferCount < count && BuildTransfer(engine, engine.transfers[engine.transferCount], size))
        ++engine.transferCount;
    return engine.transferCount != 0 ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS SubmitTransfers(BulkStreamEngine &engine) {
    for (BulkTransfer &transfer : Transfers(engine)) {
        NTSTATUS status = BulkEngineSubmit(engine, transfer);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

// Ends whatever a start has begun. The order matters: no resubmission after `stopping`, no reset after the tracker is
// closed, nothing on its way down when the pipe is aborted.
NTSTATUS EndTransfers(BulkStreamEngine &engine) {
    InterlockedExchange(&engine.stopping, 1);
    WorkItemClose(engine.workItems);
    RundownClose(engine.resubmissions);
    NTSTATUS status = AbortTransfers(engine);
    AwaitTransfers(engine);
    FreeTransfers(engine);
    engine.started = false;
    return status;
}

} // namespace

BulkStreamEngine *BulkEngineCreate(UvcCamera &owner, PDEVICE_OBJECT lowerDevice, PDEVICE_OBJECT workItemDevice,
                                   USBD_PIPE_INFORMATION *pipe, PayloadCallback callback, bool zeroBuffers) {
    auto engine = EnginePointer::Allocate(NonPagedPool);
    if (!engine)
        return nullptr;
    engine->zeroBuffers = zeroBuffers;
    engine->owner = &owner;
    engine->callback = callback;
    engine->pipe = pipe;
    engine->lowerDevice = lowerDevice;
    WorkItemTrackerInitialise(engine->workItems, workItemDevice);
    RundownInitialise(engine->resubmissions);
    KeInitializeEvent(&engine->launched, NotificationEvent, FALSE);
    return engine.Release();
}

void BulkEngineDestroy(BulkStreamEngine *engine) {
    if (engine == nullptr)
        return;
    EnginePointer owner(engine);
    static_cast<void>(BulkEngineStop(*engine)); // nothing is left in flight, whatever the abort's status
}

NTSTATUS BulkEngineStart(BulkStreamEngine &engine, ULONG transferSize, ULONG transferCount) {
    if (engine.started)
        return STATUS_SUCCESS;
    if (transferSize == 0)
        transferSize = kDefaultPacketsPerTransfer * engine.pipe->MaximumPacketSize;
    if (transferSize == 0)
        return STATUS_INVALID_PARAMETER;
    NTSTATUS status = BuildTransfers(engine, transferSize, transferCount);
    if (NT_SUCCESS(status))
        status = ResetPipe(engine);
    if (!NT_SUCCESS(status)) {
        FreeTransfers(engine);
        return status;
    }

    KeClearEvent(&engine.launched);
    InterlockedExchange(&engine.stopping, 0);
    InterlockedExchange(&engine.resetPending, 0);
    WorkItemOpen(engine.workItems);
    RundownOpen(engine.resubmissions);
    status = SubmitTransfers(engine);
    KeSetEvent(&engine.launched, IO_NO_INCREMENT, FALSE);
    if (!NT_SUCCESS(status)) {
        static_cast<void>(EndTransfers(engine)); // the caller hears why the start failed
        return status;
    }
    engine.started = true;
    return STATUS_SUCCESS;
}

NTSTATUS BulkEngineStop(BulkStreamEngine &engine) {
    return engine.started ? EndTransfers(engine) : STATUS_SUCCESS;
}

NTSTATUS BulkEngineSubmit(BulkStreamEngine &engine, BulkTransfer &transfer) {
    static_assert(sizeof(transfer.urb) == 128);
    transfer.urb = {};
    transfer.urb.Hdr.Length = sizeof(transfer.urb);
    transfer.urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    transfer.urb.PipeHandle = engine.pipe->PipeHandle;
    transfer.urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    transfer.urb.TransferBufferLength = transfer.size;
    transfer.urb.TransferBufferMDL = transfer.mdl;

    IoReuseIrp(transfer.irp, STATUS_SUCCESS);
    IO_STACK_LOCATION *stack = IoGetNextIrpStackLocation(transfer.irp);
    stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    stack->Parameters.Others.Argument1 = &transfer.urb;
    IoSetCompletionRoutine(transfer.irp, OnTransferComplete, &transfer, TRUE, TRUE, TRUE);

    KeClearEvent(&transfer.done);
    if (SharedLoad(engine.zeroBuffers))
        RtlZeroMemory(transfer.buffer, transfer.size);
    InterlockedIncrement(&transfer.inFlight);
    return IoCallDriver(engine.lowerDevice, transfer.irp);
}

void BulkEngineHandBack(BulkStreamEngine &engine, BulkTransfer &transfer) {
    if (SharedLoad(transfer.irp->Cancel) || transfer.irp->IoStatus.Status == STATUS_CANCELLED)
        LeaveIdle(transfer);
    else
        Resubmit(engine, transfer);
}

} // namespace uvc
