#include "usb/frame_assembly.h"

#include "camera/uvc_camera.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "usb/payload_header.h"

#include <algorithm>

namespace uvc {

namespace {

bool DiscardsIncomplete(const UvcCamera &camera) {
    return SharedLoad(camera.parameters.discardIncomplete);
}

ULONG FrameSize(const UvcCamera &camera) {
    return camera.stream.sensor.bmiHeader.biSizeImage;
}

bool IsFull(const FrameRecord &record) {
    return *record.bytesUsed >= record.size;
}

using Interval = FrameInterval::State;

// Tells the capture side that the interval in progress brings it nothing, unless it has heard of that already.
void LoseInterval(UvcCamera &camera) {
    FrameInterval &interval = camera.stream.interval;
    FrameRecord none;
    if (interval.state == Interval::Open)
        camera.DropFrame(none, false);
    else if (interval.state == Interval::Starved)
        camera.sink->CompleteFrame(nullptr, STATUS_SUCCESS); // counted when the frame was asked for
    interval.state = Interval::Settled;
}

void EndInterval(UvcCamera &camera) {
    if (camera.stream.interval.state != Interval::None)
        LoseInterval(camera);
    camera.stream.interval = {};
}

// Queues an image to the worker, which tells the capture side when it does not take it.
NTSTATUS QueueImage(UvcCamera &camera, void *source, const UCHAR *data, ULONG length) {
    NTSTATUS status = WorkerQueue(camera, source, data, length);
    camera.stream.interval.state = Interval::Settled;
    return status;
}

// Queues a collected image to the worker. STATUS_CANCELLED for an image that is short or that the worker has no room
// for, STATUS_INSUFFICIENT_RESOURCES for other failures; the buffer is then back in the pool.
NTSTATUS QueueCollected(UvcCamera &camera, PoolBuffer &buffer, bool discard) {
    NTSTATUS status = STATUS_CANCELLED;
    if (!discard || buffer.fill >= FrameSize(camera))
        status = QueueImage(camera, &buffer, buffer.data, buffer.fill);
    else
        LoseInterval(camera);
    if (NT_SUCCESS(status))
        return status;
    FramePoolPut(camera.stream.pool, &buffer);
    return status == STATUS_CANCELLED ? status : STATUS_INSUFFICIENT_RESOURCES;
}

// Ends the current output frame; one that is dropped keeps its buffer, which is filled anew.
void EndOutputFrame(UvcCamera &camera, bool deliver) {
    StreamState &stream = camera.stream;
    if (deliver)
        camera.CompleteFrame(stream.currentFrame);
    else
        camera.DropFrame(stream.currentFrame, false);
    stream.interval.state = Interval::Settled;
}

// The three ways of assembly. `end` comes in as the payload's end of frame and goes out as whether the frame has ended:
// what the next payload is expected to begin.

NTSTATUS AssembleDirect(UvcCamera &camera, const Payload &payload, bool &end) {
    FrameRecord &record = camera.stream.currentFrame;
    if (record.frame == nullptr)
        camera.GetOutputFrame(record);
    if (record.frame == nullptr) {
        if (camera.stream.interval.state == Interval::Open)
            camera.stream.interval.state = Interval::Starved;
        return STATUS_SUCCESS;
    }
    const ULONG room = record.size - *record.bytesUsed;
    const ULONG taken = static_cast<ULONG>(std::min<SIZE_T>(room, payload.data.size()));
    RtlCopyMemory(record.data + *record.bytesUsed, payload.data.data(), taken);
    *record.bytesUsed += taken;

    const bool full = IsFull(record);
    if (!full && !end)
        return STATUS_SUCCESS;
    // A full frame without an end is dropped whatever the setting: its end has not been seen.
    EndOutputFrame(camera, full ? end : !DiscardsIncomplete(camera));
    end = true;
    return STATUS_SUCCESS;
}

NTSTATUS AssembleCollected(UvcCamera &camera, const Payload &payload, bool &end) {
    StreamState &stream = camera.stream;
    // The bytes of a frame that ends short must not stay: the next frame, which brings the expected FID, would continue
    // them, and every later frame would be shifted.
    const bool discard = DiscardsIncomplete(camera); // read once: an application may change it at any time
    const bool force = end && !discard;
    PoolBuffer *buffer = nullptr;
    const NTSTATUS status =
        FramePoolAppend(stream.pool, payload.data.data(), static_cast<ULONG>(payload.data.size()), force, buffer);
    if (buffer == nullptr) {
        if (end)
            FramePoolRewind(stream.pool);
        return status == STATUS_MORE_PROCESSING_REQUIRED ? STATUS_SUCCESS : status;
    }
    end = true;
    if (buffer->fill != 0)
        return QueueCollected(camera, *buffer, discard);
    FramePoolPut(stream.pool, buffer); // an end without data, behind a complete frame
    return STATUS_SUCCESS;
}

NTSTATUS AssembleWholeTransfer(UvcCamera &camera, BulkTransfer &transfer, const Payload &payload, bool &end) {
    end = true;
    const auto length = static_cast<ULONG>(payload.data.size());
    if (DiscardsIncomplete(camera) && length < FrameSize(camera)) {
        LoseInterval(camera); // now: the payload that follows may be long in coming
        return STATUS_CANCELLED;
    }
    NTSTATUS status = QueueImage(camera, &transfer, payload.data.data(), length);
    return NT_SUCCESS(status) ? STATUS_MORE_PROCESSING_REQUIRED : status;
}

// A payload of the next frame has come without an end of the one before. False when the payload is to be ignored.
bool EndFrameByFid(UvcCamera &camera) {
    StreamState &stream = camera.stream;
    if (stream.workerMode) {
        FramePoolRewind(stream.pool);
        return true;
    }
    const FrameRecord &record = stream.currentFrame;
    if (record.frame == nullptr || *record.bytesUsed == 0)
        return false;
    EndOutputFrame(camera, IsFull(record) || !DiscardsIncomplete(camera));
    return true;
}

NTSTATUS Assemble(UvcCamera &camera, BulkTransfer &transfer, const Payload &payload) {
    StreamState &stream = camera.stream;
    bool end = payload.endOfFrame;
    const NTSTATUS status = !stream.workerMode  ? AssembleDirect(camera, payload, end)
                            : stream.collecting ? AssembleCollected(camera, payload, end)
                                                : AssembleWholeTransfer(camera, transfer, payload, end);
    if (end)
        SharedStore(stream.lastFid, static_cast<UCHAR>(payload.fid ^ 1));
    return status;
}

// The last FID says which frame is to be assembled, the interval which one the camera is sending: a frame that is not
// assembled has an interval all the same, and is lost. Payloads without data belong to no frame until one has begun.
NTSTATUS ProcessPayload(UvcCamera &camera, BulkTransfer &transfer, const Payload &payload) {
    StreamState &stream = camera.stream;
    if (stream.lastFid == kFidUnknown)
        SharedStore(stream.lastFid, payload.fid);
    const bool wanted = payload.fid == stream.lastFid || EndFrameByFid(camera);
    if (payload.fid != stream.interval.fid)
        EndInterval(camera);
    if (stream.interval.state == Interval::None && !payload.data.empty())
        stream.interval = {.state = Interval::Open, .fid = payload.fid};

    NTSTATUS status = STATUS_SUCCESS;
    if (wanted) {
        SharedStore(stream.lastFid, payload.fid);
        status = Assemble(camera, transfer, payload);
    } // otherwise the last FID stays: the frame that it announced may still come
    if (payload.endOfFrame)
        EndInterval(camera);
    return status;
}

// One payload spans several transfers: a header begins it, and the first piece without a header ends the frame. The FID
// is not followed. Image data that look like a header spoil the frame, but begin no further one: behind a transfer
// that is filled to the last byte comes the rest of its payload.
void ProcessPiece(UvcCamera &camera, std::span<const std::uint8_t> bytes) {
    FramePool &pool = camera.stream.pool;
    FrameInterval &interval = camera.stream.interval;
    const Payload payload = ParsePayload(bytes);
    if (payload.valid) {
        FramePoolRewind(pool);
        bytes = payload.data;
        if (!interval.goesOn)
            EndInterval(camera);
    } else if (!FramePoolIsFilling(pool)) {
        return;
    }
    if (interval.state == Interval::None && !bytes.empty())
        interval.state = Interval::Open;
    PoolBuffer *buffer = nullptr;
    static_cast<void>(FramePoolAppend(pool, bytes.data(), static_cast<ULONG>(bytes.size()), !payload.valid, buffer));
    if (buffer != nullptr)
        static_cast<void>(
            QueueCollected(camera, *buffer, DiscardsIncomplete(camera))); // a refused frame costs no transfer here
}

} // namespace

NTSTATUS OnBulkPayload(BulkStreamEngine &, BulkTransfer &transfer, UvcCamera &camera, const UCHAR *buffer,
                       ULONG length) {
    constexpr ULONG kShortestHeader = 2;
    if (buffer == nullptr || length < kShortestHeader)
        return STATUS_SUCCESS;
    StreamState &stream = camera.stream;
    SpinLockGuard guard(stream.frameLock);
    if (SharedLoad(stream.stopping) != 0)
        return STATUS_CANCELLED;
    if (stream.largePayloads) {
        ProcessPiece(camera, {buffer, length});
        stream.interval.goesOn = length == transfer.size;
        return STATUS_SUCCESS;
    }
    const Payload payload = ParsePayload({buffer, length});
    if (!payload.valid)
        return STATUS_SUCCESS;
    const NTSTATUS status = ProcessPayload(camera, transfer, payload);
    const bool concernsTransfer = status == STATUS_MORE_PROCESSING_REQUIRED || status == STATUS_CANCELLED;
    return concernsTransfer ? status : STATUS_SUCCESS;
}

void GetOutputFrame(UvcCamera &camera, FrameRecord &record) {
    record = {};
    KSSTREAM_POINTER *frame = camera.sink->AcquireFrame();
    if (frame == nullptr) {
        SharedAdd(camera.stream.noBuffer, 1u);
        return;
    }
    KSSTREAM_HEADER &header = *frame->StreamHeader;
    record = {.frame = frame,
              .data = static_cast<UCHAR *>(header.Data),
              .size = header.FrameExtent,
              .bytesUsed = &header.DataUsed};
    *record.bytesUsed = 0; // applications queue headers with anything in there
    if (SharedLoad(camera.parameters.zeroBuffers))
        RtlZeroMemory(record.data, record.size);
}

void CompleteOutputFrame(UvcCamera &camera, FrameRecord &record) {
    StreamState &stream = camera.stream;
    if (record.frame != nullptr) {
        camera.DrawStatistics(record);
        *record.bytesUsed = record.size; // always the full size, also of a frame that came short
        camera.sink->CompleteFrame(record.frame, STATUS_SUCCESS);
        SharedAdd(stream.delivered, 1u);
    }
    record = {};
    if (SharedLoad(camera.parameters.measureFrameRate) && SharedLoad(camera.parameters.statisticsOverlay))
        FrameRateUpdate(stream.rate, SharedLoad(stream.delivered));
}

void DropOutputFrame(UvcCamera &camera, FrameRecord &record, bool release) {
    if (release) {
        if (record.frame == nullptr)
            return; // nothing was lost
        camera.sink->CompleteFrame(record.frame, STATUS_CANCELLED);
        record = {};
    } else {
        camera.sink->CompleteFrame(nullptr, STATUS_SUCCESS); // the interval counts as lost, the buffer is filled anew
        if (record.bytesUsed != nullptr)
            *record.bytesUsed = 0;
    }
    SharedAdd(camera.stream.dropped, 1u);
}

} // namespace uvc
