// The camera's USB binding: the lower device, its descriptors, the selected configuration and its interfaces.
#pragma once

#include "platform/pool.h"

#include <cstdint>
#include <span>

namespace uvc {

inline constexpr UCHAR kControlInterface = 0;
inline constexpr UCHAR kStreamingInterface = 1;

// Selectors of UsbGetDeviceString that name a string by its purpose; smaller values are string indexes.
inline constexpr ULONG kManufacturerString = 256;
inline constexpr ULONG kSerialNumberString = 257;
inline constexpr ULONG kProductString = 258;

struct UsbDeviceLink {
    explicit UsbDeviceLink(PDEVICE_OBJECT device) : lowerDevice(device) {}
    ~UsbDeviceLink();
    UsbDeviceLink(const UsbDeviceLink &) = delete;
    UsbDeviceLink &operator=(const UsbDeviceLink &) = delete;

    // The received bytes of the configuration descriptor; empty until read.
    std::span<const std::uint8_t> ConfigurationBytes() const {
        return {reinterpret_cast<const std::uint8_t *>(configuration.Get()), configurationLength};
    }
    // The first pipe of the streaming interface, or null when there is none.
    USBD_PIPE_INFORMATION *StreamingPipe() const;

    PDEVICE_OBJECT lowerDevice; // target of every submission
    PoolPointer<USB_DEVICE_DESCRIPTOR, pool_tag::UsbPipe> deviceDescriptor;
    PoolPointer<USB_CONFIGURATION_DESCRIPTOR, pool_tag::UsbPipe> configuration;
    ULONG configurationLength =
        0; // bytes that the device sent, as far as wTotalLength goes; wTotalLength is never larger
    USBD_CONFIGURATION_HANDLE configurationHandle = nullptr;

    // One slot per interface number: null, or a private copy of what the bus driver last returned for it.
    PoolPointer<USBD_INTERFACE_INFORMATION *, pool_tag::UsbPipe> interfaceSlots;
    ULONG interfaceSlotCount = 0;

    // Every interface descriptor of the configuration: by interface number, then by alternate setting.
    PoolPointer<USB_INTERFACE_DESCRIPTOR *, pool_tag::UsbPipe> interfaceDescriptors;
    ULONG interfaceDescriptorCount = 0;
};

// High-speed check, descriptors, configuration 1, streaming interface at alternate setting 0. A device that is not at
// high speed fails with STATUS_DEVICE_CONFIGURATION_ERROR before anything is asked of it. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbConfigureDevice(UsbDeviceLink &link);

// The steps of the above. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbGetConfigurationDescriptor(UsbDeviceLink &link);
NTSTATUS UsbSelectConfiguration(UsbDeviceLink &link, USB_CONFIGURATION_DESCRIPTOR *configuration);
NTSTATUS UsbSelectStreamingInterface(UsbDeviceLink &link);

// Replaces the copy in `slot`; a null information only frees it. STATUS_INVALID_PARAMETER beyond the last slot.
NTSTATUS UsbStoreInterfaceInformation(UsbDeviceLink &link, ULONG slot, const USBD_INTERFACE_INFORMATION *information);

// Frees the copies of all slots, the slots and the list of interface descriptors. IRQL: <= DISPATCH_LEVEL.
void UsbForgetInterfaces(UsbDeviceLink &link);

// Reads a string by purpose (256, 257, 258) or by index (low byte). Without a device descriptor
// STATUS_DEVICE_CONFIGURATION_ERROR; index 0 means that the device has no such string: the text becomes empty.
// IRQL: PASSIVE_LEVEL.
NTSTATUS UsbGetDeviceString(const UsbDeviceLink &link, ULONG stringId, UNICODE_STRING *text);

} // namespace uvc
