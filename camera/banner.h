// The driver's version banner.
#pragma once

#include "platform/counted_string.h"

namespace uvc {

inline constexpr UNICODE_STRING kDriverVersion = ConstantString(L"2.1.5.616");

// Appends "uvc_drv, ver=<version> build (fre) <build time>" to a counted string; no terminating zero.
// STATUS_INVALID_PARAMETER for a malformed destination, STATUS_BUFFER_OVERFLOW when the text was cut at its end.
// IRQL: PASSIVE_LEVEL.
NTSTATUS AppendVersionBanner(UNICODE_STRING *text);

} // namespace uvc
