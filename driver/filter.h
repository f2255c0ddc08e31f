// The capture filter: the constant descriptors from which each device's own are copied.
#pragma once

#include "platform/platform.h"

namespace uvc {

// One filter, one video capture pin. Its DataRanges are the two template ranges, offered as they stand only by a camera
// without formats.
extern const KSFILTER_DESCRIPTOR CaptureFilterDescriptor;

} // namespace uvc
