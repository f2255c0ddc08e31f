// The property sets of the filter and of its pin, as constant tables.
#pragma once

#include "platform/platform.h"

namespace uvc {

extern const GUID kDriverParameterSet; // {6E0C59B1-3C83-4A78-9838-10D5C883E3CB}

extern const KSAUTOMATION_TABLE kFilterAutomationTable;
extern const KSAUTOMATION_TABLE kPinAutomationTable;

} // namespace uvc
