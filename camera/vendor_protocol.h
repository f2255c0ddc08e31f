// The families' vendor requests, as docs/camera-protocol.md lists them. All go to the device. IRQL: PASSIVE_LEVEL.
#pragma once

#include "platform/platform.h"

namespace uvc {

class UvcCamera;

enum VendorRequestCode : UCHAR {
    kReadFirmwareRevision = 0x16, // in, 2 bytes
    kReadDeviceStatus = 0x17,     // in, 2 bytes
    kWriteUserRegister = 0x19,    // out, 4 bytes
    kReadCameraDescription = 0x20,
    kSetStreamingMode = 0x21, // out, 1 byte
    kSetFrameRate = 0x22,     // out, no data
    kTriggerExposure = 0x23,  // out, no data
    kReadUserData = 0x24,     // in, 1 to 1024 bytes
    kWriteUserData = 0x25,    // out, 1 to 1024 bytes
    kClearUserData = 0x26,    // out, no data
    kReadRegister = 0x27,     // in, 4 bytes
    kWriteRegister = 0x28,    // out, 4 bytes
    kRestartLoader = 0x42,    // out, no data, with the two values below
};

// Without this pair the camera refuses to restart into its loader.
inline constexpr USHORT kRestartValue = 0xB0C4;
inline constexpr USHORT kRestartIndex = 0x2E71;

NTSTATUS VendorSend(UvcCamera &camera, VendorRequestCode request, USHORT value, USHORT index, void *data, ULONG length);

// Reads exactly `length` bytes; STATUS_UNSUCCESSFUL when fewer come.
NTSTATUS VendorRead(UvcCamera &camera, VendorRequestCode request, USHORT value, USHORT index, void *data, ULONG length);

// Reads 2 bytes and extends them with zeros.
NTSTATUS VendorReadWord(UvcCamera &camera, VendorRequestCode request, ULONG &value);

// What a camera of family B or C tells about itself.
struct CameraDescription {
    UCHAR bytes[8]; // as received, all zero when the camera did not answer as it should
    bool colour;
    bool registerBlock;
    bool userDataStore;
    ULONG pattern; // Bayer pattern of a colour sensor: 0 B-G, 1 G-B, 2 G-R, 3 R-G
};

// A camera that refuses, cuts the answer short, speaks another version or names an unknown pattern is monochrome
// without any feature; only STATUS_INSUFFICIENT_RESOURCES is a failure.
NTSTATUS VendorReadDescription(UvcCamera &camera, CameraDescription &description);

} // namespace uvc
