#include "tests/host/streaming/test_driver.h"

#include <cstring>
#include <mutex>
#include <utility>

namespace streaming_test {

namespace {

constexpr ULONG kTag = 'tseT';
constexpr GUID kTypeVideo = MakeGuid(STATIC_KSDATAFORMAT_TYPE_VIDEO);
constexpr GUID kSpecifierVideoInfo = MakeGuid(STATIC_KSDATAFORMAT_SPECIFIER_VIDEOINFO);
constexpr GUID kCategories[] = {MakeGuid(STATIC_KSCATEGORY_VIDEO), MakeGuid(STATIC_KSCATEGORY_CAPTURE)};
constexpr GUID kCaptureName = MakeGuid(STATIC_PINNAME_VIDEO_CAPTURE);
constexpr GUID kTypeGeneral = MakeGuid(STATIC_KSPROPTYPESETID_General);

Hooks *hooks = nullptr;
std::vector<std::string> *callLog = nullptr;
std::mutex logMutex;

void Note(std::string what) {
    std::lock_guard lock(logMutex);
    callLog->push_back(std::move(what));
}

// Frames come from a thread, as from a camera: one every interval, into whatever the application has queued.
struct PinContext {
    PKSPIN pin;
    PIKSREFERENCECLOCK clock;
    KEVENT stop;
    PVOID thread;
    LONGLONG pictures;
    LONGLONG drops;
};

void Deliver(PinContext &context) {
    ++context.pictures;
    PKSSTREAM_POINTER edge = KsPinGetLeadingEdgeStreamPointer(context.pin, KSSTREAM_POINTER_STATE_LOCKED);
    if (edge == nullptr) {
        ++context.drops;
        return;
    }
    PKSSTREAM_POINTER frame = nullptr;
    NTSTATUS status = KsStreamPointerClone(edge, nullptr, 0, &frame);
    if (!NT_SUCCESS(status)) {
        KsStreamPointerUnlock(edge, FALSE);
        return;
    }
    if (NT_SUCCESS(KsStreamPointerAdvance(edge))) // otherwise the lock is lost
        KsStreamPointerUnlock(edge, FALSE);
    std::memset(frame->OffsetOut.Data, static_cast<int>(context.pictures), frame->OffsetOut.Count);
    KSSTREAM_HEADER &header = *frame->StreamHeader;
    header.DataUsed = frame->OffsetOut.Count;
    header.Duration = kFrameInterval;
    header.OptionsFlags = KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;
    if (context.clock != nullptr) {
        LONGLONG systemTime;
        header.PresentationTime.Time = context.clock->GetCorrelatedTime(&systemTime);
        header.OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_TIMEVALID;
    }
    if (header.Size >= sizeof(KSSTREAM_HEADER) + sizeof(KS_FRAME_INFO)) {
        auto *info = reinterpret_cast<KS_FRAME_INFO *>(&header + 1);
        info->PictureNumber = context.pictures;
        info->DropCount = context.drops;
    }
    KsStreamPointerDelete(frame);
}

void NTAPI Produce(PVOID given) {
    auto &context = *static_cast<PinContext *>(given);
    LARGE_INTEGER interval;
    interval.QuadPart = -kFrameInterval;
    while (KeWaitForSingleObject(&context.stop, Executive, KernelMode, FALSE, &interval) == STATUS_TIMEOUT)
        Deliver(context);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS StartThread(PinContext &context) {
    HANDLE handle = nullptr;
    KeClearEvent(&context.stop);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status =
        PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, Produce, &context);
    if (!NT_SUCCESS(status))
        return status;
    ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &context.thread, nullptr);
    return ZwClose(handle);
}

void StopThread(PinContext &context) {
    if (context.thread == nullptr)
        return;
    KeSetEvent(&context.stop, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(context.thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(context.thread);
    context.thread = nullptr;
}

NTSTATUS PinCreate(PKSPIN pin, PIRP irp) {
    Note("pin create");
    if (hooks->pinCreate) {
        if (NTSTATUS status = hooks->pinCreate(pin, irp); status != STATUS_SUCCESS)
            return status;
    }
    auto *context = static_cast<PinContext *>(ExAllocatePoolWithTag(NonPagedPool, sizeof(PinContext), kTag));
    if (context == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(context, sizeof(*context));
    KeInitializeEvent(&context->stop, NotificationEvent, FALSE);
    context->pin = pin;
    NTSTATUS status = KsAddItemToObjectBag(pin->Bag, context, nullptr);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(context, kTag);
        return status;
    }
    pin->Context = context;
    status = KsEdit(pin, &pin->Descriptor, kTag);
    if (!NT_SUCCESS(status))
        return status;
    status = KsEdit(pin, &pin->Descriptor->AllocatorFraming, kTag);
    if (NT_SUCCESS(status))
        const_cast<KSALLOCATOR_FRAMING_EX *>(pin->Descriptor->AllocatorFraming)->FramingItem[0].Frames = 5;
    return status;
}

NTSTATUS PinClose(PKSPIN pin, PIRP irp) {
    Note("pin close");
    return hooks->pinClose ? hooks->pinClose(pin, irp) : STATUS_SUCCESS;
}

NTSTATUS PinProcess(PKSPIN pin) {
    Note("process");
    return hooks->process ? hooks->process(pin) : STATUS_PENDING;
}

NTSTATUS PinSetFormat(PKSPIN pin, PKSDATAFORMAT old, PKSMULTIPLE_ITEM, const KSDATARANGE *, const KSATTRIBUTE_LIST *) {
    Note(std::string("format ") + (old == nullptr ? "first" : "change") +
         (pin->Context == KsPinGetParentFilter(pin)->Context ? " with the filter's context" : ""));
    const auto &format = *reinterpret_cast<KS_DATAFORMAT_VIDEOINFOHEADER *>(pin->ConnectionFormat);
    if (format.DataFormat.FormatSize < sizeof(format) || format.VideoInfoHeader.bmiHeader.biWidth != kWidth)
        return STATUS_NO_MATCH;
    return STATUS_SUCCESS;
}

NTSTATUS PinSetState(PKSPIN pin, KSSTATE to, KSSTATE from) {
    Note("state " + std::to_string(from) + ">" + std::to_string(to));
    auto &context = *static_cast<PinContext *>(pin->Context);
    if (hooks->setState) {
        if (NTSTATUS status = hooks->setState(pin, to, from); status != STATUS_SUCCESS)
            return status;
    }
    if (to == KSSTATE_ACQUIRE && from == KSSTATE_STOP &&
        !NT_SUCCESS(KsPinGetReferenceClockInterface(pin, &context.clock)))
        context.clock = nullptr;
    if (to == KSSTATE_STOP && context.clock != nullptr) {
        context.clock->Release();
        context.clock = nullptr;
    }
    if (to == KSSTATE_RUN)
        return StartThread(context);
    StopThread(context);
    return STATUS_SUCCESS;
}

NTSTATUS Intersect(PVOID, PIRP, PKSP_PIN, PKSDATARANGE wanted, PKSDATARANGE offered, ULONG room, PVOID data,
                   PULONG size) {
    if (wanted->FormatSize < sizeof(KS_DATARANGE_VIDEO))
        return STATUS_NO_MATCH;
    *size = sizeof(KS_DATAFORMAT_VIDEOINFOHEADER);
    if (room == 0)
        return STATUS_BUFFER_OVERFLOW;
    if (room < *size)
        return STATUS_BUFFER_TOO_SMALL;
    auto &format = *static_cast<KS_DATAFORMAT_VIDEOINFOHEADER *>(data);
    format.DataFormat = *offered;
    format.DataFormat.FormatSize = *size;
    format.VideoInfoHeader = reinterpret_cast<KS_DATARANGE_VIDEO *>(wanted)->VideoInfoHeader;
    return STATUS_SUCCESS;
}

struct ValueBlock {
    KSPROPERTY property;
    ULONG value;
    ULONG reserved;
};
ULONG storedValue = 0;

NTSTATUS GetValue(PIRP irp, PKSIDENTIFIER, PVOID data) {
    if (hooks->getValue) {
        if (NTSTATUS status = hooks->getValue(irp, data); status != STATUS_SUCCESS)
            return status;
    }
    static_cast<ValueBlock *>(data)->value = storedValue;
    irp->IoStatus.Information = sizeof(ValueBlock);
    return STATUS_SUCCESS;
}

NTSTATUS SetValue(PIRP, PKSIDENTIFIER, PVOID data) {
    storedValue = static_cast<ValueBlock *>(data)->value;
    return STATUS_SUCCESS;
}

NTSTATUS Support(PIRP irp, PKSIDENTIFIER, PVOID data) {
    if (hooks->support)
        return hooks->support(irp);
    if (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength != sizeof(ULONG))
        return STATUS_NOT_FOUND;
    *static_cast<ULONG *>(data) = 0x55;
    irp->IoStatus.Information = sizeof(ULONG);
    return STATUS_SUCCESS;
}

// The property stands behind the data at a multiple of 8, and is a copy.
NTSTATUS GetEcho(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    const auto &control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    auto *system = static_cast<UCHAR *>(irp->AssociatedIrp.SystemBuffer);
    ULONG offset = (control.OutputBufferLength + 7) & ~7u;
    if (data != system || reinterpret_cast<UCHAR *>(property) != system + offset ||
        property == control.Type3InputBuffer)
        return STATUS_DATA_ERROR;
    ULONG extra = control.InputBufferLength - sizeof(KSPROPERTY);
    RtlCopyMemory(data, property + 1, extra);
    irp->IoStatus.Information = extra;
    return STATUS_SUCCESS;
}

constexpr KSPROPERTY_STEPPING_LONG kSteps{.SteppingDelta = 5, .Bounds = {.SignedMinimum = 10, .SignedMaximum = 90}};
constexpr LONG kDefault = 50;
constexpr KSPROPERTY_MEMBERSLIST kMembers[] = {
    {.MembersHeader = {.MembersFlags = KSPROPERTY_MEMBER_STEPPEDRANGES,
                       .MembersSize = sizeof(kSteps),
                       .MembersCount = 1},
     .Members = &kSteps},
    {.MembersHeader = {.MembersFlags = KSPROPERTY_MEMBER_VALUES,
                       .MembersSize = sizeof(kDefault),
                       .MembersCount = 1,
                       .Flags = KSPROPERTY_MEMBER_FLAG_DEFAULT},
     .Members = &kDefault},
};
constexpr KSPROPERTY_VALUES kValues{.PropTypeSet = {.Set = kTypeGeneral, .Id = 3 /* VT_I4 */, .Flags = 0},
                                    .MembersListCount = SIZEOF_ARRAY(kMembers),
                                    .MembersList = kMembers};

constexpr KSPROPERTY kRelation{.Set = kTestSet, .Id = kReadOnly, .Flags = 0};

const KSPROPERTY_ITEM kItems[] = {
    {.PropertyId = kValue,
     .GetPropertyHandler = GetValue,
     .MinProperty = sizeof(ValueBlock),
     .MinData = sizeof(ValueBlock),
     .SetPropertyHandler = SetValue,
     .Values = &kValues,
     .RelationsCount = 1,
     .Relations = &kRelation,
     .SerializedSize = sizeof(ValueBlock)},
    {.PropertyId = kReadOnly, .GetPropertyHandler = GetValue, .MinProperty = sizeof(KSPROPERTY), .MinData = 4},
    {.PropertyId = kNothing, .MinProperty = sizeof(KSPROPERTY)},
    {.PropertyId = kSupported,
     .GetPropertyHandler = GetValue,
     .MinProperty = sizeof(KSPROPERTY),
     .SupportHandler = Support},
    {.PropertyId = kEcho, .GetPropertyHandler = GetEcho, .MinProperty = sizeof(KSPROPERTY)},
};
const KSPROPERTY_SET kSets[] = {
    {.Set = &kTestSet, .PropertiesCount = SIZEOF_ARRAY(kItems), .PropertyItem = kItems},
};
const KSAUTOMATION_TABLE kAutomation{
    .PropertySetsCount = SIZEOF_ARRAY(kSets), .PropertyItemSize = sizeof(KSPROPERTY_ITEM), .PropertySets = kSets};

constexpr KS_DATARANGE_VIDEO MakeRange(const GUID &subFormat, USHORT bits) {
    KS_DATARANGE_VIDEO range{};
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.SampleSize = kFrameSize * bits / 8;
    range.DataRange.MajorFormat = kTypeVideo;
    range.DataRange.SubFormat = subFormat;
    range.DataRange.Specifier = kSpecifierVideoInfo;
    range.VideoInfoHeader.AvgTimePerFrame = kFrameInterval;
    range.VideoInfoHeader.bmiHeader = {.biSize = sizeof(KS_BITMAPINFOHEADER),
                                       .biWidth = kWidth,
                                       .biHeight = kHeight,
                                       .biPlanes = 1,
                                       .biBitCount = bits,
                                       .biCompression = subFormat.Data1,
                                       .biSizeImage = kFrameSize * bits / 8};
    return range;
}
KS_DATARANGE_VIDEO ranges[] = {MakeRange(kSubYuy2, 16), MakeRange(kSubGrey, 8)};
const PKSDATARANGE kRanges[] = {&ranges[0].DataRange, &ranges[1].DataRange};

const KSPIN_DISPATCH kPinDispatch{.Create = PinCreate,
                                  .Close = PinClose,
                                  .Process = PinProcess,
                                  .SetDataFormat = PinSetFormat,
                                  .SetDeviceState = PinSetState};
const KSALLOCATOR_FRAMING_EX kFraming{.CountItems = 1};
const KSPIN_DESCRIPTOR_EX kPins[] = {{
    .Dispatch = &kPinDispatch,
    .PinDescriptor = {.DataRangesCount = SIZEOF_ARRAY(kRanges),
                      .DataRanges = kRanges,
                      .DataFlow = KSPIN_DATAFLOW_OUT,
                      .Communication = KSPIN_COMMUNICATION_BOTH,
                      .Category = &kCaptureName,
                      .Name = &kCaptureName},
    .Flags = KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY,
    .InstancesPossible = 1,
    .InstancesNecessary = 1,
    .AllocatorFraming = &kFraming,
    .IntersectHandler = Intersect,
}};

NTSTATUS FilterCreate(PKSFILTER filter, PIRP irp) {
    Note("filter create");
    if (hooks->filterCreate) {
        if (NTSTATUS status = hooks->filterCreate(filter, irp); status != STATUS_SUCCESS)
            return status;
    }
    PVOID context = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
    if (context == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = KsAddItemToObjectBag(filter->Bag, context, [](PVOID block) {
        Note("filter context freed");
        ExFreePoolWithTag(block, kTag);
    });
    if (!NT_SUCCESS(status))
        ExFreePoolWithTag(context, kTag);
    else
        filter->Context = context;
    return status;
}

const KSFILTER_DISPATCH kFilterDispatch{.Create = FilterCreate};
const KSFILTER_DESCRIPTOR kFilter{.Dispatch = &kFilterDispatch,
                                  .AutomationTable = &kAutomation,
                                  .Version = KSFILTER_DESCRIPTOR_VERSION,
                                  .PinDescriptorsCount = 1,
                                  .PinDescriptorSize = sizeof(KSPIN_DESCRIPTOR_EX),
                                  .PinDescriptors = kPins,
                                  .CategoriesCount = 2,
                                  .Categories = kCategories};

NTSTATUS Add(PKSDEVICE device) {
    return hooks->add ? hooks->add(device) : STATUS_SUCCESS;
}

NTSTATUS Start(PKSDEVICE device, PIRP, PCM_RESOURCE_LIST, PCM_RESOURCE_LIST) {
    Note("start");
    if (hooks->start) {
        if (NTSTATUS status = hooks->start(device); status != STATUS_SUCCESS)
            return status;
    }
    WCHAR reference[] = L"GLOBAL";
    KsAcquireDevice(device);
    NTSTATUS status = KsCreateFilterFactory(device->FunctionalDeviceObject, &kFilter, reference, nullptr,
                                            KSCREATE_ITEM_FREEONSTOP, nullptr, nullptr, nullptr);
    KsReleaseDevice(device);
    return status;
}

void Stop(PKSDEVICE, PIRP) {
    Note("stop");
}

NTSTATUS QueryCapabilities(PKSDEVICE, PIRP, PDEVICE_CAPABILITIES capabilities) {
    Note("capabilities " + std::to_string(capabilities->Address));
    capabilities->SurpriseRemovalOK = TRUE;
    return STATUS_SUCCESS;
}

const KSDEVICE_DISPATCH kDeviceDispatch{
    .Add = Add, .Start = Start, .Stop = Stop, .QueryCapabilities = QueryCapabilities};
const KSDEVICE_DESCRIPTOR kDevice{.Dispatch = &kDeviceDispatch};

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    return KsInitializeDriver(driver, path, &kDevice);
}

// The bus below: agrees to everything and knows the address of its device.
NTSTATUS NTAPI BusPnp(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MinorFunction == IRP_MN_QUERY_CAPABILITIES)
        stack->Parameters.DeviceCapabilities.Capabilities->Address = 7;
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI BusEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_PNP] = BusPnp;
    return STATUS_SUCCESS;
}

} // namespace

Machine::Machine(Hooks given, host::RuntimeOptions options) {
    hooks = new Hooks(std::move(given));
    callLog = new std::vector<std::string>;
    storedValue = 0;
    runtime_ = std::make_unique<host::Runtime>(std::move(options));
    host::LoadDriver(L"testbus", BusEntry, &bus_);
    host::LoadDriver(L"teststream", DriverEntry, &driver_);
    IoCreateDevice(bus_, 0, nullptr, FILE_DEVICE_UNKNOWN, FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &pdo_);
    pdo_->Flags &= ~DO_DEVICE_INITIALIZING;
    host::RegisterPdo(pdo_, L"TEST\\CAMERA\\1");
    startStatus_ = StartStack();
}

NTSTATUS Machine::StartStack() {
    return host::StartDeviceStack(pdo_, driver_);
}

void Machine::TearDown() {
    if (runtime_ == nullptr)
        return;
    host::RemoveDeviceStack(pdo_, false);
    IoDeleteDevice(pdo_);
    host::UnloadDriver(driver_);
    host::UnloadDriver(bus_);
    runtime_.reset();
    delete hooks;
    delete callLog;
    hooks = nullptr;
    callLog = nullptr;
}

std::u16string Machine::Link() {
    std::vector<std::u16string> links;
    host::client::FindCaptureFilters(links);
    return links.empty() ? std::u16string() : links.front();
}

std::vector<std::string> Machine::TakeLog() {
    std::lock_guard lock(logMutex);
    return std::exchange(*callLog, {});
}

KS_DATAFORMAT_VIDEOINFOHEADER GreyFormat() {
    KS_DATAFORMAT_VIDEOINFOHEADER format{};
    format.DataFormat = ranges[1].DataRange;
    format.DataFormat.FormatSize = sizeof(format);
    format.VideoInfoHeader = ranges[1].VideoInfoHeader;
    return format;
}

OpenPin::OpenPin(Machine &machine, const KS_DATAFORMAT_VIDEOINFOHEADER &format) {
    status = filter.Open(machine.Link());
    if (NT_SUCCESS(status))
        status = pin.Open(filter, 0, host::client::BytesOf(format));
}

} // namespace streaming_test
