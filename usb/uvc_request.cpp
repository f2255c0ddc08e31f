#include "usb/uvc_request.h"

#include "camera/uvc_camera.h"
#include "platform/byte_cursor.h"
#include "platform/shared_field.h"
#include "usb/usb_request.h"

#include <algorithm>

namespace uvc {

namespace {

constexpr ULONG kRecipientCount = 4;
constexpr USHORT kNoUrbFunction = 0xFFFF; // refused by the bus driver

struct RequestFunctions {
    USHORT byRecipient[kRecipientCount];
};

constexpr RequestFunctions kClassFunctions{
    {URB_FUNCTION_CLASS_DEVICE, URB_FUNCTION_CLASS_INTERFACE, URB_FUNCTION_CLASS_ENDPOINT, URB_FUNCTION_CLASS_OTHER}};
constexpr RequestFunctions kVendorFunctions{{URB_FUNCTION_VENDOR_DEVICE, URB_FUNCTION_VENDOR_INTERFACE,
                                             URB_FUNCTION_VENDOR_ENDPOINT, URB_FUNCTION_VENDOR_OTHER}};

// Offsets in the heads of UVC descriptors (UVC 1.1, section 3.7.2).
constexpr std::size_t kEntityIdOffset = 3; // bTerminalID, bUnitID

// Where the data length stands in the head of a unit request.
constexpr std::size_t kUnitLengthOffset = 4;

USHORT UrbFunctionOf(const UvcControlRequest &request) {
    if (request.recipient >= kRecipientCount)
        return kNoUrbFunction;
    return (request.vendor != 0 ? kVendorFunctions : kClassFunctions).byRecipient[request.recipient];
}

LONG ControlTimeoutMs(const UvcCamera &camera) {
    const LONG timeout = SharedLoad(camera.parameters.controlTimeoutMs);
    return timeout < 0 ? kUsbRequestTimeoutMs : timeout;
}

// The request of a pass-through header; `data` is left to the caller. False for a header that is too short.
bool ParsePassThrough(const UCHAR *header, ULONG length, UvcControlRequest &request) {
    ByteCursor cursor({header, length});
    request.vendor = cursor.U8();
    request.recipient = cursor.U8();
    request.out = cursor.U8();
    request.request = cursor.U8();
    request.value = cursor.U16();
    request.index = cursor.U16();
    request.length = cursor.U16();
    return cursor.Ok();
}

} // namespace

NTSTATUS UvcSendControlRequest(UvcCamera &camera, const UvcControlRequest &request, ULONG &transferred) {
    transferred = 0;
    if (camera.link == nullptr || camera.link->lowerDevice == nullptr)
        return STATUS_INVALID_HANDLE;
    using ControlUrb = _URB_CONTROL_VENDOR_OR_CLASS_REQUEST;
    static_assert(sizeof(ControlUrb) == 136);
    auto urb = PoolPointer<ControlUrb, pool_tag::UsbRequest>::Allocate(NonPagedPool);
    if (!urb)
        return STATUS_INSUFFICIENT_RESOURCES;
    urb->Hdr.Length = sizeof(ControlUrb);
    urb->Hdr.Function = UrbFunctionOf(request);
    urb->TransferFlags = request.out != 0 ? USBD_TRANSFER_DIRECTION_OUT : USBD_TRANSFER_DIRECTION_IN;
    urb->TransferBufferLength = request.length;
    urb->TransferBuffer = request.data;
    urb->Request = request.request;
    urb->Value = request.value;
    urb->Index = request.index;
    NTSTATUS status =
        UsbSubmitUrbOrFail(camera.link->lowerDevice, reinterpret_cast<URB *>(urb.Get()), ControlTimeoutMs(camera));
    if (NT_SUCCESS(status))
        transferred = std::min(urb->TransferBufferLength, request.length);
    return status;
}

NTSTATUS UvcUnitRequest(UvcCamera &camera, UCHAR *buffer, UCHAR entityId, UCHAR selector, ULONG &transferred) {
    ByteCursor head({buffer, kUnitRequestHeader});
    const UCHAR code = head.U8();
    head.Skip(kUnitLengthOffset - 1);
    const UvcControlRequest request{.out = code == kSetCur,
                                    .vendor = 0,
                                    .recipient = kRecipientInterface,
                                    .request = code,
                                    .value = static_cast<USHORT>(selector << 8),
                                    .index = static_cast<USHORT>(entityId << 8 | kControlInterface),
                                    .length = head.U16(),
                                    .data = buffer + kUnitRequestHeader};
    return UvcSendControlRequest(camera, request, transferred);
}

NTSTATUS UvcGetEntityId(const UvcCamera &camera, ULONG kind, UCHAR &id) {
    id = 0;
    if (kind != kInputTerminal && kind != kProcessingUnit && kind != kExtensionUnit)
        return STATUS_SUCCESS;
    const DescriptorBlock *block = camera.descriptors.Get();
    if (block == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    const UCHAR *descriptor = kind == kInputTerminal    ? block->cameraTerminal
                              : kind == kProcessingUnit ? block->processingUnit
                                                        : block->extensionUnit;
    if (descriptor == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ByteCursor cursor({descriptor, kEntityIdOffset + 1});
    cursor.Skip(kEntityIdOffset);
    id = cursor.U8();
    return STATUS_SUCCESS;
}

NTSTATUS UvcPassThroughSet(UvcCamera &camera, UCHAR *data, ULONG length) {
    UvcControlRequest request{};
    if (!ParsePassThrough(data, length, request) || request.length > length - kPassThroughHeader)
        return STATUS_BUFFER_OVERFLOW;
    request.data = data + kPassThroughHeader;
    ULONG transferred = 0;
    return UvcSendControlRequest(camera, request, transferred);
}

NTSTATUS UvcPassThroughGet(UvcCamera &camera, const UCHAR *instance, ULONG instanceLength, UCHAR *data, ULONG length,
                           ULONG &information) {
    information = 0;
    UvcControlRequest request{};
    if (!ParsePassThrough(instance, instanceLength, request) || request.length > length)
        return STATUS_BUFFER_OVERFLOW;
    request.data = data;
    return UvcSendControlRequest(camera, request, information);
}

} // namespace uvc
