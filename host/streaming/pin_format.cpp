// The connection format of a pin and its match with the descriptor's data ranges.
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

bool Agree(const GUID &one, const GUID &other) {
    return SameGuid(one, kGuidNull) || SameGuid(other, kGuidNull) || SameGuid(one, other);
}

} // namespace

bool RangesAgree(const KSDATARANGE &one, const KSDATARANGE &other) {
    return Agree(one.MajorFormat, other.MajorFormat) && Agree(one.SubFormat, other.SubFormat) &&
           Agree(one.Specifier, other.Specifier);
}

// The new format stands in KSPIN::ConnectionFormat while the driver judges it; a refusal puts the old one back.
NTSTATUS Pin::SetFormat(const KSDATAFORMAT &format) {
    auto *copy = static_cast<KSDATAFORMAT *>(PoolAllocateZeroed(NonPagedPool, format.FormatSize, kTagFormat));
    if (copy == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(copy, &format, format.FormatSize);
    PKSDATAFORMAT old = ConnectionFormat;
    ConnectionFormat = copy;

    const KSPIN_DISPATCH *dispatch = Descriptor->Dispatch;
    NTSTATUS status = ForMatchingRanges(*Descriptor, format, [&](const KSDATARANGE *range) {
        if (dispatch == nullptr || dispatch->SetDataFormat == nullptr)
            return STATUS_SUCCESS;
        return CallDriver(CallbackKind::Pin, "pin set data format", nullptr, dispatch->SetDataFormat,
                          static_cast<PKSPIN>(this), old, static_cast<PKSMULTIPLE_ITEM>(nullptr), range,
                          static_cast<const KSATTRIBUTE_LIST *>(nullptr));
    });
    if (!NT_SUCCESS(status))
        ConnectionFormat = old;
    if (PKSDATAFORMAT unused = NT_SUCCESS(status) ? old : copy; unused != nullptr)
        ExFreePoolWithTag(unused, kTagFormat);
    return status;
}

} // namespace host::streaming
