// DbgPrint and the debug channel: line capture, echo, hook, assertions, bug checks.
#include <ntddk.h>
#include <hostkernel.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class DebugPrint : public ::testing::Test {
protected:
    void SetUp() override
    {
        echo_ = HkDebugGetEcho();
        HkDebugSetEcho(FALSE);
        HkDebugClearCapture();
    }
    void TearDown() override
    {
        HkDebugSetLineHook(nullptr, nullptr);
        HkDebugSetCaptureLimit(100000);
        HkDebugClearCapture();
        HkDebugSetEcho(echo_);
    }

private:
    BOOLEAN echo_ = TRUE;
};

TEST_F(DebugPrint, SplitsTextsIntoLinesAcrossCalls)
{
    DbgPrint("adapter %d", 1);
    DbgPrint(" bound\nsecond line\n");
    DbgPrint("third");
    EXPECT_THAT(hk::CapturedDebugLines(), ElementsAre("adapter 1 bound", "second line"));

    DbgPrint("\n\n");
    EXPECT_THAT(hk::TakeCapturedDebugLines(), ElementsAre("adapter 1 bound", "second line", "third", ""));
    EXPECT_EQ(HkDebugCapturedLineCount(), 0u);
}

TEST_F(DebugPrint, FormatsLikeTheKernel)
{
    DbgPrintEx(DPFLTR_IHVNETWORK_ID, DPFLTR_ERROR_LEVEL, "%ld %ws %p\n", static_cast<LONG>(-1), L"nic",
               reinterpret_cast<void *>(0x10));
    KdPrint(("status 0x%08X\n", static_cast<ULONG>(STATUS_PENDING)));
    EXPECT_THAT(hk::TakeCapturedDebugLines(), ElementsAre("-1 nic 0000000000000010", "status 0x00000103"));
}

TEST_F(DebugPrint, OneCallTransmitsAtMost512Characters)
{
    const std::string longText(600, 'a');
    DbgPrint("%s\n", longText.c_str());
    EXPECT_EQ(HkDebugCapturedLineCount(), 0u); // the newline was cut off with the rest
    DbgPrint("\n");
    const std::vector<std::string> lines = hk::TakeCapturedDebugLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string(512, 'a'));
}

TEST_F(DebugPrint, ThreadsNeverMixPiecesOfTheirLines)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                DbgPrint("thread %d ", t);
                DbgPrint("line %d", i);
                DbgPrint(" end\n");
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    const std::vector<std::string> lines = hk::TakeCapturedDebugLines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    for (const std::string &line : lines) {
        int t = -1;
        int i = -1;
        char end[8] = {};
        ASSERT_EQ(sscanf(line.c_str(), "thread %d line %d %7s", &t, &i, end), 3) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_EQ(i, next[t]++) << "lines of one thread keep their order";
        EXPECT_STREQ(end, "end");
    }
}

TEST_F(DebugPrint, UnfinishedLinesOfEndedThreadsAndClears)
{
    std::thread([] { DbgPrint("last words"); }).join();
    EXPECT_THAT(hk::TakeCapturedDebugLines(), ElementsAre("last words"));

    DbgPrint("dropped by the clear");
    HkDebugClearCapture();
    DbgPrint("kept\n");
    EXPECT_THAT(hk::TakeCapturedDebugLines(), ElementsAre("kept"));
}

TEST_F(DebugPrint, LinesByIndexFromC)
{
    DbgPrint("first\nsecond line\n");
    char buffer[7];
    EXPECT_EQ(HkDebugGetCapturedLine(1, buffer, sizeof(buffer)), 11u);
    EXPECT_STREQ(buffer, "second");
    EXPECT_EQ(HkDebugGetCapturedLine(0, nullptr, 0), 5u);
    EXPECT_EQ(HkDebugGetCapturedLine(2, buffer, sizeof(buffer)), static_cast<SIZE_T>(-1));
}

TEST_F(DebugPrint, CaptureKeepsTheMostRecentLinesUpToItsLimit)
{
    HkDebugSetCaptureLimit(2);
    DbgPrint("1\n2\n3\n");
    EXPECT_THAT(hk::CapturedDebugLines(), ElementsAre("2", "3"));
}

TEST_F(DebugPrint, HookSeesEveryCompletedLine)
{
    std::vector<std::string> seen;
    HkDebugSetLineHook(
        [](PVOID context, PCSTR line, SIZE_T length) {
            static_cast<std::vector<std::string> *>(context)->emplace_back(line, length);
        },
        &seen);
    DbgPrint("a");
    DbgPrint("b\nc\n");
    EXPECT_THAT(seen, ElementsAre("ab", "c"));
}

TEST_F(DebugPrint, EchoesToStderrUnlessSwitchedOff)
{
    HkDebugSetEcho(TRUE);
    ::testing::internal::CaptureStderr();
    DbgPrint("echoed %d\n", 1);
    HkDebugSetEcho(FALSE);
    DbgPrint("silent\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "echoed 1\n");
    EXPECT_THAT(hk::TakeCapturedDebugLines(), ElementsAre("echoed 1", "silent"));
}

TEST_F(DebugPrint, FailedAssertionIsAVerifierErrorNamingFileAndLine)
{
    int adapters = 2;
    ASSERT(adapters == 2);
    EXPECT_TRUE(hk::TakeVerifierFindings().empty());

    ASSERT(adapters == 3);
    const int line = __LINE__ - 1;
    const std::vector<std::string> findings = hk::TakeVerifierFindings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_THAT(findings[0], HasSubstr("adapters == 3"));
    EXPECT_THAT(findings[0], HasSubstr("test_debug_print.cpp"));
    EXPECT_THAT(findings[0], HasSubstr("line " + std::to_string(line)));
}

TEST(DebugPrintDeathTest, BugCheckPrintsTheStopLineAndAborts)
{
    EXPECT_DEATH(KeBugCheckEx(MANUALLY_INITIATED_CRASH, 1, 0xABC, 3, 4),
                 "STOP: 0x000000E2 MANUALLY_INITIATED_CRASH \\(0x0000000000000001, "
                 "0x0000000000000ABC, 0x0000000000000003, 0x0000000000000004\\)");
}

} // namespace
