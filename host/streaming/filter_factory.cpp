#include "host/streaming/filter_factory.h"

#include "host/streaming/filter.h"
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

void RequireModelled(const KSFILTER_DESCRIPTOR &descriptor) {
    constexpr const char *kRoutine = "KsCreateFilterFactory";
    const KSFILTER_DISPATCH *dispatch = descriptor.Dispatch;
    if (dispatch != nullptr && (dispatch->Process != nullptr || dispatch->Reset != nullptr))
        NotModelled(kRoutine, "filter-centric processing");
    if (descriptor.NodeDescriptorsCount != 0 || descriptor.ConnectionsCount != 0)
        NotModelled(kRoutine, "topology nodes");
    for (ULONG id = 0; id < descriptor.PinDescriptorsCount; ++id) {
        const KSPIN_DISPATCH *pin = PinDescriptor(descriptor, id)->Dispatch;
        if (pin != nullptr && (pin->Reset != nullptr || pin->Connect != nullptr || pin->Disconnect != nullptr ||
                               pin->Clock != nullptr || pin->Allocator != nullptr))
            NotModelled(kRoutine, "pin reset, connect, disconnect, clock and allocator callbacks");
    }
}

void Free(FilterFactory *factory) {
    factory->bag.Empty();
    for (ULONG i = 0; i < factory->interfaceCount; ++i)
        RtlFreeUnicodeString(&factory->interfaces[i]);
    ExFreePoolWithTag(factory->reference.Buffer, kTagName);
    ExFreePoolWithTag(factory, kTagObject);
}

NTSTATUS CopyReference(FilterFactory &factory, const WCHAR *text) {
    UNICODE_STRING given;
    RtlInitUnicodeString(&given, text);
    auto *buffer = static_cast<WCHAR *>(PoolAllocateZeroed(PagedPool, given.MaximumLength, kTagName));
    if (buffer == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(buffer, given.Buffer, given.Length);
    factory.reference = {.Length = given.Length, .MaximumLength = given.MaximumLength, .Buffer = buffer};
    return STATUS_SUCCESS;
}

NTSTATUS RegisterInterfaces(FilterFactory &factory) {
    const KSFILTER_DESCRIPTOR &descriptor = *factory.FilterDescriptor;
    for (ULONG i = 0; i < descriptor.CategoriesCount; ++i) {
        NTSTATUS status = IoRegisterDeviceInterface(factory.device->PhysicalDeviceObject, &descriptor.Categories[i],
                                                    &factory.reference, &factory.interfaces[factory.interfaceCount]);
        if (!NT_SUCCESS(status))
            return status;
        ++factory.interfaceCount;
    }
    return STATUS_SUCCESS;
}

} // namespace

void FilterFactory::EnableAll(Device &device) {
    for (LIST_ENTRY *link = device.factories.Flink; link != &device.factories; link = link->Flink)
        Owner<&FilterFactory::link>(link)->SetInterfaces(true);
}

void FilterFactory::DisableAll(Device &device) {
    for (LIST_ENTRY *link = device.factories.Flink; link != &device.factories; link = link->Flink)
        Owner<&FilterFactory::link>(link)->SetInterfaces(false);
}

void FilterFactory::DropAll(Device &device, ULONG flags) {
    LIST_ENTRY *next = nullptr;
    for (LIST_ENTRY *link = device.factories.Flink; link != &device.factories; link = next) {
        next = link->Flink;
        auto *factory = Owner<&FilterFactory::link>(link);
        if ((factory->flags & flags) != flags)
            continue;
        factory->SetInterfaces(false);
        factory->dropped = true;
        factory->FreeIfUnused();
    }
}

FilterFactory *FilterFactory::Find(Device &device, const UNICODE_STRING &reference) {
    for (LIST_ENTRY *link = device.factories.Flink; link != &device.factories; link = link->Flink) {
        auto *factory = Owner<&FilterFactory::link>(link);
        if (!factory->dropped && RtlEqualUnicodeString(&factory->reference, &reference, TRUE))
            return factory;
    }
    return nullptr;
}

// The state of an interface cannot be refused for a reason that concerns AVStream; ks.sys discards it too.
void FilterFactory::SetInterfaces(bool enabled) {
    if (dropped)
        return;
    for (ULONG i = 0; i < interfaceCount; ++i)
        IoSetDeviceInterfaceState(&interfaces[i], enabled);
}

void FilterFactory::FreeIfUnused() {
    if (!dropped || !IsListEmpty(&filters))
        return;
    RemoveEntryList(&link);
    Free(this);
}

void FilterFactory::StopPins(const char *routine) {
    for (LIST_ENTRY *entry = filters.Flink; entry != &filters; entry = entry->Flink)
        Owner<&Filter::link>(entry)->StopPins(routine);
}

} // namespace host::streaming

using namespace host::streaming;

// Lock: device mutex held. The descriptor stays the driver's and must outlive the factory. The interfaces become
// visible when the device's start has succeeded.
extern "C" NTSTATUS NTAPI KsCreateFilterFactory(PDEVICE_OBJECT deviceObject, const KSFILTER_DESCRIPTOR *descriptor,
                                                PWSTR refString, PSECURITY_DESCRIPTOR, ULONG createItemFlags,
                                                PFNKSFILTERFACTORYPOWER sleep, PFNKSFILTERFACTORYPOWER wake,
                                                PKSFILTERFACTORY *created) {
    constexpr const char *kRoutine = "KsCreateFilterFactory";
    RequireLevel(kRoutine, PASSIVE_LEVEL);
    Device &device = *Device::From(deviceObject);
    device.mutex.RequireMine(kRoutine);
    if (refString == nullptr || sleep != nullptr || wake != nullptr)
        NotModelled(kRoutine, "a factory without a reference string or with power callbacks");
    RequireModelled(*descriptor);

    SIZE_T size = sizeof(FilterFactory) + descriptor->CategoriesCount * sizeof(UNICODE_STRING);
    PVOID block = PoolAllocateZeroed(NonPagedPool, size, kTagObject);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *factory = new (PlaceInPool{block}) FilterFactory{};
    factory->Object::Initialise(ObjectKind::FilterFactory, &device, &device);
    factory->bag.Initialise(&device.mutex);
    factory->FilterDescriptor = descriptor;
    factory->Context = device.Context; // each object begins with its parent's
    factory->Bag = factory->bag.Public();
    factory->flags = createItemFlags;
    InitializeListHead(&factory->filters);
    NTSTATUS status = CopyReference(*factory, refString);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(factory, kTagObject);
        return status;
    }
    status = RegisterInterfaces(*factory);
    if (!NT_SUCCESS(status)) {
        Free(factory);
        return status;
    }
    InsertTailList(&device.factories, &factory->link);
    if (device.Started)
        factory->SetInterfaces(true);
    if (created != nullptr)
        *created = factory;
    return STATUS_SUCCESS;
}
