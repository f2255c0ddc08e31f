#include "usb/usb_request.h"

#include "platform/byte_cursor.h"
#include "platform/counted_string.h"
#include "platform/pool.h"

#include <algorithm>

namespace uvc {

namespace {

// Who has the last word on a request whose waiter may lose patience. Every change is an atomic exchange, so exactly one
// side finds what the other has left: the request is completed once, whatever the order.
enum SubmissionState : LONG {
    kSubmitted = 0,
    kCancelling = 1, // the waiter is inside IoCancelIrp: the request must not go away under it
    kCancelled = 2,  // the waiter has left IoCancelIrp
    kCompleted = 3,  // the completion routine has run
};

constexpr LONGLONG kTicksPerMillisecond = 10'000;

static_assert(sizeof(USB_DEVICE_DESCRIPTOR) == 18);

// Devices are asked for strings of up to 61 characters, behind the two bytes of the descriptor's head.
constexpr ULONG kStringDescriptorSize = 124;
constexpr ULONG kStringDescriptorWords = kStringDescriptorSize / sizeof(WCHAR);
// The primary English language without a sub-language, which is what devices with one language answer to.
constexpr USHORT kStringLanguage = 0x0009;
// A descriptor of a single character is what a device without a programmed name returns.
constexpr UCHAR kUnprogrammedStringLength = 4;
constexpr WCHAR kUnprogrammedText[] = L"DEADBEEF";

using DescriptorRequest = PoolPointer<_URB_CONTROL_DESCRIPTOR_REQUEST, pool_tag::UsbRequest>;

// Null without memory.
DescriptorRequest MakeDescriptorRequest(UCHAR type, UCHAR index, USHORT language, void *buffer, ULONG length) {
    auto request = DescriptorRequest::Allocate(NonPagedPool);
    if (request)
        UsbBuildGetDescriptorRequest(reinterpret_cast<URB *>(request.Get()), sizeof(*request), type, index, language,
                                     buffer, nullptr, length, nullptr);
    return request;
}

NTSTATUS Submit(PDEVICE_OBJECT lowerDevice, DescriptorRequest &request) {
    return UsbSubmitUrbOrFail(lowerDevice, reinterpret_cast<URB *>(request.Get()), kUsbRequestTimeoutMs);
}

NTSTATUS OnSubmissionComplete(PDEVICE_OBJECT, PIRP, PVOID context) {
    auto *state = static_cast<LONG *>(context);
    if (InterlockedExchange(state, kCompleted) == kCancelling)
        return STATUS_MORE_PROCESSING_REQUIRED; // the waiter completes the request when it is done with it
    return STATUS_SUCCESS;
}

// Comes back when the request has, by cancellation or because it completed after all.
void CancelAndAwait(PIRP irp, LONG &state, KEVENT &event) {
    if (InterlockedExchange(&state, kCancelling) == kSubmitted) {
        IoCancelIrp(irp);
        if (InterlockedExchange(&state, kCancelled) == kCompleted)
            IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
}

} // namespace

NTSTATUS UsbSubmitUrb(PDEVICE_OBJECT lowerDevice, URB *urb, LONG timeoutMs) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LONG state = kSubmitted;
    IO_STATUS_BLOCK result{};
    PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, lowerDevice, nullptr, 0, nullptr, 0, TRUE,
                                             &event, &result);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = urb;
    IoSetCompletionRoutine(irp, OnSubmissionComplete, &state, TRUE, TRUE, TRUE);

    NTSTATUS status = IoCallDriver(lowerDevice, irp);
    if (status != STATUS_PENDING)
        return status;
    LARGE_INTEGER timeout{.QuadPart = -timeoutMs * kTicksPerMillisecond};
    status = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    if (status != STATUS_TIMEOUT)
        return result.Status;
    CancelAndAwait(irp, state, event);
    return STATUS_TIMEOUT;
}

NTSTATUS UsbSubmitUrbOrFail(PDEVICE_OBJECT lowerDevice, URB *urb, LONG timeoutMs) {
    NTSTATUS status = UsbSubmitUrb(lowerDevice, urb, timeoutMs);
    return status == STATUS_TIMEOUT ? STATUS_IO_TIMEOUT : status;
}

NTSTATUS UsbGetDescriptor(PDEVICE_OBJECT lowerDevice, UCHAR type, void *buffer, ULONG length, ULONG &received) {
    received = 0;
    DescriptorRequest request = MakeDescriptorRequest(type, 0, 0, buffer, length);
    if (!request)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = Submit(lowerDevice, request);
    if (NT_SUCCESS(status))
        received = std::min(request->TransferBufferLength, length);
    return status;
}

NTSTATUS UsbGetDeviceDescriptor(PDEVICE_OBJECT lowerDevice, USB_DEVICE_DESCRIPTOR *descriptor) {
    if (descriptor == nullptr)
        return STATUS_INVALID_PARAMETER;
    ULONG received = 0;
    return UsbGetDescriptor(lowerDevice, USB_DEVICE_DESCRIPTOR_TYPE, descriptor, sizeof(*descriptor), received);
}

NTSTATUS UsbGetStringDescriptor(PDEVICE_OBJECT lowerDevice, UCHAR index, UNICODE_STRING *text) {
    // One word more than is asked for: the terminator of a descriptor that fills the buffer.
    auto words = PoolPointer<WCHAR, pool_tag::UsbRequest>::AllocateArray(NonPagedPool, kStringDescriptorWords + 1);
    if (!words) {
        DbgPrint("Failed to allocate USD\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DescriptorRequest request =
        MakeDescriptorRequest(USB_STRING_DESCRIPTOR_TYPE, index, kStringLanguage, words.Get(), kStringDescriptorSize);
    if (!request) {
        DbgPrint("Failed to allocate urb\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = Submit(lowerDevice, request);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to retrieve string descriptor for index %d, langID 0x%x\n", index, kStringLanguage);
        return status;
    }

    // A device may claim a longer descriptor than it sent, or than was asked for.
    const ULONG received = std::min(request->TransferBufferLength, kStringDescriptorSize);
    ByteCursor descriptor({reinterpret_cast<const std::uint8_t *>(words.Get()), received});
    const UCHAR claimed = descriptor.U8();
    if (claimed == kUnprogrammedStringLength)
        return RtlUnicodeStringCbCopyStringN(text, kUnprogrammedText, sizeof(kUnprogrammedText));
    const ULONG length = std::min<ULONG>(claimed, received);
    words[length / sizeof(WCHAR)] = 0;
    return RtlUnicodeStringCbCopyStringN(text, words.Get() + 1, length);
}

NTSTATUS UsbPipeRequest(PDEVICE_OBJECT lowerDevice, const USBD_PIPE_INFORMATION *pipe, USHORT urbFunction) {
    if (lowerDevice == nullptr)
        return STATUS_INVALID_HANDLE;
    auto request = PoolPointer<_URB_PIPE_REQUEST, pool_tag::UsbPipe>::Allocate(NonPagedPool);
    if (!request)
        return STATUS_INSUFFICIENT_RESOURCES;
    static_assert(sizeof(*request) == 40);
    request->Hdr.Length = sizeof(*request);
    request->Hdr.Function = urbFunction;
    request->PipeHandle = pipe != nullptr ? pipe->PipeHandle : nullptr;
    NTSTATUS status = UsbSubmitUrbOrFail(lowerDevice, reinterpret_cast<URB *>(request.Get()), kUsbRequestTimeoutMs);
    // Busy is the one URB error that callers act on; any other is for the next transfer to find.
    if (request->Hdr.Status == USBD_STATUS_ERROR_BUSY)
        return USBD_STATUS_ERROR_BUSY;
    return NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

NTSTATUS UsbSendInternalIoctl(PDEVICE_OBJECT lowerDevice, ULONG controlCode) {
    if (lowerDevice == nullptr)
        return STATUS_INVALID_HANDLE;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result{};
    PIRP irp = IoBuildDeviceIoControlRequest(controlCode, lowerDevice, nullptr, 0, nullptr, 0, TRUE, &event, &result);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = IoCallDriver(lowerDevice, irp);
    if (status != STATUS_PENDING)
        return status;
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    return result.Status;
}

} // namespace uvc
