#include "host/streaming/property.h"

#include "host/streaming/object.h"
#include "platform/guarded_call.h"
#include "platform/pool.h"

#include <algorithm>

namespace host::streaming {

namespace {

constexpr SIZE_T kQuad = 8; // alignment of the property behind the data
constexpr UCHAR kUnwritten = 0xC5;

const KSPROPERTY_ITEM *FindItem(const PropertyTable &table, const KSPROPERTY_SET &set, ULONG id) {
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        const KSPROPERTY_ITEM &item = ItemAt(table, set, i);
        if (item.PropertyId == id)
            return &item;
    }
    return nullptr;
}

// What a handler finds in the request besides its arguments.
void RememberPlace(PIRP irp, const KSPROPERTY_SET &set, const KSPROPERTY_ITEM *item) {
    KSPROPERTY_SET_IRP_STORAGE(irp) = &set;
    KSPROPERTY_ITEM_IRP_STORAGE(irp) = item;
}

NTSTATUS CallHandler(const PropertyTable &table, PFNKSHANDLER handler, PIRP irp, KSPROPERTY &property, PVOID data) {
    if (!table.driver)
        return handler(irp, &property, data);
    NTSTATUS status =
        CallDriver(table.kind, "property handler", irp, handler, irp, static_cast<PKSIDENTIFIER>(&property), data);
    // An empty output is a question for the size; otherwise the I/O manager would copy what lies behind the buffer.
    if (NT_SUCCESS(status) && OutputLength(irp) != 0 && irp->IoStatus.Information > OutputLength(irp))
        Violation("KsCallbackReturn", "property handler", "more information than the output has room for");
    return status;
}

// A support handler's way to leave the request to the tables.
bool LeavesToTables(NTSTATUS status) {
    return status == STATUS_NOT_FOUND || status == STATUS_NOT_IMPLEMENTED || status == STATUS_SOME_NOT_MAPPED;
}

// A support handler comes first; false where there is none or it leaves the request to the tables.
bool AskSupportHandler(const PropertyTable &table, const KSPROPERTY_ITEM &item, PIRP irp, KSPROPERTY &property,
                       PVOID data, NTSTATUS &status) {
    if (item.SupportHandler == nullptr)
        return false;
    status = CallHandler(table, item.SupportHandler, irp, property, data);
    if (!LeavesToTables(status))
        return true;
    irp->IoStatus.Information = 0;
    return false;
}

// The raw format is the handler's own; the tables know nothing of it.
NTSTATUS SerializeRaw(const PropertyTable &table, const KSPROPERTY_ITEM &item, PIRP irp, KSPROPERTY &property,
                      PVOID data) {
    return item.SupportHandler == nullptr ? STATUS_NOT_FOUND
                                          : CallHandler(table, item.SupportHandler, irp, property, data);
}

NTSTATUS AnswerItem(const PropertyTable &table, const KSPROPERTY_ITEM &item, PIRP irp, KSPROPERTY &property,
                    PVOID data) {
    NTSTATUS status;
    switch (property.Flags) {
    case KSPROPERTY_TYPE_GET:
    case KSPROPERTY_TYPE_SET:
        return GetOrSet(table, item, irp, property, data);
    case KSPROPERTY_TYPE_BASICSUPPORT:
        return AskSupportHandler(table, item, irp, property, data, status) ? status
                                                                           : AnswerBasicSupport(irp, data, item);
    case KSPROPERTY_TYPE_DEFAULTVALUES:
        return AnswerDefaultValues(irp, data, item);
    case KSPROPERTY_TYPE_RELATIONS:
        return AnswerList(irp, data, item.Relations, item.RelationsCount, sizeof(KSPROPERTY));
    case KSPROPERTY_TYPE_SERIALIZESIZE:
        return AnswerBytes(irp, data, &item.SerializedSize, sizeof(item.SerializedSize));
    case KSPROPERTY_TYPE_SERIALIZERAW:
    case KSPROPERTY_TYPE_UNSERIALIZERAW:
        return SerializeRaw(table, item, irp, property, data);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

// The requests that concern a set as a whole, whatever their id; false for all others.
bool AnswerSet(const PropertyTable &table, const KSPROPERTY_SET &set, PIRP irp, KSPROPERTY &property, PVOID data,
               NTSTATUS &status) {
    switch (property.Flags) {
    case KSPROPERTY_TYPE_SETSUPPORT: {
        const KSPROPERTY_ITEM *item = FindItem(table, set, property.Id);
        RememberPlace(irp, set, item);
        if (item == nullptr || !AskSupportHandler(table, *item, irp, property, data, status))
            status = STATUS_SUCCESS;
        return true;
    }
    case KSPROPERTY_TYPE_SERIALIZESET:
        status = SerializeSet(table, set, irp, property, data);
        return true;
    case KSPROPERTY_TYPE_UNSERIALIZESET:
        status = UnserializeSet(table, set, irp, property, data);
        return true;
    default:
        return false;
    }
}

NTSTATUS Search(std::span<const PropertyTable> tables, PIRP irp, KSPROPERTY &property, PVOID data) {
    bool setFound = false;
    for (const PropertyTable &table : tables) {
        for (ULONG i = 0; i < table.count; ++i) {
            const KSPROPERTY_SET &set = table.sets[i];
            if (!SameGuid(*set.Set, property.Set))
                continue;
            setFound = true;
            NTSTATUS status;
            if (AnswerSet(table, set, irp, property, data, status))
                return status;
            if (const KSPROPERTY_ITEM *item = FindItem(table, set, property.Id)) {
                RememberPlace(irp, set, item);
                return AnswerItem(table, *item, irp, property, data);
            }
        }
    }
    return setFound ? STATUS_NOT_FOUND : STATUS_PROPSET_NOT_FOUND;
}

// What goes in with the data buffer, and what comes out of it.
bool CarriesDataIn(ULONG flags) {
    return flags == KSPROPERTY_TYPE_SET || flags == KSPROPERTY_TYPE_UNSERIALIZESET ||
           flags == KSPROPERTY_TYPE_UNSERIALIZERAW;
}

struct CallerCopy {
    PVOID to;
    const void *from;
    SIZE_T size;
    PVOID caller; // the end that is the caller's
    bool probe;
};

NTSTATUS RunCopy(CallerCopy copy, GuardedRoutine routine) {
    return copy.size == 0 ? STATUS_SUCCESS : GuardedCall(routine, &copy);
}

} // namespace

const KSPROPERTY_ITEM &ItemAt(const PropertyTable &table, const KSPROPERTY_SET &set, ULONG index) {
    const auto *first = reinterpret_cast<const UCHAR *>(set.PropertyItem);
    return *reinterpret_cast<const KSPROPERTY_ITEM *>(first + static_cast<SIZE_T>(index) * table.itemSize);
}

NTSTATUS GetOrSet(const PropertyTable &table, const KSPROPERTY_ITEM &item, PIRP irp, KSPROPERTY &property, PVOID data) {
    bool get = property.Flags == KSPROPERTY_TYPE_GET;
    PFNKSHANDLER handler = get ? item.GetPropertyHandler : item.SetPropertyHandler;
    if (handler == nullptr)
        return STATUS_NOT_FOUND;
    if (InputLength(irp) < item.MinProperty)
        return STATUS_INVALID_BUFFER_SIZE;
    if (OutputLength(irp) < item.MinData) {
        if (!get || OutputLength(irp) != 0)
            return STATUS_BUFFER_TOO_SMALL;
        irp->IoStatus.Information = item.MinData;
        return STATUS_BUFFER_OVERFLOW;
    }
    return CallHandler(table, handler, irp, property, data);
}

ULONG OutputLength(PIRP irp) {
    return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
}

ULONG InputLength(PIRP irp) {
    return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.InputBufferLength;
}

NTSTATUS CopyFromCaller(PIRP irp, PVOID to, const void *from, SIZE_T size) {
    CallerCopy copy{.to = to,
                    .from = from,
                    .size = size,
                    .caller = const_cast<PVOID>(from),
                    .probe = irp->RequestorMode != KernelMode};
    return RunCopy(copy, [](void *context) {
        const auto &what = *static_cast<CallerCopy *>(context);
        if (what.probe)
            ProbeForRead(what.caller, what.size, 1);
        RtlCopyMemory(what.to, what.from, what.size);
    });
}

NTSTATUS CopyToCaller(PIRP irp, PVOID to, const void *from, SIZE_T size) {
    CallerCopy copy{.to = to, .from = from, .size = size, .caller = to, .probe = irp->RequestorMode != KernelMode};
    return RunCopy(copy, [](void *context) {
        const auto &what = *static_cast<CallerCopy *>(context);
        if (what.probe)
            ProbeForWrite(what.caller, what.size, 1);
        RtlCopyMemory(what.to, what.from, what.size);
    });
}

PropertyTable DriverTable(const KSAUTOMATION_TABLE *table, CallbackKind kind) {
    if (table == nullptr)
        return {};
    return {.count = table->PropertySetsCount,
            .sets = table->PropertySets,
            .itemSize = table->PropertyItemSize,
            .driver = true,
            .kind = kind};
}

NTSTATUS AnswerProperty(PIRP irp, std::span<const PropertyTable> tables) {
    const auto &control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    SIZE_T inputLength = control.InputBufferLength;
    SIZE_T outputLength = control.OutputBufferLength;
    irp->IoStatus.Information = 0;
    if (inputLength < sizeof(KSPROPERTY))
        return STATUS_INVALID_BUFFER_SIZE;

    SIZE_T dataSize = (outputLength + kQuad - 1) & ~(kQuad - 1);
    auto *buffer = static_cast<UCHAR *>(PoolAllocateZeroed(NonPagedPool, dataSize + inputLength, kTagProperty));
    if (buffer == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto &property = *reinterpret_cast<KSPROPERTY *>(buffer + dataSize);
    NTSTATUS status = CopyFromCaller(irp, &property, control.Type3InputBuffer, inputLength);
    bool in = CarriesDataIn(property.Flags);
    if (!in)
        std::fill_n(buffer, outputLength, kUnwritten); // whoever answers less than it says tells what lay there
    if (NT_SUCCESS(status) && in)
        status = CopyFromCaller(irp, buffer, irp->UserBuffer, outputLength);
    if (NT_SUCCESS(status)) {
        irp->AssociatedIrp.SystemBuffer = buffer;
        status = Search(tables, irp, property, outputLength == 0 ? nullptr : buffer);
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    // Warnings carry data, errors do not; what went in does not come back.
    if (!NT_ERROR(status) && !in) {
        SIZE_T answered = std::min<SIZE_T>(irp->IoStatus.Information, outputLength);
        NTSTATUS copied = CopyToCaller(irp, irp->UserBuffer, buffer, answered);
        if (!NT_SUCCESS(copied))
            status = copied;
    }
    ExFreePoolWithTag(buffer, kTagProperty);
    return status;
}

NTSTATUS AnswerBytes(PIRP irp, PVOID data, const void *bytes, SIZE_T size) {
    irp->IoStatus.Information = size;
    if (OutputLength(irp) == 0)
        return STATUS_BUFFER_OVERFLOW;
    if (OutputLength(irp) < size)
        return STATUS_BUFFER_TOO_SMALL;
    RtlCopyMemory(data, bytes, size);
    return STATUS_SUCCESS;
}

namespace {

// The part of a list answer that does not depend on the items: true when they are wanted and fit.
bool BeginList(PIRP irp, PVOID data, ULONG size, ULONG count, NTSTATUS &status) {
    ULONG room = OutputLength(irp);
    irp->IoStatus.Information = size;
    status = STATUS_SUCCESS;
    if (room == 0) {
        status = STATUS_BUFFER_OVERFLOW;
    } else if (room == sizeof(ULONG)) {
        *static_cast<ULONG *>(data) = size;
        irp->IoStatus.Information = sizeof(ULONG);
    } else if (room < sizeof(KSMULTIPLE_ITEM) || (room != sizeof(KSMULTIPLE_ITEM) && room < size)) {
        status = STATUS_BUFFER_TOO_SMALL;
    } else {
        *static_cast<KSMULTIPLE_ITEM *>(data) = {.Size = size, .Count = count};
        if (room >= size)
            return true;
        irp->IoStatus.Information = sizeof(KSMULTIPLE_ITEM);
    }
    return false;
}

} // namespace

NTSTATUS AnswerList(PIRP irp, PVOID data, const void *items, ULONG count, ULONG itemSize) {
    NTSTATUS status;
    if (BeginList(irp, data, sizeof(KSMULTIPLE_ITEM) + count * itemSize, count, status) && count != 0)
        RtlCopyMemory(static_cast<KSMULTIPLE_ITEM *>(data) + 1, items, static_cast<SIZE_T>(count) * itemSize);
    return status;
}

NTSTATUS AnswerRanges(PIRP irp, PVOID data, const PKSDATARANGE *ranges, ULONG count) {
    auto aligned = [](const KSDATARANGE &range) { return (range.FormatSize + 7) & ~7u; };
    ULONG size = sizeof(KSMULTIPLE_ITEM);
    for (ULONG i = 0; i < count; ++i)
        size += aligned(*ranges[i]);
    NTSTATUS status;
    if (!BeginList(irp, data, size, count, status))
        return status;
    auto *to = reinterpret_cast<UCHAR *>(static_cast<KSMULTIPLE_ITEM *>(data) + 1);
    for (ULONG i = 0; i < count; ++i) {
        RtlCopyMemory(to, ranges[i], ranges[i]->FormatSize);
        to += aligned(*ranges[i]);
    }
    return status;
}

} // namespace host::streaming
