// Stream pointers as the driver uses them. IRQL of all exports: DISPATCH_LEVEL.
#include "host/streaming/frame_queue.h"
#include "host/streaming/object.h"
#include "host/streaming/pin.h"
#include "platform/lock.h"

namespace host::streaming {

namespace {

// Every stream pointer there is. A handful live at a time, so a search is cheap and finds use after deletion for sure.
KSPIN_LOCK liveLock;
LIST_ENTRY livePointers{.Flink = &livePointers, .Blink = &livePointers};

} // namespace

StreamPointer *StreamPointer::From(PKSSTREAM_POINTER pointer, const char *routine) {
    RequireLevel(routine, DISPATCH_LEVEL);
    SpinLockGuard guard(liveLock);
    for (LIST_ENTRY *link = livePointers.Flink; link != &livePointers; link = link->Flink) {
        auto *known = Owner<&StreamPointer::live>(link);
        if (known == pointer)
            return known;
    }
    Violation("KsInvalidStreamPointer", routine, "the stream pointer is deleted or never was one");
}

void StreamPointer::Register() {
    SpinLockGuard guard(liveLock);
    InsertTailList(&livePointers, &live);
}

void StreamPointer::Unregister() {
    SpinLockGuard guard(liveLock);
    RemoveEntryList(&live);
}

void StreamPointer::Lock() {
    locked = true;
    ++frame->references;
    StreamHeader = frame->header;
    OffsetOut = {.Data = static_cast<PUCHAR>(frame->header->Data),
                 .Count = frame->header->FrameExtent,
                 .Remaining = frame->header->FrameExtent};
    Offset = &OffsetOut;
}

// The header is out of reach until the next lock. Whether the frame is done now is for the caller to settle.
void StreamPointer::Unlock() {
    locked = false;
    --frame->references;
    StreamHeader = nullptr;
    OffsetOut = {};
}

} // namespace host::streaming

using namespace host::streaming;

extern "C" PKSSTREAM_POINTER NTAPI KsPinGetLeadingEdgeStreamPointer(PKSPIN pin, KSSTREAM_POINTER_STATE state) {
    RequireLevel("KsPinGetLeadingEdgeStreamPointer", DISPATCH_LEVEL);
    return FromPublic<Pin>(pin, "KsPinGetLeadingEdgeStreamPointer")->queue.GetLeadingEdge(state);
}

extern "C" NTSTATUS NTAPI KsStreamPointerLock(PKSSTREAM_POINTER streamPointer) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerLock");
    return pointer->queue->LockPointer(*pointer);
}

extern "C" void NTAPI KsStreamPointerUnlock(PKSSTREAM_POINTER streamPointer, BOOLEAN eject) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerUnlock");
    pointer->queue->UnlockPointer(*pointer, eject != FALSE);
}

extern "C" NTSTATUS NTAPI KsStreamPointerAdvance(PKSSTREAM_POINTER streamPointer) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerAdvance");
    return pointer->queue->Advance(*pointer);
}

extern "C" NTSTATUS NTAPI KsStreamPointerClone(PKSSTREAM_POINTER streamPointer, PFNKSSTREAMPOINTER cancelCallback,
                                               ULONG contextSize, PKSSTREAM_POINTER *clone) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerClone");
    if (cancelCallback != nullptr)
        NotModelled("KsStreamPointerClone", "cancel callbacks of clones");
    return pointer->queue->Clone(*pointer, contextSize, clone);
}

extern "C" void NTAPI KsStreamPointerDelete(PKSSTREAM_POINTER streamPointer) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerDelete");
    pointer->queue->Delete(*pointer);
}

extern "C" NTSTATUS NTAPI KsStreamPointerSetStatusCode(PKSSTREAM_POINTER streamPointer, NTSTATUS status) {
    StreamPointer *pointer = StreamPointer::From(streamPointer, "KsStreamPointerSetStatusCode");
    return pointer->queue->SetStatus(*pointer, status);
}
