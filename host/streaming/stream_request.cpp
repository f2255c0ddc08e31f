// Stream requests: the caller's headers copied and its buffers locked, and all of it given back.
#include "host/streaming/frame_queue.h"
#include "host/streaming/object.h"
#include "host/streaming/property.h"
#include "platform/guarded_call.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

constexpr ULONG kHeaderAlignment = 8;

struct LockCall {
    PMDL mdl;
    KPROCESSOR_MODE mode;
};

// Locks the caller's memory for writing and maps it for the system; null with a status when it is not what it said.
NTSTATUS LockCaller(PIRP irp, PVOID address, ULONG size, PMDL *locked, PVOID *mapped) {
    PMDL mdl = IoAllocateMdl(address, size, FALSE, FALSE, nullptr);
    if (mdl == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    LockCall call{.mdl = mdl, .mode = irp->RequestorMode};
    NTSTATUS status = GuardedCall(
        [](void *context) {
            const auto &what = *static_cast<LockCall *>(context);
            MmProbeAndLockPages(what.mdl, what.mode, IoWriteAccess);
        },
        &call);
    if (!NT_SUCCESS(status)) {
        IoFreeMdl(mdl);
        return status;
    }
    *mapped = MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
    if (*mapped == nullptr) {
        MmUnlockPages(mdl);
        IoFreeMdl(mdl);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *locked = mdl;
    return STATUS_SUCCESS;
}

void UnlockCaller(PMDL mdl) {
    if (mdl == nullptr)
        return;
    MmUnlockPages(mdl);
    IoFreeMdl(mdl);
}

// Walks the headers: each at least a KSSTREAM_HEADER, a multiple of 8 in size, together exactly the buffer. `visit` is
// called with each header.
template <class Visit> NTSTATUS WalkHeaders(UCHAR *headers, ULONG size, Visit visit) {
    ULONG offset = 0;
    while (offset < size) {
        if (size - offset < sizeof(KSSTREAM_HEADER))
            return STATUS_INVALID_BUFFER_SIZE;
        auto *header = reinterpret_cast<KSSTREAM_HEADER *>(headers + offset);
        if (header->Size < sizeof(KSSTREAM_HEADER) || header->Size > size - offset ||
            header->Size % kHeaderAlignment != 0)
            return STATUS_INVALID_BUFFER_SIZE;
        NTSTATUS status = visit(*header);
        if (!NT_SUCCESS(status))
            return status;
        offset += header->Size;
    }
    return STATUS_SUCCESS;
}

NTSTATUS AddFrame(StreamRequest &request, KSSTREAM_HEADER &header) {
    Frame &frame = request.frames[request.frameCount];
    frame.request = &request;
    frame.header = &header;
    frame.callerData = header.Data;
    if (header.Data != nullptr && header.FrameExtent != 0) {
        NTSTATUS status = LockCaller(request.irp, header.Data, header.FrameExtent, &frame.mdl, &header.Data);
        if (!NT_SUCCESS(status))
            return status;
    } else {
        header.Data = nullptr; // no address of the caller's reaches the driver
    }
    ++request.frameCount;
    ++request.framesLeft;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS BuildStreamRequest(PIRP irp, StreamRequest **built) {
    ULONG size = OutputLength(irp);
    if (size < sizeof(KSSTREAM_HEADER))
        return STATUS_INVALID_BUFFER_SIZE;
    SIZE_T mostFrames = size / sizeof(KSSTREAM_HEADER);
    SIZE_T headersAt = sizeof(StreamRequest) + mostFrames * sizeof(Frame);
    auto *request = static_cast<StreamRequest *>(PoolAllocateZeroed(NonPagedPool, headersAt + size, kTagStream));
    if (request == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    request->irp = irp;
    request->headers = reinterpret_cast<UCHAR *>(request) + headersAt;
    request->headersSize = size;

    NTSTATUS status = CopyFromCaller(irp, request->headers, irp->UserBuffer, size);
    // The answer is written at whatever level the last frame is released.
    PVOID mapped = nullptr;
    if (NT_SUCCESS(status))
        status = LockCaller(irp, irp->UserBuffer, size, &request->callerHeaders, &mapped);
    if (NT_SUCCESS(status)) {
        status =
            WalkHeaders(request->headers, size, [&](KSSTREAM_HEADER &header) { return AddFrame(*request, header); });
    }
    if (!NT_SUCCESS(status)) {
        FreeStreamRequest(request);
        return status;
    }
    *built = request;
    return STATUS_SUCCESS;
}

void FreeStreamRequest(StreamRequest *request) {
    for (ULONG i = 0; i < request->frameCount; ++i)
        UnlockCaller(request->frames[i].mdl);
    UnlockCaller(request->callerHeaders);
    ExFreePoolWithTag(request, kTagStream);
}

void FinishStreamRequest(StreamRequest *request) {
    PIRP irp = request->irp;
    NTSTATUS status = request->status;
    irp->IoStatus.Information = 0;
    if (!NT_ERROR(status)) {
        for (ULONG i = 0; i < request->frameCount; ++i)
            request->frames[i].header->Data = request->frames[i].callerData;
        RtlCopyMemory(MmGetSystemAddressForMdlSafe(request->callerHeaders, NormalPagePriority), request->headers,
                      request->headersSize);
        irp->IoStatus.Information = request->headersSize;
    }
    FreeStreamRequest(request);
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_VIDEO_INCREMENT);
}

} // namespace host::streaming
