#include "host/usb/pdo.h"

#include "host/executive/runtime.h"
#include "host/usb/port.h"

#include <cstring>

namespace host::usb {
namespace {

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// The bus interface lives as long as the bus itself, so its references need no keeping: a driver that never gives one
// back leaks nothing.
VOID NTAPI KeepInterface(PVOID) {}

VOID USB_BUSIFFN GetUsbdiVersion(PVOID, PUSBD_VERSION_INFORMATION version, PULONG capabilities) {
    if (version != nullptr)
        USBD_GetUSBDIVersion(version);
    if (capabilities != nullptr)
        *capabilities = 0;
}

NTSTATUS USB_BUSIFFN QueryBusTime(PVOID, PULONG frame) {
    if (frame != nullptr)
        *frame = static_cast<ULONG>(Runtime::Current().Now() / kTicksPerMillisecond);
    return STATUS_SUCCESS;
}

NTSTATUS USB_BUSIFFN SubmitIsoOutUrb(PVOID, PURB) {
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS USB_BUSIFFN QueryBusInformation(PVOID, ULONG, PVOID, PULONG, PULONG) {
    return STATUS_NOT_SUPPORTED;
}

BOOLEAN USB_BUSIFFN IsDeviceHighSpeed(PVOID context) {
    return static_cast<Port *>(context)->IsHighSpeed();
}

NTSTATUS QueryInterface(Port &port, const IO_STACK_LOCATION &stack, NTSTATUS unanswered) {
    const auto &query = stack.Parameters.QueryInterface;
    if (std::memcmp(query.InterfaceType, &USB_BUS_INTERFACE_USBDI_GUID, sizeof(GUID)) != 0 ||
        query.Version != USB_BUSIF_USBDI_VERSION_1 || query.Size < sizeof(USB_BUS_INTERFACE_USBDI_V1))
        return unanswered;
    *reinterpret_cast<PUSB_BUS_INTERFACE_USBDI_V1>(query.Interface) = {
        .Size = sizeof(USB_BUS_INTERFACE_USBDI_V1),
        .Version = USB_BUSIF_USBDI_VERSION_1,
        .BusContext = &port,
        .InterfaceReference = KeepInterface,
        .InterfaceDereference = KeepInterface,
        .GetUSBDIVersion = GetUsbdiVersion,
        .QueryBusTime = QueryBusTime,
        .SubmitIsoOutUrb = SubmitIsoOutUrb,
        .QueryBusInformation = QueryBusInformation,
        .IsDeviceHighSpeed = IsDeviceHighSpeed,
    };
    return STATUS_SUCCESS;
}

NTSTATUS QueryCapabilities(PDEVICE_CAPABILITIES capabilities) {
    if (capabilities->Version != 1 || capabilities->Size < sizeof(DEVICE_CAPABILITIES))
        return STATUS_UNSUCCESSFUL;
    // Whether surprise removal is fine is for the function driver to say.
    capabilities->Removable = TRUE;
    capabilities->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    for (int state = PowerSystemSleeping1; state < PowerSystemMaximum; ++state)
        capabilities->DeviceState[state] = PowerDeviceD3;
    return STATUS_SUCCESS;
}

NTSTATUS RemoveDevice(Port &port, PIRP irp) {
    if (port.HasOutstanding())
        Violation("a device is removed with URBs in flight", "IRP_MN_REMOVE_DEVICE", "the bus still holds requests");
    port.Release();
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI DispatchPnp(PDEVICE_OBJECT pdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
        return Complete(irp, STATUS_SUCCESS);
    case IRP_MN_SURPRISE_REMOVAL:
        PortOf(pdo).Depart();
        return Complete(irp, STATUS_SUCCESS);
    case IRP_MN_REMOVE_DEVICE:
        return RemoveDevice(PortOf(pdo), irp);
    case IRP_MN_QUERY_CAPABILITIES:
        return Complete(irp, QueryCapabilities(stack->Parameters.DeviceCapabilities.Capabilities));
    case IRP_MN_QUERY_INTERFACE:
        return Complete(irp, QueryInterface(PortOf(pdo), *stack, irp->IoStatus.Status));
    default:
        return Complete(irp, irp->IoStatus.Status);
    }
}

NTSTATUS NTAPI DispatchPower(PDEVICE_OBJECT, PIRP irp) {
    UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    bool isAnswered = minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER;
    return Complete(irp, isAnswered ? STATUS_SUCCESS : irp->IoStatus.Status);
}

NTSTATUS NTAPI DispatchInternalControl(PDEVICE_OBJECT pdo, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Port &port = PortOf(pdo);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    switch (code) {
    case IOCTL_INTERNAL_USB_SUBMIT_URB:
        return port.SubmitUrb(irp, static_cast<PURB>(stack->Parameters.Others.Argument1));
    case IOCTL_INTERNAL_USB_RESET_PORT:
    case IOCTL_INTERNAL_USB_CYCLE_PORT:
        return port.SubmitPortRequest(irp, code);
    case IOCTL_INTERNAL_USB_GET_PORT_STATUS:
        *static_cast<PULONG>(stack->Parameters.Others.Argument1) =
            port.HasDeparted() ? 0 : USBD_PORT_ENABLED | USBD_PORT_CONNECTED;
        return Complete(irp, STATUS_SUCCESS);
    default:
        return Complete(irp, STATUS_NOT_SUPPORTED);
    }
}

} // namespace

NTSTATUS NTAPI BusDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternalControl;
    return STATUS_SUCCESS;
}

} // namespace host::usb
