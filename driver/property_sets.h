// The property sets of the filter and of its pin, as constant tables.
#pragma once

#include "platform/platform.h"

namespace uvc {

extern const KSAUTOMATION_TABLE kFilterAutomationTable;
extern const KSAUTOMATION_TABLE kPinAutomationTable;

} // namespace uvc
