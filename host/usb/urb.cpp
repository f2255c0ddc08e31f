#include "host/usb/urb.h"

#include "host/executive/runtime.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>

namespace host::usb {
namespace {

// The requests that move data agree in where they keep it, so that all are read through the bulk request.
static_assert(offsetof(_URB_CONTROL_DESCRIPTOR_REQUEST, TransferBufferLength) ==
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferLength));
static_assert(offsetof(_URB_CONTROL_DESCRIPTOR_REQUEST, TransferBufferMDL) ==
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferMDL));
static_assert(offsetof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST, TransferBufferLength) ==
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferLength));
static_assert(offsetof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST, TransferBufferMDL) ==
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferMDL));

enum class Kind { Unknown, Configuration, Interface, Pipe, Bulk, Descriptor, VendorOrClass };

// The type and recipient bits of bmRequestType (USB 2.0, table 9-2).
struct VendorOrClassFunction {
    USHORT function;
    std::uint8_t typeAndRecipient;
};
constexpr VendorOrClassFunction kVendorOrClass[] = {
    {URB_FUNCTION_VENDOR_DEVICE, 0x40},  {URB_FUNCTION_VENDOR_INTERFACE, 0x41}, {URB_FUNCTION_VENDOR_ENDPOINT, 0x42},
    {URB_FUNCTION_VENDOR_OTHER, 0x43},   {URB_FUNCTION_CLASS_DEVICE, 0x20},     {URB_FUNCTION_CLASS_INTERFACE, 0x21},
    {URB_FUNCTION_CLASS_ENDPOINT, 0x22}, {URB_FUNCTION_CLASS_OTHER, 0x23},
};

const VendorOrClassFunction *FindVendorOrClass(USHORT function) {
    auto found = std::ranges::find(kVendorOrClass, function, &VendorOrClassFunction::function);
    return found == std::end(kVendorOrClass) ? nullptr : found;
}

Kind KindOf(const URB &urb) {
    switch (urb.UrbHeader.Function) {
    case URB_FUNCTION_SELECT_CONFIGURATION:
        return Kind::Configuration;
    case URB_FUNCTION_SELECT_INTERFACE:
        return Kind::Interface;
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
        return Kind::Pipe;
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return Kind::Bulk;
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
        return Kind::Descriptor;
    default:
        return FindVendorOrClass(urb.UrbHeader.Function) != nullptr ? Kind::VendorOrClass : Kind::Unknown;
    }
}

} // namespace

NTSTATUS StatusOf(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
        return STATUS_INVALID_PARAMETER;
    case USBD_STATUS_NO_BANDWIDTH: // handed through, so that a client can tell it from other refusals
        return status;
    case USBD_STATUS_NOT_SUPPORTED:
        return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_INSUFFICIENT_RESOURCES:
        return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_DEVICE_GONE:
        return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_CANCELED:
        return STATUS_CANCELLED;
    default:
        return USBD_ERROR(status) ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
    }
}

bool IsKnownFunction(const URB &urb) {
    return KindOf(urb) != Kind::Unknown;
}

bool HasRightLength(const URB &urb) {
    std::size_t length = urb.UrbHeader.Length;
    switch (KindOf(urb)) {
    case Kind::Configuration:
        return length >= offsetof(_URB_SELECT_CONFIGURATION, Interface);
    case Kind::Interface: {
        constexpr std::size_t kBefore = offsetof(_URB_SELECT_INTERFACE, Interface);
        constexpr std::size_t kWithoutPipes = kBefore + offsetof(USBD_INTERFACE_INFORMATION, Pipes);
        return length >= kWithoutPipes && length >= kBefore + urb.UrbSelectInterface.Interface.Length;
    }
    case Kind::Pipe:
        return length == sizeof(_URB_PIPE_REQUEST);
    case Kind::Bulk:
        return length == sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER);
    case Kind::Descriptor:
        return length == sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST);
    case Kind::VendorOrClass:
        return length == sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    case Kind::Unknown:
        break;
    }
    return false;
}

bool MovesData(const URB &urb) {
    Kind kind = KindOf(urb);
    return kind == Kind::Bulk || kind == Kind::Descriptor || kind == Kind::VendorOrClass;
}

std::optional<Setup> SetupOf(const URB &urb) {
    ULONG length = urb.UrbBulkOrInterruptTransfer.TransferBufferLength;
    if (length > std::numeric_limits<std::uint16_t>::max())
        return std::nullopt;
    if (KindOf(urb) == Kind::Descriptor) {
        const _URB_CONTROL_DESCRIPTOR_REQUEST &request = urb.UrbControlDescriptorRequest;
        return Setup{.requestType = 0x80,
                     .request = USB_REQUEST_GET_DESCRIPTOR,
                     .value = static_cast<std::uint16_t>(request.DescriptorType << 8 | request.Index),
                     .index = request.LanguageId,
                     .length = static_cast<std::uint16_t>(length)};
    }
    const VendorOrClassFunction *function = FindVendorOrClass(urb.UrbHeader.Function);
    if (function == nullptr)
        return std::nullopt;
    const _URB_CONTROL_VENDOR_OR_CLASS_REQUEST &request = urb.UrbControlVendorClassRequest;
    std::uint8_t direction = request.TransferFlags & USBD_TRANSFER_DIRECTION_IN ? 0x80 : 0;
    return Setup{.requestType = static_cast<std::uint8_t>(direction | function->typeAndRecipient |
                                                          request.RequestTypeReservedBits),
                 .request = request.Request,
                 .value = request.Value,
                 .index = request.Index,
                 .length = static_cast<std::uint16_t>(length)};
}

std::span<std::uint8_t> BufferOf(const URB &urb) {
    const _URB_BULK_OR_INTERRUPT_TRANSFER &transfer = urb.UrbBulkOrInterruptTransfer;
    ULONG length = transfer.TransferBufferLength;
    if (length == 0)
        return {};
    if (PMDL mdl = transfer.TransferBufferMDL; mdl != nullptr) {
        if (MmGetMdlByteCount(mdl) < length)
            Violation("the MDL of a URB is shorter than its transfer", "IOCTL_INTERNAL_USB_SUBMIT_URB",
                      "MDL of " + std::to_string(MmGetMdlByteCount(mdl)) + " bytes, transfer of " +
                          std::to_string(length));
        return {static_cast<std::uint8_t *>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority)), length};
    }
    if (transfer.TransferBuffer == nullptr)
        Violation("a URB has a length but no buffer", "IOCTL_INTERNAL_USB_SUBMIT_URB",
                  "function " + std::to_string(urb.UrbHeader.Function));
    return {static_cast<std::uint8_t *>(transfer.TransferBuffer), length};
}

} // namespace host::usb
