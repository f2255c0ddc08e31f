#include "usb/stream_worker.h"

#include "camera/uvc_camera.h"
#include "platform/list.h"
#include "platform/lock.h"
#include "platform/shared_field.h"

#include <algorithm>

namespace uvc {

namespace {

// What drivers before NT 6.0 call THREAD_ALL_ACCESS; later systems take it as well.
constexpr ACCESS_MASK kThreadAllAccess = 0x1F03FF;

// Below this there is nothing worth converting.
constexpr LONG kSmallestWidth = 64;
constexpr LONGLONG kSmallestHeight = 48;

// An image that misses no more than this at its end is converted whole, if its buffer reaches that far.
constexpr LONGLONG kToleratedGap = 2;

void PushTail(LIST_ENTRY &list, KSPIN_LOCK &lock, WorkerNode &node) {
    SpinLockGuard guard(lock);
    InsertTailList(&list, &node.link);
}

WorkerNode *PopHead(LIST_ENTRY &list, KSPIN_LOCK &lock) {
    SpinLockGuard guard(lock);
    if (IsListEmpty(&list))
        return nullptr;
    return RecordOf<WorkerNode>(RemoveHeadList(&list));
}

// Takes a node off the list unless somebody else has done so.
bool Unlink(LIST_ENTRY &list, KSPIN_LOCK &lock, WorkerNode &node) {
    SpinLockGuard guard(lock);
    for (LIST_ENTRY *entry = list.Flink; entry != &list; entry = entry->Flink) {
        if (entry == &node.link) {
            RemoveEntryList(entry);
            return true;
        }
    }
    return false;
}

void PutFree(StreamWorker &worker, WorkerNode &node) {
    PushTail(worker.freeList, worker.freeLock, node);
}

WorkerNode *NextWork(StreamWorker &worker) {
    return PopHead(worker.workList, worker.workLock);
}

// How many bytes lie behind the image's first one, received or not.
ULONG RoomAt(const WorkerNode &node) {
    if (node.camera->stream.collecting)
        return static_cast<const PoolBuffer *>(node.source)->capacity;
    const auto *transfer = static_cast<const BulkTransfer *>(node.source);
    return transfer->size - static_cast<ULONG>(node.data - transfer->buffer);
}

imaging::ImageDescriptor SourceOf(const WorkerNode &node) {
    const KS_BITMAPINFOHEADER &sensor = node.camera->stream.sensor.bmiHeader;
    const LONGLONG stride = static_cast<LONGLONG>(sensor.biBitCount) * sensor.biWidth / 8;
    const LONGLONG missing = static_cast<LONGLONG>(sensor.biSizeImage) - node.length;
    LONGLONG height = sensor.biHeight;
    ULONG size = node.length;
    if (missing > kToleratedGap && stride > 0) {
        height -= missing / stride + 1;
    } else if (missing > 0) { // the last row is whole where there is memory for it
        size = std::min(sensor.biSizeImage, RoomAt(node));
        if (size < sensor.biSizeImage)
            --height;
    }
    return {.data = const_cast<UCHAR *>(node.data),
            .size = size,
            .fourcc = sensor.biCompression,
            .width = static_cast<ULONG>(sensor.biWidth),
            .height = static_cast<ULONG>(std::max<LONGLONG>(height, 0)),
            .stride = static_cast<ULONG>(stride)};
}

ULONG Magnitude(LONG value) {
    return value < 0 ? 0u - static_cast<ULONG>(value) : static_cast<ULONG>(value);
}

ULONG OutputFourCc(const KS_BITMAPINFOHEADER &output) {
    if (output.biCompression != 0)
        return output.biCompression;
    switch (output.biBitCount) {
    case 32:
        return imaging::kFourCcRgb32;
    case 24:
        return imaging::kFourCcRgb24;
    default:
        return imaging::kFourCcGrey8;
    }
}

imaging::ImageDescriptor DestinationOf(const WorkerNode &node, const imaging::ImageDescriptor &source,
                                       LONG outputHeight) {
    const KS_BITMAPINFOHEADER &output = node.camera->stream.output.bmiHeader;
    const ULONG width = std::min<ULONG>(source.width, Magnitude(output.biWidth));
    return {.data = node.frame.data,
            .size = node.frame.size,
            .fourcc = OutputFourCc(output),
            .width = width,
            .height = std::min<ULONG>(source.height, Magnitude(outputHeight)),
            .stride = output.biBitCount * width / 8};
}

void Convert(UvcCamera &camera, WorkerNode &node) {
    imaging::ImageDescriptor source = SourceOf(node);
    if (source.height < kSmallestHeight || camera.stream.sensor.bmiHeader.biWidth < kSmallestWidth)
        return;
    // Read once: an application may turn the image over at any time.
    const LONG outputHeight = SharedLoad(camera.stream.output.bmiHeader.biHeight);
    imaging::ImageDescriptor destination = DestinationOf(node, source, outputHeight);
    ULONG flags = (SharedLoad(camera.parameters.processorMask) & imaging::kFeatureMask) << imaging::kFeatureShift;
    if (outputHeight < 0)
        flags |= imaging::kOrientation;
    camera.ConvertFrame(destination, source, flags);
}

void HandleNode(UvcCamera &camera, WorkerNode &node) {
    StreamWorker &worker = camera.stream.worker;
    Convert(camera, node);
    InterlockedDecrement(&worker.queued);
    WorkerRelease(camera, node.source);
    camera.CompleteFrame(node.frame);
    PutFree(worker, node);
}

void WorkerThread(PVOID context) {
    auto &worker = *static_cast<StreamWorker *>(context);
    while (SharedLoad(worker.stop) == 0) {
        KeWaitForSingleObject(&worker.event, Executive, KernelMode, FALSE, nullptr);
        KeClearEvent(&worker.event);
        while (WorkerNode *node = NextWork(worker))
            worker.callback(*worker.context, *node);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

void FreeNodes(StreamWorker &worker) {
    InitializeListHead(&worker.freeList);
    worker.nodes.Reset();
    worker.nodeCount = 0;
}

NTSTATUS MakeNodes(StreamWorker &worker) {
    FreeNodes(worker);
    worker.nodes = PoolPointer<WorkerNode, pool_tag::Array>::AllocateArray(NonPagedPool, kWorkerNodeCount);
    if (!worker.nodes)
        return STATUS_INSUFFICIENT_RESOURCES;
    worker.nodeCount = kWorkerNodeCount;
    for (ULONG i = 0; i < worker.nodeCount; ++i)
        PutFree(worker, worker.nodes[i]);
    return STATUS_SUCCESS;
}

// Waits for the thread, which has been told to stop, and closes its handle.
void JoinThread(StreamWorker &worker) {
    const HANDLE handle = std::exchange(worker.thread, nullptr);
    PVOID thread = nullptr;
    // The headers declare the type as a pointer to the import, which is the type itself.
    auto type = reinterpret_cast<POBJECT_TYPE>(PsThreadType);
    NTSTATUS status = ObReferenceObjectByHandle(handle, SYNCHRONIZE, type, KernelMode, &thread, nullptr);
    KeSetEvent(&worker.event, IO_NO_INCREMENT, FALSE);
    if (NT_SUCCESS(status)) { // always, for a kernel handle of our own
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(thread);
    }
    ZwClose(handle);
}

} // namespace

void WorkerInitialise(StreamWorker &worker, UvcCamera &camera) {
    worker.callback = HandleNode;
    worker.context = &camera;
    InitializeListHead(&worker.workList);
    KeInitializeSpinLock(&worker.workLock);
    KeInitializeEvent(&worker.event, NotificationEvent, FALSE);
    worker.stop = 0;
    worker.thread = nullptr;
    InitializeListHead(&worker.freeList);
    KeInitializeSpinLock(&worker.freeLock);
    worker.queued = 0;
    worker.nodeCount = 0;
}

NTSTATUS WorkerCreate(UvcCamera &camera) {
    StreamWorker &worker = camera.stream.worker;
    if (!camera.stream.workerMode)
        return STATUS_SUCCESS;
    InterlockedExchange(&worker.queued, 0);
    NTSTATUS status = MakeNodes(worker);
    if (!NT_SUCCESS(status))
        return status;
    KeClearEvent(&worker.event);
    InterlockedExchange(&worker.stop, 0);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return PsCreateSystemThread(&worker.thread, kThreadAllAccess, &attributes, nullptr, nullptr, WorkerThread, &worker);
}

void WorkerDestroy(UvcCamera &camera) {
    StreamWorker &worker = camera.stream.worker;
    InterlockedExchange(&worker.stop, 1);
    if (worker.thread != nullptr) {
        JoinThread(worker);
        while (WorkerNode *node = NextWork(worker))
            worker.callback(camera, *node);
    }
    while (WorkerNode *node = NextWork(worker)) {
        WorkerRelease(camera, node->source);
        camera.DropFrame(node->frame, true);
        PutFree(worker, *node);
    }
    FreeNodes(worker);
}

NTSTATUS WorkerQueue(UvcCamera &camera, void *source, const UCHAR *data, ULONG length) {
    StreamWorker &worker = camera.stream.worker;
    FrameRecord frame;
    if (SharedLoad(worker.queued) > kWorkerQueueLimit) {
        camera.DropFrame(frame, false);
        return STATUS_CANCELLED;
    }
    WorkerNode *node = PopHead(worker.freeList, worker.freeLock);
    if (node == nullptr) {
        camera.DropFrame(frame, false);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    camera.GetOutputFrame(frame);
    if (frame.frame == nullptr) {
        PutFree(worker, *node);
        camera.sink->CompleteFrame(nullptr, STATUS_SUCCESS); // counted when the frame was asked for
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    node->camera = &camera;
    node->source = source;
    node->data = data;
    node->length = length;
    node->frame = frame;
    InterlockedIncrement(&worker.queued);
    if (SharedLoad(worker.stop) == 0) {
        PushTail(worker.workList, worker.workLock, *node);
        KeSetEvent(&worker.event, IO_NO_INCREMENT, FALSE);
        // A stop that came meanwhile may be past its last look at the list; whoever has the node by now delivers it.
        if (SharedLoad(worker.stop) == 0 || !Unlink(worker.workList, worker.workLock, *node))
            return STATUS_SUCCESS;
    }
    InterlockedDecrement(&worker.queued);
    camera.DropFrame(node->frame, true);
    PutFree(worker, *node);
    return STATUS_INSUFFICIENT_RESOURCES;
}

void WorkerRelease(UvcCamera &camera, void *source) {
    if (camera.stream.collecting) {
        FramePoolPut(camera.stream.pool, static_cast<PoolBuffer *>(source));
        return;
    }
    auto *transfer = static_cast<BulkTransfer *>(source);
    BulkEngineHandBack(*transfer->engine, *transfer);
}

} // namespace uvc
