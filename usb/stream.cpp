#include "usb/stream.h"

#include "camera/uvc_camera.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "usb/frame_assembly.h"

namespace uvc {

namespace {

constexpr ULONG kNt60 = 0x06000000;
// What one transfer may carry where the bus driver does not tell the pipe's limit.
constexpr ULONG kUntoldTransferLimit = 0x310000;

// What has been cut off is not continued by the frame that comes after it.
void ForgetPartialFrame(StreamState &stream) {
    SpinLockGuard guard(stream.frameLock);
    SharedStore(stream.lastFid, kFidUnknown);
    stream.interval = {};
    FramePoolRewind(stream.pool);
    if (stream.currentFrame.frame != nullptr)
        *stream.currentFrame.bytesUsed = 0;
}

// Gives the application's frame back that was being filled: nobody could cancel it.
void ReleaseCurrentFrame(UvcCamera &camera) {
    SpinLockGuard guard(camera.stream.frameLock);
    camera.DropFrame(camera.stream.currentFrame, true);
}

// Bus drivers before NT 6.0 do not tell the limit, and newer ones leave the field 0 or as the driver has filled it.
ULONG TransferLimit(const USBD_PIPE_INFORMATION &pipe) {
    const bool told = pipe.MaximumTransferSize != 0 && pipe.MaximumTransferSize != USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
    return told && RtlIsNtDdiVersionAvailable(kNt60) ? pipe.MaximumTransferSize : kUntoldTransferLimit;
}

// A payload larger than a transfer can be comes in several transfers, of which only the first has a header.
void ChooseTransferSize(UvcCamera &camera, const USBD_PIPE_INFORMATION &pipe) {
    StreamState &stream = camera.stream;
    stream.transferSize = camera.TransferSize();
    const ULONG limit = TransferLimit(pipe);
    stream.largePayloads = stream.transferSize > limit;
    if (stream.largePayloads)
        stream.transferSize = limit;
}

void ChooseAssembly(StreamState &stream) {
    if (stream.largePayloads)
        stream.collecting = true;
    else if (stream.workerMode)
        stream.collecting = stream.transferSize < stream.sensor.bmiHeader.biSizeImage;
    // Without a worker the setting stays as it was; left on, it costs a pool that nobody fills.
}

NTSTATUS Prepare(UvcCamera &camera, const KS_VIDEOINFOHEADER &format, USBD_PIPE_INFORMATION *pipe) {
    StreamState &stream = camera.stream;
    NTSTATUS status = UvcNegotiateStream(camera, format);
    if (!NT_SUCCESS(status))
        return status;
    ChooseTransferSize(camera, *pipe);
    ChooseAssembly(stream);
    stream.engine = BulkEngineCreate(camera, camera.link->lowerDevice, camera.workItemDevice, pipe, OnBulkPayload,
                                     SharedLoad(camera.parameters.zeroBuffers));
    return stream.engine != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS StartEngine(UvcCamera &camera) {
    StreamState &stream = camera.stream;
    FrameRateRestart(stream.rate, SharedLoad(stream.delivered));
    InterlockedExchange(&stream.stopping, 0);
    return BulkEngineStart(*stream.engine, stream.transferSize, SharedLoad(camera.parameters.transferCount));
}

// Ends the transfers. The status of the abort says nothing that matters: when this returns none is left.
void StopEngine(StreamState &stream) {
    InterlockedExchange(&stream.stopping, 1);
    static_cast<void>(BulkEngineStop(*stream.engine));
    ForgetPartialFrame(stream);
}

NTSTATUS Launch(UvcCamera &camera) {
    StreamState &stream = camera.stream;
    SharedStore(stream.dropped, 0u);
    SharedStore(stream.delivered, 0u);
    SharedStore(stream.noBuffer, 0u);
    ForgetPartialFrame(stream);
    NTSTATUS status = STATUS_SUCCESS;
    if (stream.collecting)
        status = FramePoolCreate(stream.pool, stream.sensor.bmiHeader.biSizeImage);
    if (NT_SUCCESS(status))
        status = camera.CreateWorker();
    if (NT_SUCCESS(status))
        status = StartEngine(camera);
    return status;
}

// Everything that Prepare and Launch have made, as far as they came. First the transfers, so that nothing more arrives,
// then the frame being filled, then the worker with what it holds.
void TearDown(UvcCamera &camera) {
    StreamState &stream = camera.stream;
    if (stream.engine != nullptr) {
        StopEngine(stream);
        BulkEngineDestroy(std::exchange(stream.engine, nullptr));
    }
    ReleaseCurrentFrame(camera);
    WorkerDestroy(camera);
    FramePoolDestroy(stream.pool);
    stream.streaming = false;
    camera.ResetStreamState();
}

} // namespace

void StreamInitialise(UvcCamera &camera) {
    StreamState &stream = camera.stream;
    KeInitializeMutex(&stream.mutex, 0);
    KeInitializeSpinLock(&stream.frameLock);
    FrameRateInitialise(stream.rate);
    FramePoolInitialise(stream.pool);
    WorkerInitialise(stream.worker, camera);
}

NTSTATUS StreamStart(UvcCamera &camera, const KS_VIDEOINFOHEADER &format) {
    USBD_PIPE_INFORMATION *pipe = camera.link != nullptr ? camera.link->StreamingPipe() : nullptr;
    if (pipe == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    StreamState &stream = camera.stream;
    MutexGuard guard(stream.mutex);
    if (stream.streaming) // a second start would lose the first one's engine, pool and thread
        TearDown(camera);
    NTSTATUS status = Prepare(camera, format, pipe);
    if (!NT_SUCCESS(status))
        return status;
    status = Launch(camera);
    if (NT_SUCCESS(status))
        stream.streaming = true;
    else
        TearDown(camera);
    return status;
}

NTSTATUS StreamPause(UvcCamera &camera, bool pause) {
    StreamState &stream = camera.stream;
    MutexGuard guard(stream.mutex);
    if (!stream.streaming)
        return STATUS_SUCCESS;
    if (!pause)
        return StartEngine(camera);
    StopEngine(stream);
    ReleaseCurrentFrame(camera);
    return STATUS_SUCCESS;
}

bool StreamIsUp(UvcCamera &camera) {
    MutexGuard guard(camera.stream.mutex);
    return camera.stream.streaming;
}

NTSTATUS StreamStop(UvcCamera &camera) {
    MutexGuard guard(camera.stream.mutex);
    if (camera.stream.streaming)
        TearDown(camera);
    return STATUS_SUCCESS;
}

} // namespace uvc
