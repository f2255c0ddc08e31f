// Fixed lists of frame intervals, in the order in which they are offered.
#pragma once

#include "platform/platform.h"

#include <span>

namespace uvc {

struct FrameIntervalEntry {
    ULONG interval; // 100 ns
    ULONG code;     // what the camera takes for it
};

using FrameIntervalList = std::span<const FrameIntervalEntry>;

} // namespace uvc
