/* NDIS request blocks and their answers, and the user-mode mapping of shared memory. */
#include "hook_fixture.h"

#include <cstring>

namespace {

using hktest::ExpectVerifierFinding;
using hooktest::HookTest;

class HookRequests : public HookTest {
protected:
    void SetUp() override
    {
        LoadBoth();
        hooktest::AdapterSpec spec(4);
        spec.setup.Mtu = 1492;
        spec.setup.LinkSpeed = 10000000; /* 1 Gbit/s */
        adapter = NdisHookOpenAdapter(&spec.setup);
        ASSERT_NE(adapter, nullptr);
        block = (PUCHAR)FrameworkApi().Hook_AllocateRequest();
        ASSERT_NE(block, nullptr);
        /* The framework stamps its tag and works on the record inside the block. */
        *(PULONG)(block + NDIS_HOOK_REQUEST_TAG_OFFSET) = FILTER_NDIS_REQUEST_TAG;
        request = (PNDIS_REQUEST)(block + NDIS_HOOK_REQUEST_RECORD_OFFSET);
    }

    void TearDown() override
    {
        if (block != nullptr)
            FrameworkApi().Hook_FreeRequest(block);
        HookTest::TearDown();
    }

    /* Queries Oid into `buffer` (Length bytes) through the hook. */
    NDIS_STATUS Query(NDIS_OID oid, PVOID buffer, UINT length)
    {
        request->RequestType = NdisRequestQueryInformation;
        request->DATA.QUERY_INFORMATION.Oid = oid;
        request->DATA.QUERY_INFORMATION.InformationBuffer = buffer;
        request->DATA.QUERY_INFORMATION.InformationBufferLength = length;
        return FrameworkApi().Hook_MakeNdisRequest(adapter, block, this);
    }

    ULONG QueryUlong(NDIS_OID oid)
    {
        ULONG value = 0xEEEEEEEE;
        EXPECT_EQ(Query(oid, &value, sizeof value), NDIS_STATUS_SUCCESS);
        EXPECT_EQ(request->DATA.QUERY_INFORMATION.BytesWritten, 4u);
        return value;
    }

    PFilterAdapter adapter = nullptr;
    PUCHAR block = nullptr;
    PNDIS_REQUEST request = nullptr;
};

TEST_F(HookRequests, QueriesAnswerTheAdaptersProperties)
{
    EXPECT_EQ(QueryUlong(OID_GEN_MEDIA_CONNECT_STATUS), (ULONG)NdisMediaStateConnected);
    EXPECT_EQ(QueryUlong(OID_GEN_MAXIMUM_FRAME_SIZE), 1492u);
    EXPECT_EQ(QueryUlong(OID_GEN_LINK_SPEED), 10000000u);

    UCHAR mac[6] = {};
    EXPECT_EQ(Query(OID_802_3_CURRENT_ADDRESS, mac, 6), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(mac, adapter->m_CurrentAddress, 6), 0);
    EXPECT_EQ(Query(OID_802_3_PERMANENT_ADDRESS, mac, 6), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(mac, adapter->m_PermanentAddress, 6), 0);
    EXPECT_EQ(request->DATA.QUERY_INFORMATION.BytesWritten, 6u);

    ASSERT_EQ(NdisHookSetMediaConnected(adapter, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(QueryUlong(OID_GEN_MEDIA_CONNECT_STATUS), (ULONG)NdisMediaStateDisconnected);

    /* A short buffer is left alone and told how many bytes are needed. */
    UCHAR shortBuffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(Query(OID_802_3_CURRENT_ADDRESS, shortBuffer, 4), NDIS_STATUS_BUFFER_TOO_SHORT);
    EXPECT_EQ(request->DATA.QUERY_INFORMATION.BytesNeeded, 6u);
    EXPECT_EQ(request->DATA.QUERY_INFORMATION.BytesWritten, 0u);
    EXPECT_EQ(shortBuffer[0], 0xEE);
    /* The framework's tag survived every request. */
    EXPECT_EQ(*(PULONG)(block + NDIS_HOOK_REQUEST_TAG_OFFSET), (ULONG)FILTER_NDIS_REQUEST_TAG);
}

TEST_F(HookRequests, OtherOidsSetsAndClosedAdaptersAreRefused)
{
    ULONG value = 0;
    EXPECT_EQ(Query(OID_GEN_VENDOR_ID, &value, sizeof value), NDIS_STATUS_NOT_SUPPORTED);

    request->RequestType = NdisRequestSetInformation;
    request->DATA.SET_INFORMATION.Oid = OID_GEN_VENDOR_ID;
    request->DATA.SET_INFORMATION.InformationBuffer = &value;
    request->DATA.SET_INFORMATION.InformationBufferLength = sizeof value;
    EXPECT_EQ(FrameworkApi().Hook_MakeNdisRequest(adapter, block, nullptr), NDIS_STATUS_NOT_SUPPORTED);

    ASSERT_EQ(NdisHookCloseAdapter(adapter), STATUS_SUCCESS);
    EXPECT_EQ(Query(OID_GEN_LINK_SPEED, &value, sizeof value), NDIS_STATUS_ADAPTER_NOT_FOUND);
}

TEST_F(HookRequests, ABlockFreedTwiceOrLeftAtUnloadIsReported)
{
    FrameworkApi().Hook_FreeRequest(block);
    {
        ExpectVerifierFinding finding("not an allocated request block", 2);
        FrameworkApi().Hook_FreeRequest(block);
        ULONG value;
        EXPECT_EQ(Query(OID_GEN_LINK_SPEED, &value, sizeof value), NDIS_STATUS_FAILURE);
    }
    block = nullptr;

    FrameworkApi().Hook_AllocateRequest();
    ExpectVerifierFinding finding("was still allocated at unload");
    UnloadHook();
}

TEST_F(HookRequests, PendingRequestsCompleteOnceAndArePendingUntilThen)
{
    static int completions;
    completions = 0;
    PFilterNdisRequest client = (PFilterNdisRequest)request;
    client->m_pfComplete = [](PFilterNdisRequest, NDIS_STATUS, PVOID) { completions++; };
    ULONG64 counter = 0;
    NdisHookHoldPendingRequests(TRUE);
    ASSERT_EQ(Query(OID_GEN_XMIT_OK, &counter, sizeof counter), NDIS_STATUS_PENDING);
    EXPECT_EQ(client->m_Status, NDIS_STATUS_PENDING);
    {
        ExpectVerifierFinding finding("the request is still pending");
        EXPECT_EQ(FrameworkApi().Hook_MakeNdisRequest(adapter, block, nullptr), NDIS_STATUS_FAILURE);
    }
    EXPECT_EQ(NdisHookPendingRequests(), 1u);
    NdisHookHoldPendingRequests(FALSE);
    ASSERT_TRUE(hktest::WaitUntil([&] { return client->m_Status != NDIS_STATUS_PENDING; }));
    EXPECT_EQ(client->m_Status, NDIS_STATUS_SUCCESS);
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(NdisHookPendingRequests(), 0u);

    /* Freed while pending: reported, taken off the list, never completed. */
    NdisHookHoldPendingRequests(TRUE);
    ASSERT_EQ(Query(OID_GEN_RCV_OK, &counter, sizeof counter), NDIS_STATUS_PENDING);
    {
        ExpectVerifierFinding finding("the request is still pending");
        FrameworkApi().Hook_FreeRequest(block);
    }
    block = nullptr;
    EXPECT_EQ(NdisHookPendingRequests(), 0u);
    NdisHookHoldPendingRequests(FALSE);
    EXPECT_EQ(completions, 1);
}

TEST_F(HookTest, MappedPagesAliasTheKernelMemoryAtAUserAddress)
{
    LoadBoth();
    const ULONG tag = nftest::PoolTag("HkTs");
    PMappedMemory memory = (PMappedMemory)ExAllocatePoolWithTag(NonPagedPool, 2 * PAGE_SIZE, tag);
    ASSERT_NE(memory, nullptr);
    memory->m_pUserModeVirtualAddress = nullptr;
    PMDL mdl = IoAllocateMdl(memory, 2 * PAGE_SIZE, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);

    PUCHAR user = (PUCHAR)FrameworkApi().Hook_MmMapLockedPages(mdl, 0x1234, memory);
    ASSERT_NE(user, nullptr);
    EXPECT_NE(user, (PUCHAR)memory);
    EXPECT_EQ(memory->m_pUserModeVirtualAddress, user);
    /* The record seen through the user address holds that same address. */
    EXPECT_EQ(((PMappedMemory)user)->m_pUserModeVirtualAddress, user);
    user[PAGE_SIZE + 10] = 0x5A;
    EXPECT_EQ(((PUCHAR)memory)[PAGE_SIZE + 10], 0x5A);

    FrameworkApi().Hook_MmUnmapLockedPages(mdl, user);
    IoFreeMdl(mdl);
    ExFreePoolWithTag(memory, tag);
}

} // namespace
