// Buffers in which payloads are collected to whole sensor images.
#pragma once

#include "platform/pool.h"

namespace uvc {

// One allocation: this head, then the image 4096 bytes into it.
struct PoolBuffer {
    LIST_ENTRY link;
    UCHAR *data;
    ULONG capacity; // the frame size
    ULONG fill;
};

struct FramePool {
    KSPIN_LOCK lock; // taken inside the camera's frame lock, never the other way round
    LIST_ENTRY freeList;
    PoolBuffer *current; // being filled, or null
    GrowableArray<PoolBuffer *> buffers;
};

void FramePoolInitialise(FramePool &pool);

// Four buffers of `frameSize` bytes. STATUS_NO_MEMORY when one cannot be had; none is then left. IRQL: PASSIVE_LEVEL.
NTSTATUS FramePoolCreate(FramePool &pool, ULONG frameSize);

// Appends to the current buffer. STATUS_SUCCESS with `out` set when the buffer is full or forced out,
// STATUS_MORE_PROCESSING_REQUIRED while it has room (`out` is then set only when forced), STATUS_NOT_FOUND without a
// free buffer. IRQL: <= DISPATCH_LEVEL. Lock: takes the pool lock.
NTSTATUS FramePoolAppend(FramePool &pool, const UCHAR *data, ULONG length, bool force, PoolBuffer *&out);

// Whether a buffer is being filled. IRQL: <= DISPATCH_LEVEL. Lock: takes the pool lock.
bool FramePoolIsFilling(FramePool &pool);

// Forgets what the current buffer holds; returns how many bytes that were. IRQL: <= DISPATCH_LEVEL. Lock: takes the
// pool lock.
ULONG FramePoolRewind(FramePool &pool);

// Gives a buffer back. IRQL: <= DISPATCH_LEVEL. Lock: takes the pool lock.
void FramePoolPut(FramePool &pool, PoolBuffer *buffer);

// Frees every buffer; none may be out. IRQL: PASSIVE_LEVEL. Lock: takes the pool lock.
void FramePoolDestroy(FramePool &pool);

} // namespace uvc
