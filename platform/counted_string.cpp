#include "platform/counted_string.h"

namespace {

constexpr SIZE_T kMaximumBytes = 0xFFFE;

bool IsValid(const UNICODE_STRING *string) {
    return string != nullptr && string->Length % sizeof(WCHAR) == 0 && string->MaximumLength % sizeof(WCHAR) == 0 &&
           string->Length <= string->MaximumLength && (string->Buffer != nullptr || string->MaximumLength == 0);
}

// Appends up to `limit` characters at `offset` characters into the destination.
NTSTATUS PutCharacters(UNICODE_STRING *destination, SIZE_T offset, const WCHAR *source, SIZE_T limit) {
    SIZE_T capacity = destination->MaximumLength / sizeof(WCHAR);
    SIZE_T used = offset;
    SIZE_T taken = 0;
    while (taken < limit && source[taken] != 0 && used < capacity)
        destination->Buffer[used++] = source[taken++];
    destination->Length = static_cast<USHORT>(used * sizeof(WCHAR));
    return taken < limit && source[taken] != 0 ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

} // namespace

NTSTATUS RtlUnicodeStringCopyString(UNICODE_STRING *destination, const WCHAR *source) {
    if (!IsValid(destination))
        return STATUS_INVALID_PARAMETER;
    return PutCharacters(destination, 0, source, kMaximumBytes / sizeof(WCHAR));
}

NTSTATUS RtlUnicodeStringCbCopyStringN(UNICODE_STRING *destination, const WCHAR *source, SIZE_T length) {
    if (!IsValid(destination) || length > kMaximumBytes)
        return STATUS_INVALID_PARAMETER;
    return PutCharacters(destination, 0, source, length / sizeof(WCHAR));
}

NTSTATUS RtlUnicodeStringCat(UNICODE_STRING *destination, const UNICODE_STRING *source) {
    if (!IsValid(destination) || !IsValid(source))
        return STATUS_INVALID_PARAMETER;
    return PutCharacters(destination, destination->Length / sizeof(WCHAR), source->Buffer,
                         source->Length / sizeof(WCHAR));
}

NTSTATUS RtlUnicodeStringCatString(UNICODE_STRING *destination, const WCHAR *source) {
    if (!IsValid(destination))
        return STATUS_INVALID_PARAMETER;
    return PutCharacters(destination, destination->Length / sizeof(WCHAR), source, kMaximumBytes / sizeof(WCHAR));
}
