#include "host/streaming/pin.h"

#include "host/streaming/rules.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

constexpr KSIDENTIFIER kStreamingInterface{.Set = kInterfaceSetStandard, .Id = KSINTERFACE_STANDARD_STREAMING};
constexpr KSIDENTIFIER kAnyDevice{.Set = kMediumSetStandard, .Id = KSMEDIUM_STANDARD_DEVIO};

bool SameIdentifier(const KSIDENTIFIER &one, const KSIDENTIFIER &other) {
    return SameGuid(one.Set, other.Set) && one.Id == other.Id;
}

// An empty list stands for the standard one.
bool Offers(ULONG count, const KSIDENTIFIER *offered, const KSIDENTIFIER &standard, const KSIDENTIFIER &wanted) {
    if (count == 0)
        return SameIdentifier(standard, wanted);
    for (ULONG i = 0; i < count; ++i) {
        if (SameIdentifier(offered[i], wanted))
            return true;
    }
    return false;
}

// A connection request as it stands in a file name, moved to where it is aligned.
struct ConnectRequest {
    KSPIN_CONNECT connect;
    const UCHAR *format;
    SIZE_T formatRoom;
    KSDATAFORMAT head;
};

NTSTATUS ParseConnect(std::span<const UCHAR> parameters, ConnectRequest &request) {
    if (parameters.size() < sizeof(KSPIN_CONNECT) + sizeof(KSDATAFORMAT))
        return STATUS_INVALID_BUFFER_SIZE;
    RtlCopyMemory(&request.connect, parameters.data(), sizeof(KSPIN_CONNECT));
    request.format = parameters.data() + sizeof(KSPIN_CONNECT);
    request.formatRoom = parameters.size() - sizeof(KSPIN_CONNECT);
    RtlCopyMemory(&request.head, request.format, sizeof(KSDATAFORMAT));
    if (request.head.FormatSize < sizeof(KSDATAFORMAT) || request.head.FormatSize > request.formatRoom)
        return STATUS_INVALID_BUFFER_SIZE;
    return STATUS_SUCCESS;
}

NTSTATUS CheckConnect(const Filter &filter, const ConnectRequest &request) {
    const KSPIN_CONNECT &connect = request.connect;
    if (connect.PinId >= filter.Descriptor->PinDescriptorsCount)
        return STATUS_INVALID_PARAMETER;
    const KSPIN_DESCRIPTOR_EX &descriptor = *PinDescriptor(*filter.Descriptor, connect.PinId);
    const KSPIN_DESCRIPTOR &pin = descriptor.PinDescriptor;
    if (!Offers(pin.InterfacesCount, pin.Interfaces, kStreamingInterface, connect.Interface) ||
        !Offers(pin.MediumsCount, pin.Mediums, kAnyDevice, connect.Medium))
        return STATUS_NO_MATCH;
    if (descriptor.InstancesPossible != KSINSTANCE_INDETERMINATE &&
        filter.PinInstances(connect.PinId) >= descriptor.InstancesPossible)
        return STATUS_CONNECTION_REFUSED;
    // A pin that opens another one is the source of the connection; applications connect to the sink.
    if (connect.PinToHandle != nullptr)
        return STATUS_CONNECTION_REFUSED;
    return STATUS_SUCCESS;
}

Pin *NewPin(Filter &filter, const KSPIN_CONNECT &connect) {
    PVOID block = PoolAllocateZeroed(NonPagedPool, sizeof(Pin), kTagObject);
    if (block == nullptr)
        return nullptr;
    auto *pin = new (PlaceInPool{block}) Pin{};
    pin->Object::Initialise(ObjectKind::Pin, &filter, filter.device);
    pin->filter = &filter;
    pin->bag.Initialise(&filter.control);
    pin->processing.Initialise("KsProcessingMutex");
    pin->state = KSSTATE_STOP;
    KeInitializeSpinLock(&pin->workLock);
    KeInitializeEvent(&pin->workIdle, NotificationEvent, TRUE);

    const KSPIN_DESCRIPTOR_EX *descriptor = PinDescriptor(*filter.Descriptor, connect.PinId);
    pin->Descriptor = descriptor;
    pin->Context = filter.Context;
    pin->Bag = pin->bag.Public();
    pin->Id = connect.PinId;
    pin->Communication = KSPIN_COMMUNICATION_SINK; // of requests: the application sends them
    pin->ConnectionIsExternal = TRUE;
    pin->ConnectionInterface = connect.Interface;
    pin->ConnectionMedium = connect.Medium;
    pin->ConnectionPriority = connect.Priority;
    pin->DataFlow = descriptor->PinDescriptor.DataFlow;
    pin->DeviceState = pin->ClientState = KSSTATE_STOP;
    pin->ResetState = KSRESET_END;
    return pin;
}

void FreePin(Pin *pin) {
    pin->bag.Empty();
    pin->queue.Destroy();
    if (pin->workItem != nullptr)
        IoFreeWorkItem(pin->workItem);
    if (pin->ConnectionFormat != nullptr)
        ExFreePoolWithTag(pin->ConnectionFormat, kTagFormat);
    ExFreePoolWithTag(pin, kTagObject);
}

NTSTATUS Create(Pin &pin, PIRP irp, const KSDATAFORMAT &format) {
    const KSPIN_DISPATCH *dispatch = pin.Descriptor->Dispatch;
    if (dispatch != nullptr && dispatch->Process != nullptr) {
        pin.workItem = IoAllocateWorkItem(pin.device->FunctionalDeviceObject);
        if (pin.workItem == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The format is agreed upon before the driver's create routine runs: an old format of null in the set-format
    // routine means just that. KSPIN::Context is the filter's still.
    NTSTATUS status = pin.SetFormat(format);
    if (NT_SUCCESS(status) && dispatch != nullptr && dispatch->Create != nullptr) {
        status = CallDriver(CallbackKind::Pin, "pin create", irp, dispatch->Create, static_cast<PKSPIN>(&pin), irp);
    }
    return status;
}

} // namespace

NTSTATUS Pin::Open(Filter &filter, PIRP irp, std::span<const UCHAR> parameters) {
    ConnectRequest request;
    NTSTATUS status = ParseConnect(parameters, request);
    if (!NT_SUCCESS(status))
        return status;
    auto *format = static_cast<KSDATAFORMAT *>(PoolAllocateZeroed(NonPagedPool, request.head.FormatSize, kTagFormat));
    if (format == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(format, request.format, request.head.FormatSize);

    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    {
        MutexHold hold(filter.control, "pin create");
        status = CheckConnect(filter, request);
        if (NT_SUCCESS(status)) {
            Pin *pin = NewPin(filter, request.connect);
            status = STATUS_INSUFFICIENT_RESOURCES;
            if (pin != nullptr) {
                pin->queue.Initialise(pin);
                status = Create(*pin, irp, *format);
                if (NT_SUCCESS(status)) {
                    pin->filterFile = file->RelatedFileObject;
                    ObReferenceObject(pin->filterFile);
                    InsertTailList(&filter.pins, &pin->link);
                    file->FsContext = static_cast<Object *>(pin);
                } else {
                    FreePin(pin);
                }
            }
        }
    }
    ExFreePoolWithTag(format, kTagFormat);
    return status;
}

void Pin::Cleanup() {
    MutexHold hold(filter->control, "pin cleanup");
    Stop();
    SetMasterClock(nullptr);
}

void Pin::Close(PIRP irp) {
    KeWaitForSingleObject(&workIdle, Executive, KernelMode, FALSE, nullptr);
    PFILE_OBJECT keptOpen = filterFile;
    {
        MutexHold hold(filter->control, "pin close");
        const KSPIN_DISPATCH *dispatch = Descriptor->Dispatch;
        if (dispatch != nullptr && dispatch->Close != nullptr)
            CallDriver(CallbackKind::Pin, "pin close", irp, dispatch->Close, static_cast<PKSPIN>(this), irp);
        queue.RequireNoPointers("pin close");
        RemoveEntryList(&link);
        FreePin(this);
    }
    ObDereferenceObject(keptOpen); // may close the filter: no lock of it is held
}

NTSTATUS Pin::ReadStream(PIRP irp) {
    if (device->gone)
        return STATUS_DEVICE_NOT_CONNECTED;
    if (DataFlow != KSPIN_DATAFLOW_OUT)
        return STATUS_INVALID_DEVICE_REQUEST;
    // The request may be completed, and with it its hold on the file gone, as soon as it is in the queue.
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    ObReferenceObject(file);
    bool arrived = false;
    NTSTATUS status = queue.Insert(irp, arrived);
    if (status == STATUS_PENDING && arrived)
        AttemptProcessing(false);
    ObDereferenceObject(file);
    return status;
}

} // namespace host::streaming
