// Formatted text as the kernel understands it: %wZ, %Z, %S and the like beside those of C, LONG is 32 bits wide, and
// there is no floating point.
#include "host/executive/state.h"

#include <algorithm>
#include <cstring>

namespace host {
namespace {

constexpr std::size_t kLongestPrint = 512; // what the debug port takes at once

struct Spec {
    bool left = false, zero = false, plus = false, space = false, alternate = false;
    int width = 0, precision = -1;
    enum Size { Normal, Short, Char, Long, LongLong, Wide } size = Normal;
};

// Builds the result in UTF-16 units, of which an 8-bit caller takes the low halves.
class Formatter {
  public:
    Formatter(bool wideFormat, const char *routine) : wide_(wideFormat), routine_(routine) {}

    template <class Char> std::u16string Run(const Char *format, va_list arguments) {
        va_copy(arguments_, arguments);
        while (*format != 0) {
            if (*format != '%') {
                Put(*format++);
                continue;
            }
            if (format[1] == '%') {
                Put(u'%');
                format += 2;
                continue;
            }
            ++format;
            Convert(format);
        }
        va_end(arguments_);
        return std::move(text_);
    }

  private:
    template <class Char> void Put(Char character) {
        text_ += static_cast<char16_t>(sizeof(Char) == 1 ? static_cast<unsigned char>(character) : character);
    }

    template <class Char> void Convert(const Char *&format) {
        Spec spec;
        for (;; ++format) {
            if (*format == '-')
                spec.left = true;
            else if (*format == '0')
                spec.zero = true;
            else if (*format == '+')
                spec.plus = true;
            else if (*format == ' ')
                spec.space = true;
            else if (*format == '#')
                spec.alternate = true;
            else
                break;
        }
        spec.width = Number(format);
        if (spec.width < 0) {
            spec.left = true;
            spec.width = -spec.width;
        }
        if (*format == '.') {
            ++format;
            spec.precision = Number(format);
        }
        ReadSize(format, spec);
        if (*format != 0)
            ConvertOne(static_cast<char>(*format++), spec);
    }

    template <class Char> int Number(const Char *&format) {
        if (*format == '*') {
            ++format;
            return va_arg(arguments_, int);
        }
        int number = 0;
        for (; *format >= '0' && *format <= '9'; ++format)
            number = number * 10 + (*format - '0');
        return number;
    }

    template <class Char> static void ReadSize(const Char *&format, Spec &spec) {
        if (*format == 'I' && format[1] == '6' && format[2] == '4') {
            spec.size = Spec::LongLong;
            format += 3;
        } else if (*format == 'I' && format[1] == '3' && format[2] == '2') {
            format += 3;
        } else if (*format == 'I' || *format == 'z' || *format == 'j' || *format == 't') {
            spec.size = Spec::LongLong;
            ++format;
        } else if (*format == 'l' && format[1] == 'l') {
            spec.size = Spec::LongLong;
            format += 2;
        } else if (*format == 'h' && format[1] == 'h') {
            spec.size = Spec::Char;
            format += 2;
        } else if (*format == 'l' || *format == 'h' || *format == 'w') {
            spec.size = *format == 'l' ? Spec::Long : *format == 'h' ? Spec::Short : Spec::Wide;
            ++format;
        }
    }

    void ConvertOne(char conversion, const Spec &spec) {
        const bool wideSize = spec.size == Spec::Long || spec.size == Spec::Wide;
        switch (conversion) {
        case 'd':
        case 'i': {
            const LONGLONG value = Signed(spec);
            Integer(value < 0 ? 0 - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value), 10, false, spec,
                    value < 0    ? u"-"
                    : spec.plus  ? u"+"
                    : spec.space ? u" "
                                 : u"");
            break;
        }
        case 'u':
            Integer(Unsigned(spec), 10, false, spec, u"");
            break;
        case 'o':
            Integer(Unsigned(spec), 8, false, spec, spec.alternate ? u"0" : u"");
            break;
        case 'x':
        case 'X': {
            const ULONGLONG value = Unsigned(spec);
            const char16_t *prefix = conversion == 'x' ? u"0x" : u"0X";
            Integer(value, 16, conversion == 'X', spec, spec.alternate && value != 0 ? prefix : u"");
            break;
        }
        case 'p': {
            Spec full = spec;
            full.precision = 16;
            Integer(reinterpret_cast<ULONGLONG>(va_arg(arguments_, void *)), 16, true, full, u"");
            break;
        }
        case 'c':
        case 'C': {
            const bool wide = wideSize || (spec.size != Spec::Short && (conversion == 'C') != wide_);
            const int value = va_arg(arguments_, int);
            NoteWide(wide);
            Pad(std::u16string(1, static_cast<char16_t>(wide ? value & 0xFFFF : value & 0xFF)), spec);
            break;
        }
        case 's':
        case 'S':
            String(wideSize || (spec.size != Spec::Short && (conversion == 'S') != wide_), spec);
            break;
        case 'Z':
            CountedString(wideSize, spec);
            break;
        default:
            Violation("format not understood", routine_, Format("%%%c", conversion));
        }
    }

    LONGLONG Signed(const Spec &spec) {
        if (spec.size == Spec::LongLong)
            return va_arg(arguments_, LONGLONG);
        const int value = va_arg(arguments_, int);
        return spec.size == Spec::Short  ? static_cast<short>(value)
               : spec.size == Spec::Char ? static_cast<signed char>(value)
                                         : value;
    }

    ULONGLONG Unsigned(const Spec &spec) {
        if (spec.size == Spec::LongLong)
            return va_arg(arguments_, ULONGLONG);
        const unsigned value = va_arg(arguments_, unsigned);
        return spec.size == Spec::Short  ? static_cast<unsigned short>(value)
               : spec.size == Spec::Char ? static_cast<unsigned char>(value)
                                         : value;
    }

    void Integer(ULONGLONG value, unsigned base, bool upper, const Spec &spec, std::u16string_view prefix) {
        std::u16string digits;
        for (; value != 0; value /= base)
            digits += (upper ? u"0123456789ABCDEF" : u"0123456789abcdef")[value % base];
        std::size_t least = spec.precision < 0 ? 1 : static_cast<std::size_t>(spec.precision);
        if (spec.zero && !spec.left && spec.precision < 0)
            least = std::max<std::size_t>(least, static_cast<std::size_t>(spec.width) -
                                                     std::min<std::size_t>(prefix.size(), spec.width));
        digits.resize(std::max(digits.size(), least), u'0');
        std::reverse(digits.begin(), digits.end());
        Pad(std::u16string(prefix) + digits, spec);
    }

    void String(bool wide, const Spec &spec) {
        NoteWide(wide);
        const void *string = va_arg(arguments_, const void *);
        std::u16string text;
        const auto take = [&](const auto *characters) {
            for (std::size_t i = 0;
                 (spec.precision < 0 || i < static_cast<std::size_t>(spec.precision)) && characters[i] != 0; ++i)
                text += static_cast<char16_t>(characters[i]);
        };
        if (string == nullptr)
            text = u"(null)";
        else if (wide)
            take(static_cast<const char16_t *>(string));
        else
            take(static_cast<const unsigned char *>(string));
        Pad(text, spec);
    }

    void CountedString(bool wide, const Spec &spec) {
        NoteWide(wide);
        const void *string = va_arg(arguments_, const void *);
        std::u16string text;
        if (string == nullptr) {
            text = u"(null)";
        } else if (wide) {
            text = View(*static_cast<const UNICODE_STRING *>(string));
        } else {
            const auto &ansi = *static_cast<const ANSI_STRING *>(string);
            for (USHORT i = 0; i < ansi.Length; ++i)
                text += static_cast<unsigned char>(ansi.Buffer[i]);
        }
        if (spec.precision >= 0)
            text.resize(std::min(text.size(), static_cast<std::size_t>(spec.precision)));
        Pad(text, spec);
    }

    void Pad(std::u16string_view text, const Spec &spec) {
        const auto width = static_cast<std::size_t>(spec.width);
        const std::size_t missing = width > text.size() ? width - text.size() : 0;
        if (!spec.left)
            text_.append(missing, u' ');
        text_ += text;
        if (spec.left)
            text_.append(missing, u' ');
    }

    // Wide text needs the code page tables, which are paged.
    void NoteWide(bool wide) {
        if (wide)
            RequireIrqlAtMost(PASSIVE_LEVEL, routine_);
    }

    const bool wide_;
    const char *const routine_;
    va_list arguments_;
    std::u16string text_;
};

// The rules of the C library's old routine: no terminator when the text just fits, -1 when it does not.
template <class Char> int Store(const std::u16string &text, Char *buffer, std::size_t count) {
    std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(count, text.size())), buffer,
                   [](char16_t character) { return static_cast<Char>(character); });
    if (text.size() < count)
        buffer[text.size()] = 0;
    return text.size() <= count ? static_cast<int>(text.size()) : -1;
}

ULONG Print(const char *format, va_list arguments, const char *routine) {
    const std::u16string wide = Formatter(false, routine).Run(format, arguments);
    std::string text(std::min(wide.size(), kLongestPrint), '\0');
    std::transform(wide.begin(), wide.begin() + static_cast<std::ptrdiff_t>(text.size()), text.begin(),
                   [](char16_t character) { return static_cast<char>(character < 0x100 ? character : u'?'); });
    Machine().debugLog.Print(text);
    return STATUS_SUCCESS;
}

} // namespace

void DebugOutput::Print(std::string_view text) {
    {
        std::lock_guard lock(mutex_);
        text_ += text;
    }
    if (listener_)
        listener_(text);
}

std::string DebugOutput::Text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

} // namespace host

using namespace host;

extern "C" {

ULONG __cdecl DbgPrint(PCSTR format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const ULONG status = Print(format, arguments, "DbgPrint");
    va_end(arguments);
    return status;
}

ULONG __cdecl DbgPrintEx(ULONG, ULONG, PCSTR format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const ULONG status = Print(format, arguments, "DbgPrintEx");
    va_end(arguments);
    return status;
}

ULONG NTAPI vDbgPrintEx(ULONG, ULONG, PCCH format, va_list arguments) {
    return Print(format, arguments, "vDbgPrintEx");
}

int _vsnprintf(char *buffer, size_t count, const char *format, va_list arguments) {
    return Store(Formatter(false, "_vsnprintf").Run(format, arguments), buffer, count);
}

int _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, va_list arguments) {
    return Store(Formatter(true, "_vsnwprintf").Run(format, arguments), buffer, count);
}

void NTAPI RtlAssert(PVOID assertion, PVOID file, ULONG line, PSTR message) {
    Violation("assertion failed", "RtlAssert",
              Format("%s at %s:%u %s", static_cast<char *>(assertion), static_cast<char *>(file), line,
                     message != nullptr ? message : ""));
}

void NTAPI KeBugCheckEx(ULONG code, ULONG_PTR a, ULONG_PTR b, ULONG_PTR c, ULONG_PTR d) {
    Violation("bug check", "KeBugCheckEx",
              Format("0x%08x (0x%llx, 0x%llx, 0x%llx, 0x%llx)", code, static_cast<unsigned long long>(a),
                     static_cast<unsigned long long>(b), static_cast<unsigned long long>(c),
                     static_cast<unsigned long long>(d)));
}

void NTAPI KeBugCheck(ULONG code) {
    KeBugCheckEx(code, 0, 0, 0, 0);
}

} // extern "C"
