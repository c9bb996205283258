/*
 * The packet object on frames that come from the simulated hook driver: lazy
 * reads from a buffer chain, modification, release and clones. The hook
 * driver's accounting checks that every packet comes back exactly once.
 */
#include "hook_fixture.h"
#include "packets.h"

#include <functional>

namespace {

class PacketObject : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        LoadBoth(true);
        m_adapter = OpenAdapter(1);
    }
    void TearDown() override
    {
        NdisHookSetPacketObserver(nullptr, nullptr);
        hooktest::HookTest::TearDown();
    }

    /* Receives `frame` and runs `inspect` on its packet just before the framework gets it. */
    void ReceiveAndInspect(const std::vector<UCHAR> &frame, std::function<void(PFilterPacket)> inspect)
    {
        m_inspect = std::move(inspect);
        NdisHookSetPacketObserver(&PacketObject::Observe, this);
        NDIS_HOOK_FRAME_LAYOUT layout = {14, 256, 128};
        ASSERT_EQ(NdisHookReceiveFrame(m_adapter, frame.data(), (ULONG)frame.size(), &layout), STATUS_SUCCESS);
        NdisHookSetPacketObserver(nullptr, nullptr);
    }

    static VOID Observe(PFilterPacket packet, PVOID context)
    {
        static_cast<PacketObject *>(context)->m_inspect(packet);
    }

    static int CountLines(const std::vector<std::string> &lines, const std::string &prefix)
    {
        int count = 0;
        for (const std::string &line : lines)
            count += line.rfind(prefix, 0) == 0;
        return count;
    }

    PFilterAdapter m_adapter = nullptr;
    std::function<void(PFilterPacket)> m_inspect;
};

VOID NTAPI CountRelease(PFilterPacket, PVOID context)
{
    ++*static_cast<int *>(context);
}

} // namespace

TEST_F(PacketObject, ALazyReadPullsTheWholeFrameOutOfTheBufferChain)
{
    std::vector<UCHAR> frame = hooktest::Frame(600);
    bool inspected = false;
    ReceiveAndInspect(frame, [&](PFilterPacket packet) {
        inspected = true;
        EXPECT_EQ(packet->m_nBytesRead, 128u);
        EXPECT_EQ(packet->m_nPacketSize, 600u);
        EXPECT_NE(memcmp(packet->m_Data + 128, frame.data() + 128, 472), 0);
        GlobalDebugFlag = NF_DBG_PACKET;
        HkDebugClearCapture();
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        GlobalDebugFlag = 0;
        EXPECT_EQ(packet->m_nBytesRead, 600u);
        EXPECT_EQ(memcmp(packet->m_Data, frame.data(), 600), 0);
        EXPECT_FALSE(packet->m_bDirty);
    });
    ASSERT_TRUE(inspected);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Read packet data from incoming packet"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Filter_TransferPacketData, lazy read 600, total 600"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Full packet, no data to read"), 0);
}

TEST_F(PacketObject, AModifiedPacketIsReadOnceAndNeverOverwritten)
{
    std::vector<UCHAR> frame = hooktest::Frame(400, 9);
    ReceiveAndInspect(frame, [&](PFilterPacket packet) {
        GlobalDebugFlag = NF_DBG_PACKET;
        HkDebugClearCapture();
        EXPECT_EQ(Filter_ModifyPacket(packet), FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(packet->m_bDirty);
        packet->m_Data[300] ^= 0xFF; /* an edit */
        EXPECT_EQ(Filter_ModifyPacket(packet), FILTER_STATUS_SUCCESS);
        GlobalDebugFlag = 0;
        EXPECT_EQ(packet->m_Data[300], (UCHAR)(frame[300] ^ 0xFF));
        auto lines = nftest::TakeTrace();
        EXPECT_EQ(CountLines(lines, "Filter_TransferPacketData, lazy read"), 1);
        EXPECT_GE(nftest::FindLine(lines, "Dirty packet, no data to read"), 0);
    });
    EXPECT_EQ(Filter_ModifyPacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(PacketObject, APacketWithoutNdisPacketsHasNothingToRead)
{
    PFilterPacket packet = Filter_AllocatePacket(m_adapter);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->m_hAdapter, m_adapter);
    packet->m_nBytesRead = 5;
    EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(packet->m_nBytesRead, 5u);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(PacketObject, TheReleaseCallbackRunsWhenTheHookDriverFreesThePacketAndCanBeCleared)
{
    int released = 0;
    PFilterPacket packet = Filter_AllocatePacket(m_adapter);
    Filter_SetPacketReleaseCallback(packet, CountRelease, &released);
    Filter_ReleasePacket(packet);
    EXPECT_EQ(released, 1);

    packet = Filter_AllocatePacket(m_adapter);
    Filter_SetPacketReleaseCallback(packet, CountRelease, &released);
    Filter_ClearPacketReleaseCallback(packet);
    Filter_ReleasePacket(packet);
    EXPECT_EQ(released, 1);
}

TEST_F(PacketObject, ReleasingWhileTheHookDriverIsUnboundSucceedsAndFreesNothing)
{
    PFilterPacket packet = Filter_AllocatePacket(m_adapter);
    ASSERT_EQ(NdisHookUnbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_AllocatePacket(m_adapter), nullptr);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 1);
    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    EXPECT_EQ(Filter_ReleasePacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(PacketObject, ACloneOfAPartlyReadPacketOwnsTheWholeFrameAndNothingElse)
{
    std::vector<UCHAR> frame = nftest::CaseFrame(15); /* first fragment: IPv4 + UDP, 1514 bytes */
    int released = 0;
    PFilterPacket clone = nullptr;
    ReceiveAndInspect(frame, [&](PFilterPacket packet) {
        Filter_SetPacketReleaseCallback(packet, CountRelease, &released);
        Filter_InitPacketHeader(packet, nullptr);
        ASSERT_EQ(Filter_ClonePacket(packet, &clone), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_nBytesRead, 128u); /* the source is left as it was */
    });
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(clone->m_nBytesRead, 1514u);
    EXPECT_EQ(memcmp(clone->m_Data, frame.data(), frame.size()), 0);
    EXPECT_EQ(clone->m_pIncomingNdisPacket, nullptr);
    EXPECT_EQ(clone->m_pOutgoingNdisPacket, nullptr);
    EXPECT_EQ(clone->m_pfReleaseCallback, nullptr);
    EXPECT_FALSE(clone->m_bDirty);
    EXPECT_EQ(clone->m_hAdapter, m_adapter);
    EXPECT_EQ(clone->m_pEthernet, clone->m_Data);
    EXPECT_EQ(clone->m_pIp, clone->m_Data + 14);
    EXPECT_EQ(clone->m_pUdp, clone->m_Data + 34);

    EXPECT_EQ(released, 1); /* the source went back to the hook driver */
    EXPECT_EQ(NdisHookPacketsOutstanding(), 1);
    EXPECT_EQ(Filter_ReleasePacket(clone), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(PacketObject, ACloneOfAnExternallyParsedFramePointsIntoItsOwnRecord)
{
    PFilterPacket source = Filter_AllocatePacket(m_adapter);
    ASSERT_NE(source, nullptr);
    /* A frame that lies in the record, but not at m_Data. */
    std::vector<UCHAR> arp = nftest::CaseFrame(1);
    memcpy(source->m_ApplicationData, arp.data(), 60);
    Filter_InitPacketHeader(source, source->m_ApplicationData);

    PFilterPacket clone = nullptr;
    ASSERT_EQ(Filter_ClonePacket(source, &clone), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(clone->m_pEthernet, clone->m_ApplicationData);
    EXPECT_EQ(clone->m_pArp, clone->m_ApplicationData + 14);
    EXPECT_EQ(Filter_ClonePacket(source, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    Filter_ReleasePacket(clone);

    /* A frame outside the record: the clone takes a copy of it and points into that. */
    std::vector<UCHAR> outside = nftest::CaseFrame(8);
    Filter_InitPacketHeader(source, outside.data());
    source->m_nPacketSize = (ULONG)outside.size();
    ASSERT_EQ(Filter_ClonePacket(source, &clone), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(clone->m_pEthernet, clone->m_Data);
    EXPECT_EQ(clone->m_pIp, clone->m_Data + 14);
    EXPECT_EQ(std::vector<UCHAR>(clone->m_Data, clone->m_Data + outside.size()), outside);
    Filter_ReleasePacket(clone);
    Filter_ReleasePacket(source);
}
