/* Packets: indicated frames, the release callback, injection, and the packet accounting. */
#include "hook_fixture.h"

#include <cstring>

namespace {

using hktest::ExpectVerifierFinding;
using hooktest::HookTest;

/* What the observer saw of the last packet handed to the framework. */
struct Seen {
    int packets = 0;
    KIRQL irql = 0xFF;
    PFilterAdapter adapter = nullptr;
    bool incoming = false, outgoing = false;
    std::vector<UINT> bufferLengths;
    UINT totalLength = 0;
    std::vector<UCHAR> chain;
    ULONG bytesRead = 0, packetSize = 0, direction = 0;
    std::vector<UCHAR> data;
};

VOID Observe(PFilterPacket packet, PVOID context)
{
    Seen *seen = (Seen *)context;
    seen->packets++;
    seen->irql = KeGetCurrentIrql();
    seen->adapter = packet->m_hAdapter;
    seen->incoming = packet->m_pIncomingNdisPacket != nullptr;
    seen->outgoing = packet->m_pOutgoingNdisPacket != nullptr;
    PNDIS_PACKET ndis = seen->incoming ? packet->m_pIncomingNdisPacket : packet->m_pOutgoingNdisPacket;
    seen->bufferLengths.clear();
    seen->chain.clear();
    PNDIS_BUFFER buffer;
    NdisQueryPacket(ndis, nullptr, nullptr, &buffer, &seen->totalLength);
    for (; buffer != nullptr; NdisGetNextBuffer(buffer, &buffer)) {
        PVOID address;
        UINT length;
        NdisQueryBuffer(buffer, &address, &length);
        seen->bufferLengths.push_back(length);
        seen->chain.insert(seen->chain.end(), (PUCHAR)address, (PUCHAR)address + length);
    }
    seen->bytesRead = packet->m_nBytesRead;
    seen->packetSize = packet->m_nPacketSize;
    seen->direction = packet->m_nDirection;
    seen->data.assign(packet->m_Data, packet->m_Data + packet->m_nBytesRead);
}

/* Counts release callbacks and checks they get their packet's context. */
struct Releases {
    int calls = 0;
    PFilterPacket last = nullptr;
};

VOID NTAPI CountRelease(PFilterPacket packet, PVOID context)
{
    Releases *releases = (Releases *)context;
    releases->calls++;
    releases->last = packet;
}

VOID SetRelease(PFilterPacket packet, PVOID context)
{
    packet->m_pfReleaseCallback = CountRelease;
    packet->m_pReleaseContext = context;
}

class HookPackets : public HookTest {
protected:
    void SetUp() override
    {
        LoadBoth();
        adapter = OpenAdapter(1);
    }
    void TearDown() override
    {
        NdisHookSetPacketObserver(nullptr, nullptr);
        HookTest::TearDown();
    }
    PFilterPacket Allocate() { return FrameworkApi().Hook_AllocatePacket(adapter, __FILE__, __LINE__); }
    void Free(PFilterPacket packet) { FrameworkApi().Hook_FreePacket(packet, __FILE__, __LINE__); }

    PFilterAdapter adapter = nullptr;
};

TEST_F(HookPackets, AReceivedFrameReachesTheFrameworkAsAPacketOfSeveralBuffers)
{
    Seen seen;
    NdisHookSetPacketObserver(Observe, &seen);
    auto frame = hooktest::Frame(600);
    ASSERT_EQ(NdisHookReceiveFrame(adapter, frame.data(), 600, nullptr), STATUS_SUCCESS);

    ASSERT_EQ(seen.packets, 1);
    EXPECT_EQ(seen.irql, DISPATCH_LEVEL);
    EXPECT_EQ(seen.adapter, adapter);
    EXPECT_TRUE(seen.incoming);
    EXPECT_FALSE(seen.outgoing);
    EXPECT_EQ(seen.bufferLengths, (std::vector<UINT>{14, 256, 256, 74}));
    EXPECT_EQ(seen.totalLength, 600u);
    EXPECT_EQ(seen.chain, frame);
    EXPECT_EQ(seen.packetSize, 600u);
    EXPECT_EQ(seen.bytesRead, 128u);
    EXPECT_EQ(seen.data, std::vector<UCHAR>(frame.begin(), frame.begin() + 128));
    EXPECT_EQ(seen.direction, (ULONG)FILTER_DIRECTION_TO_PROTOCOL);

    /* The framework gave it back: nothing is out, nothing leaked. */
    NDIS_HOOK_STATISTICS stats;
    NdisHookGetStatistics(&stats);
    EXPECT_EQ(stats.PacketsOutstanding, 0);
    EXPECT_EQ(stats.ReceivesIndicated, 1u);
    EXPECT_EQ(stats.PacketsHandedOut, 1u);
    EXPECT_EQ(stats.PacketsFreed + stats.PacketsInjected, 1u);
}

TEST_F(HookPackets, ASentFrameCarriesItsOutgoingPacketLaidOutAsAsked)
{
    Seen seen;
    NdisHookSetPacketObserver(Observe, &seen);
    auto frame = hooktest::Frame(300, 9);
    NDIS_HOOK_FRAME_LAYOUT layout = {NDIS_HOOK_NO_SPLIT, 0, 1000};
    ASSERT_EQ(NdisHookSendFrame(adapter, frame.data(), 300, &layout), STATUS_SUCCESS);
    EXPECT_TRUE(seen.outgoing);
    EXPECT_FALSE(seen.incoming);
    EXPECT_EQ(seen.bufferLengths, (std::vector<UINT>{300}));
    EXPECT_EQ(seen.bytesRead, 300u); /* the whole frame: shorter than the lookahead */
    EXPECT_EQ(seen.data, frame);
    EXPECT_EQ(seen.direction, (ULONG)FILTER_DIRECTION_TO_ADAPTER);

    layout = {20, 100, 30};
    ASSERT_EQ(NdisHookSendFrame(adapter, frame.data(), 300, &layout), STATUS_SUCCESS);
    EXPECT_EQ(seen.bufferLengths, (std::vector<UINT>{20, 100, 100, 80}));
    EXPECT_EQ(seen.bytesRead, 30u);
    EXPECT_EQ(seen.chain, frame);

    NDIS_HOOK_STATISTICS stats;
    NdisHookGetStatistics(&stats);
    EXPECT_EQ(stats.SendsIndicated, 2u);
    EXPECT_EQ(stats.PacketsOutstanding, 0);
}

TEST_F(HookPackets, TheReleaseCallbackRunsOnceWhenTheFrameworkReturnsAPacket)
{
    Releases releases;
    NdisHookSetPacketObserver(SetRelease, &releases);
    auto frame = hooktest::Frame(600);
    ASSERT_EQ(NdisHookReceiveFrame(adapter, frame.data(), 600, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(releases.calls, 1);
    NdisHookSetPacketObserver(nullptr, nullptr);

    PFilterPacket packet = Allocate();
    ASSERT_NE(packet, nullptr);
    SetRelease(packet, &releases);
    Free(packet);
    EXPECT_EQ(releases.calls, 2);
    EXPECT_EQ(releases.last, packet);
    NDIS_HOOK_STATISTICS stats;
    NdisHookGetStatistics(&stats);
    EXPECT_EQ(stats.ReleaseCallbacks, 2u);
}

TEST_F(HookPackets, InjectedFramesAreRecordedPerAdapterAndDirectionInOrder)
{
    PFilterAdapter other = OpenAdapter(2);
    auto frames = std::vector<std::vector<UCHAR>>{hooktest::Frame(60, 1), hooktest::Frame(70, 2),
                                                  hooktest::Frame(80, 3)};
    Releases releases;
    for (size_t i = 0; i < frames.size(); i++) {
        PFilterPacket packet = Allocate();
        std::memcpy(packet->m_Data, frames[i].data(), frames[i].size());
        packet->m_nPacketSize = (ULONG)frames[i].size();
        SetRelease(packet, &releases);
        NDIS_STATUS status = i == 1 ? FrameworkApi().Hook_InjectPacketToProtocol(other, packet)
                                    : FrameworkApi().Hook_InjectPacketToAdapter(adapter, packet);
        EXPECT_EQ(status, NDIS_STATUS_SUCCESS);
    }
    EXPECT_EQ(releases.calls, 3);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER),
              (std::vector<std::vector<UCHAR>>{frames[0], frames[2]}));
    EXPECT_EQ(ndishook::DeliveredFrames(other, FILTER_DIRECTION_TO_PROTOCOL),
              (std::vector<std::vector<UCHAR>>{frames[1]}));
    EXPECT_EQ(NdisHookDeliveredCount(adapter, FILTER_DIRECTION_TO_PROTOCOL), 0u);

    /* Taking the oldest frame leaves the rest; clearing forgets one adapter's frames. */
    UCHAR small[10];
    ULONG length = 0;
    EXPECT_EQ(NdisHookTakeDelivered(adapter, FILTER_DIRECTION_TO_ADAPTER, small, sizeof small, &length),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 60u);
    EXPECT_EQ(ndishook::TakeDeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER),
              (std::vector<std::vector<UCHAR>>{frames[0], frames[2]}));
    EXPECT_EQ(NdisHookTakeDelivered(adapter, FILTER_DIRECTION_TO_ADAPTER, small, sizeof small, &length),
              STATUS_NOT_FOUND);
    NdisHookClearDelivered(other);
    EXPECT_EQ(NdisHookDeliveredCount(other, FILTER_DIRECTION_TO_PROTOCOL), 0u);
}

TEST_F(HookPackets, AnInjectedPacketCarriesItsBufferChainUnlessItsDataIsDirty)
{
    /* An NDIS packet of three buffers over a 90-byte frame. */
    auto frame = hooktest::Frame(90, 5);
    NDIS_STATUS status;
    NDIS_HANDLE packetPool, bufferPool;
    NdisAllocatePacketPool(&status, &packetPool, 1, 0);
    NdisAllocateBufferPool(&status, &bufferPool, 3);
    PNDIS_PACKET ndis;
    NdisAllocatePacket(&status, &ndis, packetPool);
    for (int piece = 0; piece < 3; piece++) {
        PNDIS_BUFFER buffer;
        NdisAllocateBuffer(&status, &buffer, bufferPool, frame.data() + piece * 30, 30);
        NdisChainBufferAtBack(ndis, buffer);
    }

    PFilterPacket clean = Allocate();
    clean->m_pIncomingNdisPacket = ndis;
    clean->m_nPacketSize = 4; /* ignored: the chain is the frame */
    EXPECT_EQ(FrameworkApi().Hook_InjectPacketToProtocol(adapter, clean), NDIS_STATUS_SUCCESS);

    PFilterPacket dirty = Allocate();
    dirty->m_pOutgoingNdisPacket = ndis;
    dirty->m_bDirty = TRUE;
    std::memcpy(dirty->m_Data, "edited", 6);
    dirty->m_nPacketSize = 6;
    EXPECT_EQ(FrameworkApi().Hook_InjectPacketToAdapter(adapter, dirty), NDIS_STATUS_SUCCESS);

    PFilterPacket tooLong = Allocate();
    tooLong->m_bDirty = TRUE;
    tooLong->m_nPacketSize = FILTER_PACKET_DATA_SIZE + 1;
    EXPECT_EQ(FrameworkApi().Hook_InjectPacketToAdapter(adapter, tooLong), NDIS_STATUS_INVALID_LENGTH);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0); /* taken back all the same */

    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_PROTOCOL),
              (std::vector<std::vector<UCHAR>>{frame}));
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER),
              (std::vector<std::vector<UCHAR>>{{'e', 'd', 'i', 't', 'e', 'd'}}));

    /* The NDIS packet stayed the test's. */
    PNDIS_BUFFER buffer;
    for (NdisUnchainBufferAtFront(ndis, &buffer); buffer != nullptr; NdisUnchainBufferAtFront(ndis, &buffer))
        NdisFreeBuffer(buffer);
    NdisFreePacket(ndis);
    NdisFreeBufferPool(bufferPool);
    NdisFreePacketPool(packetPool);
}

TEST_F(HookPackets, APacketHandedBackTwiceIsReportedAndLeftAlone)
{
    PFilterPacket packet = Allocate();
    Releases releases;
    SetRelease(packet, &releases);
    Free(packet);
    {
        ExpectVerifierFinding finding("already handed back", 2);
        Free(packet);
        EXPECT_EQ(FrameworkApi().Hook_InjectPacketToAdapter(adapter, packet), NDIS_STATUS_INVALID_PACKET);
    }
    EXPECT_EQ(releases.calls, 1);

    FilterPacket foreign = {};
    {
        ExpectVerifierFinding finding("not a packet of the hook driver");
        Free(&foreign);
    }
}

} // namespace
