#include "usb/device_link.h"

#include "usb/usb_request.h"

namespace uvc {

UsbDeviceLink::~UsbDeviceLink() {
    UsbForgetInterfaces(*this);
}

USBD_PIPE_INFORMATION *UsbDeviceLink::StreamingPipe() const {
    if (interfaceSlotCount <= kStreamingInterface)
        return nullptr;
    USBD_INTERFACE_INFORMATION *streaming = interfaceSlots[kStreamingInterface];
    return streaming != nullptr && streaming->NumberOfPipes != 0 ? &streaming->Pipes[0] : nullptr;
}

NTSTATUS UsbStoreInterfaceInformation(UsbDeviceLink &link, ULONG slot, const USBD_INTERFACE_INFORMATION *information) {
    using Copy = PoolPointer<USBD_INTERFACE_INFORMATION, pool_tag::UsbPipe>;
    if (slot >= link.interfaceSlotCount)
        return STATUS_INVALID_PARAMETER;
    Copy copy;
    if (information != nullptr) {
        copy = Copy(static_cast<USBD_INTERFACE_INFORMATION *>(
            PoolAllocateZeroed(NonPagedPool, information->Length, pool_tag::UsbPipe)));
        if (!copy)
            return STATUS_INSUFFICIENT_RESOURCES;
        RtlCopyMemory(copy.Get(), information, information->Length);
    }
    Copy old(link.interfaceSlots[slot]);
    link.interfaceSlots[slot] = copy.Release();
    return STATUS_SUCCESS;
}

void UsbForgetInterfaces(UsbDeviceLink &link) {
    for (ULONG slot = 0; slot < link.interfaceSlotCount; ++slot)
        static_cast<void>(UsbStoreInterfaceInformation(link, slot, nullptr)); // freeing a slot that exists cannot fail
    link.interfaceSlots.Reset();
    link.interfaceSlotCount = 0;
    link.interfaceDescriptors.Reset();
    link.interfaceDescriptorCount = 0;
}

NTSTATUS UsbGetDeviceString(const UsbDeviceLink &link, ULONG stringId, UNICODE_STRING *text) {
    if (!link.deviceDescriptor)
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    UCHAR index = static_cast<UCHAR>(stringId);
    switch (stringId) {
    case kManufacturerString:
        index = link.deviceDescriptor->iManufacturer;
        break;
    case kSerialNumberString:
        index = link.deviceDescriptor->iSerialNumber;
        break;
    case kProductString:
        index = link.deviceDescriptor->iProduct;
        break;
    }
    if (index == 0) { // index 0 holds the table of languages, not a text
        text->Length = 0;
        return STATUS_SUCCESS;
    }
    return UsbGetStringDescriptor(link.lowerDevice, index, text);
}

} // namespace uvc
