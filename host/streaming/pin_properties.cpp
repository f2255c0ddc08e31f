// The properties that every pin has: its state, its format, its framing, its master clock.
#include "host/streaming/clock.h"
#include "host/streaming/pin.h"
#include "host/streaming/property.h"

namespace host::streaming {

namespace {

constexpr const char *kRoutine = "pin property";

Pin &PinOf(PIRP irp) {
    return *static_cast<Pin *>(Object::FromIrp(irp));
}

NTSTATUS GetState(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Pin &pin = PinOf(irp);
    MutexHold hold(pin.filter->control, kRoutine);
    *static_cast<KSSTATE *>(data) = pin.DeviceState;
    irp->IoStatus.Information = sizeof(KSSTATE);
    return STATUS_SUCCESS;
}

NTSTATUS SetState(PIRP irp, PKSIDENTIFIER, PVOID data) {
    ULONG target = *static_cast<ULONG *>(data);
    if (target > KSSTATE_RUN)
        return STATUS_INVALID_PARAMETER;
    Pin &pin = PinOf(irp);
    MutexHold hold(pin.filter->control, kRoutine);
    return pin.SetState(static_cast<KSSTATE>(target));
}

NTSTATUS GetFormat(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Pin &pin = PinOf(irp);
    MutexHold hold(pin.filter->control, kRoutine);
    return AnswerBytes(irp, data, pin.ConnectionFormat, pin.ConnectionFormat->FormatSize);
}

NTSTATUS SetFormat(PIRP irp, PKSIDENTIFIER, PVOID data) {
    ULONG size = OutputLength(irp);
    const auto *format = static_cast<const KSDATAFORMAT *>(data);
    if (size < sizeof(KSDATAFORMAT) || format->FormatSize < sizeof(KSDATAFORMAT) || format->FormatSize > size)
        return STATUS_INVALID_BUFFER_SIZE;
    Pin &pin = PinOf(irp);
    MutexHold hold(pin.filter->control, kRoutine);
    return pin.SetFormat(*format);
}

NTSTATUS GetFraming(PIRP irp, PKSIDENTIFIER, PVOID data) {
    Pin &pin = PinOf(irp);
    MutexHold hold(pin.filter->control, kRoutine);
    const KSALLOCATOR_FRAMING_EX *framing = pin.Descriptor->AllocatorFraming;
    if (framing == nullptr)
        return STATUS_NOT_FOUND;
    return AnswerBytes(irp, data, framing,
                       FIELD_OFFSET(KSALLOCATOR_FRAMING_EX, FramingItem) +
                           static_cast<SIZE_T>(framing->CountItems) * sizeof(KS_FRAMING_ITEM));
}

// The data is the handle of a clock, or null to have none.
NTSTATUS SetMasterClock(PIRP irp, PKSIDENTIFIER, PVOID data) {
    HANDLE handle = *static_cast<HANDLE *>(data);
    Pin &pin = PinOf(irp);
    if (handle == nullptr) {
        MutexHold hold(pin.filter->control, kRoutine);
        return pin.SetMasterClock(nullptr);
    }
    PVOID object = nullptr;
    // The headers declare the exported type with one star too many.
    NTSTATUS status = ObReferenceObjectByHandle(handle, SYNCHRONIZE, reinterpret_cast<POBJECT_TYPE>(IoFileObjectType),
                                                irp->RequestorMode, &object, nullptr);
    if (!NT_SUCCESS(status))
        return status;
    auto *file = static_cast<PFILE_OBJECT>(object);
    status = STATUS_INVALID_PARAMETER;
    if (Clock *clock = Clock::FromFile(file); clock != nullptr) {
        MutexHold hold(pin.filter->control, kRoutine);
        status = pin.SetMasterClock(clock);
    }
    ObDereferenceObject(file);
    return status;
}

const KSPROPERTY_ITEM kConnectionItems[] = {
    DEFINE_KSPROPERTY_ITEM_CONNECTION_STATE(GetState, SetState),
    DEFINE_KSPROPERTY_ITEM_CONNECTION_DATAFORMAT(GetFormat, SetFormat),
    DEFINE_KSPROPERTY_ITEM_CONNECTION_ALLOCATORFRAMING_EX(GetFraming),
};

const KSPROPERTY_ITEM kStreamItems[] = {
    DEFINE_KSPROPERTY_ITEM_STREAM_MASTERCLOCK(nullptr, SetMasterClock),
};

const KSPROPERTY_SET kPinSets[] = {
    DEFINE_KSPROPERTY_SET(&kPropSetConnection, SIZEOF_ARRAY(kConnectionItems), kConnectionItems, 0, nullptr),
    DEFINE_KSPROPERTY_SET(&kPropSetStream, SIZEOF_ARRAY(kStreamItems), kStreamItems, 0, nullptr),
};

} // namespace

NTSTATUS PinProperty(Pin &pin, PIRP irp) {
    const PropertyTable tables[] = {DriverTable(pin.Descriptor->AutomationTable, CallbackKind::Pin),
                                    OwnTable(kPinSets)};
    return AnswerProperty(irp, tables);
}

} // namespace host::streaming
