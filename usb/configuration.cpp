#include "platform/byte_cursor.h"
#include "usb/device_link.h"
#include "usb/usb_request.h"

#include <algorithm>

namespace uvc {

namespace {

// What is asked for before the true length is known; odd, so that a longer answer never ends with a full packet.
constexpr ULONG kFirstConfigurationLength = 521;
// Two reads are the rule. A device that claims more with every answer is given up.
constexpr ULONG kConfigurationRounds = 8;
constexpr ULONG kTotalLengthOffset = 2; // of wTotalLength in the configuration descriptor

constexpr UCHAR kLastAlternateSetting = 254;

using InterfaceList = PoolPointer<USBD_INTERFACE_LIST_ENTRY, pool_tag::UsbPipe>;
using SelectInterfaceRequest = PoolPointer<_URB_SELECT_INTERFACE, pool_tag::UsbPipe>;

// Owns a request that usbd.sys allocated, under a tag of its own.
class UsbdRequest {
  public:
    explicit UsbdRequest(URB *urb) : urb_(urb) {}
    ~UsbdRequest() {
        if (urb_ != nullptr)
            ExFreePool(urb_);
    }
    UsbdRequest(const UsbdRequest &) = delete;
    UsbdRequest &operator=(const UsbdRequest &) = delete;

    URB *Get() const { return urb_; }

  private:
    URB *urb_;
};

NTSTATUS OnQueryComplete(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<KEVENT *>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED; // the request belongs to the waiter
}

// Asks the bus driver for its USBDI interface. The reference that the query takes is kept for the life of the device;
// nothing else is used of it.
NTSTATUS QueryBusInterface(PDEVICE_OBJECT lowerDevice, USB_BUS_INTERFACE_USBDI_V1 &bus) {
    static_assert(sizeof(bus) == 72);
    PIRP irp = IoAllocateIrp(lowerDevice->StackSize, FALSE);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED; // what remains when nobody below knows the request
    IO_STACK_LOCATION *stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_PNP;
    stack->MinorFunction = IRP_MN_QUERY_INTERFACE;
    stack->Parameters.QueryInterface.InterfaceType = &USB_BUS_INTERFACE_USBDI_GUID;
    stack->Parameters.QueryInterface.Size = sizeof(bus);
    stack->Parameters.QueryInterface.Version = USB_BUSIF_USBDI_VERSION_1;
    stack->Parameters.QueryInterface.Interface = reinterpret_cast<INTERFACE *>(&bus);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, OnQueryComplete, &event, TRUE, TRUE, TRUE);
    IoCallDriver(lowerDevice, irp); // the status comes with the completion
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    NTSTATUS status = irp->IoStatus.Status;
    IoFreeIrp(irp);
    return status;
}

bool IsHighSpeed(PDEVICE_OBJECT lowerDevice) {
    USB_BUS_INTERFACE_USBDI_V1 bus{};
    return NT_SUCCESS(QueryBusInterface(lowerDevice, bus)) && bus.IsDeviceHighSpeed != nullptr &&
           bus.IsDeviceHighSpeed(bus.BusContext);
}

USB_INTERFACE_DESCRIPTOR *FindInterface(USB_CONFIGURATION_DESCRIPTOR *configuration, ULONG number, ULONG alternate) {
    constexpr LONG kAny = -1; // of class, subclass and protocol
    USB_INTERFACE_DESCRIPTOR *found = USBD_ParseConfigurationDescriptorEx(
        configuration, configuration, static_cast<LONG>(number), static_cast<LONG>(alternate), kAny, kAny, kAny);
    return found != nullptr && found->bLength >= sizeof(*found) ? found : nullptr;
}

// Puts every interface descriptor into `list`, by number and then by alternate setting, and counts them. With a null
// list it only counts.
ULONG ListInterfaceDescriptors(USB_CONFIGURATION_DESCRIPTOR *configuration, USB_INTERFACE_DESCRIPTOR **list) {
    ULONG count = 0;
    for (ULONG number = 0; number < configuration->bNumInterfaces; ++number) {
        for (ULONG alternate = 0; alternate <= kLastAlternateSetting; ++alternate) {
            USB_INTERFACE_DESCRIPTOR *descriptor = FindInterface(configuration, number, alternate);
            if (descriptor == nullptr)
                break;
            if (list != nullptr)
                list[count] = descriptor;
            ++count;
        }
    }
    return count;
}

NTSTATUS ListInterfaces(UsbDeviceLink &link, USB_CONFIGURATION_DESCRIPTOR *configuration) {
    UsbForgetInterfaces(link);
    const ULONG count = ListInterfaceDescriptors(configuration, nullptr);
    if (count == 0)
        return STATUS_SUCCESS;
    link.interfaceDescriptors =
        PoolPointer<USB_INTERFACE_DESCRIPTOR *, pool_tag::UsbPipe>::AllocateArray(NonPagedPool, count);
    link.interfaceSlots = PoolPointer<USBD_INTERFACE_INFORMATION *, pool_tag::UsbPipe>::AllocateArray(
        NonPagedPool, configuration->bNumInterfaces);
    if (!link.interfaceDescriptors || !link.interfaceSlots) {
        UsbForgetInterfaces(link);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    link.interfaceSlotCount = configuration->bNumInterfaces;
    link.interfaceDescriptorCount = ListInterfaceDescriptors(configuration, link.interfaceDescriptors.Get());
    return STATUS_SUCCESS;
}

// Alternate setting 0 of every interface, ended by a null descriptor. A number that the device leaves out is skipped,
// so that it does not end the list early.
InterfaceList MakeInterfaceList(USB_CONFIGURATION_DESCRIPTOR *configuration) {
    static_assert(sizeof(USBD_INTERFACE_LIST_ENTRY) == 16);
    auto list = InterfaceList::AllocateArray(NonPagedPool, configuration->bNumInterfaces + 1u);
    if (!list)
        return list;
    ULONG count = 0;
    for (ULONG number = 0; number < configuration->bNumInterfaces; ++number) {
        USB_INTERFACE_DESCRIPTOR *descriptor = FindInterface(configuration, number, 0);
        if (descriptor != nullptr)
            list[count++].InterfaceDescriptor = descriptor;
    }
    return list;
}

NTSTATUS StoreSelectedInterfaces(UsbDeviceLink &link, const USBD_INTERFACE_LIST_ENTRY *entry) {
    for (; entry->InterfaceDescriptor != nullptr; ++entry) {
        NTSTATUS status = UsbStoreInterfaceInformation(link, entry->Interface->InterfaceNumber, entry->Interface);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS UsbGetConfigurationDescriptor(UsbDeviceLink &link) {
    ULONG length = kFirstConfigurationLength;
    for (ULONG round = 0; round < kConfigurationRounds; ++round) {
        link.configurationLength = 0;
        // Room for an interface descriptor that begins with the last byte: its fields may be looked at before its
        // length.
        link.configuration.Reset(static_cast<USB_CONFIGURATION_DESCRIPTOR *>(
            PoolAllocateZeroed(NonPagedPool, length + sizeof(USB_INTERFACE_DESCRIPTOR), pool_tag::UsbPipe)));
        if (!link.configuration)
            return STATUS_INSUFFICIENT_RESOURCES;
        ULONG received = 0;
        NTSTATUS status = UsbGetDescriptor(link.lowerDevice, USB_CONFIGURATION_DESCRIPTOR_TYPE,
                                           link.configuration.Get(), length, received);
        if (NT_SUCCESS(status) && received < sizeof(USB_CONFIGURATION_DESCRIPTOR))
            status = STATUS_DEVICE_CONFIGURATION_ERROR;
        if (!NT_SUCCESS(status)) {
            link.configuration.Reset();
            return status;
        }
        link.configurationLength = received;
        ByteCursor cursor(link.ConfigurationBytes());
        cursor.Skip(kTotalLengthOffset);
        const ULONG total = cursor.U16();
        if (total > length) {
            length = total;
            continue;
        }
        // Every walk, those of usbd.sys included, goes by wTotalLength: it must not promise more than has come.
        link.configurationLength = std::min(total, received);
        link.configuration->wTotalLength = static_cast<USHORT>(link.configurationLength);
        return STATUS_SUCCESS;
    }
    link.configuration.Reset();
    link.configurationLength = 0;
    return STATUS_DEVICE_CONFIGURATION_ERROR;
}

NTSTATUS UsbSelectConfiguration(UsbDeviceLink &link, USB_CONFIGURATION_DESCRIPTOR *configuration) {
    NTSTATUS status = ListInterfaces(link, configuration);
    if (!NT_SUCCESS(status))
        return status;
    InterfaceList list = MakeInterfaceList(configuration);
    if (!list)
        return STATUS_INSUFFICIENT_RESOURCES;
    UsbdRequest request(USBD_CreateConfigurationRequestEx(configuration, list.Get()));
    if (request.Get() == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    status = UsbSubmitUrbOrFail(link.lowerDevice, request.Get(), kUsbRequestTimeoutMs);
    if (!NT_SUCCESS(status)) {
        if (status == USBD_STATUS_NO_BANDWIDTH)
            DbgPrint("Not enough bandwidth available. Failing initialization.\n");
        return status;
    }
    link.configurationHandle = request.Get()->UrbSelectConfiguration.ConfigurationHandle;
    status = StoreSelectedInterfaces(link, list.Get());
    if (NT_SUCCESS(status) && configuration->bNumInterfaces > 1)
        status = UsbSelectStreamingInterface(link);
    return status;
}

NTSTATUS UsbSelectStreamingInterface(UsbDeviceLink &link) {
    const USB_INTERFACE_DESCRIPTOR *descriptor = FindInterface(link.configuration.Get(), kStreamingInterface, 0);
    if (descriptor == nullptr)
        return STATUS_INVALID_PARAMETER;
    const SIZE_T pipes = descriptor->bNumEndpoints;
    const auto length = static_cast<USHORT>(GET_SELECT_INTERFACE_REQUEST_SIZE(pipes));
    // Without endpoints the request ends before the one pipe that its structure declares.
    SelectInterfaceRequest request(static_cast<_URB_SELECT_INTERFACE *>(
        PoolAllocateZeroed(NonPagedPool, std::max<SIZE_T>(length, sizeof(_URB_SELECT_INTERFACE)), pool_tag::UsbPipe)));
    if (!request)
        return STATUS_INSUFFICIENT_RESOURCES;
    request->Hdr.Length = length;
    request->Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    request->ConfigurationHandle = link.configurationHandle;
    USBD_INTERFACE_INFORMATION &interface = request->Interface;
    interface.Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(pipes));
    interface.InterfaceNumber = kStreamingInterface;
    interface.AlternateSetting = 0;
    interface.NumberOfPipes = descriptor->bNumEndpoints;
    for (SIZE_T pipe = 0; pipe < pipes; ++pipe)
        interface.Pipes[pipe].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
    NTSTATUS status =
        UsbSubmitUrbOrFail(link.lowerDevice, reinterpret_cast<URB *>(request.Get()), kUsbRequestTimeoutMs);
    if (!NT_SUCCESS(status))
        return status;
    return UsbStoreInterfaceInformation(link, kStreamingInterface, &interface);
}

NTSTATUS UsbConfigureDevice(UsbDeviceLink &link) {
    if (!IsHighSpeed(link.lowerDevice)) {
        DbgPrint("this is not a high speed device, so just quitting.\n");
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    }
    auto descriptor = PoolPointer<USB_DEVICE_DESCRIPTOR, pool_tag::UsbPipe>::Allocate(NonPagedPool);
    if (!descriptor)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = UsbGetDeviceDescriptor(link.lowerDevice, descriptor.Get());
    if (!NT_SUCCESS(status))
        return status;
    link.deviceDescriptor = std::move(descriptor);
    status = UsbGetConfigurationDescriptor(link);
    if (!NT_SUCCESS(status))
        return status;
    return UsbSelectConfiguration(link, link.configuration.Get());
}

} // namespace uvc
