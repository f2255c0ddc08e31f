#include "camera/vendor_protocol.h"

#include "platform/byte_cursor.h"
#include "usb/uvc_request.h"

#include <span>

namespace uvc {

namespace {

NTSTATUS Receive(UvcCamera &camera, VendorRequestCode request, USHORT value, USHORT index, void *data, ULONG length,
                 ULONG &received) {
    const UvcControlRequest control{
        .out = 0,
        .vendor = 1,
        .recipient = kRecipientDevice,
        .request = request,
        .value = value,
        .index = index,
        .length = length,
        .data = data,
    };
    return UvcSendControlRequest(camera, control, received);
}

} // namespace

NTSTATUS VendorSend(UvcCamera &camera, VendorRequestCode request, USHORT value, USHORT index, void *data,
                    ULONG length) {
    const UvcControlRequest control{
        .out = 1,
        .vendor = 1,
        .recipient = kRecipientDevice,
        .request = request,
        .value = value,
        .index = index,
        .length = length,
        .data = data,
    };
    ULONG sent = 0;
    NTSTATUS status = UvcSendControlRequest(camera, control, sent);
    return NT_SUCCESS(status) && sent != length ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS VendorRead(UvcCamera &camera, VendorRequestCode request, USHORT value, USHORT index, void *data,
                    ULONG length) {
    ULONG received = 0;
    NTSTATUS status = Receive(camera, request, value, index, data, length, received);
    return NT_SUCCESS(status) && received != length ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS VendorReadWord(UvcCamera &camera, VendorRequestCode request, ULONG &value) {
    USHORT word = 0;
    ULONG received = 0;
    NTSTATUS status = Receive(camera, request, 0, 0, &word, sizeof(word), received);
    if (NT_SUCCESS(status))
        value = word;
    return status;
}

NTSTATUS VendorReadDescription(UvcCamera &camera, CameraDescription &description) {
    constexpr UCHAR kVersion = 1;
    constexpr UCHAR kPatterns = 4;
    enum Feature : UCHAR { kColour = 0x01, kRegisters = 0x04, kUserData = 0x20 };

    description = {};
    UCHAR bytes[sizeof(description.bytes)] = {};
    ULONG received = 0;
    NTSTATUS status = Receive(camera, kReadCameraDescription, 0, 0, bytes, sizeof(bytes), received);
    if (status == STATUS_INSUFFICIENT_RESOURCES)
        return status;
    ByteCursor cursor{std::span<const std::uint8_t>(bytes)};
    const UCHAR version = cursor.U8();
    const UCHAR features = cursor.U8();
    const UCHAR pattern = cursor.U8();
    if (!NT_SUCCESS(status) || received != sizeof(bytes) || version != kVersion ||
        ((features & kColour) != 0 && pattern >= kPatterns))
        return STATUS_SUCCESS;

    RtlCopyMemory(description.bytes, bytes, sizeof(bytes));
    description.colour = (features & kColour) != 0;
    description.registerBlock = (features & kRegisters) != 0;
    description.userDataStore = (features & kUserData) != 0;
    description.pattern = pattern;
    return STATUS_SUCCESS;
}

} // namespace uvc
