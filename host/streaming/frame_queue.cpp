#include "host/streaming/frame_queue.h"

#include "host/streaming/object.h"
#include "platform/lock.h"
#include "platform/pool.h"

#include <new>

namespace host::streaming {

namespace {

constexpr int kRequestSlot = 0; // Irp->Tail.Overlay.DriverContext: the stream request

void FinishAll(LIST_ENTRY &finished) {
    while (!IsListEmpty(&finished))
        FinishStreamRequest(Owner<&StreamRequest::link>(RemoveHeadList(&finished)));
}

} // namespace

void FrameQueue::Initialise(PKSPIN pin) {
    pin_ = pin;
    KeInitializeSpinLock(&lock_);
    open_ = false;
    InitializeListHead(&requests_);
    InitializeListHead(&frames_);
    InitializeListHead(&clones_);
    leading_ = StreamPointer{};
    leading_.Pin = pin;
    leading_.queue = this;
    leading_.Register();
}

void FrameQueue::Destroy() {
    leading_.Unregister();
}

void FrameQueue::Open() {
    SpinLockGuard guard(lock_);
    open_ = true;
}

void FrameQueue::Close() {
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard guard(lock_);
        open_ = false;
        LIST_ENTRY *next = nullptr;
        for (LIST_ENTRY *link = requests_.Flink; link != &requests_; link = next) {
            next = link->Flink;
            CancelRequest(*Owner<&StreamRequest::link>(link), finished);
        }
    }
    FinishAll(finished);
}

void FrameQueue::RequireNoPointers(const char *routine) {
    SpinLockGuard guard(lock_);
    if (leading_.locked)
        Violation("KsStreamPointerUnlock", routine, "the leading edge was left locked");
    if (!IsListEmpty(&clones_))
        Violation("KsStreamPointerClone", routine, "a clone was left");
}

NTSTATUS FrameQueue::Insert(PIRP irp, bool &arrived) {
    StreamRequest *request = nullptr;
    NTSTATUS status = BuildStreamRequest(irp, &request);
    if (!NT_SUCCESS(status))
        return status;
    request->queue = this;
    irp->Tail.Overlay.DriverContext[kRequestSlot] = request;
    {
        SpinLockGuard guard(lock_);
        if (!open_) {
            status = STATUS_INVALID_DEVICE_STATE;
        } else {
            IoSetCancelRoutine(irp, CancelRoutine);
            // Cancelled before the routine was there: nobody else will complete it.
            if (__atomic_load_n(&irp->Cancel, __ATOMIC_SEQ_CST) && IoSetCancelRoutine(irp, nullptr) != nullptr)
                status = STATUS_CANCELLED;
        }
        if (NT_SUCCESS(status)) {
            IoMarkIrpPending(irp);
            InsertTailList(&requests_, &request->link);
            for (ULONG i = 0; i < request->frameCount; ++i)
                InsertTailList(&frames_, &request->frames[i].link);
            arrived = leading_.frame == nullptr;
            if (arrived)
                leading_.frame = &request->frames[0];
        }
    }
    if (!NT_SUCCESS(status)) {
        FreeStreamRequest(request);
        return status;
    }
    return STATUS_PENDING;
}

bool FrameQueue::HasFrame() {
    SpinLockGuard guard(lock_);
    return leading_.frame != nullptr;
}

const void *FrameQueue::Position() {
    SpinLockGuard guard(lock_);
    return leading_.frame;
}

PKSSTREAM_POINTER FrameQueue::GetLeadingEdge(KSSTREAM_POINTER_STATE state) {
    if (state == KSSTREAM_POINTER_STATE_UNLOCKED)
        return &leading_;
    return NT_SUCCESS(LockPointer(leading_)) ? &leading_ : nullptr;
}

NTSTATUS FrameQueue::LockPointer(StreamPointer &pointer) {
    SpinLockGuard guard(lock_);
    if (pointer.locked)
        Violation("KsStreamPointerLock", "KsStreamPointerLock", "the stream pointer is already locked");
    if (pointer.frame == nullptr || pointer.frame->request->cancelled)
        return STATUS_DEVICE_NOT_READY;
    pointer.Lock();
    return STATUS_SUCCESS;
}

void FrameQueue::UnlockPointer(StreamPointer &pointer, bool eject) {
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard guard(lock_);
        if (!pointer.locked)
            Violation("KsStreamPointerLock", "KsStreamPointerUnlock", "the stream pointer is not locked");
        pointer.Unlock();
        if (eject)
            MoveOn(pointer, finished);
        else if (!pointer.isClone && pointer.frame->request->cancelled)
            MoveOn(pointer, finished); // the cancel waited for this
    }
    FinishAll(finished);
}

// A locked pointer is locked again on the next frame; when there is none it stays unlocked beyond the end.
NTSTATUS FrameQueue::Advance(StreamPointer &pointer) {
    NTSTATUS status = STATUS_SUCCESS;
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard guard(lock_);
        bool wasLocked = pointer.locked;
        if (wasLocked)
            pointer.Unlock();
        MoveOn(pointer, finished);
        if (wasLocked && pointer.frame != nullptr)
            pointer.Lock();
        else if (wasLocked)
            status = STATUS_DEVICE_NOT_READY;
    }
    FinishAll(finished);
    return status;
}

NTSTATUS FrameQueue::Clone(StreamPointer &pointer, ULONG contextSize, PKSSTREAM_POINTER *made) {
    PVOID block = PoolAllocateZeroed(NonPagedPool, sizeof(StreamPointer) + contextSize, kTagStream);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *clone = new (PlaceInPool{block}) StreamPointer{};
    clone->Pin = pin_;
    clone->Context = contextSize == 0 ? nullptr : clone + 1;
    clone->queue = this;
    clone->isClone = true;
    {
        SpinLockGuard guard(lock_);
        if (!pointer.locked)
            Violation("KsStreamPointerClone", "KsStreamPointerClone", "the stream pointer is not locked");
        clone->frame = pointer.frame;
        clone->Lock();
        clone->OffsetOut = pointer.OffsetOut;
        ++clone->frame->references; // the clone's own, besides that of its lock
        InsertTailList(&clones_, &clone->clone);
    }
    clone->Register();
    *made = clone;
    return STATUS_SUCCESS;
}

void FrameQueue::Delete(StreamPointer &pointer) {
    if (!pointer.isClone)
        Violation("KsStreamPointerClone", "KsStreamPointerDelete", "the leading edge cannot be deleted");
    pointer.Unregister();
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard guard(lock_);
        RemoveEntryList(&pointer.clone);
        if (pointer.locked)
            pointer.Unlock();
        if (pointer.frame != nullptr)
            Release(pointer.frame, finished);
    }
    ExFreePoolWithTag(&pointer, kTagStream);
    FinishAll(finished);
}

NTSTATUS FrameQueue::SetStatus(StreamPointer &pointer, NTSTATUS status) {
    SpinLockGuard guard(lock_);
    if (!pointer.locked)
        Violation("KsInvalidStreamPointer", "KsStreamPointerSetStatusCode", "the stream pointer is not locked");
    StreamRequest &request = *pointer.frame->request;
    if (NT_SUCCESS(request.status))
        request.status = status;
    return STATUS_SUCCESS;
}

// The next frame behind `frame` that is still wanted.
Frame *FrameQueue::NextFrame(Frame *frame) {
    for (LIST_ENTRY *link = frame->link.Flink; link != &frames_; link = link->Flink) {
        auto *next = Owner<&Frame::link>(link);
        if (!next->request->cancelled)
            return next;
    }
    return nullptr;
}

void FrameQueue::MoveOn(StreamPointer &pointer, LIST_ENTRY &finished) {
    Frame *left = pointer.frame;
    if (left == nullptr)
        return;
    pointer.frame = NextFrame(left);
    if (pointer.isClone) {
        if (pointer.frame != nullptr)
            ++pointer.frame->references;
        Release(left, finished);
    } else {
        left->passed = true;
        SettleIfUnused(left, finished);
    }
}

void FrameQueue::Release(Frame *frame, LIST_ENTRY &finished) {
    --frame->references;
    SettleIfUnused(frame, finished);
}

void FrameQueue::SettleIfUnused(Frame *frame, LIST_ENTRY &finished) {
    StreamRequest &request = *frame->request;
    if (frame->done || frame->references != 0 || !(frame->passed || request.cancelled))
        return;
    frame->done = true;
    RemoveEntryList(&frame->link);
    if (--request.framesLeft != 0)
        return;
    // A cancel routine that is about to run completes the request itself.
    if (IoSetCancelRoutine(request.irp, nullptr) == nullptr && !request.cancelCame)
        return;
    RemoveEntryList(&request.link);
    InsertTailList(&finished, &request.link);
}

// Frames that nobody refers to are done; the others, and with them the request, when their last reference goes.
void FrameQueue::CancelRequest(StreamRequest &request, LIST_ENTRY &finished) {
    if (request.framesLeft == 0 || request.cancelled)
        return;
    request.cancelled = true;
    if (NT_SUCCESS(request.status))
        request.status = STATUS_CANCELLED;
    if (leading_.frame != nullptr && leading_.frame->request == &request && !leading_.locked)
        leading_.frame = NextFrame(leading_.frame);
    for (ULONG i = 0; i < request.frameCount; ++i)
        SettleIfUnused(&request.frames[i], finished);
}

void NTAPI FrameQueue::CancelRoutine(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto *request = static_cast<StreamRequest *>(irp->Tail.Overlay.DriverContext[kRequestSlot]);
    FrameQueue &queue = *request->queue;
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard guard(queue.lock_);
        request->cancelCame = true;
        if (request->framesLeft == 0) { // finished while this routine was on its way
            RemoveEntryList(&request->link);
            InsertTailList(&finished, &request->link);
        } else {
            queue.CancelRequest(*request, finished);
        }
    }
    FinishAll(finished);
}

} // namespace host::streaming
