#include "usb/frame_pool.h"

#include "platform/list.h"
#include "platform/lock.h"

#include <algorithm>

namespace uvc {

namespace {

constexpr ULONG kBufferCount = 4;
constexpr SIZE_T kDataOffset = 4096; // of the image in its allocation
static_assert(sizeof(PoolBuffer) <= kDataOffset);

using PoolBufferPointer = PoolPointer<PoolBuffer, pool_tag::Array>;

PoolBuffer *TakeFree(FramePool &pool) {
    if (IsListEmpty(&pool.freeList))
        return nullptr;
    return RecordOf<PoolBuffer>(RemoveHeadList(&pool.freeList));
}

NTSTATUS AddBuffer(FramePool &pool, ULONG frameSize) {
    PoolBufferPointer buffer(
        static_cast<PoolBuffer *>(PoolAllocateZeroed(NonPagedPool, kDataOffset + frameSize, pool_tag::Array)));
    if (!buffer)
        return STATUS_NO_MEMORY;
    buffer->data = reinterpret_cast<UCHAR *>(buffer.Get()) + kDataOffset;
    buffer->capacity = frameSize;
    if (!NT_SUCCESS(pool.buffers.Append(buffer.Get())))
        return STATUS_NO_MEMORY;
    InsertHeadList(&pool.freeList, &buffer.Release()->link);
    return STATUS_SUCCESS;
}

} // namespace

void FramePoolInitialise(FramePool &pool) {
    KeInitializeSpinLock(&pool.lock);
    InitializeListHead(&pool.freeList);
    pool.current = nullptr;
}

NTSTATUS FramePoolCreate(FramePool &pool, ULONG frameSize) {
    InitializeListHead(&pool.freeList);
    NTSTATUS status = NT_SUCCESS(pool.buffers.Reserve(kBufferCount)) ? STATUS_SUCCESS : STATUS_NO_MEMORY;
    for (ULONG i = 0; i < kBufferCount && NT_SUCCESS(status); ++i)
        status = AddBuffer(pool, frameSize);
    if (!NT_SUCCESS(status))
        FramePoolDestroy(pool);
    return status;
}

NTSTATUS FramePoolAppend(FramePool &pool, const UCHAR *data, ULONG length, bool force, PoolBuffer *&out) {
    out = nullptr;
    SpinLockGuard guard(pool.lock);
    if (pool.current == nullptr)
        pool.current = TakeFree(pool);
    if (pool.current == nullptr)
        return STATUS_NOT_FOUND;
    PoolBuffer &buffer = *pool.current;
    const ULONG taken = std::min(buffer.capacity - buffer.fill, length);
    RtlCopyMemory(buffer.data + buffer.fill, data, taken);
    buffer.fill += taken;
    const bool full = buffer.fill >= buffer.capacity;
    if (full || force)
        out = std::exchange(pool.current, nullptr);
    return full ? STATUS_SUCCESS : STATUS_MORE_PROCESSING_REQUIRED;
}

bool FramePoolIsFilling(FramePool &pool) {
    SpinLockGuard guard(pool.lock);
    return pool.current != nullptr;
}

ULONG FramePoolRewind(FramePool &pool) {
    SpinLockGuard guard(pool.lock);
    return pool.current != nullptr ? std::exchange(pool.current->fill, 0) : 0;
}

void FramePoolPut(FramePool &pool, PoolBuffer *buffer) {
    SpinLockGuard guard(pool.lock);
    buffer->fill = 0;
    InsertHeadList(&pool.freeList, &buffer->link);
}

void FramePoolDestroy(FramePool &pool) {
    SpinLockGuard guard(pool.lock);
    pool.current = nullptr;
    InitializeListHead(&pool.freeList);
    for (PoolBuffer *buffer : pool.buffers)
        PoolBufferPointer owner(buffer); // freed here
    pool.buffers.Clear();
}

} // namespace uvc
