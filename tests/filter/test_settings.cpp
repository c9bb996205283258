/* Registry settings, the saved registry path, the OS version and the clock. */
#include "framework.h"

#include <ctime>

namespace {

const char Key[] = "\\Registry\\Machine\\Software\\NfSettingsTest";

std::string Narrow(const WCHAR *text, size_t characters)
{
    std::string out;
    for (size_t i = 0; i < characters; i++)
        out += (char)text[i];
    return out;
}

struct WideString {
    explicit WideString(const char *text)
    {
        for (; *text != '\0'; text++)
            m_text.push_back((WCHAR)*text);
        m_text.push_back(0);
        m_string.Buffer = m_text.data();
        m_string.Length = (USHORT)((m_text.size() - 1) * sizeof(WCHAR));
        m_string.MaximumLength = (USHORT)(m_text.size() * sizeof(WCHAR));
    }
    std::vector<WCHAR> m_text;
    UNICODE_STRING m_string;
};

class Settings : public ::testing::Test {
protected:
    void SetUp() override
    {
        HkRegistryReset();
        HkRegistryCreateKey(Key);
        HkDebugClearCapture();
    }
    void TearDown() override { HkRegistryReset(); }
    WideString m_path{Key};
};

} // namespace

TEST_F(Settings, ADwordValueIsReadAndTheReadIsPrintedWhateverTheMask)
{
    HkRegistrySetDword(Key, "GlobalDebugFlag", 0x1234);
    EXPECT_EQ(Filter_GetGlobalDebugFlag(&m_path.m_string, 7), 0x1234u);
    auto lines = nftest::TakeTrace();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("RtlQueryRegistryValues ") + Key + "\\GlobalDebugFlag success, Value = 0x1234");
}

TEST_F(Settings, AMissingKeyGivesTheDefaultWithTheFailLine)
{
    WideString missing("\\Registry\\Machine\\Software\\NoSuchKey");
    EXPECT_EQ(Filter_GetPendingPacketLimit(&missing.m_string, 2048), 2048u);
    auto lines = nftest::TakeTrace();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0],
              "RtlQueryRegistryValues \\Registry\\Machine\\Software\\NoSuchKey\\PendingPacketLimit fail, error = 0xC0000034");
}

TEST_F(Settings, AMissingValueUnderAnExistingKeyGivesTheDefault)
{
    EXPECT_EQ(Filter_RegGetDwordValue(&m_path.m_string, L"Absent", 42), 42u);
}

TEST_F(Settings, AStringValueIsReadIntoABufferTheRegistryAllocates)
{
    HkRegistrySetString(Key, "Name", "adapter-7");
    UNICODE_STRING value = {0, 0, nullptr};
    ASSERT_TRUE(Filter_RegGetStringValue(&m_path.m_string, L"Name", &value));
    EXPECT_EQ(Narrow(value.Buffer, value.Length / sizeof(WCHAR)), "adapter-7");
    auto lines = nftest::TakeTrace();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("RtlQueryRegistryValues ") + Key + "\\Name success, Value = adapter-7");
    ExFreePool(value.Buffer);
}

TEST_F(Settings, TheSavedPathIsACopyWithATerminatingZero)
{
    UNICODE_STRING saved = {0, 0, nullptr};
    ASSERT_EQ(Filter_SaveDriverRegistryPath(&m_path.m_string, &saved), STATUS_SUCCESS);
    EXPECT_NE(saved.Buffer, m_path.m_string.Buffer);
    EXPECT_EQ(saved.Length, m_path.m_string.Length);
    EXPECT_EQ(saved.MaximumLength, m_path.m_string.MaximumLength + 2);
    EXPECT_EQ(Narrow(saved.Buffer, saved.Length / 2), Key);
    EXPECT_EQ(saved.Buffer[saved.Length / 2], 0);
    ExFreePool(saved.Buffer);

    EXPECT_EQ(Filter_SaveDriverRegistryPath(nullptr, &saved), STATUS_INVALID_PARAMETER);
    UNICODE_STRING inconsistent = m_path.m_string;
    inconsistent.Length = inconsistent.MaximumLength + 2; /* text longer than its buffer */
    EXPECT_EQ(Filter_SaveDriverRegistryPath(&inconsistent, &saved), STATUS_INVALID_PARAMETER);
}

TEST_F(Settings, AReplacedPathEndsWithTheTail)
{
    WideString source("\\Registry\\Machine\\Services\\Filter");
    WideString tail("Hooks0");
    UNICODE_STRING result = {0, 0, nullptr};
    ASSERT_EQ(Filter_ReplaceDriverRegistryPath(&source.m_string, &tail.m_string, &result), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(result.Buffer, result.Length / 2), "\\Registry\\Machine\\Services\\Hooks0");
    ExFreePool(result.Buffer);

    WideString longTail("a tail longer than the whole source path itself");
    EXPECT_EQ(Filter_ReplaceDriverRegistryPath(&tail.m_string, &longTail.m_string, &result), STATUS_INVALID_PARAMETER);
}

TEST_F(Settings, TheClockCountsFrom1601)
{
    const LONGLONG secondsFrom1601To1970 = 11644473600LL;
    LONGLONG seconds = Filter_GetSystemTime();
    LONGLONG milliseconds = Filter_GetSystemTimeMs();
    LONGLONG expected = (LONGLONG)std::time(nullptr) + secondsFrom1601To1970;
    EXPECT_NEAR((double)seconds, (double)expected, 5.0);
    EXPECT_NEAR((double)(milliseconds / 1000), (double)seconds, 5.0);
}

class OsVersion : public nftest::Framework {};

TEST_F(OsVersion, NeedsTheHookDriverAndAtLeastOneOutput)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    ULONG a = 0, b = 0, c = 0, d = 0;
    EXPECT_EQ(Filter_GetOsVersion(nullptr, nullptr, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_GetOsVersion(&a, &b, &c, &d), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
}
