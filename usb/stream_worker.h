// The stream worker: a system thread that converts received images into output frames outside the completion path.
#pragma once

#include "platform/pool.h"
#include "usb/frame_sink.h"

namespace uvc {

class UvcCamera;

inline constexpr ULONG kWorkerNodeCount = 15;
inline constexpr LONG kWorkerQueueLimit = 1; // a frame is refused when more than this many wait or run

struct WorkerNode {
    LIST_ENTRY link;
    UvcCamera *camera;
    void *source; // PoolBuffer in collecting mode, else BulkTransfer
    const UCHAR *data;
    ULONG length;
    FrameRecord frame;
};

struct StreamWorker {
    void (*callback)(UvcCamera &camera, WorkerNode &node);
    UvcCamera *context;
    LIST_ENTRY workList;
    KSPIN_LOCK workLock;
    KEVENT event; // notification, cleared by the thread
    LONG stop;    // atomic
    HANDLE thread;
    LIST_ENTRY freeList;
    KSPIN_LOCK freeLock;
    LONG queued; // atomic
    PoolPointer<WorkerNode, pool_tag::Array> nodes;
    ULONG nodeCount;
};

// Lists, locks and event; no thread yet. IRQL: PASSIVE_LEVEL.
void WorkerInitialise(StreamWorker &worker, UvcCamera &camera);

// Nodes and thread; does nothing outside worker mode. STATUS_INSUFFICIENT_RESOURCES without memory, else the status of
// the thread's creation. IRQL: PASSIVE_LEVEL. Lock: stream mutex held.
NTSTATUS WorkerCreate(UvcCamera &camera);

// Ends the thread after it has delivered what was queued, hands back what is left, frees the nodes.
// IRQL: PASSIVE_LEVEL. Lock: stream mutex held.
void WorkerDestroy(UvcCamera &camera);

// Queues one image with an output frame. STATUS_CANCELLED when two frames wait or run already,
// STATUS_INSUFFICIENT_RESOURCES without a node, an output frame, or when stopping: the source then stays the caller's,
// and the capture side has been told that the image is lost.
// IRQL: DISPATCH_LEVEL. Lock: frame lock held.
NTSTATUS WorkerQueue(UvcCamera &camera, void *source, const UCHAR *data, ULONG length);

// Hands a source back to where it came from: pool buffer to the pool, transfer to the engine. IRQL: <= DISPATCH_LEVEL.
void WorkerRelease(UvcCamera &camera, void *source);

} // namespace uvc
