// Small helpers for texts in reports, and between the kernel's strings and ours.
#pragma once

#include "platform/platform.h"

#include <string>
#include <string_view>

namespace host {

// std::snprintf into a string.
[[gnu::format(printf, 1, 2)]] std::string Format(const char *format, ...);

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

inline std::u16string_view View(const UNICODE_STRING &text) {
    return {reinterpret_cast<const char16_t *>(text.Buffer), text.Length / sizeof(WCHAR)};
}
inline std::u16string_view View(const WCHAR *text) {
    return reinterpret_cast<const char16_t *>(text);
}

// A counted string over text that outlives it.
inline UNICODE_STRING Counted(std::u16string_view text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {.Length = bytes,
            .MaximumLength = bytes,
            .Buffer = const_cast<WCHAR *>(reinterpret_cast<const WCHAR *>(text.data()))};
}

char16_t Upcase(char16_t character);
std::u16string Upcase(std::u16string_view text);

// {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}
std::u16string GuidText(const GUID &guid);

} // namespace host
