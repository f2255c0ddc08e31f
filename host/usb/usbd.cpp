// usbd.sys: the library routines that a client driver imports. They read descriptors as a device sent them, so every
// step is bounded by the length that the caller vouches for.
#include "platform/platform.h"
#include "platform/tags.h"

#include <cstdint>
#include <limits>

namespace {

// The tag under which the library allocates; the caller frees the block with ExFreePool.
constexpr ULONG kTag = MakePoolTag("USBD");

constexpr LONG kAny = -1;

bool Matches(LONG wanted, UCHAR value) {
    return wanted == kAny || wanted == value;
}

ULONG InterfaceSize(UCHAR endpoints) {
    return static_cast<ULONG>(GET_USBD_INTERFACE_SIZE(endpoints));
}

} // namespace

// The first descriptor of the type at or behind `StartPosition`. A descriptor with a length below 2, or one that
// reaches beyond the buffer, ends the walk.
extern "C" PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                              PVOID StartPosition, LONG DescriptorType) {
    auto *begin = static_cast<PUCHAR>(DescriptorBuffer);
    auto *position = static_cast<PUCHAR>(StartPosition);
    auto start = reinterpret_cast<std::uintptr_t>(position);
    auto base = reinterpret_cast<std::uintptr_t>(begin);
    if (begin == nullptr || start < base || start - base > TotalLength)
        return nullptr;
    ULONG remaining = TotalLength - static_cast<ULONG>(start - base);
    while (remaining >= sizeof(USB_COMMON_DESCRIPTOR)) {
        auto *descriptor = reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(position);
        ULONG length = descriptor->bLength;
        if (length < sizeof(USB_COMMON_DESCRIPTOR) || length > remaining)
            return nullptr;
        if (descriptor->bDescriptorType == DescriptorType)
            return descriptor;
        position += length;
        remaining -= length;
    }
    return nullptr;
}

extern "C" PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol) {
    PVOID position = StartPosition;
    for (;;) {
        auto *found = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(USBD_ParseDescriptors(
            ConfigurationDescriptor, ConfigurationDescriptor->wTotalLength, position, USB_INTERFACE_DESCRIPTOR_TYPE));
        if (found == nullptr)
            return nullptr;
        if (found->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR) && Matches(InterfaceNumber, found->bInterfaceNumber) &&
            Matches(AlternateSetting, found->bAlternateSetting) && Matches(InterfaceClass, found->bInterfaceClass) &&
            Matches(InterfaceSubClass, found->bInterfaceSubClass) &&
            Matches(InterfaceProtocol, found->bInterfaceProtocol))
            return found;
        position = reinterpret_cast<PUCHAR>(found) + found->bLength;
    }
}

// One request with an interface information for each entry of the list, which is ended by an entry without descriptor
// and gets pointers into the request. Null when the pool is exhausted or a request cannot express the size.
extern "C" PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                        PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    ULONG size = FIELD_OFFSET(_URB_SELECT_CONFIGURATION, Interface);
    for (auto *entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry)
        size += InterfaceSize(entry->InterfaceDescriptor->bNumEndpoints);
    if (size > std::numeric_limits<USHORT>::max())
        return nullptr;

    auto *urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, kTag));
    if (urb == nullptr)
        return nullptr;
    RtlZeroMemory(urb, size);
    _URB_SELECT_CONFIGURATION &request = urb->UrbSelectConfiguration;
    request.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    request.Hdr.Length = static_cast<USHORT>(size);
    request.ConfigurationDescriptor = ConfigurationDescriptor;

    auto *position = reinterpret_cast<PUCHAR>(&request.Interface);
    for (auto *entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        const USB_INTERFACE_DESCRIPTOR &descriptor = *entry->InterfaceDescriptor;
        auto *information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(position);
        information->Length = static_cast<USHORT>(InterfaceSize(descriptor.bNumEndpoints));
        information->InterfaceNumber = descriptor.bInterfaceNumber;
        information->AlternateSetting = descriptor.bAlternateSetting;
        information->NumberOfPipes = descriptor.bNumEndpoints;
        for (ULONG pipe = 0; pipe < information->NumberOfPipes; ++pipe)
            information->Pipes[pipe].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        entry->Interface = information;
        position += information->Length;
    }
    return urb;
}

extern "C" VOID NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation) {
    VersionInformation->USBDI_Version = USBDI_VERSION;
    VersionInformation->Supported_USB_Version = 0x200;
}
