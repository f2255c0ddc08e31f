// Synchronous USB requests: where the driver talks to the bus driver below it for anything but bulk streaming and the
// query for the bus interface. Everything here waits for its request.
#pragma once

#include "platform/platform.h"

namespace uvc {

inline constexpr LONG kUsbRequestTimeoutMs = 1000;

// Submits `urb` to `lowerDevice` and waits at most `timeoutMs`. Returns the request's completion status;
// STATUS_TIMEOUT (a success code!) after the request was cancelled and has come back, so that the URB may be freed in
// any case; STATUS_INSUFFICIENT_RESOURCES when no request could be built. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbSubmitUrb(PDEVICE_OBJECT lowerDevice, URB *urb, LONG timeoutMs);

// The same with a time-out turned into the failure STATUS_IO_TIMEOUT, for callers that go on to use what the request
// should have filled. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbSubmitUrbOrFail(PDEVICE_OBJECT lowerDevice, URB *urb, LONG timeoutMs);

// Reads at most `length` bytes of the device's first descriptor of a type into non-paged memory; `received` becomes
// what it sent. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbGetDescriptor(PDEVICE_OBJECT lowerDevice, UCHAR type, void *buffer, ULONG length, ULONG &received);

// Reads the 18-byte device descriptor. STATUS_INVALID_PARAMETER for a null buffer. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbGetDeviceDescriptor(PDEVICE_OBJECT lowerDevice, USB_DEVICE_DESCRIPTOR *descriptor);

// Reads string descriptor `index` in language 9 into the caller's counted string. STATUS_BUFFER_OVERFLOW when it was
// cut, STATUS_INVALID_PARAMETER for a malformed destination. A descriptor of one character reads "DEADBEEF".
// IRQL: PASSIVE_LEVEL.
NTSTATUS UsbGetStringDescriptor(PDEVICE_OBJECT lowerDevice, UCHAR index, UNICODE_STRING *text);

// Sends URB_FUNCTION_ABORT_PIPE or URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL; a null pipe sends a null handle.
// STATUS_INVALID_HANDLE without a device. Returns USBD_STATUS_ERROR_BUSY itself when the URB says so; other URB errors
// do not show. IRQL: PASSIVE_LEVEL.
NTSTATUS UsbPipeRequest(PDEVICE_OBJECT lowerDevice, const USBD_PIPE_INFORMATION *pipe, USHORT urbFunction);

// Sends an internal control code without buffers and waits without time-out. STATUS_INVALID_HANDLE without a device.
// IRQL: PASSIVE_LEVEL.
NTSTATUS UsbSendInternalIoctl(PDEVICE_OBJECT lowerDevice, ULONG controlCode);

} // namespace uvc
