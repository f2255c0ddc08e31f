// What the camera's class-specific descriptors say, as far as the driver uses it: pointers into the configuration
// descriptor, which the USB link owns. Anything beyond 7 formats or 11 frames of a format is left out.
#pragma once

#include "platform/platform.h"
#include "usb/probe_commit.h"

namespace uvc {

inline constexpr ULONG kMaximumFormats = 7;
inline constexpr ULONG kMaximumFrames = 11;

#pragma pack(push, 1)
struct DescribedFormat {
    UCHAR frameBased; // the frames go to AddOtherFrame instead of AddUncompressedFrame
    ULONG frameCount;
    const UCHAR *format;                 // VS_FORMAT_UNCOMPRESSED or VS_FORMAT_FRAME_BASED, complete
    const UCHAR *frames[kMaximumFrames]; // their VS_FRAME_* descriptors, complete
};

struct DescriptorBlock {
    const UCHAR *cameraTerminal; // the first input terminal if it is a camera, else null
    const UCHAR *processingUnit;
    const UCHAR *extensionUnit;
    ULONG formatCount;
    DescribedFormat formats[kMaximumFormats];
    ProbeCommitBlock committed; // the last committed block
};
#pragma pack(pop)
static_assert(sizeof(DescribedFormat) == 101);
static_assert(sizeof(DescriptorBlock) == 769);

// The descriptors of a UVC format and frame index; false when the block has no such pair.
bool FindDescribedFrame(const DescriptorBlock &block, ULONG formatIndex, ULONG frameIndex, const UCHAR *&format,
                        const UCHAR *&frame);

} // namespace uvc
