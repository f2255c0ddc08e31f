#include "host/executive/text.h"

#include <cstdarg>
#include <cstdio>

namespace host {

std::string Format(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return text;
}

std::string ToUtf8(std::u16string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t code = text[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
            code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00);
        const auto put = [&](char32_t value) { bytes += static_cast<char>(value); };
        if (code < 0x80) {
            put(code);
        } else if (code < 0x800) {
            put(0xC0 | code >> 6);
            put(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            put(0xE0 | code >> 12);
            put(0x80 | (code >> 6 & 0x3F));
            put(0x80 | (code & 0x3F));
        } else {
            put(0xF0 | code >> 18);
            put(0x80 | (code >> 12 & 0x3F));
            put(0x80 | (code >> 6 & 0x3F));
            put(0x80 | (code & 0x3F));
        }
    }
    return bytes;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string result;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
        char32_t code = more == 3 ? lead & 0x07 : more == 2 ? lead & 0x0F : more == 1 ? lead & 0x1F : lead;
        for (; more > 0 && i < text.size(); --more)
            code = code << 6 | (static_cast<unsigned char>(text[i++]) & 0x3F);
        if (code >= 0x10000) {
            result += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            result += static_cast<char16_t>(code);
        }
    }
    return result;
}

// Latin-1, which is as far as device names and registry keys go here.
char16_t Upcase(char16_t character) {
    if ((character >= u'a' && character <= u'z') || (character >= 0xE0 && character <= 0xFE && character != 0xF7))
        return static_cast<char16_t>(character - 0x20);
    return character;
}

std::u16string Upcase(std::u16string_view text) {
    std::u16string upper(text);
    for (char16_t &character : upper)
        character = Upcase(character);
    return upper;
}

std::u16string GuidText(const GUID &guid) {
    const auto *d = guid.Data4;
    return ToUtf16(Format("{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2, guid.Data3,
                          d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]));
}

} // namespace host
