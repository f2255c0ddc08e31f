#include "host/executive/io_request.h"

#include "host/executive/state.h"
#include "platform/guarded_call.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace host {
namespace {

struct LockContext {
    PMDL mdl;
    KPROCESSOR_MODE mode;
    LOCK_OPERATION operation;
};

NTSTATUS LockPages(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation) {
    LockContext context{mdl, mode, operation};
    return GuardedCall(
        [](void *given) {
            auto &lock = *static_cast<LockContext *>(given);
            MmProbeAndLockPages(lock.mdl, lock.mode, lock.operation);
        },
        &context);
}

struct CopyContext {
    void *to;
    const void *from;
    std::size_t size;
};

NTSTATUS GuardedCopy(void *to, const void *from, std::size_t size) {
    CopyContext context{to, from, size};
    return GuardedCall(
        [](void *given) {
            auto &copy = *static_cast<CopyContext *>(given);
            ProbeForRead(copy.from, copy.size, 1);
            std::memcpy(copy.to, copy.from, copy.size);
        },
        &context);
}

} // namespace

NTSTATUS SetDeviceControl(PIRP irp, const DeviceControl &control, bool internal, KPROCESSOR_MODE mode) {
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    auto &parameters = location->Parameters.DeviceIoControl;
    parameters.IoControlCode = control.code;
    parameters.InputBufferLength = control.inputLength;
    parameters.OutputBufferLength = control.outputLength;
    irp->RequestorMode = mode;
    const ULONG method = METHOD_FROM_CTL_CODE(control.code);
    if (method == METHOD_NEITHER) {
        parameters.Type3InputBuffer = control.input;
        irp->UserBuffer = control.output;
        return STATUS_SUCCESS;
    }
    const ULONG buffered =
        method == METHOD_BUFFERED ? std::max(control.inputLength, control.outputLength) : control.inputLength;
    if (buffered != 0) {
        void *buffer = std::malloc(buffered);
        if (mode == UserMode) {
            const NTSTATUS status = GuardedCopy(buffer, control.input, control.inputLength);
            if (!NT_SUCCESS(status)) {
                std::free(buffer);
                return status;
            }
        } else if (control.inputLength != 0) {
            PagedAccess access;
            std::memcpy(buffer, control.input, control.inputLength);
        }
        irp->AssociatedIrp.SystemBuffer = buffer;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    }
    if (method == METHOD_BUFFERED) {
        irp->UserBuffer = control.output;
        if (control.outputLength != 0)
            irp->Flags |= IRP_INPUT_OPERATION;
    } else if (control.outputLength != 0) {
        State &state = Machine();
        irp->MdlAddress = state.mdls.Allocate(control.output, control.outputLength, CALLER_PLACE());
        const NTSTATUS status =
            LockPages(irp->MdlAddress, mode, method == METHOD_OUT_DIRECT ? IoWriteAccess : IoReadAccess);
        if (!NT_SUCCESS(status)) {
            EndDeviceControl(irp);
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void EndDeviceControl(PIRP irp) {
    if ((irp->Flags & IRP_INPUT_OPERATION) != 0 && !NT_ERROR(irp->IoStatus.Status) && irp->IoStatus.Information != 0) {
        PagedAccess access;
        std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
    }
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) != 0)
        std::free(irp->AssociatedIrp.SystemBuffer);
    irp->Flags = 0;
    irp->AssociatedIrp.SystemBuffer = nullptr;
    FreeMdlChain(std::exchange(irp->MdlAddress, nullptr));
}

NTSTATUS SendAndWait(PDEVICE_OBJECT device, NTSTATUS initial,
                     const std::function<void(PIRP, PIO_STACK_LOCATION)> &prepare, ULONG_PTR *information) {
    State &state = Machine();
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
    const PIRP irp = state.irps.Allocate(top->StackSize, IrpOrigin::Manager, CALLER_PLACE());
    irp->IoStatus.Status = initial;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result{};
    prepare(irp, IoGetNextIrpStackLocation(irp));
    state.irps.OnFinish(irp, [&](PIRP finished) {
        result = finished->IoStatus;
        return [&] { KeSetEvent(&done, IO_NO_INCREMENT, FALSE); };
    });
    static_cast<void>(IoCallDriver(top, irp));
    WaitForObject(&done, "I/O manager");
    ObDereferenceObject(top);
    if (information != nullptr)
        *information = result.Information;
    return result.Status;
}

} // namespace host

using namespace host;

extern "C" {

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                         PVOID output, ULONG outputLength, BOOLEAN internal, PKEVENT event,
                                         PIO_STATUS_BLOCK ioStatus) {
    constexpr const char *kRoutine = "IoBuildDeviceIoControlRequest";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    if (state.faults.Fails(FaultSite::Irp))
        return nullptr;
    const PIRP irp = state.irps.Allocate(device->StackSize, IrpOrigin::Threaded, CALLER_PLACE());
    irp->UserEvent = event;
    irp->UserIosb = ioStatus;
    const DeviceControl control{code, input, inputLength, output, outputLength};
    if (!NT_SUCCESS(SetDeviceControl(irp, control, internal != FALSE, KernelMode))) {
        state.irps.Free(irp, kRoutine);
        return nullptr;
    }
    state.irps.OnFinish(irp, [](PIRP finished) -> std::function<void()> {
        EndDeviceControl(finished);
        // A request that fails at once tells it by the return value of the call alone.
        if (NT_ERROR(finished->IoStatus.Status) && !finished->PendingReturned)
            return [] {};
        *finished->UserIosb = finished->IoStatus;
        return [waiter = finished->UserEvent] {
            if (waiter != nullptr)
                KeSetEvent(waiter, IO_NO_INCREMENT, FALSE);
        };
    });
    return irp;
}

} // extern "C"
