// The counted-string routines of the WDK's safe-string library, which the mingw-w64 headers lack, under their own
// names.
//
// A destination or source that is not a valid counted string (odd Length or MaximumLength, Length above MaximumLength,
// no buffer behind a non-zero size) gives STATUS_INVALID_PARAMETER. A text that does not fit is cut at the end of the
// buffer and gives STATUS_BUFFER_OVERFLOW. The result is not zero-terminated. IRQL: PASSIVE_LEVEL.
#pragma once

#include "platform/platform.h"

NTSTATUS RtlUnicodeStringCopyString(UNICODE_STRING *destination, const WCHAR *source);
NTSTATUS RtlUnicodeStringCat(UNICODE_STRING *destination, const UNICODE_STRING *source);
NTSTATUS RtlUnicodeStringCatString(UNICODE_STRING *destination, const WCHAR *source);

// Copies at most `length` bytes of `source`, stopping at the first zero character.
NTSTATUS RtlUnicodeStringCbCopyStringN(UNICODE_STRING *destination, const WCHAR *source, SIZE_T length);

// A counted string over a constant text, as the kernel's own macro makes it.
template <SIZE_T N> constexpr UNICODE_STRING ConstantString(const WCHAR (&text)[N]) {
    return {.Length = static_cast<USHORT>((N - 1) * sizeof(WCHAR)),
            .MaximumLength = static_cast<USHORT>(N * sizeof(WCHAR)),
            .Buffer = const_cast<WCHAR *>(text)};
}
