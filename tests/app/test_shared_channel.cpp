/*
 * The application library against the loaded framework: taking and giving
 * back the share, both rings, the parked read and the receiver loop.
 */
#include "app_fixture.h"
#include "ndisfilter-control.h"

#include <windows.h>

#include <atomic>
#include <thread>

namespace {

using nfapp::ReceivedBlock;
using nfapp::SendResult;
using nfapp::SharedChannel;

class SharedChannelTest : public apptest::AppTest {
protected:
    /* Receives until `count` blocks came or a generous time passed; the blocks' copies. */
    struct Copy {
        ULONG AdapterId, Direction, Code;
        ULONG64 Value;
        std::vector<UCHAR> Frame;
    };
    std::vector<Copy> ReceiveBlocks(SharedChannel &channel, size_t count)
    {
        std::vector<Copy> copies;
        auto keep = [&](const ReceivedBlock &b) {
            copies.push_back({b.AdapterId, b.Direction, b.IndicateCode, b.IndicateValue,
                              std::vector<UCHAR>(b.Frame, b.Frame + b.Length)});
        };
        hktest::WaitUntil([&] {
            channel.ReceiveOnce(keep, 50);
            return copies.size() >= count || channel.ReceiveFailed();
        });
        return copies;
    }
};

TEST_F(SharedChannelTest, StartingTheShareMapsBothRingsAndASecondOwnerIsRefused)
{
    SharedChannel first;
    ASSERT_TRUE(first.Open()) << first.ControlError().Describe();
    ASSERT_TRUE(first.Start()) << first.ControlError().Describe();
    ASSERT_NE(first.Memory(), nullptr);
    EXPECT_EQ(first.Memory()->KernelModeOutput.m_iBlockCount, SHARED_BLOCK_COUNT);
    EXPECT_EQ(first.Memory()->KernelModeInput.m_iBaseOffset, SHARED_BLOCK_COUNT * SHARED_BLOCK_SIZE);

    SharedChannel second;
    ASSERT_TRUE(second.Open());
    EXPECT_FALSE(second.Start());
    EXPECT_EQ(second.ControlError().Code, (DWORD)ERROR_BUSY);
    EXPECT_FALSE(second.IsStarted());
    EXPECT_EQ(second.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, "x", 1), SendResult::NotStarted);

    /* What the library reads as a refusal is the framework's answer 20. */
    HANDLE raw = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(raw, INVALID_HANDLE_VALUE);
    ULONG64 answer = 1;
    DWORD returned = 0;
    EXPECT_TRUE(DeviceIoControl(raw, IOCTL_NDIS_FILTER_START_SHARE, &answer, 4, &answer, 8, &returned, nullptr));
    EXPECT_EQ(answer, nfapp::ShareRefused);
    CloseHandle(raw);

    EXPECT_TRUE(first.Stop());
    EXPECT_FALSE(first.IsStarted());
    EXPECT_TRUE(second.Start()) << second.ControlError().Describe();
}

TEST_F(SharedChannelTest, StartNeedsAnOpenDeviceAndANonzeroValue)
{
    SharedChannel channel;
    EXPECT_FALSE(channel.Start());
    ASSERT_TRUE(channel.Open());
    EXPECT_FALSE(channel.Start(0));
    EXPECT_EQ(channel.ControlError().Code, (DWORD)ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(channel.Start(7));
}

TEST_F(SharedChannelTest, ABlockSentBackToTheApplicationReturnsWithItsAdapterAndFrame)
{
    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    std::vector<UCHAR> frame = hooktest::Frame(SHARED_BLOCK_FRAME_SIZE, 3);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, frame.data(), (ULONG)frame.size()),
              SendResult::Sent);

    auto blocks = ReceiveBlocks(channel, 1);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].AdapterId, m_adapterId);
    EXPECT_EQ(blocks[0].Direction, (ULONG)FILTER_DIRECTION_TO_APPLICATION);
    EXPECT_EQ(blocks[0].Frame, frame);
    EXPECT_EQ(channel.OutputWaiting(), 0u);
    EXPECT_EQ(channel.InputInFlight(), 0u);
    EXPECT_EQ(channel.BlocksSent(), 1u);
    EXPECT_EQ(channel.BlocksReceived(), 1u);
    EXPECT_EQ(channel.Announcements(), 1u);
}

TEST_F(SharedChannelTest, BlocksTowardTheProtocolsAndTheAdapterAreDeliveredThere)
{
    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    std::vector<UCHAR> up = hooktest::Frame(60, 1), down = hooktest::Frame(1514, 2);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_PROTOCOL, up.data(), (ULONG)up.size()), SendResult::Sent);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_ADAPTER, down.data(), (ULONG)down.size()),
              SendResult::Sent);
    ASSERT_TRUE(hktest::WaitUntil([&] { return channel.InputInFlight() == 0; }));
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), std::vector<std::vector<UCHAR>>{up});
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), std::vector<std::vector<UCHAR>>{down});
}

TEST_F(SharedChannelTest, TheInputRingHoldsAtMost511BlocksAndRefusesBadLengths)
{
    SharedChannel channel;
    EXPECT_EQ(channel.Write(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, "x", 1), SendResult::NotStarted);
    ASSERT_TRUE(channel.Open() && channel.Start());
    UCHAR frame[SHARED_BLOCK_FRAME_SIZE + 1] = {0};
    EXPECT_EQ(channel.Write(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, frame, 0), SendResult::BadLength);
    EXPECT_EQ(channel.Write(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, frame, sizeof(frame)),
              SendResult::BadLength);

    /* An adapter the framework does not know: the first block stays in the ring, so nothing drains. */
    const ULONG unknownAdapter = 999;
    for (int i = 0; i < SHARED_BLOCK_COUNT - 1; i++)
        ASSERT_EQ(channel.Write(unknownAdapter, FILTER_DIRECTION_TO_PROTOCOL, frame, 60), SendResult::Sent) << i;
    EXPECT_EQ(channel.InputInFlight(), (ULONG)SHARED_BLOCK_COUNT - 1);
    EXPECT_EQ(channel.Write(unknownAdapter, FILTER_DIRECTION_TO_PROTOCOL, frame, 60), SendResult::RingFull);
    EXPECT_EQ(channel.BlocksSent(), (ULONG64)SHARED_BLOCK_COUNT - 1);
}

TEST_F(SharedChannelTest, AParkedReadIsCompletedByTheFrameworksNextWrite)
{
    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    int seen = 0;
    auto count = [&](const ReceivedBlock &) { seen++; };
    EXPECT_EQ(channel.ReceiveOnce(count, 0), 0u); /* parks the read and comes back */
    EXPECT_EQ(channel.ReadsCompleted(), 0u);

    std::vector<UCHAR> frame = hooktest::Frame(100);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, frame.data(), 100), SendResult::Sent);
    EXPECT_TRUE(hktest::WaitUntil([&] {
        channel.ReceiveOnce(count, 100);
        return seen == 1;
    }));
    EXPECT_GE(channel.ReadsCompleted(), 1u);
    EXPECT_FALSE(channel.ReceiveFailed()) << channel.ReceiveError().Describe();
}

TEST_F(SharedChannelTest, StopCompletesTheParkedReadAndFreesTheShareForTheNextProgram)
{
    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    EXPECT_EQ(channel.ReceiveOnce(nullptr, 0), 0u);
    EXPECT_EQ(channel.ReadsCompleted(), 0u);
    EXPECT_TRUE(channel.Stop());
    EXPECT_EQ(channel.ReadsCompleted(), 1u); /* STOP_SHARE completed it */
    EXPECT_EQ(channel.Memory(), nullptr);

    SharedChannel next;
    ASSERT_TRUE(next.Open());
    EXPECT_TRUE(next.Start()) << next.ControlError().Describe();
}

TEST_F(SharedChannelTest, TheReceiverThreadTakesEveryBlockWhileAnotherThreadSends)
{
    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    std::atomic<int> seen{0};
    std::atomic<bool> inOrder{true};
    std::thread receiver([&] {
        channel.RunReceiver([&](const ReceivedBlock &block) {
            if (block.Length != 64 || block.Frame[0] != (UCHAR)seen.load())
                inOrder = false;
            seen++;
        });
    });

    /* More than a ring holds; the sender keeps at most 256 in flight, so the output ring never
     * overflows (the framework drops what does not fit there). */
    const int total = 1200;
    for (int i = 0; i < total; i++) {
        UCHAR frame[64] = {(UCHAR)i};
        ASSERT_TRUE(hktest::WaitUntil([&] { return i - seen.load() < 256; }));
        SendResult result;
        while ((result = channel.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, frame, sizeof(frame))) ==
               SendResult::RingFull)
            std::this_thread::yield();
        ASSERT_EQ(result, SendResult::Sent) << i;
    }
    EXPECT_TRUE(hktest::WaitUntil([&] { return seen.load() == total; }));
    channel.RequestStop();
    receiver.join();
    EXPECT_FALSE(channel.ReceiveFailed()) << channel.ReceiveError().Describe();
    EXPECT_TRUE(inOrder.load());
    EXPECT_EQ(channel.BlocksReceived(), (ULONG64)total);
}

} // namespace

TEST_F(SharedChannelTest, CaptureLogsOfTheRingsHoldWhatCrossedThemInOrder)
{
    char pattern[] = "/tmp/nf-app-logs-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    std::string dir = pattern;
    char saved[4096] = "";
    HkGetDriveDirectory('C', saved, sizeof(saved));
    ASSERT_EQ(HkSetDriveDirectory('C', dir.c_str()), STATUS_SUCCESS);

    SharedChannel channel;
    ASSERT_TRUE(channel.Open() && channel.Start());
    nfapp::ControlDevice control;
    ASSERT_TRUE(control.Open());
    ASSERT_TRUE(control.StartCaptureLogs()) << control.LastFailure().Describe();
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));

    std::vector<UCHAR> up = hooktest::Frame(60, 1), back = hooktest::Frame(100, 2), again = hooktest::Frame(70, 3);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_PROTOCOL, up.data(), (ULONG)up.size()), SendResult::Sent);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, back.data(), (ULONG)back.size()),
              SendResult::Sent);
    ASSERT_EQ(channel.Send(m_adapterId, FILTER_DIRECTION_TO_APPLICATION, again.data(), (ULONG)again.size()),
              SendResult::Sent);
    ASSERT_EQ(ReceiveBlocks(channel, 2).size(), 2u);
    WaitForQuiet();
    ASSERT_TRUE(control.StopCaptureLogs()) << control.LastFailure().Describe();
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_EQ(HkOpenDriveFileCount(), 0u);

    auto frames = [&](const char *file) { return nftest::ReadPcap(dir + "/" + file); };
    EXPECT_EQ(frames("Application-to-Driver-Io.eth"), (std::vector<std::vector<UCHAR>>{up, back, again}));
    EXPECT_EQ(frames("Driver-to-Application-Io.eth"), (std::vector<std::vector<UCHAR>>{back, again}));
    EXPECT_EQ(frames("Adapter(00-11-22-33-44-01)NdisUpper.eth"), (std::vector<std::vector<UCHAR>>{up}));

    HkSetDriveDirectory('C', saved[0] != '\0' ? saved : nullptr);
    std::string command = "rm -rf '" + dir + "'";
    EXPECT_EQ(system(command.c_str()), 0);
}
