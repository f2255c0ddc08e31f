#include "host/usb/port.h"

#include "host/executive/runtime.h"
#include "host/usb/urb.h"
#include "platform/lock.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

namespace host::usb {
namespace {

constexpr Ticks kFaultDelay = 2'000 * kTicksPerMillisecond;

// As the port driver completes: at DISPATCH_LEVEL, whatever level the thread came from.
void CompleteAtDispatch(PIRP irp) {
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    KeLowerIrql(oldIrql);
}

bool NeedsPassiveLevel(const URB &urb) {
    switch (urb.UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
    case URB_FUNCTION_SELECT_INTERFACE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        return true;
    default:
        return false;
    }
}

} // namespace

template <class Visitor> void Port::ForEachQueue(Visitor visit) {
    visit(management_);
    visit(control_);
    visit(leaving_);
    for (auto &pipe : configuration_.pipes)
        visit(pipe->queue);
}

Port::Port(KEVENT &bell, PDEVICE_OBJECT pdo, std::shared_ptr<UsbDevice> device, PlugOptions options)
    : bell_(bell), pdo_(pdo), device_(std::move(device)), options_(std::move(options)),
      isHighSpeed_(device_->IsHighSpeed()), chance_(options_.synchronousSeed) {
    KeInitializeEvent(&quiet_, NotificationEvent, FALSE);
    KeInitializeSpinLock(&lock_);
}

NTSTATUS Port::SubmitUrb(PIRP irp, PURB urb) {
    if (urb == nullptr)
        Violation("a request without URB", "IOCTL_INTERNAL_USB_SUBMIT_URB", "null");
    if (NeedsPassiveLevel(*urb) && KeGetCurrentIrql() != PASSIVE_LEVEL)
        Violation("a URB that is for PASSIVE_LEVEL", "IOCTL_INTERNAL_USB_SUBMIT_URB",
                  "function " + std::to_string(urb->UrbHeader.Function) + " at level " +
                      std::to_string(KeGetCurrentIrql()));
    urb->UrbHeader.Status = USBD_STATUS_PENDING;
    return Submit({.irp = irp, .urb = urb});
}

NTSTATUS Port::SubmitPortRequest(PIRP irp, ULONG controlCode) {
    return Submit({.irp = irp, .controlCode = controlCode});
}

NTSTATUS Port::Submit(Request request) {
    PIRP irp = request.irp;
    USBD_STATUS refusal = request.urb != nullptr ? Refusal(*request.urb) : USBD_STATUS_SUCCESS;
    Rendezvous rendezvous;
    KIRQL level = KeGetCurrentIrql();
    {
        SpinLockGuard guard(lock_);
        RequestQueue *queue = nullptr;
        if (departed_ && released_)
            Violation("a request to a device that was removed", "IRP_MJ_INTERNAL_DEVICE_CONTROL",
                      "its device object is kept for nobody");
        if (departed_) {
            refusal = USBD_STATUS_DEVICE_GONE;
        } else if (refusal == USBD_STATUS_SUCCESS) {
            queue = QueueFor(request);
            if (queue == nullptr)
                refusal = USBD_STATUS_INVALID_PIPE_HANDLE;
        }
        if (queue != nullptr) {
            bool isTransfer = queue != &control_ && queue != &management_;
            if (options_.synchronousSeed != 0 && !isTransfer && level == PASSIVE_LEVEL && chance_() % 2 == 0) {
                KeInitializeEvent(&rendezvous.event, NotificationEvent, FALSE);
                request.waiter = &rendezvous;
                queue->push_back(request);
            } else {
                IoMarkIrpPending(irp);
                queue->push_back(request);
                MakeCancellable(queue->back());
            }
            ++outstanding_;
            if (request.urb != nullptr)
                inFlight_.push_back(request.urb);
        }
    }
    if (refusal != USBD_STATUS_SUCCESS) {
        if (request.urb != nullptr)
            request.urb->UrbHeader.Status = refusal;
        NTSTATUS status = StatusOf(refusal);
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }

    KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
    if (request.waiter == nullptr)
        return STATUS_PENDING;
    KeWaitForSingleObject(&rendezvous.event, Executive, KernelMode, FALSE, nullptr);
    if (rendezvous.pended)
        return STATUS_PENDING;
    NTSTATUS status = irp->IoStatus.Status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

USBD_STATUS Port::Refusal(const URB &urb) const {
    if (!IsKnownFunction(urb))
        return USBD_STATUS_INVALID_URB_FUNCTION;
    if (!HasRightLength(urb))
        return USBD_STATUS_INVALID_PARAMETER;
    if (MovesData(urb) && urb.UrbBulkOrInterruptTransfer.UrbLink != nullptr)
        return USBD_STATUS_INVALID_PARAMETER;
    if (urb.UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER && options_.maximumTransferSize != 0 &&
        urb.UrbBulkOrInterruptTransfer.TransferBufferLength > options_.maximumTransferSize)
        return USBD_STATUS_INVALID_PARAMETER;
    return USBD_STATUS_SUCCESS;
}

RequestQueue *Port::QueueFor(const Request &request) {
    if (request.urb != nullptr && std::ranges::find(inFlight_, request.urb) != inFlight_.end())
        Violation("a URB is submitted while it is in flight", "IOCTL_INTERNAL_USB_SUBMIT_URB",
                  "function " + std::to_string(request.urb->UrbHeader.Function));
    if (request.urb == nullptr || request.urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE)
        return &management_;
    if (request.urb->UrbHeader.Function != URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER)
        return &control_;
    Pipe *pipe = configuration_.FindPipe(request.urb->UrbBulkOrInterruptTransfer.PipeHandle);
    bool fits = pipe != nullptr && (pipe->type == UsbdPipeTypeBulk || pipe->type == UsbdPipeTypeInterrupt);
    return fits ? &pipe->queue : nullptr;
}

void Port::MakeCancellable(Request &request) {
    IoSetCancelRoutine(request.irp, CancelRoutine);
    // Cancelled before the routine was there: nobody will call it unless it has been taken already.
    if (request.irp->Cancel && IoSetCancelRoutine(request.irp, nullptr) != nullptr)
        request.cancelled = anyCancelled_ = true;
}

// Whether the bus thread may end the request now. If not, its cancel routine is on the way and will ring the bell.
bool Port::Own(Request &request) {
    return request.waiter != nullptr || request.cancelled || request.owned ||
           IoSetCancelRoutine(request.irp, nullptr) != nullptr;
}

void Port::Pend(Request &request) {
    Rendezvous *waiter = std::exchange(request.waiter, nullptr);
    IoMarkIrpPending(request.irp);
    MakeCancellable(request);
    waiter->pended = true;
    KeSetEvent(&waiter->event, IO_NO_INCREMENT, FALSE);
}

void Port::Admit(Request &request, Ticks now) {
    if (std::exchange(request.admitted, true))
        return;
    request.fault = Runtime::Current().Faults().NextTransfer();
    if (request.fault == TransferFault::Delay)
        request.notBefore = now + kFaultDelay;
    else if (request.fault == TransferFault::Hang)
        request.notBefore = kNever;
}

VOID NTAPI Port::CancelRoutine(PDEVICE_OBJECT pdo, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    PortOf(pdo).MarkCancelled(irp);
}

void Port::MarkCancelled(PIRP irp) {
    {
        SpinLockGuard guard(lock_);
        ForEachQueue([irp](RequestQueue &queue) {
            auto found = std::ranges::find(queue, irp, &Request::irp);
            if (found != queue.end())
                found->cancelled = true;
        });
        anyCancelled_ = true;
    }
    KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
}

void Port::Depart() {
    {
        SpinLockGuard guard(lock_);
        departed_ = true;
    }
    KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
}

bool Port::HasDeparted() const {
    SpinLockGuard guard(lock_);
    return departed_;
}

void Port::WaitUntilQuiet() {
    KeWaitForSingleObject(&quiet_, Executive, KernelMode, FALSE, nullptr);
}

void Port::Wake() {
    woken_ = true;
    KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
}

void Port::Release() {
    {
        SpinLockGuard guard(lock_);
        released_ = true;
    }
    KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
}

bool Port::HasOutstanding() const {
    SpinLockGuard guard(lock_);
    return outstanding_ != 0;
}

bool Port::Serve(Ticks now, Ticks &next) {
    if (device_ == nullptr)
        return false;
    if (HasDeparted())
        return Drain();
    ForgetReleased();
    if (woken_.exchange(false))
        AskPipesAgain();
    bool worked = FinishCancelled();
    worked |= ServeManagement(now, next);
    worked |= ServeControl(now, next);
    for (auto &pipe : configuration_.pipes) {
        if (HasDeparted())
            return true;
        worked |= ServePipe(*pipe, now, next);
    }
    return worked;
}

void Port::ForgetReleased() {
    bool released;
    {
        SpinLockGuard guard(lock_);
        released = std::exchange(released_, false);
    }
    if (released)
        ReplaceConfiguration({});
}

void Port::AskPipesAgain() {
    for (auto &pipe : configuration_.pipes)
        pipe->askAgain = 0;
}

// The head of the queue, when its turn has come. One that must wait lets nobody pass, so whoever waits for the queue
// synchronously is told that it takes longer: only a pending request can be cancelled.
std::optional<Request> Port::TakeHead(RequestQueue &queue, Ticks now, Ticks &next) {
    SpinLockGuard guard(lock_);
    if (queue.empty() || queue.front().cancelled)
        return std::nullopt;
    Request &head = queue.front();
    Admit(head, now);
    if (head.notBefore > now) {
        next = std::min(next, head.notBefore);
        for (Request &request : queue) {
            if (request.waiter != nullptr)
                Pend(request);
        }
        return std::nullopt;
    }
    if (!Own(head))
        return std::nullopt;
    Request taken = head;
    queue.pop_front();
    return taken;
}

void Port::PutBack(RequestQueue &queue, Request request) {
    SpinLockGuard guard(lock_);
    queue.push_front(request);
    if (request.waiter == nullptr)
        MakeCancellable(queue.front());
    if (queue.front().cancelled)
        KeSetEvent(&bell_, IO_NO_INCREMENT, FALSE);
}

// Ends what is in the queue now; what a completion routine submits meanwhile stays. `all` says whether nothing was left
// to a cancel routine that is under way. True when anything was ended.
bool Port::FinishAll(RequestQueue &queue, USBD_STATUS status, bool *all) {
    RequestQueue ending;
    {
        SpinLockGuard guard(lock_);
        RequestQueue staying;
        for (Request &request : queue)
            (Own(request) ? ending : staying).push_back(request);
        queue = std::move(staying);
        if (all != nullptr)
            *all = queue.empty();
    }
    for (Request &request : ending)
        Finish(request, request.cancelled || request.aborted ? USBD_STATUS_CANCELED : status);
    return !ending.empty();
}

bool Port::FinishCancelled() {
    RequestQueue ending;
    {
        SpinLockGuard guard(lock_);
        if (!std::exchange(anyCancelled_, false))
            return false;
        ForEachQueue([&ending](RequestQueue &queue) {
            std::ranges::copy_if(queue, std::back_inserter(ending), &Request::cancelled);
            std::erase_if(queue, [](const Request &request) { return request.cancelled; });
        });
    }
    for (Request &request : ending)
        Finish(request, USBD_STATUS_CANCELED);
    return !ending.empty();
}

void Port::Finish(Request &request, USBD_STATUS status, std::size_t length) {
    if (request.urb != nullptr) {
        if (MovesData(*request.urb))
            request.urb->UrbBulkOrInterruptTransfer.TransferBufferLength = static_cast<ULONG>(length);
        request.urb->UrbHeader.Status = status;
    }
    request.irp->IoStatus.Status = StatusOf(status);
    request.irp->IoStatus.Information = 0;
    {
        SpinLockGuard guard(lock_);
        --outstanding_;
        std::erase(inFlight_, request.urb);
    }
    if (request.waiter != nullptr)
        KeSetEvent(&request.waiter->event, IO_NO_INCREMENT, FALSE);
    else
        CompleteAtDispatch(request.irp);
}

bool Port::ServeControl(Ticks now, Ticks &next) {
    std::optional<Request> request = TakeHead(control_, now, next);
    if (!request)
        return false;
    if (request->fault == TransferFault::Gone) {
        Disappear(*request);
        return true;
    }
    std::size_t length = 0;
    USBD_STATUS status = CarryOut(*request, now, length);
    AskPipesAgain(); // the device may have begun, or ceased, to send
    Finish(*request, status, length);
    return true;
}

bool Port::ServePipe(Pipe &pipe, Ticks now, Ticks &next) {
    if (pipe.halted)
        return FinishAll(pipe.queue, USBD_STATUS_ENDPOINT_HALTED);
    if (pipe.askAgain > now) {
        SpinLockGuard guard(lock_);
        if (pipe.queue.empty())
            pipe.askAgain = 0; // what the device said was said to another transfer
        else
            next = std::min(next, pipe.askAgain);
        return false;
    }
    std::optional<Request> request = TakeHead(pipe.queue, now, next);
    if (!request)
        return false;
    if (request->fault == TransferFault::Gone) {
        Disappear(*request);
        return true;
    }
    if (request->aborted) {
        Finish(*request, USBD_STATUS_CANCELED);
        return true;
    }
    std::size_t length = 0;
    USBD_STATUS status = BulkTransfer(*request, pipe, now, length);
    if (status == USBD_STATUS_PENDING) {
        PutBack(pipe.queue, *request);
        next = std::min(next, pipe.askAgain);
        return false;
    }
    pipe.halted = status == USBD_STATUS_STALL_PID || status == USBD_STATUS_BABBLE_DETECTED;
    Finish(*request, status, length);
    return true;
}

bool Port::ServeManagement(Ticks now, Ticks &next) {
    Request request;
    {
        // An abort that waits holds nobody up.
        SpinLockGuard guard(lock_);
        auto ready = std::ranges::find_if(management_, [&](Request &waiting) {
            if (waiting.notBefore <= now)
                return !waiting.cancelled;
            next = std::min(next, waiting.notBefore);
            if (waiting.waiter != nullptr)
                Pend(waiting);
            return false;
        });
        if (ready == management_.end() || !Own(*ready))
            return false;
        request = *ready;
        management_.erase(ready);
    }
    if (request.urb != nullptr)
        return AbortPipe(request, now);
    if (request.controlCode == IOCTL_INTERNAL_USB_RESET_PORT) {
        Finish(request, ResetPort(now));
        return true;
    }
    ++cycles_;
    Finish(request, USBD_STATUS_SUCCESS);
    if (options_.onCyclePort)
        options_.onCyclePort(pdo_);
    return true;
}

// An abort ends after everything that it aborted, unless the plan says otherwise.
bool Port::AbortPipe(Request &request, Ticks now) {
    Pipe *pipe = configuration_.FindPipe(request.urb->UrbPipeRequest.PipeHandle);
    if (pipe == nullptr) {
        Finish(request, USBD_STATUS_INVALID_PIPE_HANDLE);
        return true;
    }
    std::optional<AbortFault> fault;
    if (!std::exchange(request.admitted, true))
        fault = Runtime::Current().Faults().NextAbort();
    if (fault == AbortFault::Never)
        request.notBefore = kNever;
    else if (fault == AbortFault::Late)
        request.notBefore = now + kFaultDelay;

    bool all = true;
    if (fault == AbortFault::Early)
        Recall(*pipe, now + kFaultDelay);
    else if (fault != AbortFault::Never && !request.aborted)
        FinishAll(pipe->queue, USBD_STATUS_CANCELED, &all);
    request.aborted = fault.has_value(); // what is sent meanwhile is not its concern
    if (all && request.notBefore <= now) {
        Finish(request, USBD_STATUS_SUCCESS);
        return true;
    }
    PutBack(management_, request);
    return all;
}

// The controller has the pipe's transfers in its hands, where no cancel reaches them, and ends them later.
void Port::Recall(Pipe &pipe, Ticks when) {
    SpinLockGuard guard(lock_);
    for (Request &transfer : pipe.queue)
        if (!transfer.cancelled && !transfer.aborted && Own(transfer))
            transfer = {.irp = transfer.irp,
                        .urb = transfer.urb,
                        .owned = true,
                        .admitted = true,
                        .aborted = true,
                        .notBefore = when};
    pipe.askAgain = 0;
}

bool Port::Drain() {
    bool worked = false;
    ForEachQueue([&](RequestQueue &queue) { worked |= FinishAll(queue, USBD_STATUS_DEVICE_GONE); });
    if (!HasOutstanding()) {
        device_.reset();
        KeSetEvent(&quiet_, IO_NO_INCREMENT, FALSE);
    }
    return worked;
}

void Port::Disappear(Request &request) {
    Depart();
    Finish(request, USBD_STATUS_DEVICE_GONE);
    if (options_.onGone)
        options_.onGone(pdo_);
}

} // namespace host::usb
