// UVC 1.1 class requests and vendor requests: every control transfer to the camera goes through UvcSendControlRequest.
#pragma once

#include "platform/platform.h"

#include <cstdint>

namespace uvc {

class UvcCamera;

// UVC 1.1 table A-8.
enum UvcRequestCode : UCHAR {
    kSetCur = 0x01,
    kGetCur = 0x81,
    kGetMin = 0x82,
    kGetMax = 0x83,
    kGetRes = 0x84,
    kGetLen = 0x85,
    kGetInfo = 0x86,
    kGetDef = 0x87,
};

enum UvcRecipient : UCHAR {
    kRecipientDevice = 0,
    kRecipientInterface = 1,
    kRecipientEndpoint = 2,
    kRecipientOther = 3
};

struct UvcControlRequest {
    UCHAR out;       // 0: device to host
    UCHAR vendor;    // 0: class request
    UCHAR recipient; // UvcRecipient
    UCHAR request;   // bRequest
    USHORT value;    // wValue
    USHORT index;    // wIndex
    ULONG length;    // wLength
    void *data;      // `length` bytes
};

// One control transfer with the camera's control time-out. `transferred` receives the bytes that moved. Without a lower
// device STATUS_INVALID_HANDLE; a time-out is STATUS_IO_TIMEOUT. IRQL: PASSIVE_LEVEL.
NTSTATUS UvcSendControlRequest(UvcCamera &camera, const UvcControlRequest &request, ULONG &transferred);

// The head of a unit request: byte 0 bRequest, bytes 4-5 length, data from byte 8.
inline constexpr ULONG kUnitRequestHeader = 8;

// A class request to an entity of the video-control interface. IRQL: PASSIVE_LEVEL.
NTSTATUS UvcUnitRequest(UvcCamera &camera, UCHAR *buffer, UCHAR entityId, UCHAR selector, ULONG &transferred);

// Kinds of entity by their descriptor subtype (UVC 1.1 table A-5).
inline constexpr ULONG kInputTerminal = 2;
inline constexpr ULONG kProcessingUnit = 5;
inline constexpr ULONG kExtensionUnit = 6;

// The id of the camera terminal, processing or extension unit. STATUS_NOT_IMPLEMENTED when the camera has none; any
// other kind gives 0 and success. A camera terminal counts only when it is the first input terminal.
NTSTATUS UvcGetEntityId(const UvcCamera &camera, ULONG kind, UCHAR &id);

// The pass-through request of parameter 6: 10 bytes {vendor, recipient, direction, bRequest, wValue, wIndex, wLength},
// then data. STATUS_BUFFER_OVERFLOW for a buffer that is too short for its header or for wLength.
inline constexpr ULONG kPassThroughHeader = 10;
NTSTATUS UvcPassThroughSet(UvcCamera &camera, UCHAR *data, ULONG length);
NTSTATUS UvcPassThroughGet(UvcCamera &camera, const UCHAR *instance, ULONG instanceLength, UCHAR *data, ULONG length,
                           ULONG &information);

} // namespace uvc
