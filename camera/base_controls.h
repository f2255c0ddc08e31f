// The controls that every UVC camera may have, searched after all providers.
#pragma once

#include "camera/control.h"

namespace uvc {

std::span<const ControlItem> BaseControls();

} // namespace uvc
