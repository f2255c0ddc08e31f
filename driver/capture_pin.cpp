#include "driver/capture_pin.h"

#include "camera/uvc_camera.h"
#include "driver/pin_format.h"
#include "driver/uvc_device.h"
#include "platform/lock.h"
#include "platform/pool.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr ULONG kFramesPerPin = 3;
constexpr ULONG kFlipMessageLevel = 81;

void FreeCapturePin(void *context) {
    ExFreePool(context);
}

// Gives the pin a descriptor and an allocator framing of its own, sized to its format.
NTSTATUS EditFraming(KSPIN *pin, ULONG imageSize) {
    NTSTATUS status = _KsEdit(pin->Bag, reinterpret_cast<PVOID *>(const_cast<KSPIN_DESCRIPTOR_EX **>(&pin->Descriptor)),
                              sizeof(KSPIN_DESCRIPTOR_EX), sizeof(KSPIN_DESCRIPTOR_EX), pool_tag::PinFormat);
    if (!NT_SUCCESS(status))
        return status;
    auto *descriptor = const_cast<KSPIN_DESCRIPTOR_EX *>(pin->Descriptor);
    status = _KsEdit(pin->Bag,
                     reinterpret_cast<PVOID *>(const_cast<KSALLOCATOR_FRAMING_EX **>(&descriptor->AllocatorFraming)),
                     sizeof(KSALLOCATOR_FRAMING_EX), sizeof(KSALLOCATOR_FRAMING_EX), pool_tag::PinFormat);
    if (!NT_SUCCESS(status))
        return status;
    KS_FRAMING_ITEM &item = const_cast<KSALLOCATOR_FRAMING_EX *>(descriptor->AllocatorFraming)->FramingItem[0];
    const KS_FRAMING_RANGE exactly{.MinFrameSize = imageSize, .MaxFrameSize = imageSize, .Stepping = 0};
    item.Frames = kFramesPerPin;
    item.PhysicalRange = exactly;
    item.FramingRange.Range = exactly;
    return status;
}

} // namespace

CapturePin::CapturePin(KSPIN *ksPin)
    : pin(ksPin), device(UvcDevice::From(KsPinGetDevice(ksPin))), runState(RunState::Idle), clock(nullptr),
      format(nullptr), attemptProcessing(FALSE), acquired(FALSE), droppedFrames(0), frames(0) {
    KeInitializeSpinLock(&countersLock);
}

NTSTATUS CreateCapturePin(PKSPIN pin, PIRP) {
    void *block = PoolAllocateZeroed(NonPagedPool, sizeof(CapturePin), pool_tag::Context);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *context = new (PlaceInPool{block}) CapturePin(pin);
    NTSTATUS status = KsAddItemToObjectBag(pin->Bag, context, FreeCapturePin);
    if (!NT_SUCCESS(status)) {
        FreeCapturePin(context);
        return status;
    }
    pin->Context = context;

    const KS_VIDEOINFOHEADER *format = context->SetPinFormat();
    if (format == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    return EditFraming(pin, format->bmiHeader.biSizeImage);
}

// Frames move only through AcquireFrame and CompleteFrame.
NTSTATUS ProcessCapturePin(PKSPIN) {
    return STATUS_PENDING;
}

NTSTATUS SetCapturePinState(PKSPIN pin, KSSTATE to, KSSTATE from) {
    return CapturePin::From(pin)->SetState(to, from);
}

struct CapturePin::TransitionTable {
    static constexpr Transition rows[4][4] = {
        // from STOP             ACQUIRE               PAUSE                RUN                     to
        {&CapturePin::Release, &CapturePin::Release, &CapturePin::Release, &CapturePin::Release}, // STOP
        {&CapturePin::Claim, &CapturePin::Stay, &CapturePin::Stop, &CapturePin::Stay},            // ACQUIRE
        {&CapturePin::Stay, &CapturePin::Stay, &CapturePin::Stay, &CapturePin::Pause},            // PAUSE
        {&CapturePin::Stay, &CapturePin::Stay, &CapturePin::Run, &CapturePin::Stay},              // RUN
    };
    static_assert(KSSTATE_STOP == 0 && KSSTATE_ACQUIRE == 1 && KSSTATE_PAUSE == 2 && KSSTATE_RUN == 3);
};

NTSTATUS CapturePin::SetState(KSSTATE to, KSSTATE from) {
    if (to < KSSTATE_STOP || to > KSSTATE_RUN || from < KSSTATE_STOP || from > KSSTATE_RUN)
        return STATUS_INVALID_PARAMETER;
    return (this->*TransitionTable::rows[to][from])();
}

NTSTATUS CapturePin::Stay() {
    return STATUS_SUCCESS;
}

NTSTATUS CapturePin::Claim() {
    if (InterlockedCompareExchange(&device->pinClaim, 1, 0) != 0) {
        acquired = FALSE;
        return STATUS_SHARING_VIOLATION;
    }
    {
        SpinLockGuard guard(countersLock);
        droppedFrames = frames = 0;
    }
    {
        SpinLockGuard guard(device->pinLock);
        device->pin = this;
        device->format = format;
        acquired = TRUE;
    }
    if (!NT_SUCCESS(KsPinGetReferenceClockInterface(pin, &clock)))
        clock = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS CapturePin::Stop() {
    if (CameraUse camera(*device); runState != RunState::Idle && camera)
        static_cast<void>(StreamStop(*camera)); // cannot fail
    runState = RunState::Idle;
    return STATUS_SUCCESS;
}

NTSTATUS CapturePin::Release() {
    static_cast<void>(Stop());
    if (acquired) {
        if (clock != nullptr)
            clock->Release();
        clock = nullptr;
        {
            SpinLockGuard guard(device->pinLock);
            device->format = nullptr;
            device->pin = nullptr;
            acquired = FALSE;
        }
        InterlockedExchange(&device->pinClaim, 0);
    }
    return STATUS_SUCCESS;
}

NTSTATUS CapturePin::Pause() {
    CameraUse camera(*device);
    if (!camera) // lost in a restart that failed
        return STATUS_DEVICE_NOT_CONNECTED;
    NTSTATUS status = StreamPause(*camera, true);
    if (NT_SUCCESS(status))
        runState = RunState::Paused;
    return status;
}

NTSTATUS CapturePin::Run() {
    CameraUse camera(*device);
    if (!camera)
        return STATUS_DEVICE_NOT_CONNECTED;
    // What this pin has paused may have ended since: a restart builds a camera that streams nothing.
    const bool resume = runState == RunState::Paused && StreamIsUp(*camera);
    NTSTATUS status = resume ? StreamPause(*camera, false) : StreamStart(*camera, *device->format);
    if (NT_SUCCESS(status))
        runState = RunState::Running;
    return status;
}

KSSTREAM_POINTER *CapturePin::AcquireFrame() {
    KSSTREAM_POINTER *edge = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
    if (edge == nullptr)
        return nullptr;

    bool locked = true; // until an advance finds no further frame
    while (locked && (edge->StreamHeader == nullptr || edge->StreamHeader->Data == nullptr))
        locked = NT_SUCCESS(KsStreamPointerAdvance(edge));

    KSSTREAM_POINTER *clone = nullptr;
    if (locked) {
        if (!NT_SUCCESS(KsStreamPointerClone(edge, nullptr, 0, &clone)))
            clone = nullptr;
        if (clone != nullptr) // an empty queue behind this frame is no failure
            locked = NT_SUCCESS(KsStreamPointerAdvance(edge));
    }
    if (locked)
        KsStreamPointerUnlock(edge, FALSE);
    return clone;
}

void CapturePin::CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) {
    const Counters counters = Count(frame == nullptr); // a dropped interval advances the picture number too
    if (frame != nullptr) {
        if (NT_SUCCESS(status))
            Stamp(frame, counters);
        else
            static_cast<void>(KsStreamPointerSetStatusCode(frame, status));
        KsStreamPointerDelete(frame);
    }
    if (attemptProcessing) {
        attemptProcessing = TRUE;
        KsPinAttemptProcessing(pin, TRUE);
    }
}

CapturePin::Counters CapturePin::Count(bool dropped) {
    SpinLockGuard guard(countersLock);
    droppedFrames += dropped ? 1 : 0;
    return {.frames = ++frames, .dropped = droppedFrames};
}

// The time is that of completion, not of exposure or of the USB transfer.
void CapturePin::Stamp(KSSTREAM_POINTER *frame, const Counters &counters) {
    KSSTREAM_HEADER *header = frame->StreamHeader;
    if (header->Size >= sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO)) {
        auto *info = reinterpret_cast<KS_FRAME_INFO *>(header + 1);
        info->dwFrameFlags = 0;
        info->PictureNumber = static_cast<LONGLONG>(counters.frames);
        info->DropCount = static_cast<LONGLONG>(counters.dropped);
    }
    header->DataUsed = frame->OffsetOut.Count;
    header->Duration = ReadPublished(format)->AvgTimePerFrame;
    header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;
    header->PresentationTime.Numerator = 1;
    header->PresentationTime.Denominator = 1;
    header->PresentationTime.Time = 0;
    header->OptionsFlags &= ~static_cast<ULONG>(KSSTREAM_HEADER_OPTIONSF_TIMEVALID);
    if (clock != nullptr) {
        LONGLONG systemTime = 0;
        header->PresentationTime.Time = clock->GetCorrelatedTime(&systemTime);
        header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
    }
}

KS_VIDEOINFOHEADER *CapturePin::SetPinFormat() {
    const auto &info = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER *>(pin->ConnectionFormat)->VideoInfoHeader;
    const ULONG size = info.bmiHeader.biSize + kInfoBeforeBitmap;
    auto *copy = static_cast<KS_VIDEOINFOHEADER *>(PoolAllocateZeroed(NonPagedPool, size, pool_tag::PinFormat));
    if (copy == nullptr)
        return nullptr;
    if (!NT_SUCCESS(KsAddItemToObjectBag(pin->Bag, copy, nullptr))) {
        ExFreePool(copy);
        return nullptr;
    }
    RtlCopyMemory(copy, &info, size);
    Publish(format, copy);
    // A later start of this pin's stream begins with the new orientation. A pin that does not hold the camera has no
    // say in the stream of the one that does.
    if (acquired) {
        device->format = copy;
        TurnStreamOver(copy->bmiHeader.biHeight);
    }
    return copy;
}

void CapturePin::TurnStreamOver(LONG height) {
    CameraUse camera(*device);
    if (!camera)
        return;
    StreamState &stream = (*camera).stream;
    MutexGuard guard(stream.mutex);
    if (stream.streaming) {
        SharedStore(stream.output.bmiHeader.biHeight, height);
        DbgPrintEx(1, kFlipMessageLevel, "[uvc_drv] Recognized flip of image \n");
    }
}

NTSTATUS GetPinProperty(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    KSPIN *pin = KsGetPinFromIrp(irp);
    if (pin == nullptr)
        return STATUS_INVALID_PARAMETER;
    KsControlGuard guard(pin);
    const IO_STACK_LOCATION *stack = IoGetCurrentIrpStackLocation(irp);
    PropertyRequest request{.irp = irp,
                            .property = property,
                            .data = data,
                            .inputLength = stack->Parameters.DeviceIoControl.InputBufferLength,
                            .outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength};
    NTSTATUS status = CapturePin::From(pin)->HandlePinProperty(request, STATUS_NOT_IMPLEMENTED);
    irp->IoStatus.Information = request.information;
    return status;
}

NTSTATUS CapturePin::HandlePinProperty(PropertyRequest &request, NTSTATUS defaultStatus) {
    if (!IsEqualGUID(request.property->Set, PROPSETID_VIDCAP_DROPPEDFRAMES) ||
        request.property->Id != KSPROPERTY_DROPPEDFRAMES_CURRENT)
        return defaultStatus;
    if (IsSupportQuery(request))
        return AnswerSupport(request, KSPROPERTY_TYPE_GET);
    auto *answer = IsGet(request) ? StartAnswer<KSPROPERTY_DROPPEDFRAMES_CURRENT_S>(request) : nullptr;
    if (answer == nullptr)
        return defaultStatus;
    {
        SpinLockGuard guard(countersLock);
        answer->PictureNumber = static_cast<LONGLONG>(frames);
        answer->DropCount = static_cast<LONGLONG>(droppedFrames);
    }
    const KS_VIDEOINFOHEADER *current = ReadPublished(format);
    answer->AverageFrameSize = acquired && current != nullptr ? current->bmiHeader.biSizeImage : 0;
    return STATUS_SUCCESS;
}

} // namespace uvc
