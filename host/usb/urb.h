// What a URB asks for and how it ends: functions over the platform's own structures, without state.
#pragma once

#include "host/usb/usb_device.h"
#include "platform/platform.h"

#include <cstdint>
#include <optional>
#include <span>

namespace host::usb {

// The NTSTATUS of the IRP that goes with the USBD status of its URB, as the port driver pairs them.
NTSTATUS StatusOf(USBD_STATUS status);

// Whether the bus knows the URB's function, and whether the header's length is what that function needs.
bool IsKnownFunction(const URB &urb);
bool HasRightLength(const URB &urb);

// Functions that move data through TransferBuffer or TransferBufferMDL.
bool MovesData(const URB &urb);

// The setup packet of a descriptor, class or vendor request. Nothing when it cannot be expressed as one.
std::optional<Setup> SetupOf(const URB &urb);

// The memory behind a URB that moves data: the MDL's when it has one. A missing or short buffer is a violation; null
// data with a length means that the pages could not be mapped. IRQL: <= DISPATCH_LEVEL.
std::span<std::uint8_t> BufferOf(const URB &urb);

} // namespace host::usb
