// Basic support and default values: what an item's handlers and value table say about it.
#include "host/streaming/property.h"

namespace host::streaming {

namespace {

ULONG AccessFlags(const KSPROPERTY_ITEM &item) {
    return (item.GetPropertyHandler != nullptr ? KSPROPERTY_TYPE_GET : 0u) |
           (item.SetPropertyHandler != nullptr ? KSPROPERTY_TYPE_SET : 0u);
}

// A KSPROPERTY_DESCRIPTION followed by the members lists that `wanted` chooses.
template <class Wanted> NTSTATUS Describe(PIRP irp, PVOID data, const KSPROPERTY_ITEM &item, Wanted wanted) {
    const KSPROPERTY_VALUES *values = item.Values;
    ULONG listCount = values == nullptr ? 0 : values->MembersListCount;
    KSPROPERTY_DESCRIPTION description{.AccessFlags = AccessFlags(item), .DescriptionSize = sizeof(description)};
    if (values != nullptr)
        description.PropTypeSet = values->PropTypeSet;
    for (ULONG i = 0; i < listCount; ++i) {
        const KSPROPERTY_MEMBERSHEADER &header = values->MembersList[i].MembersHeader;
        if (!wanted(header))
            continue;
        ++description.MembersListCount;
        description.DescriptionSize += sizeof(header) + header.MembersCount * header.MembersSize;
    }

    ULONG room = OutputLength(irp);
    irp->IoStatus.Information = description.DescriptionSize;
    if (room == 0)
        return STATUS_BUFFER_OVERFLOW;
    if (room < sizeof(description))
        return STATUS_BUFFER_TOO_SMALL;
    if (room != sizeof(description) && room < description.DescriptionSize)
        return STATUS_BUFFER_TOO_SMALL;
    *static_cast<KSPROPERTY_DESCRIPTION *>(data) = description;
    if (room < description.DescriptionSize) {
        irp->IoStatus.Information = sizeof(description); // the head alone, to learn the whole size from
        return STATUS_SUCCESS;
    }
    auto *to = static_cast<UCHAR *>(data) + sizeof(description);
    for (ULONG i = 0; i < listCount; ++i) {
        const KSPROPERTY_MEMBERSLIST &list = values->MembersList[i];
        if (!wanted(list.MembersHeader))
            continue;
        RtlCopyMemory(to, &list.MembersHeader, sizeof(list.MembersHeader));
        to += sizeof(list.MembersHeader);
        SIZE_T size = static_cast<SIZE_T>(list.MembersHeader.MembersCount) * list.MembersHeader.MembersSize;
        RtlCopyMemory(to, list.Members, size);
        to += size;
    }
    return STATUS_SUCCESS;
}

} // namespace

// An output of exactly a ULONG asks for the access flags alone.
NTSTATUS AnswerBasicSupport(PIRP irp, PVOID data, const KSPROPERTY_ITEM &item) {
    if (AccessFlags(item) == 0)
        return STATUS_NOT_FOUND;
    if (OutputLength(irp) == sizeof(ULONG)) {
        *static_cast<ULONG *>(data) = AccessFlags(item);
        irp->IoStatus.Information = sizeof(ULONG);
        return STATUS_SUCCESS;
    }
    return Describe(irp, data, item, [](const KSPROPERTY_MEMBERSHEADER &) { return true; });
}

NTSTATUS AnswerDefaultValues(PIRP irp, PVOID data, const KSPROPERTY_ITEM &item) {
    if (item.Values == nullptr)
        return STATUS_NOT_FOUND;
    return Describe(irp, data, item, [](const KSPROPERTY_MEMBERSHEADER &header) {
        return (header.Flags & KSPROPERTY_MEMBER_FLAG_DEFAULT) != 0;
    });
}

} // namespace host::streaming
