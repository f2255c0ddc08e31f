#include "host/streaming/device.h"

#include "host/streaming/filter.h"
#include "host/streaming/filter_factory.h"
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

NTSTATUS NTAPI SignalForwarded(PDEVICE_OBJECT, PIRP, PVOID event) {
    KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends the request down and waits; it comes back to this driver for completion.
NTSTATUS ForwardAndWait(Device &device, PIRP irp) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, SignalForwarded, &event, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(device.NextDeviceObject, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        status = irp->IoStatus.Status;
    }
    return status;
}

NTSTATUS Forward(Device &device, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(device.NextDeviceObject, irp);
}

NTSTATUS Start(Device &device, PIRP irp) {
    NTSTATUS status = ForwardAndWait(device, irp);
    if (!NT_SUCCESS(status))
        return Complete(irp, status);
    const auto &start = IoGetCurrentIrpStackLocation(irp)->Parameters.StartDevice;
    if (device.Dispatch()->Start != nullptr) {
        status = CallDriver(CallbackKind::Device, "device start", irp, device.Dispatch()->Start,
                            static_cast<PKSDEVICE>(&device), irp, start.AllocatedResourcesTranslated,
                            start.AllocatedResources);
    }
    if (NT_SUCCESS(status)) {
        device.Started = TRUE;
        MutexHold hold(device.mutex, "device start");
        FilterFactory::EnableAll(device);
    }
    return Complete(irp, status);
}

NTSTATUS Stop(Device &device, PIRP irp) {
    device.StopPins("device stop");
    if (device.Dispatch()->Stop != nullptr) {
        CallDriverVoid(CallbackKind::Device, "device stop", irp, device.Dispatch()->Stop,
                       static_cast<PKSDEVICE>(&device), irp);
    }
    device.Started = FALSE;
    {
        MutexHold hold(device.mutex, "device stop");
        FilterFactory::DropAll(device, KSCREATE_ITEM_FREEONSTOP);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return Forward(device, irp);
}

// The lower drivers fill the capabilities in first; the driver then corrects them.
NTSTATUS QueryCapabilities(Device &device, PIRP irp) {
    NTSTATUS status = ForwardAndWait(device, irp);
    if (NT_SUCCESS(status) && device.Dispatch()->QueryCapabilities != nullptr) {
        PDEVICE_CAPABILITIES capabilities =
            IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceCapabilities.Capabilities;
        status = CallDriver(CallbackKind::Device, "query capabilities", irp, device.Dispatch()->QueryCapabilities,
                            static_cast<PKSDEVICE>(&device), irp, capabilities);
    }
    return Complete(irp, status);
}

NTSTATUS SurpriseRemoval(Device &device, PIRP irp) {
    device.gone = true;
    device.StopPins("surprise removal");
    if (device.Dispatch()->SurpriseRemoval != nullptr) {
        CallDriverVoid(CallbackKind::Device, "surprise removal", irp, device.Dispatch()->SurpriseRemoval,
                       static_cast<PKSDEVICE>(&device), irp);
    }
    {
        MutexHold hold(device.mutex, "surprise removal");
        FilterFactory::DisableAll(device);
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    return Forward(device, irp);
}

// The bag is emptied while the lower drivers are still there: what a driver frees may have to talk to them.
NTSTATUS Remove(Device &device, PIRP irp) {
    device.gone = true;
    device.StopPins("device remove");
    if (device.Dispatch()->Remove != nullptr) {
        CallDriverVoid(CallbackKind::Device, "device remove", irp, device.Dispatch()->Remove,
                       static_cast<PKSDEVICE>(&device), irp);
    }
    {
        MutexHold hold(device.mutex, "device remove");
        FilterFactory::DropAll(device, 0);
    }
    if (!IsListEmpty(&device.factories))
        Violation("KsObject", "device remove", "a filter is still open");
    device.bag.Empty();
    device.Started = FALSE;
    irp->IoStatus.Status = STATUS_SUCCESS;
    NTSTATUS status = Forward(device, irp);
    IoDetachDevice(device.NextDeviceObject);
    IoDeleteDevice(device.FunctionalDeviceObject);
    return status;
}

// A request that the driver may refuse before the lower drivers see it.
NTSTATUS Ask(Device &device, PIRP irp, const char *name, PFNKSDEVICEIRP routine) {
    NTSTATUS status = STATUS_SUCCESS;
    if (routine != nullptr)
        status = CallDriver(CallbackKind::Device, name, irp, routine, static_cast<PKSDEVICE>(&device), irp);
    if (!NT_SUCCESS(status))
        return Complete(irp, status);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return Forward(device, irp);
}

// One that the driver hears of after the lower drivers.
NTSTATUS Tell(Device &device, PIRP irp, const char *name, PFNKSDEVICEIRPVOID routine) {
    NTSTATUS status = ForwardAndWait(device, irp);
    if (routine != nullptr)
        CallDriverVoid(CallbackKind::Device, name, irp, routine, static_cast<PKSDEVICE>(&device), irp);
    return Complete(irp, status);
}

void RequireModelled(const KSDEVICE_DESCRIPTOR &descriptor) {
    const KSDEVICE_DISPATCH *dispatch = descriptor.Dispatch;
    if (descriptor.FilterDescriptorsCount != 0)
        NotModelled("KsInitializeDriver", "filter descriptors that are registered statically");
    if (dispatch->PostStart != nullptr || dispatch->QueryPower != nullptr || dispatch->SetPower != nullptr ||
        dispatch->QueryInterface != nullptr)
        NotModelled("KsInitializeDriver", "post-start, power and interface callbacks");
}

} // namespace

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

Device *Device::From(PDEVICE_OBJECT functionalDevice) {
    return static_cast<Device *>(functionalDevice->DeviceExtension);
}

void Device::StopPins(const char *routine) {
    MutexHold hold(mutex, routine);
    for (LIST_ENTRY *link = factories.Flink; link != &factories; link = link->Flink)
        Owner<&FilterFactory::link>(link)->StopPins(routine);
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT physicalDevice) {
    auto *record =
        static_cast<DriverRecord *>(IoGetDriverObjectExtension(driver, reinterpret_cast<PVOID>(KsInitializeDriver)));
    PDEVICE_OBJECT functionalDevice = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(Device), nullptr, FILE_DEVICE_KS, 0, FALSE, &functionalDevice);
    if (!NT_SUCCESS(status))
        return status;

    auto *device = new (PlaceInPool{functionalDevice->DeviceExtension}) Device{};
    device->Object::Initialise(ObjectKind::Device, nullptr, device);
    device->mutex.Initialise("KsDeviceMutex");
    device->driver = record;
    device->bag.Initialise(&device->mutex);
    InitializeListHead(&device->factories);
    device->Descriptor = record->descriptor;
    device->Bag = device->bag.Public();
    device->FunctionalDeviceObject = functionalDevice;
    device->PhysicalDeviceObject = physicalDevice;
    device->SystemPowerState = PowerSystemWorking;
    device->DevicePowerState = PowerDeviceD0;
    device->NextDeviceObject = IoAttachDeviceToDeviceStack(functionalDevice, physicalDevice);
    if (device->NextDeviceObject == nullptr) {
        IoDeleteDevice(functionalDevice);
        return STATUS_DEVICE_REMOVED;
    }

    if (device->Dispatch()->Add != nullptr) {
        status = CallDriver(CallbackKind::Device, "device add", nullptr, device->Dispatch()->Add,
                            static_cast<PKSDEVICE>(device));
    }
    if (!NT_SUCCESS(status)) {
        device->bag.Empty();
        IoDetachDevice(device->NextDeviceObject);
        IoDeleteDevice(functionalDevice);
        return status;
    }
    functionalDevice->Flags |= DO_POWER_PAGABLE;
    functionalDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT functionalDevice, PIRP irp) {
    Device &device = *Device::From(functionalDevice);
    const KSDEVICE_DISPATCH *dispatch = device.Dispatch();
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
        return Start(device, irp);
    case IRP_MN_STOP_DEVICE:
        return Stop(device, irp);
    case IRP_MN_QUERY_CAPABILITIES:
        return QueryCapabilities(device, irp);
    case IRP_MN_SURPRISE_REMOVAL:
        return SurpriseRemoval(device, irp);
    case IRP_MN_REMOVE_DEVICE:
        return Remove(device, irp);
    case IRP_MN_QUERY_STOP_DEVICE:
        return Ask(device, irp, "query stop", dispatch->QueryStop);
    case IRP_MN_QUERY_REMOVE_DEVICE:
        return Ask(device, irp, "query remove", dispatch->QueryRemove);
    case IRP_MN_CANCEL_STOP_DEVICE:
        return Tell(device, irp, "cancel stop", dispatch->CancelStop);
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return Tell(device, irp, "cancel remove", dispatch->CancelRemove);
    default:
        return Forward(device, irp);
    }
}

NTSTATUS NTAPI DispatchToLower(PDEVICE_OBJECT functionalDevice, PIRP irp) {
    return Forward(*Device::From(functionalDevice), irp);
}

} // namespace host::streaming

using namespace host::streaming;

extern "C" NTSTATUS NTAPI KsInitializeDriver(PDRIVER_OBJECT driver, PUNICODE_STRING,
                                             const KSDEVICE_DESCRIPTOR *descriptor) {
    RequireLevel("KsInitializeDriver", PASSIVE_LEVEL);
    RequireModelled(*descriptor);
    PVOID extension = nullptr;
    NTSTATUS status = IoAllocateDriverObjectExtension(driver, reinterpret_cast<PVOID>(KsInitializeDriver),
                                                      sizeof(DriverRecord), &extension);
    if (!NT_SUCCESS(status))
        return status;
    auto *record = new (PlaceInPool{extension}) DriverRecord{};
    record->descriptor = descriptor;

    driver->DriverExtension->AddDevice = AddDevice;
    driver->DriverUnload = [](PDRIVER_OBJECT unloaded) {
        auto *left = static_cast<DriverRecord *>(
            IoGetDriverObjectExtension(unloaded, reinterpret_cast<PVOID>(KsInitializeDriver)));
        if (LONG count = left->clockInterfaces; count != 0) {
            host::Violation("KsReferenceClock", "driver unload",
                            std::to_string(count) + " reference clock interfaces were not released");
        }
    };
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchToLower;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchToLower;
    driver->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = DispatchClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    return STATUS_SUCCESS;
}
