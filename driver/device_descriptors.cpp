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
