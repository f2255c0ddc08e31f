#include "host/streaming/filter.h"

#include "host/streaming/filter_factory.h"
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"
#include "platform/pool.h"

namespace host::streaming {

const KSPIN_DESCRIPTOR_EX *PinDescriptor(const KSFILTER_DESCRIPTOR &descriptor, ULONG id) {
    const auto *first = reinterpret_cast<const UCHAR *>(descriptor.PinDescriptors);
    return reinterpret_cast<const KSPIN_DESCRIPTOR_EX *>(first +
                                                         static_cast<SIZE_T>(id) * descriptor.PinDescriptorSize);
}

// Lock: device mutex held. The driver's create routine runs with the control mutex too, as it fills the filter's bag.
NTSTATUS Filter::Open(FilterFactory &factory, PIRP irp) {
    PVOID block = PoolAllocateZeroed(NonPagedPool, sizeof(Filter), kTagObject);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *filter = new (PlaceInPool{block}) Filter{};
    filter->Object::Initialise(ObjectKind::Filter, &factory, factory.device);
    filter->control.Initialise("KsFilterMutex");
    filter->bag.Initialise(&filter->control);
    filter->Descriptor = factory.FilterDescriptor;
    filter->Context = factory.Context;
    filter->Bag = filter->bag.Public();
    filter->factory = &factory;
    InitializeListHead(&filter->pins);

    NTSTATUS status = STATUS_SUCCESS;
    {
        MutexHold hold(filter->control, "filter create");
        const KSFILTER_DISPATCH *dispatch = filter->Descriptor->Dispatch;
        if (dispatch != nullptr && dispatch->Create != nullptr) {
            status = CallDriver(CallbackKind::Filter, "filter create", irp, dispatch->Create,
                                static_cast<PKSFILTER>(filter), irp);
        }
        if (!NT_SUCCESS(status))
            filter->bag.Empty();
    }
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(filter, kTagObject);
        return status;
    }
    InsertTailList(&factory.filters, &filter->link);
    IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext = static_cast<Object *>(filter);
    return STATUS_SUCCESS;
}

void Filter::Close(PIRP irp) {
    MutexHold deviceHold(device->mutex, "filter close");
    {
        MutexHold hold(control, "filter close");
        if (!IsListEmpty(&pins))
            Violation("KsObject", "filter close", "a pin is still open");
        const KSFILTER_DISPATCH *dispatch = Descriptor->Dispatch;
        if (dispatch != nullptr && dispatch->Close != nullptr) {
            CallDriver(CallbackKind::Filter, "filter close", irp, dispatch->Close, static_cast<PKSFILTER>(this), irp);
        }
        bag.Empty();
    }
    RemoveEntryList(&link);
    factory->FreeIfUnused();
    ExFreePoolWithTag(this, kTagObject);
}

void Filter::StopPins(const char *routine) {
    MutexHold hold(control, routine);
    for (LIST_ENTRY *entry = pins.Flink; entry != &pins; entry = entry->Flink)
        Owner<&Pin::link>(entry)->Stop();
}

ULONG Filter::PinInstances(ULONG id) const {
    ULONG count = 0;
    for (LIST_ENTRY *entry = pins.Flink; entry != &pins; entry = entry->Flink)
        count += Owner<&Pin::link>(entry)->Id == id ? 1 : 0;
    return count;
}

} // namespace host::streaming
