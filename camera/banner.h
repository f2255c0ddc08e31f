// The driver's version banner.
#pragma once

#include "platform/platform.h"

namespace uvc {

// Appends "uvc_drv, ver=<version> build (fre) <build time>" to a counted string; no terminating zero.
// STATUS_INVALID_PARAMETER for a malformed destination, STATUS_BUFFER_OVERFLOW when the text was cut at its end.
// IRQL: PASSIVE_LEVEL.
NTSTATUS AppendVersionBanner(UNICODE_STRING *text);

} // namespace uvc
