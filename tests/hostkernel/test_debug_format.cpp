// The Windows formatting rules of _snprintf, _vsnprintf and their wide forms.
#include <ntddk.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <string>

namespace {

// The text _vsnprintf makes of `format`, with a generous buffer.
std::string Format(const char *format, ...)
{
    char buffer[1024];
    va_list args;
    va_start(args, format);
    const int length = _vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    EXPECT_GE(length, 0) << format;
    return length >= 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string("<error>");
}

// The text _vsnwprintf makes of `format`, as UTF-16.
std::u16string FormatWide(const WCHAR *format, ...)
{
    WCHAR buffer[256];
    va_list args;
    va_start(args, format);
    const int length = _vsnwprintf(buffer, RTL_NUMBER_OF(buffer), format, args);
    va_end(args);
    EXPECT_GE(length, 0);
    return length >= 0 ? std::u16string(reinterpret_cast<const char16_t *>(buffer), static_cast<size_t>(length))
                       : std::u16string(u"<error>");
}

TEST(DebugFormat, IntegerSizesFollowTheWindowsDataModel)
{
    // l is 32-bit: only the low half of a 64-bit argument is printed, and the
    // next directive still finds its own argument.
    EXPECT_EQ(Format("%lx %d", 0x1122334455667788ULL, 7), "55667788 7");
    EXPECT_EQ(Format("%ld", static_cast<LONG>(-5)), "-5");
    EXPECT_EQ(Format("%lu", static_cast<ULONG>(0xFFFFFFFF)), "4294967295");
    EXPECT_EQ(Format("%I64d", -1234567890123LL), "-1234567890123");
    EXPECT_EQ(Format("%I64u", UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(Format("%I64d", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(Format("%llx", 0x1122334455667788ULL), "1122334455667788");
    EXPECT_EQ(Format("%Iu %Ix", static_cast<SIZE_T>(0x123456789), static_cast<ULONG_PTR>(0xABCDEF012)),
              "4886718345 abcdef012");
    EXPECT_EQ(Format("%I32x", 0xDEADBEEFu), "deadbeef");
    EXPECT_EQ(Format("%hd %hu", 0x12345, 0x1FFFF), "9029 65535");
    EXPECT_EQ(Format("%d", INT32_MIN), "-2147483648");
}

TEST(DebugFormat, IntegerFlagsWidthAndPrecision)
{
    EXPECT_EQ(Format("%8.8X", 0xBEEF), "0000BEEF");
    EXPECT_EQ(Format("%08X|%8X|%-8X|", 0xBEEF, 0xBEEF, 0xBEEF), "0000BEEF|    BEEF|BEEF    |");
    EXPECT_EQ(Format("%#x %#X %#x", 255, 255, 0), "0xff 0XFF 0");
    EXPECT_EQ(Format("%#o %#o %o", 8, 0, 8), "010 0 10");
    EXPECT_EQ(Format("%+d % d %+ d %+d", 5, 5, 5, -5), "+5  5 +5 -5");
    EXPECT_EQ(Format("%05d|%-05d|", -42, -42), "-0042|-42  |");
    EXPECT_EQ(Format("%.3d|%05.3d|%.0d|", 7, 7, 0), "007|  007||");
    EXPECT_EQ(Format("%*d|%*d|%.*d", 5, 42, -5, 42, -1, 42), "   42|42   |42");
    EXPECT_EQ(Format("%#010x", 0x1F), "0x0000001f");
}

TEST(DebugFormat, PointersAreSixteenUpperCaseHexDigits)
{
    void *pointer = reinterpret_cast<void *>(static_cast<uintptr_t>(0x1234ABCDULL));
    EXPECT_EQ(Format("%p", pointer), "000000001234ABCD");
    EXPECT_EQ(Format("%p", nullptr), "0000000000000000");
    EXPECT_EQ(Format("[%20p]", pointer), "[    000000001234ABCD]");
    EXPECT_EQ(Format("[%-18p]", pointer), "[000000001234ABCD  ]");
    EXPECT_EQ(Format("%#p", pointer), "000000001234ABCD");
}

TEST(DebugFormat, NarrowStringsAndCharacters)
{
    EXPECT_EQ(Format("%s|%5s|%-5s|%.2s", "abc", "ab", "ab", "abcdef"), "abc|   ab|ab   |ab");
    EXPECT_EQ(Format("%05s", "ab"), "000ab");
    EXPECT_EQ(Format("%c%hc%3c", 'x', 'y', 'z'), "xy  z");
    EXPECT_EQ(Format("%s|%.3s", static_cast<const char *>(nullptr), static_cast<const char *>(nullptr)),
              "(null)|(nu");

    // The precision bounds the read: an unterminated buffer is fine.
    const char unterminated[2] = {'o', 'k'};
    EXPECT_EQ(Format("%.2s", unterminated), "ok");
}

TEST(DebugFormat, Utf16TextInNarrowOutput)
{
    EXPECT_EQ(Format("%ws|%S|%ls", L"wide", L"upper", L"ell"), "wide|upper|ell");
    EXPECT_EQ(Format("%ws", L"h\u00e9llo \u4e2d"), "h?llo ?");
    EXPECT_EQ(Format("%wc%C%lc", L'A', L'\u00e9', L'z'), "A?z");
    EXPECT_EQ(Format("%ws", static_cast<const WCHAR *>(nullptr)), "(null)");
    EXPECT_EQ(Format("[%6ws|%-6ws|%.2ws]", L"ab", L"ab", L"abc"), "[    ab|ab    |ab]");
}

TEST(DebugFormat, CountedStringsPrintLengthBytes)
{
    WCHAR wideText[] = L"adapter0 and more";
    UNICODE_STRING wide = {16, sizeof(wideText), wideText};
    char narrowText[] = "hello world";
    ANSI_STRING narrow = {5, sizeof(narrowText), narrowText};

    EXPECT_EQ(Format("%wZ|%Z", &wide, &narrow), "adapter0|hello");
    EXPECT_EQ(Format("[%10wZ][%-7Z]", &wide, &narrow), "[  adapter0][hello  ]");
    EXPECT_EQ(Format("%.3wZ", &wide), "adapter0"); // the precision does not apply

    UNICODE_STRING noBuffer = {4, 4, nullptr};
    EXPECT_EQ(Format("%wZ %wZ %Z", &noBuffer, static_cast<PUNICODE_STRING>(nullptr),
                     static_cast<PANSI_STRING>(nullptr)),
              "(null) (null) (null)");
}

TEST(DebugFormat, PercentNAndPercentPercent)
{
    int untouched = 1234;
    EXPECT_EQ(Format("a%nb%d %%", &untouched, 5), "ab5 %");
    EXPECT_EQ(untouched, 1234);
}

TEST(DebugFormat, FloatingPoint)
{
    EXPECT_EQ(Format("%.2f|%8.3f|%-8.1f|%+.1f", 3.14159, 2.5, 1.25, 1.0), "3.14|   2.500|1.2     |+1.0");
    EXPECT_EQ(Format("%e %G", 12345.678, 0.0001), "1.234568e+04 0.0001");
}

TEST(DebugFormat, UnknownDirectivesPrintTheirLetterAndAreReported)
{
    hktest::ExpectVerifierFinding expect("'%z'");
    EXPECT_EQ(Format("%zu items", static_cast<size_t>(3)), "zu items");
}

TEST(DebugFormat, UnicodeDirectivesAbovePassiveLevelAreAVerifierError)
{
    char buffer[16];
    KIRQL old;
    {
        hktest::ExpectVerifierFinding expect("Unicode directive");
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        _snprintf(buffer, sizeof(buffer), "%ws", L"x");
        KeLowerIrql(old);
    }
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(_snprintf(buffer, sizeof(buffer), "%s %d", "narrow", 1), 8);
    KeLowerIrql(old);
}

TEST(DebugFormat, TruncationContract)
{
    char buffer[8];

    // Shorter than count: terminated, length returned, the rest untouched.
    memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 6, "%s", "abc"), 3);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\0XXXX", 8));

    // Exactly count: count characters, no terminator.
    memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 3, "%s", "abc"), 3);
    EXPECT_EQ(std::string(buffer, 8), "abcXXXXX");

    // Longer: count characters, no terminator, -1.
    memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%d", 1234567), -1);
    EXPECT_EQ(std::string(buffer, 8), "1234XXXX");

    // A NULL buffer of count 0 measures.
    EXPECT_EQ(_snprintf(nullptr, 0, "%05d", 1), 5);
}

TEST(DebugFormat, WideOutputFollowsTheSameRules)
{
    EXPECT_EQ(FormatWide(L"%s|%S|%hs|%ls", L"wide", "narrow", "h", L"l"), u"wide|narrow|h|l");
    EXPECT_EQ(FormatWide(L"%c%C%d %p", L'\u00e9', 'n', -3, reinterpret_cast<void *>(0xAB)),
              u"\u00e9n-3 00000000000000AB");

    WCHAR buffer[6];
    for (WCHAR &c : buffer)
        c = L'X';
    EXPECT_EQ(_snwprintf(buffer, 3, L"%s", L"abc"), 3);
    EXPECT_EQ(buffer[3], L'X');
    EXPECT_EQ(_snwprintf(buffer, 3, L"%s", L"abcd"), -1);
    EXPECT_EQ(buffer[3], L'X');
    EXPECT_EQ(_snwprintf(buffer, 6, L"%s", L"ab"), 2);
    EXPECT_EQ(buffer[2], 0);
}

} // namespace
