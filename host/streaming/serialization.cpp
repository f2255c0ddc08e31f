// Serialization of a property set, broken up into gets and sets of its properties.
#include "host/streaming/object.h"
#include "host/streaming/property.h"

#include <algorithm>
#include <cstring>

namespace host::streaming {

namespace {

constexpr SIZE_T kSerialAlignment = 4;
constexpr ULONG kSizeUnknown = 1; // of a property that begins with a KSMULTIPLE_ITEM

SIZE_T Aligned(SIZE_T size) {
    return (size + kSerialAlignment - 1) & ~(kSerialAlignment - 1);
}

bool IsSerialized(const KSPROPERTY_ITEM &item) {
    if (item.SerializedSize == kSizeUnknown)
        NotModelled("SERIALIZESET", "a property of unknown size");
    return item.SerializedSize != 0 && item.GetPropertyHandler != nullptr;
}

// While it lives the request is one for a single property: a plain KSPROPERTY and `size` bytes of data.
class SingleRequest {
  public:
    SingleRequest(PIRP irp, const KSPROPERTY &whole, ULONG id, ULONG flags, ULONG size)
        : irp_(irp), control_(IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl),
          inputLength_(control_.InputBufferLength),
          outputLength_(control_.OutputBufferLength), property_{.Set = whole.Set, .Id = id, .Flags = flags} {
        control_.InputBufferLength = sizeof(KSPROPERTY);
        control_.OutputBufferLength = size;
        irp_->IoStatus.Information = 0;
    }
    ~SingleRequest() {
        control_.InputBufferLength = inputLength_;
        control_.OutputBufferLength = outputLength_;
        irp_->IoStatus.Information = 0;
    }
    SingleRequest(const SingleRequest &) = delete;
    SingleRequest &operator=(const SingleRequest &) = delete;

    NTSTATUS Send(const PropertyTable &table, const KSPROPERTY_SET &set, const KSPROPERTY_ITEM &item, PVOID data) {
        KSPROPERTY_SET_IRP_STORAGE(irp_) = &set;
        KSPROPERTY_ITEM_IRP_STORAGE(irp_) = &item;
        return GetOrSet(table, item, irp_, property_, data);
    }

  private:
    PIRP irp_;
    decltype(IO_STACK_LOCATION::Parameters.DeviceIoControl) &control_;
    ULONG inputLength_;
    ULONG outputLength_;
    KSPROPERTY property_;
};

const KSPROPERTY_ITEM *FindSerialized(const PropertyTable &table, const KSPROPERTY_SET &set,
                                      const KSPROPERTY_SERIAL &serial) {
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        const KSPROPERTY_ITEM &item = ItemAt(table, set, i);
        if (item.PropertyId == serial.Id && IsSerialized(item) && item.SerializedSize == serial.PropertyLength)
            return &item;
    }
    return nullptr;
}

} // namespace

NTSTATUS SerializeSet(const PropertyTable &table, const KSPROPERTY_SET &set, PIRP irp, KSPROPERTY &property,
                      PVOID data) {
    KSPROPERTY_SERIALHDR header{.PropertySet = *set.Set, .Count = 0};
    SIZE_T size = sizeof(header);
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        const KSPROPERTY_ITEM &item = ItemAt(table, set, i);
        if (IsSerialized(item)) {
            ++header.Count;
            size += sizeof(KSPROPERTY_SERIAL) + Aligned(item.SerializedSize);
        }
    }
    irp->IoStatus.Information = size;
    if (OutputLength(irp) == 0)
        return STATUS_BUFFER_OVERFLOW;
    if (OutputLength(irp) < size)
        return STATUS_BUFFER_TOO_SMALL;

    auto *to = static_cast<UCHAR *>(data);
    std::memcpy(to, &header, sizeof(header));
    to += sizeof(header);
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        const KSPROPERTY_ITEM &item = ItemAt(table, set, i);
        if (!IsSerialized(item))
            continue;
        KSPROPERTY_SERIAL serial{.PropTypeSet = {}, .Id = item.PropertyId, .PropertyLength = item.SerializedSize};
        if (item.Values != nullptr)
            serial.PropTypeSet = item.Values->PropTypeSet;
        std::memcpy(to, &serial, sizeof(serial));
        to += sizeof(serial);
        SingleRequest request(irp, property, item.PropertyId, KSPROPERTY_TYPE_GET, item.SerializedSize);
        NTSTATUS status = request.Send(table, set, item, to);
        if (!NT_SUCCESS(status))
            return status;
        to += Aligned(item.SerializedSize);
    }
    irp->IoStatus.Information = size;
    return STATUS_SUCCESS;
}

NTSTATUS UnserializeSet(const PropertyTable &table, const KSPROPERTY_SET &set, PIRP irp, KSPROPERTY &property,
                        PVOID data) {
    KSPROPERTY_SERIALHDR header;
    SIZE_T left = OutputLength(irp);
    if (left < sizeof(header))
        return STATUS_INVALID_BUFFER_SIZE;
    auto *from = static_cast<UCHAR *>(data);
    std::memcpy(&header, from, sizeof(header));
    if (!SameGuid(header.PropertySet, *set.Set))
        return STATUS_INVALID_PARAMETER;
    from += sizeof(header);
    left -= sizeof(header);

    for (ULONG i = 0; i < header.Count; ++i) {
        KSPROPERTY_SERIAL serial;
        if (left < sizeof(serial))
            return STATUS_INVALID_BUFFER_SIZE;
        std::memcpy(&serial, from, sizeof(serial));
        from += sizeof(serial);
        left -= sizeof(serial);
        if (serial.PropertyLength > left)
            return STATUS_INVALID_BUFFER_SIZE;
        const KSPROPERTY_ITEM *item = FindSerialized(table, set, serial);
        if (item == nullptr)
            return STATUS_INVALID_PARAMETER;
        SingleRequest request(irp, property, item->PropertyId, KSPROPERTY_TYPE_SET, serial.PropertyLength);
        NTSTATUS status = request.Send(table, set, *item, from);
        if (!NT_SUCCESS(status))
            return status;
        SIZE_T step = std::min(Aligned(serial.PropertyLength), left); // the last needs no padding
        from += step;
        left -= step;
    }
    return STATUS_SUCCESS;
}

} // namespace host::streaming
