// The run-time library's strings.
#include "host/executive/state.h"

#include <algorithm>
#include <cstring>

using namespace host;

namespace {

constexpr ULONG kTag = 0x536C7452; // "RtlS"

std::size_t Length(const WCHAR *text) {
    std::size_t length = 0;
    while (text[length] != 0)
        ++length;
    return length;
}

NTSTATUS Append(PUNICODE_STRING to, const WCHAR *text, std::size_t bytes) {
    if (to->Length + bytes > to->MaximumLength)
        return STATUS_BUFFER_TOO_SMALL;
    std::memmove(reinterpret_cast<char *>(to->Buffer) + to->Length, text, bytes);
    to->Length = static_cast<USHORT>(to->Length + bytes);
    if (to->Length + sizeof(WCHAR) <= to->MaximumLength)
        to->Buffer[to->Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}

LONG Compare(std::u16string_view a, std::u16string_view b, bool ignoreCase) {
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        const int x = ignoreCase ? Upcase(a[i]) : a[i];
        const int y = ignoreCase ? Upcase(b[i]) : b[i];
        if (x != y)
            return x - y;
    }
    return static_cast<LONG>(a.size()) - static_cast<LONG>(b.size());
}

int HexDigit(char16_t character) {
    if (character >= u'0' && character <= u'9')
        return character - u'0';
    const char16_t upper = Upcase(character);
    return upper >= u'A' && upper <= u'F' ? upper - u'A' + 10 : -1;
}

} // namespace

extern "C" {

void NTAPI RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source) {
    const std::size_t bytes = source != nullptr ? std::min<std::size_t>(Length(source) * sizeof(WCHAR), 0xFFFC) : 0;
    *destination = {static_cast<USHORT>(bytes), static_cast<USHORT>(source != nullptr ? bytes + sizeof(WCHAR) : 0),
                    const_cast<PWSTR>(source)};
}

void NTAPI RtlInitAnsiString(PANSI_STRING destination, PCSZ source) {
    const std::size_t length = source != nullptr ? std::min<std::size_t>(std::strlen(source), 0xFFFE) : 0;
    *destination = {static_cast<USHORT>(length), static_cast<USHORT>(source != nullptr ? length + 1 : 0),
                    const_cast<PCHAR>(source)};
}

void NTAPI RtlInitString(PSTRING destination, PCSZ source) {
    RtlInitAnsiString(destination, source);
}

void NTAPI RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source) {
    destination->Length = 0;
    if (source != nullptr)
        static_cast<void>(Append(destination, source->Buffer, std::min(source->Length, destination->MaximumLength)));
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlCompareUnicodeString");
    return Compare(View(*a), View(*b), ignoreCase != FALSE);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlEqualUnicodeString");
    return a->Length == b->Length && Compare(View(*a), View(*b), ignoreCase != FALSE) == 0;
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING prefix, PCUNICODE_STRING text, BOOLEAN ignoreCase) {
    return Compare(View(*prefix), View(*text).substr(0, prefix->Length / sizeof(WCHAR)), ignoreCase != FALSE) == 0;
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING destination, PCWSTR source) {
    return source != nullptr ? Append(destination, source, Length(source) * sizeof(WCHAR)) : STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING destination, PCUNICODE_STRING source) {
    return Append(destination, source->Buffer, source->Length);
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR character) {
    return static_cast<WCHAR>(Upcase(static_cast<char16_t>(character)));
}

// White space, a sign, and with base 0 one of the prefixes 0x, 0o, 0b may come first. Ends at what is not a digit.
NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING string, ULONG base, PULONG value) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlUnicodeStringToInteger");
    std::u16string_view text = View(*string);
    while (!text.empty() && text.front() <= u' ')
        text.remove_prefix(1);
    const bool negative = text.starts_with(u'-');
    if (negative || text.starts_with(u'+'))
        text.remove_prefix(1);
    if (base == 0) {
        base = 10;
        if (text.size() > 1 && text[0] == u'0') {
            const char16_t prefix = text[1];
            const ULONG given = prefix == u'x' ? 16 : prefix == u'o' ? 8 : prefix == u'b' ? 2 : 0;
            if (given != 0) {
                base = given;
                text.remove_prefix(2);
            }
        }
    } else if (base != 2 && base != 8 && base != 10 && base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG sum = 0;
    for (char16_t character : text) {
        const int digit = HexDigit(character);
        if (digit < 0 || static_cast<ULONG>(digit) >= base)
            break;
        sum = sum * base + static_cast<ULONG>(digit);
    }
    *value = negative ? 0 - sum : sum;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG value, ULONG base, PUNICODE_STRING string) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlIntegerToUnicodeString");
    if (base == 0)
        base = 10;
    if (base != 2 && base != 8 && base != 10 && base != 16)
        return STATUS_INVALID_PARAMETER;
    std::u16string digits;
    do {
        digits.insert(digits.begin(), u"0123456789ABCDEF"[value % base]);
        value /= base;
    } while (value != 0);
    const std::size_t bytes = digits.size() * sizeof(WCHAR);
    if (bytes > string->MaximumLength)
        return STATUS_BUFFER_OVERFLOW;
    string->Length = 0;
    return Append(string, reinterpret_cast<const WCHAR *>(digits.data()), bytes);
}

ULONG NTAPI RtlxUnicodeStringToAnsiSize(PCUNICODE_STRING string) {
    return string->Length / sizeof(WCHAR) + 1;
}

ULONG NTAPI RtlxAnsiStringToUnicodeSize(PCANSI_STRING string) {
    return static_cast<ULONG>((string->Length + 1) * sizeof(WCHAR));
}

// The ANSI code page is Latin-1; what it lacks becomes a question mark.
NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING destination, PCUNICODE_STRING source, BOOLEAN allocate) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlUnicodeStringToAnsiString");
    const ULONG size = RtlxUnicodeStringToAnsiSize(source);
    if (size > 0xFFFF)
        return STATUS_INVALID_PARAMETER_2;
    if (allocate) {
        destination->Buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, size, kTag));
        if (destination->Buffer == nullptr)
            return STATUS_NO_MEMORY;
        destination->MaximumLength = static_cast<USHORT>(size);
    } else if (destination->MaximumLength < size) {
        return STATUS_BUFFER_OVERFLOW;
    }
    const std::u16string_view text = View(*source);
    for (std::size_t i = 0; i < text.size(); ++i)
        destination->Buffer[i] = static_cast<char>(text[i] < 0x100 ? text[i] : u'?');
    destination->Buffer[text.size()] = 0;
    destination->Length = static_cast<USHORT>(text.size());
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING destination, PANSI_STRING source, BOOLEAN allocate) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlAnsiStringToUnicodeString");
    const ULONG size = RtlxAnsiStringToUnicodeSize(source);
    if (size > 0xFFFF)
        return STATUS_INVALID_PARAMETER_2;
    if (allocate) {
        destination->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, size, kTag));
        if (destination->Buffer == nullptr)
            return STATUS_NO_MEMORY;
        destination->MaximumLength = static_cast<USHORT>(size);
    } else if (destination->MaximumLength < size) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < source->Length; ++i)
        destination->Buffer[i] = static_cast<WCHAR>(static_cast<unsigned char>(source->Buffer[i]));
    destination->Buffer[source->Length] = 0;
    destination->Length = static_cast<USHORT>(size - sizeof(WCHAR));
    return STATUS_SUCCESS;
}

void NTAPI RtlFreeUnicodeString(PUNICODE_STRING string) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlFreeUnicodeString");
    if (string->Buffer != nullptr)
        ExFreePool(string->Buffer);
    *string = {};
}

void NTAPI RtlFreeAnsiString(PANSI_STRING string) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlFreeAnsiString");
    if (string->Buffer != nullptr)
        ExFreePool(string->Buffer);
    *string = {};
}

SIZE_T NTAPI RtlCompareMemory(const void *a, const void *b, SIZE_T length) {
    const auto *x = static_cast<const char *>(a);
    return static_cast<SIZE_T>(std::mismatch(x, x + length, static_cast<const char *>(b)).first - x);
}

NTSTATUS NTAPI RtlStringFromGUID(const GUID &guid, PUNICODE_STRING string) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlStringFromGUID");
    const std::u16string text = GuidText(guid);
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), kTag));
    if (string->Buffer == nullptr)
        return STATUS_NO_MEMORY;
    string->Length = 0;
    string->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    return Append(string, reinterpret_cast<const WCHAR *>(text.data()), bytes);
}

NTSTATUS NTAPI RtlGUIDFromString(PUNICODE_STRING string, GUID *guid) {
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlGUIDFromString");
    constexpr std::u16string_view kForm = u"{00000000-0000-0000-0000-000000000000}";
    const std::u16string_view text = View(*string);
    if (text.size() != kForm.size())
        return STATUS_INVALID_PARAMETER;
    std::array<UCHAR, 16> bytes{};
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (kForm[i] != u'0') {
            if (text[i] != kForm[i])
                return STATUS_INVALID_PARAMETER;
            continue;
        }
        const int digit = HexDigit(text[i]);
        if (digit < 0)
            return STATUS_INVALID_PARAMETER;
        bytes[digits / 2] = static_cast<UCHAR>(bytes[digits / 2] << 4 | digit);
        ++digits;
    }
    guid->Data1 = static_cast<ULONG>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
    guid->Data2 = static_cast<USHORT>(bytes[4] << 8 | bytes[5]);
    guid->Data3 = static_cast<USHORT>(bytes[6] << 8 | bytes[7]);
    std::memcpy(guid->Data4, &bytes[8], 8);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG version) {
    return Machine().options.ntVersion >= version;
}

BOOLEAN NlsMbCodePageTag = FALSE;
BOOLEAN NlsMbOemCodePageTag = FALSE;

} // extern "C"
