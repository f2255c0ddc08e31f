// Reads the class-specific descriptors of a configuration (UVC 1.1, sections 3.7 and 3.9). Whoever keeps a descriptor's
// address reads it again through the functions here, which never leave the descriptor.
#pragma once

#include "camera/descriptor_block.h"
#include "platform/byte_cursor.h"

#include <span>

namespace uvc {

// Video-control entities are those of interface 0, formats those of interface 1: requests go to these two whatever else
// a composite device has.
//
// Fills everything but the committed block; `block` starts zeroed and points into `configuration` afterwards. What is
// cut short, does not hold what it announces or finds no room is left out; a bLength below 2 or beyond the end of the
// bytes ends the walk. IRQL: <= APC_LEVEL, the block is paged.
void ParseDescriptors(std::span<const std::uint8_t> configuration, DescriptorBlock &block);

// bmControls of a camera terminal, processing or extension unit; empty when it does not lie inside the descriptor.
std::span<const std::uint8_t> EntityControls(const UCHAR *entity);

// VS_FORMAT_UNCOMPRESSED or VS_FORMAT_FRAME_BASED.
struct FormatDescription {
    UCHAR index;
    GUID subtype;
    UCHAR bitsPerPixel;
};

// VS_FRAME_UNCOMPRESSED or VS_FRAME_FRAME_BASED. Intervals in 100 ns.
struct FrameDescription {
    UCHAR index;
    USHORT width;
    USHORT height;
    ULONG defaultInterval;
    bool continuous;      // the camera takes every interval between two limits
    ULONG intervalCount;  // of a discrete list; 2 for the limits; 0 when the descriptor has none
    ByteCursor intervals; // 4 bytes each
};

// False when `descriptor` is null, of another subtype or too short for its content.
bool ReadFormatDescriptor(const UCHAR *descriptor, FormatDescription &format);
bool ReadFrameDescriptor(const UCHAR *descriptor, FrameDescription &frame);

} // namespace uvc
