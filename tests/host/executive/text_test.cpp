// The run-time library's strings and the kernel's format language.
#include "tests/host/executive/fixture.h"

#include <cstdarg>
#include <string>

namespace host::tests {
namespace {

class Text : public ExecutiveTest {
  protected:
    UNICODE_STRING Wide(const WCHAR *text) {
        UNICODE_STRING result;
        RtlInitUnicodeString(&result, text);
        return result;
    }
};

TEST_F(Text, DebugPrintUnderstandsTheKernelsFormats) {
    UNICODE_STRING wide = Wide(L"wide");
    wide.Length = 6; // not the terminator decides
    ANSI_STRING narrow;
    RtlInitAnsiString(&narrow, "narrow");
    const auto log = [&](auto... arguments) {
        const std::size_t before = runtime_.DebugLog().size();
        DbgPrint(arguments...);
        return runtime_.DebugLog().substr(before);
    };
    EXPECT_EQ(log("%wZ|%Z|%ws|%S|%ls|%s|%hs", &wide, &narrow, L"ws", L"S", L"ls", "s", "hs"),
              "wid|narrow|ws|S|ls|s|hs");
    EXPECT_EQ(log("%.2wZ|%6wZ|%-6wZ|", &wide, &wide, &wide), "wi|   wid|wid   |");
    EXPECT_EQ(log("%I64d %I64x %lu %ld", -5LL, 0xFFFF'FFFF'FULL, 4'000'000'000u, -1), "-5 fffffffff 4000000000 -1");
    EXPECT_EQ(log("%08x|%#x|%#x|%X|%-5d|%+d|% d|%05d|%.3d", 0xABCu, 0xABCu, 0u, 0xABCu, 12, 12, 12, -12, 7),
              "00000abc|0xabc|0|ABC|12   |+12| 12|-0012|007");
    EXPECT_EQ(log("%p|%c%C|%*d|%hd|%hhu|%%", reinterpret_cast<void *>(0xBEEF), 'a', 'b', 4, 5, 70'000, 300),
              "000000000000BEEF|ab|   5|4464|44|%");
    EXPECT_EQ(log("%s %wZ", static_cast<char *>(nullptr), static_cast<PUNICODE_STRING>(nullptr)), "(null) (null)");
    EXPECT_EQ(log("%s", std::string(600, 'x').c_str()).size(), 512u);
}

int PrintTo(char *buffer, size_t count, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = _vsnprintf(buffer, count, format, arguments);
    va_end(arguments);
    return length;
}

TEST_F(Text, BoundedPrintKeepsTheOldRules) {
    char buffer[6] = "-----";
    EXPECT_EQ(PrintTo(buffer, 5, "%d", 12), 2);
    EXPECT_EQ(std::string(buffer, 5), std::string("12\0--", 5));
    EXPECT_EQ(PrintTo(buffer, 5, "%d", 12345), 5);
    EXPECT_EQ(std::string(buffer, 6), std::string("12345\0", 6)); // exactly full, terminated by what was there
    EXPECT_EQ(PrintTo(buffer, 3, "%d", 98765), -1);
    EXPECT_EQ(std::string(buffer, 5), "98745");
    EXPECT_EQ(RtlStringCbPrintfA(buffer, 4, "%s", "abcdef"), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(Text, CountedStringsNeverGrowBeyondTheirBuffer) {
    WCHAR buffer[6];
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof buffer, .Buffer = buffer};
    EXPECT_EQ(RtlAppendUnicodeToString(&text, L"abc"), STATUS_SUCCESS);
    UNICODE_STRING more = Wide(L"defg");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&text, &more), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(text.Length, 6);
    more = Wide(L"def");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&text, &more), STATUS_SUCCESS);
    UNICODE_STRING same = Wide(L"ABCdef"), longer = Wide(L"abcdefg");
    EXPECT_TRUE(RtlEqualUnicodeString(&text, &same, TRUE));
    EXPECT_FALSE(RtlEqualUnicodeString(&text, &same, FALSE));
    EXPECT_LT(RtlCompareUnicodeString(&text, &longer, FALSE), 0);
    RtlCopyUnicodeString(&text, &longer);
    EXPECT_EQ(text.Length, 12);
}

TEST_F(Text, NumbersConvertBothWays) {
    struct Case {
        const WCHAR *text;
        ULONG base, value;
    };
    for (const Case &row : {Case{L"  42x", 0, 42}, Case{L"0x1F", 0, 31}, Case{L"-1", 10, 0xFFFFFFFF},
                            Case{L"0b101", 0, 5}, Case{L"777", 8, 511}, Case{L"ff", 16, 255}, Case{L"zz", 10, 0}}) {
        UNICODE_STRING text = Wide(row.text);
        ULONG value = 99;
        EXPECT_EQ(RtlUnicodeStringToInteger(&text, row.base, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, row.value);
    }
    WCHAR buffer[4];
    UNICODE_STRING number{.Length = 0, .MaximumLength = sizeof buffer, .Buffer = buffer};
    EXPECT_EQ(RtlIntegerToUnicodeString(9999, 10, &number), STATUS_SUCCESS);
    EXPECT_EQ(number.Length, 8);
    EXPECT_EQ(RtlIntegerToUnicodeString(10'000, 10, &number), STATUS_BUFFER_OVERFLOW);
}

} // namespace
} // namespace host::tests
