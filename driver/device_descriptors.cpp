#include "driver/device_descriptors.h"

#include "camera/uvc_camera.h"
#include "driver/filter.h"
#include "driver/uvc_device.h"
#include "platform/pool.h"

namespace uvc {

namespace {

// A tracked, zeroed block, filled from `source` when there is one.
template <class T> NTSTATUS CopyTracked(UvcDevice &device, POOL_TYPE pool, const T *source, ULONG count, T *&copy) {
    copy = nullptr;
    auto *block = static_cast<T *>(PoolAllocateZeroedArray(pool, count, sizeof(T), pool_tag::Descriptor));
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    if (source != nullptr)
        RtlCopyMemory(block, source, count * sizeof(T));
    NTSTATUS status = device.allocations.Track(block);
    if (NT_SUCCESS(status))
        copy = block;
    return status;
}

// The value table of one standard control.
struct ControlValues {
    KSPROPERTY_VALUES values;
    KSPROPERTY_MEMBERSLIST lists[2];
    KSPROPERTY_STEPPING_LONG range;
    LONG defaultValue;
};

void FillControlValues(ControlValues &table, const ControlRangeBlock &range) {
    table.range = {.SteppingDelta = static_cast<ULONG>(range.resolution),
                   .Bounds = {.SignedMinimum = range.minimum, .SignedMaximum = range.maximum}};
    table.defaultValue = range.defaultValue;
    table.lists[0] = {.MembersHeader = {.MembersFlags = KSPROPERTY_MEMBER_STEPPEDRANGES,
                                        .MembersSize = sizeof(table.range),
                                        .MembersCount = 1},
                      .Members = &table.range};
    table.lists[1] = {.MembersHeader = {.MembersFlags = KSPROPERTY_MEMBER_VALUES,
                                        .MembersSize = sizeof(table.defaultValue),
                                        .MembersCount = 1,
                                        .Flags = KSPROPERTY_MEMBER_FLAG_DEFAULT},
                      .Members = &table.defaultValue};
    table.values = {.PropTypeSet = {.Set = {STATICGUIDOF(KSPROPTYPESETID_General)}, .Id = VT_I4},
                    .MembersListCount = ARRAYSIZE(table.lists),
                    .MembersList = table.lists};
}

// A control that the camera lacks becomes unsupported; one that it has gets its range. A camera that fails to tell the
// range has the control all the same, with an empty one.
NTSTATUS AdjustControl(UvcDevice &device, ULONG set, KSPROPERTY_ITEM &item) {
    ControlRangeBlock range{};
    NTSTATUS status = device.camera->GetControl(set, item.PropertyId, kControlRange, &range, sizeof(range));
    if (status == STATUS_NOT_IMPLEMENTED) {
        item.GetPropertyHandler = nullptr;
        item.SetPropertyHandler = nullptr;
        item.Values = nullptr;
        return STATUS_SUCCESS;
    }
    ControlValues *table = nullptr;
    status = CopyTracked<ControlValues>(device, PagedPool, nullptr, 1, table);
    if (!NT_SUCCESS(status))
        return status;
    FillControlValues(*table, range);
    item.Values = &table->values;
    return STATUS_SUCCESS;
}

NTSTATUS CopyValues(UvcDevice &device, KSPROPERTY_ITEM &item) {
    KSPROPERTY_VALUES *values = nullptr;
    NTSTATUS status = CopyTracked(device, PagedPool, item.Values, 1, values);
    if (!NT_SUCCESS(status))
        return status;
    item.Values = values;
    if (values->MembersListCount == 0)
        return STATUS_SUCCESS;
    KSPROPERTY_MEMBERSLIST *lists = nullptr;
    status = CopyTracked(device, PagedPool, values->MembersList, values->MembersListCount, lists);
    if (!NT_SUCCESS(status))
        return status;
    values->MembersList = lists;
    for (ULONG i = 0; i < values->MembersListCount; ++i) {
        const ULONG size = lists[i].MembersHeader.MembersCount * lists[i].MembersHeader.MembersSize;
        if (size == 0)
            continue;
        UCHAR *members = nullptr;
        status = CopyTracked(device, PagedPool, static_cast<const UCHAR *>(lists[i].Members), size, members);
        if (!NT_SUCCESS(status))
            return status;
        lists[i].Members = members;
    }
    return STATUS_SUCCESS;
}

NTSTATUS AdjustItem(UvcDevice &device, const GUID &set, KSPROPERTY_ITEM &item) {
    if (IsEqualGUID(set, PROPSETID_VIDCAP_VIDEOPROCAMP))
        return AdjustControl(device, kVideoProcAmpSet, item);
    if (IsEqualGUID(set, PROPSETID_VIDCAP_CAMERACONTROL))
        return AdjustControl(device, kCameraControlSet, item);
    return item.Values != nullptr ? CopyValues(device, item) : STATUS_SUCCESS;
}

NTSTATUS CopyPropertySets(UvcDevice &device, KSAUTOMATION_TABLE &table) {
    KSPROPERTY_SET *sets = nullptr;
    NTSTATUS status = CopyTracked(device, PagedPool, table.PropertySets, table.PropertySetsCount, sets);
    if (!NT_SUCCESS(status))
        return status;
    table.PropertySets = sets;
    for (ULONG i = 0; i < table.PropertySetsCount; ++i) {
        if (sets[i].PropertiesCount == 0)
            continue;
        KSPROPERTY_ITEM *items = nullptr;
        status = CopyTracked(device, PagedPool, sets[i].PropertyItem, sets[i].PropertiesCount, items);
        if (!NT_SUCCESS(status))
            return status;
        sets[i].PropertyItem = items;
        for (ULONG item = 0; item < sets[i].PropertiesCount; ++item) {
            status = AdjustItem(device, *sets[i].Set, items[item]);
            if (!NT_SUCCESS(status))
                return status;
        }
    }
    return STATUS_SUCCESS;
}

// A copy that cannot be recorded leaves the filter without property sets, and the camera still streams.
NTSTATUS CopyAutomationTable(UvcDevice &device, const KSAUTOMATION_TABLE *source, KSAUTOMATION_TABLE *&copy) {
    copy = nullptr;
    auto *block = static_cast<KSAUTOMATION_TABLE *>(
        PoolAllocateZeroed(PagedPool, sizeof(KSAUTOMATION_TABLE), pool_tag::Descriptor));
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    *block = *source;
    if (!NT_SUCCESS(device.allocations.Track(block)))
        return STATUS_SUCCESS;
    NTSTATUS status = CopyPropertySets(device, *block);
    if (NT_SUCCESS(status))
        copy = block;
    return status;
}

NTSTATUS BuildDataRanges(UvcDevice &device, KSPIN_DESCRIPTOR &pin) {
    const UvcCamera &camera = *device.camera;
    const ULONG count = camera.formats.Count();
    if (count == 0)
        return STATUS_SUCCESS;

    PKSDATARANGE *ranges = nullptr;
    NTSTATUS status = CopyTracked<PKSDATARANGE>(device, NonPagedPool, nullptr, count, ranges);
    if (!NT_SUCCESS(status))
        return status;
    for (ULONG i = 0; i < count; ++i) {
        KS_DATARANGE_VIDEO *range = nullptr;
        status = CopyTracked<KS_DATARANGE_VIDEO>(device, NonPagedPool, nullptr, 1, range);
        if (!NT_SUCCESS(status))
            return status;
        ranges[i] = &range->DataRange;
    }

    if (!camera.formatsReady)
        return STATUS_INVALID_PARAMETER;
    if (camera.formats.Count() > count)
        return STATUS_BUFFER_OVERFLOW;
    for (ULONG i = 0; i < count; ++i)
        *reinterpret_cast<KS_DATARANGE_VIDEO *>(ranges[i]) = camera.formats[i].range;
    pin.DataRanges = ranges;
    pin.DataRangesCount = count;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS BuildDeviceDescriptors(UvcDevice &device, KSFILTER_DESCRIPTOR *&filterDescriptor) {
    KSFILTER_DESCRIPTOR *filter = nullptr;
    NTSTATUS status = CopyTracked(device, PagedPool, &CaptureFilterDescriptor, 1, filter);
    if (!NT_SUCCESS(status))
        return status;

    KSAUTOMATION_TABLE *automation = nullptr;
    status = CopyAutomationTable(device, filter->AutomationTable, automation);
    if (!NT_SUCCESS(status))
        return status;
    filter->AutomationTable = automation;

    KSPIN_DESCRIPTOR_EX *pins = nullptr;
    status = CopyTracked(device, PagedPool, filter->PinDescriptors, filter->PinDescriptorsCount, pins);
    if (!NT_SUCCESS(status))
        return status;
    filter->PinDescriptors = pins;

    status = BuildDataRanges(device, pins[0].PinDescriptor);
    if (NT_SUCCESS(status))
        filterDescriptor = filter;
    return status;
}

} // namespace uvc
