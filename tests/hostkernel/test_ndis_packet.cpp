// NDIS packets and buffers: pools, the buffer chain, cached counts, and misuse.
#include <ndis.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using hktest::ExpectVerifierFinding;

// A packet pool and a buffer pool for one test, freed at its end.
class NdisPacketTest : public testing::Test {
protected:
    void SetUp() override
    {
        NDIS_STATUS status;
        NdisAllocatePacketPool(&status, &packetPool_, 4, 16);
        ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
        NdisAllocateBufferPool(&status, &bufferPool_, 8);
        ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
    }

    void TearDown() override
    {
        for (PNDIS_PACKET packet : packets_) {
            PNDIS_BUFFER buffer;
            for (NdisUnchainBufferAtFront(packet, &buffer); buffer != nullptr;
                 NdisUnchainBufferAtFront(packet, &buffer))
                NdisFreeBuffer(buffer);
            NdisFreePacket(packet);
        }
        NdisFreeBufferPool(bufferPool_);
        NdisFreePacketPool(packetPool_);
    }

    // A packet that the fixture frees (with its buffers) at the end.
    PNDIS_PACKET NewPacket()
    {
        NDIS_STATUS status;
        PNDIS_PACKET packet = nullptr;
        NdisAllocatePacket(&status, &packet, packetPool_);
        EXPECT_EQ(NDIS_STATUS_SUCCESS, status);
        packets_.push_back(packet);
        return packet;
    }

    // A buffer over `length` bytes at `address`; chained to a fixture packet, it is freed.
    PNDIS_BUFFER NewBuffer(void *address, UINT length)
    {
        NDIS_STATUS status;
        PNDIS_BUFFER buffer = nullptr;
        NdisAllocateBuffer(&status, &buffer, bufferPool_, address, length);
        EXPECT_EQ(NDIS_STATUS_SUCCESS, status);
        return buffer;
    }

    NDIS_HANDLE packetPool_ = nullptr;
    NDIS_HANDLE bufferPool_ = nullptr;
    std::vector<PNDIS_PACKET> packets_;
    UCHAR data_[3 * PAGE_SIZE] = {};
};

// The buffers of a packet, front to back.
std::vector<PNDIS_BUFFER> Chain(PNDIS_PACKET packet)
{
    std::vector<PNDIS_BUFFER> chain;
    PNDIS_BUFFER buffer;
    NdisQueryPacket(packet, nullptr, nullptr, &buffer, nullptr);
    while (buffer != nullptr) {
        chain.push_back(buffer);
        NdisGetNextBuffer(buffer, &buffer);
    }
    return chain;
}

// ---- pools ----

TEST_F(NdisPacketTest, APoolLendsItsDescriptorsThenReportsResourcesUntilOneComesBack)
{
    std::vector<PNDIS_PACKET> taken;
    NDIS_STATUS status;
    for (int i = 0; i < 4; ++i)
        taken.push_back(NewPacket());
    EXPECT_EQ(4u, NdisPacketPoolUsage(packetPool_));

    PNDIS_PACKET extra = reinterpret_cast<PNDIS_PACKET>(1);
    NdisAllocatePacket(&status, &extra, packetPool_);
    EXPECT_EQ(NDIS_STATUS_RESOURCES, status);
    EXPECT_EQ(nullptr, extra);

    NdisFreePacket(taken.back());
    packets_.pop_back();
    EXPECT_EQ(3u, NdisPacketPoolUsage(packetPool_));
    NewPacket();
}

TEST(NdisPacketPool, OverflowDescriptorsExtendThePool)
{
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    NdisAllocatePacketPoolEx(&status, &pool, 1, 2, 0);
    ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
    PNDIS_PACKET packets[4] = {};
    for (int i = 0; i < 3; ++i) {
        NdisAllocatePacket(&status, &packets[i], pool);
        EXPECT_EQ(NDIS_STATUS_SUCCESS, status);
    }
    NdisAllocatePacket(&status, &packets[3], pool);
    EXPECT_EQ(NDIS_STATUS_RESOURCES, status);
    for (int i = 0; i < 3; ++i)
        NdisFreePacket(packets[i]);
    NdisFreePacketPool(pool);
}

TEST(NdisPacketPool, NoMemoryForAPacketIsReportedAsResources)
{
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    NdisAllocatePacketPool(&status, &pool, 2, 0);
    HkPoolFailAllocations(HK_NDIS_PACKET_TAG, 1);
    PNDIS_PACKET packet;
    NdisAllocatePacket(&status, &packet, pool);
    HkPoolClearFailures();
    EXPECT_EQ(NDIS_STATUS_RESOURCES, status);
    EXPECT_EQ(0u, NdisPacketPoolUsage(pool));
    NdisFreePacketPool(pool);
}

// ---- a fresh packet ----

TEST_F(NdisPacketTest, AFreshPacketIsZeroedWithItsOutOfBandDataBehindTheReservedArea)
{
    PNDIS_PACKET packet = NewPacket();
    EXPECT_EQ(nullptr, packet->Private.Head);
    EXPECT_FALSE(packet->Private.ValidCounts);
    EXPECT_EQ(packetPool_, NdisGetPoolFromPacket(packet));
    EXPECT_EQ(fPACKET_ALLOCATED_BY_NDIS, packet->Private.NdisPacketFlags);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(0, packet->ProtocolReserved[i]);
    EXPECT_EQ(nullptr, NDIS_PER_PACKET_INFO_FROM_PACKET(packet, OriginalPacketInfo));

    ASSERT_GE(packet->Private.NdisPacketOobOffset, FIELD_OFFSET(NDIS_PACKET, ProtocolReserved) + 16);
    EXPECT_EQ(0, packet->Private.NdisPacketOobOffset % 8);
    std::memset(packet->ProtocolReserved, 0xAB, 16);
    EXPECT_EQ(NDIS_STATUS_SUCCESS, NDIS_GET_PACKET_STATUS(packet));

    NDIS_SET_PACKET_STATUS(packet, NDIS_STATUS_RESOURCES);
    NDIS_SET_PACKET_HEADER_SIZE(packet, 14);
    EXPECT_EQ(NDIS_STATUS_RESOURCES, NDIS_GET_PACKET_STATUS(packet));
    EXPECT_EQ(14u, NDIS_GET_PACKET_HEADER_SIZE(packet));
    EXPECT_EQ(0xAB, packet->ProtocolReserved[15]);
    EXPECT_EQ(NdisPacketSize(16), packet->Private.NdisPacketOobOffset + sizeof(NDIS_PACKET_OOB_DATA) +
                                      sizeof(NDIS_PACKET_EXTENSION));
}

// ---- buffers and the chain ----

TEST_F(NdisPacketTest, ChainingABufferThatLeadsOthersAddsTheWholeSubChain)
{
    PNDIS_PACKET packet = NewPacket();
    PNDIS_BUFFER a = NewBuffer(data_, 10), b = NewBuffer(data_ + 10, 20), c = NewBuffer(data_ + 30, 30);
    NdisChainBufferAtBack(packet, c);
    a->Next = b; // a pre-built sub-chain a -> b
    NdisChainBufferAtFront(packet, a);
    EXPECT_EQ((std::vector<PNDIS_BUFFER>{a, b, c}), Chain(packet));
    EXPECT_EQ(c, packet->Private.Tail);

    PNDIS_PACKET other = NewPacket();
    PNDIS_BUFFER d = NewBuffer(data_, 1), e = NewBuffer(data_, 2);
    d->Next = e;
    NdisChainBufferAtBack(other, d);
    EXPECT_EQ(e, other->Private.Tail);
}

TEST_F(NdisPacketTest, UnchainingTakesBuffersFromEitherEndUntilTheChainIsEmpty)
{
    PNDIS_PACKET packet = NewPacket();
    PNDIS_BUFFER a = NewBuffer(data_, 10), b = NewBuffer(data_ + 10, 20), c = NewBuffer(data_ + 30, 30);
    NdisChainBufferAtBack(packet, a);
    NdisChainBufferAtBack(packet, b);
    NdisChainBufferAtBack(packet, c);

    PNDIS_BUFFER taken;
    NdisUnchainBufferAtBack(packet, &taken);
    EXPECT_EQ(c, taken);
    EXPECT_EQ(nullptr, taken->Next);
    EXPECT_EQ(b, packet->Private.Tail);
    NdisFreeBuffer(taken);

    NdisUnchainBufferAtFront(packet, &taken);
    EXPECT_EQ(a, taken);
    EXPECT_EQ(nullptr, taken->Next);
    NdisFreeBuffer(taken);

    NdisUnchainBufferAtBack(packet, &taken);
    EXPECT_EQ(b, taken);
    EXPECT_EQ(nullptr, packet->Private.Head);
    NdisFreeBuffer(taken);

    NdisUnchainBufferAtFront(packet, &taken);
    EXPECT_EQ(nullptr, taken);
    NdisUnchainBufferAtBack(packet, &taken);
    EXPECT_EQ(nullptr, taken);

    // The emptied packet takes new buffers normally.
    PNDIS_BUFFER d = NewBuffer(data_, 5);
    NdisChainBufferAtBack(packet, d);
    EXPECT_EQ((std::vector<PNDIS_BUFFER>{d}), Chain(packet));
}

// ---- counts ----

TEST_F(NdisPacketTest, QueryPacketCountsBuffersBytesAndSpannedPages)
{
    PNDIS_PACKET packet = NewPacket();
    PUCHAR page = static_cast<PUCHAR>(PAGE_ALIGN(data_ + PAGE_SIZE - 1));
    NdisChainBufferAtBack(packet, NewBuffer(page, 14));
    NdisChainBufferAtBack(packet, NewBuffer(page + PAGE_SIZE - 100, 200)); // crosses a page
    NdisChainBufferAtBack(packet, NewBuffer(page, 0));                     // empty: one page

    UINT pages = 0, count = 0, total = 0;
    PNDIS_BUFFER first = nullptr;
    NdisQueryPacket(packet, &pages, &count, &first, &total);
    EXPECT_EQ(4u, pages);
    EXPECT_EQ(3u, count);
    EXPECT_EQ(214u, total);
    EXPECT_EQ(packet->Private.Head, first);
    EXPECT_TRUE(packet->Private.ValidCounts);

    UINT length = 0;
    NdisQueryPacketLength(packet, &length);
    EXPECT_EQ(214u, length);
}

TEST_F(NdisPacketTest, CountsAreCachedUntilTheChainChangesThroughTheChainRoutines)
{
    PNDIS_PACKET packet = NewPacket();
    PNDIS_BUFFER a = NewBuffer(data_, 100);
    NdisChainBufferAtBack(packet, a);
    UINT total = 0;
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &total);
    ASSERT_EQ(100u, total);

    // A buffer linked by hand is not seen until the counts are recalculated.
    PNDIS_BUFFER b = NewBuffer(data_ + 100, 50);
    a->Next = b;
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &total);
    EXPECT_EQ(100u, total);
    NdisQueryPacketLength(packet, &total);
    EXPECT_EQ(100u, total);

    NdisRecalculatePacketCounts(packet);
    EXPECT_EQ(b, packet->Private.Tail);
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &total);
    EXPECT_EQ(150u, total);

    NdisChainBufferAtBack(packet, NewBuffer(data_, 1));
    EXPECT_FALSE(packet->Private.ValidCounts);
    NdisQueryPacketLength(packet, &total);
    EXPECT_EQ(151u, total);

    PNDIS_BUFFER taken;
    NdisUnchainBufferAtFront(packet, &taken);
    NdisFreeBuffer(taken);
    NdisQueryPacketLength(packet, &total);
    EXPECT_EQ(51u, total);
}

// ---- misuse ----

TEST_F(NdisPacketTest, FreeingAPacketTwiceIsReportedAndHarmless)
{
    NDIS_STATUS status;
    PNDIS_PACKET packet;
    NdisAllocatePacket(&status, &packet, packetPool_);
    NdisFreePacket(packet);
    {
        ExpectVerifierFinding finding("NdisFreePacket");
        NdisFreePacket(packet);
    }
    EXPECT_EQ(0u, NdisPacketPoolUsage(packetPool_));
}

TEST_F(NdisPacketTest, FreeingABufferTwiceOrAForeignMdlIsReported)
{
    PNDIS_BUFFER buffer = NewBuffer(data_, 10);
    NdisFreeBuffer(buffer);
    {
        ExpectVerifierFinding finding("NdisFreeBuffer", 2);
        NdisFreeBuffer(buffer);
        MDL foreign;
        MmInitializeMdl(&foreign, data_, 10);
        NdisFreeBuffer(&foreign);
    }
}

TEST(NdisPacketPool, FreeingAPoolWithPacketsOutIsReportedAndThePacketsStayFreeable)
{
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    NdisAllocatePacketPool(&status, &pool, 2, 0);
    PNDIS_PACKET packet;
    NdisAllocatePacket(&status, &packet, pool);
    {
        ExpectVerifierFinding finding("1 packet(s) of the pool were not freed");
        NdisFreePacketPool(pool);
    }
    NdisFreePacket(packet);
    {
        ExpectVerifierFinding finding("not a packet pool handle");
        NdisAllocatePacket(&status, &packet, pool);
    }
    EXPECT_EQ(NDIS_STATUS_RESOURCES, status);
}

} // namespace
