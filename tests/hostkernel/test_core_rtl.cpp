// Counted strings and memory routines of the host runtime's run-time library.
#include "hk_test_support.h"

#include <ntddk.h>

#include <string>

namespace {

std::string Narrow(const UNICODE_STRING &s)
{
    std::string narrow;
    for (USHORT i = 0; i < s.Length / sizeof(WCHAR); ++i)
        narrow.push_back(static_cast<char>(s.Buffer[i]));
    return narrow;
}

TEST(UnicodeStringTest, InitCountsBytesWithoutTheTerminator)
{
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, L"Filter");
    EXPECT_EQ(12, s.Length);
    EXPECT_EQ(14, s.MaximumLength);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(0, s.Length);
    EXPECT_EQ(0, s.MaximumLength);
    EXPECT_EQ(nullptr, s.Buffer);
}

TEST(UnicodeStringTest, ComparisonsHonourCaseInsensitivityAndLength)
{
    UNICODE_STRING a, b, prefix;
    RtlInitUnicodeString(&a, L"\\Device\\Filter");
    RtlInitUnicodeString(&b, L"\\DEVICE\\filter");
    RtlInitUnicodeString(&prefix, L"\\device\\");
    EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
    EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
    EXPECT_EQ(0, RtlCompareUnicodeString(&a, &b, TRUE));
    EXPECT_GT(RtlCompareUnicodeString(&a, &b, FALSE), 0); // 'e' > 'E'
    EXPECT_LT(RtlCompareUnicodeString(&prefix, &a, TRUE), 0); // shorter sorts first
    EXPECT_TRUE(RtlPrefixUnicodeString(&prefix, &a, TRUE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&prefix, &a, FALSE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&a, &prefix, TRUE));
}

TEST(UnicodeStringTest, CopyAndAppendStayWithinTheDestinationBuffer)
{
    WCHAR buffer[8] = {};
    UNICODE_STRING destination = {0, sizeof buffer, buffer};
    UNICODE_STRING source;
    RtlInitUnicodeString(&source, L"0123456789");
    RtlCopyUnicodeString(&destination, &source); // truncated to 8 characters, no terminator
    EXPECT_EQ("01234567", Narrow(destination));

    destination.Length = 0;
    EXPECT_EQ(STATUS_SUCCESS, RtlAppendUnicodeToString(&destination, L"abc"));
    EXPECT_EQ(0, buffer[3]); // terminated while there is room
    UNICODE_STRING more;
    RtlInitUnicodeString(&more, L"defgh");
    EXPECT_EQ(STATUS_SUCCESS, RtlAppendUnicodeStringToString(&destination, &more));
    EXPECT_EQ("abcdefgh", Narrow(destination));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, RtlAppendUnicodeToString(&destination, L"i"));
    EXPECT_EQ("abcdefgh", Narrow(destination));
}

TEST(UnicodeStringTest, ParsesIntegersInTheirBases)
{
    UNICODE_STRING s;
    ULONG value = 0;
    RtlInitUnicodeString(&s, L"  1234xyz");
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToInteger(&s, 0, &value));
    EXPECT_EQ(1234u, value);
    RtlInitUnicodeString(&s, L"0x1F");
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToInteger(&s, 0, &value));
    EXPECT_EQ(31u, value);
    RtlInitUnicodeString(&s, L"-10");
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToInteger(&s, 10, &value));
    EXPECT_EQ(static_cast<ULONG>(-10), value);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RtlUnicodeStringToInteger(&s, 7, &value));
}

TEST(AnsiConversionTest, AllocatedConversionsRoundTripLatin1AndAreFreedToThePool)
{
    const ULONG before = HkPoolLiveAllocationCount();
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "caf\xe9");
    UNICODE_STRING unicode;
    ASSERT_EQ(STATUS_SUCCESS, RtlAnsiStringToUnicodeString(&unicode, &ansi, TRUE));
    EXPECT_EQ(8, unicode.Length);
    EXPECT_EQ(0xE9, unicode.Buffer[3]);
    EXPECT_EQ(0, unicode.Buffer[4]);

    ANSI_STRING back;
    ASSERT_EQ(STATUS_SUCCESS, RtlUnicodeStringToAnsiString(&back, &unicode, TRUE));
    EXPECT_EQ(std::string("caf\xe9"), std::string(back.Buffer, back.Length));
    EXPECT_EQ(before + 2, HkPoolLiveAllocationCount());
    RtlFreeUnicodeString(&unicode);
    RtlFreeAnsiString(&back);
    EXPECT_EQ(nullptr, unicode.Buffer);
    EXPECT_EQ(before, HkPoolLiveAllocationCount());
}

TEST(AnsiConversionTest, ConversionIntoASmallBufferReportsOverflow)
{
    WCHAR wide[2];
    UNICODE_STRING unicode = {0, sizeof wide, wide};
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "abc");
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlAnsiStringToUnicodeString(&unicode, &ansi, FALSE));

    char narrow[4];
    ANSI_STRING small = {0, sizeof narrow, narrow};
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, L"x\x263Az"); // U+263A has no Latin-1 form
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToAnsiString(&small, &text, FALSE));
    EXPECT_EQ(std::string("x?z"), std::string(small.Buffer, small.Length));
    RtlInitUnicodeString(&text, L"wxyz");
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlUnicodeStringToAnsiString(&small, &text, FALSE));
}

TEST(MemoryTest, CompareMemoryCountsTheMatchingPrefix)
{
    const char a[] = "abcdef";
    const char b[] = "abcXef";
    EXPECT_EQ(3u, RtlCompareMemory(a, b, 6));
    EXPECT_EQ(6u, RtlCompareMemory(a, a, 6));
    EXPECT_TRUE(RtlEqualMemory(a, b, 3));
    EXPECT_FALSE(RtlEqualMemory(a, b, 4));
}

} // namespace
