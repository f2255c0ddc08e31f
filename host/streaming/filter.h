// A filter: one open handle on a camera, with its pins.
#pragma once

#include "host/streaming/device.h"

namespace host::streaming {

struct FilterFactory;

struct Filter : Object, KSFILTER {
    static constexpr ObjectKind kKind = ObjectKind::Filter;

    LIST_ENTRY link; // FilterFactory::filters, under the device mutex
    StrictMutex control;
    ObjectBag bag;
    FilterFactory *factory;
    LIST_ENTRY pins; // under the control mutex

    // IRP_MJ_CREATE on a factory's reference string, IRP_MJ_CLOSE.
    static NTSTATUS Open(FilterFactory &factory, PIRP irp);
    void Close(PIRP irp);

    // Lock: takes the control mutex.
    void StopPins(const char *routine);
    // Instances of a pin that are open. Lock: control mutex held.
    ULONG PinInstances(ULONG id) const;
};

// The descriptor of pin `id`, which must be in range.
const KSPIN_DESCRIPTOR_EX *PinDescriptor(const KSFILTER_DESCRIPTOR &descriptor, ULONG id);

// IRP_MJ_DEVICE_CONTROL with IOCTL_KS_PROPERTY on a filter; does not complete the request.
NTSTATUS FilterProperty(Filter &filter, PIRP irp);

// The dispatch routines for files of every kind.
NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT functionalDevice, PIRP irp);
NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT functionalDevice, PIRP irp);
NTSTATUS NTAPI DispatchClose(PDEVICE_OBJECT functionalDevice, PIRP irp);
NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT functionalDevice, PIRP irp);

} // namespace host::streaming
