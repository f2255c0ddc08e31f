// Format negotiation of the capture pin.
#pragma once

#include "platform/platform.h"

#include <cstddef>

namespace uvc {

// Bytes of a video header before its bitmap header, whose biSize counts only itself.
inline constexpr ULONG kInfoBeforeBitmap = offsetof(KS_VIDEOINFOHEADER, bmiHeader);

// KSPIN_DESCRIPTOR_EX::IntersectHandler: turns a client's range into a KS_DATAFORMAT_VIDEOINFOHEADER. The client's
// interval, width and height are taken as they are; SetCapturePinFormat tests them later.
//   STATUS_NO_MATCH           the ranges have nothing in common
//   STATUS_INVALID_PARAMETER  the client's header size is below 40 or does not fit its range
//   STATUS_BUFFER_OVERFLOW    no buffer; `dataSize` has the size
//   STATUS_BUFFER_TOO_SMALL   short buffer
// IRQL: PASSIVE_LEVEL.
NTSTATUS IntersectVideoFormat(PVOID context, PIRP irp, PKSP_PIN pin, PKSDATARANGE callerRange,
                              PKSDATARANGE descriptorRange, ULONG bufferSize, PVOID data, PULONG dataSize);

// KSPIN_DISPATCH::SetDataFormat: checks the pin's new connection format against the matched range. While the pin is not
// stopped only a vertical flip of the current format is accepted.
//   STATUS_NO_MATCH, STATUS_INVALID_PARAMETER, STATUS_INVALID_DEVICE_STATE, STATUS_INSUFFICIENT_RESOURCES
// IRQL: PASSIVE_LEVEL. Lock: control mutex held by the class driver.
NTSTATUS SetCapturePinFormat(PKSPIN pin, PKSDATAFORMAT oldFormat, PKSMULTIPLE_ITEM oldAttributes,
                             const KSDATARANGE *range, const KSATTRIBUTE_LIST *attributeRange);

} // namespace uvc
