/* NDIS requests of client drivers, made on the simulated hook driver's adapters. */
#include "hook_fixture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using nftest::FindLine;

struct Completed {
    PFilterNdisRequest request;
    NDIS_STATUS status;
    PVOID context;
    KIRQL irql;
    bool insideCall; /* on the thread that made the request, before the call returned */
};

std::vector<Completed> g_completed;
std::atomic<int> g_completions;
thread_local bool t_making;

VOID NTAPI OnComplete(PFilterNdisRequest request, NDIS_STATUS status, PVOID context)
{
    g_completed.push_back({request, status, context, KeGetCurrentIrql(), t_making});
    g_completions++;
}

class NdisRequests : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        g_completed.clear();
        LoadBoth();
        hooktest::AdapterSpec spec(3);
        spec.setup.Mtu = 1400;
        spec.setup.LinkSpeed = 10000000;
        adapter = NdisHookOpenAdapter(&spec.setup);
        ASSERT_NE(adapter, nullptr);
        ASSERT_EQ(Filter_AllocateNdisRequest(&request), FILTER_STATUS_SUCCESS);
        request->m_pfComplete = OnComplete;
    }

    void TearDown() override
    {
        if (request != nullptr) {
            EXPECT_EQ(Filter_FreeNdisRequest(request), FILTER_STATUS_SUCCESS);
        }
        hooktest::HookTest::TearDown();
    }

    /* Makes one request and waits for its completion; returns the status it completed with. */
    NDIS_STATUS Make(NDIS_REQUEST_TYPE type, NDIS_OID oid, PVOID buffer, UINT length)
    {
        g_completed.clear();
        g_completions = 0;
        request->m_Request.RequestType = type;
        request->m_Request.DATA.QUERY_INFORMATION.Oid = oid;
        request->m_Request.DATA.QUERY_INFORMATION.InformationBuffer = buffer;
        request->m_Request.DATA.QUERY_INFORMATION.InformationBufferLength = length;
        t_making = true;
        EXPECT_EQ(Filter_MakeNdisRequest(adapter, request, this), FILTER_STATUS_SUCCESS);
        t_making = false;
        EXPECT_TRUE(hktest::WaitUntil([] { return g_completions != 0; }));
        if (g_completions != 1)
            return (NDIS_STATUS)-1;
        completedInside = g_completed[0].insideCall;
        EXPECT_EQ(g_completed[0].request, request);
        EXPECT_EQ(g_completed[0].context, (PVOID)this);
        EXPECT_EQ(request->m_Status, g_completed[0].status);
        return g_completed[0].status;
    }

    ULONG QueryUlong(NDIS_OID oid)
    {
        ULONG value = 0xEEEEEEEE;
        EXPECT_EQ(Make(NdisRequestQueryInformation, oid, &value, sizeof value), NDIS_STATUS_SUCCESS) << oid;
        return value;
    }

    PFilterAdapter adapter = nullptr;
    PFilterNdisRequest request = nullptr;
    bool completedInside = false;
};

TEST_F(NdisRequests, QueriesAndSetsRoundTripThroughTheAdaptersMiniport)
{
    EXPECT_EQ(QueryUlong(OID_GEN_MAXIMUM_FRAME_SIZE), 1400u);
    EXPECT_EQ(QueryUlong(OID_GEN_MAXIMUM_TOTAL_SIZE), 1414u);
    EXPECT_EQ(QueryUlong(OID_GEN_LINK_SPEED), 10000000u);
    EXPECT_EQ(QueryUlong(OID_GEN_MEDIA_CONNECT_STATUS), (ULONG)NdisMediaStateConnected);
    EXPECT_EQ(QueryUlong(OID_GEN_MEDIA_IN_USE), (ULONG)NdisMedium802_3);
    EXPECT_EQ(QueryUlong(OID_GEN_MEDIA_SUPPORTED), (ULONG)NdisMedium802_3);
    EXPECT_EQ(QueryUlong(OID_GEN_MAXIMUM_LOOKAHEAD), (ULONG)FILTER_PACKET_DATA_SIZE);
    EXPECT_EQ(QueryUlong(OID_802_3_MAXIMUM_LIST_SIZE), (ULONG)NDIS_HOOK_MULTICAST_LIST_SIZE);
    /* Everything answered so far completed inside the call. */
    EXPECT_TRUE(completedInside);
    UCHAR mac[6];
    EXPECT_EQ(Make(NdisRequestQueryInformation, OID_802_3_CURRENT_ADDRESS, mac, 6), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(mac, adapter->m_CurrentAddress, 6), 0);
    EXPECT_EQ(Make(NdisRequestQueryInformation, OID_802_3_PERMANENT_ADDRESS, mac, 6), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(mac, adapter->m_PermanentAddress, 6), 0);

    /* Sets pend and complete later at DISPATCH_LEVEL; the queries then read what was set. */
    ULONG filter = 0x0B;
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_GEN_CURRENT_PACKET_FILTER, &filter, 4), NDIS_STATUS_SUCCESS);
    EXPECT_FALSE(completedInside);
    EXPECT_EQ(g_completed[0].irql, DISPATCH_LEVEL);
    EXPECT_EQ(request->m_Request.DATA.SET_INFORMATION.BytesRead, 4u);
    EXPECT_EQ(QueryUlong(OID_GEN_CURRENT_PACKET_FILTER), 0x0Bu);
    ULONG lookahead = 256;
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_GEN_CURRENT_LOOKAHEAD, &lookahead, 4), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(QueryUlong(OID_GEN_CURRENT_LOOKAHEAD), 256u);
    UCHAR groups[12] = {0x01, 0x00, 0x5E, 0, 0, 1, 0x01, 0x00, 0x5E, 0, 0, 0xFB};
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_802_3_MULTICAST_LIST, groups, 12), NDIS_STATUS_SUCCESS);
    UCHAR list[6 * NDIS_HOOK_MULTICAST_LIST_SIZE + 6] = {};
    EXPECT_EQ(Make(NdisRequestQueryInformation, OID_802_3_MULTICAST_LIST, list, sizeof list), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(request->m_Request.DATA.QUERY_INFORMATION.BytesWritten, 12u);
    EXPECT_EQ(std::memcmp(list, groups, 12), 0);
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_802_3_MULTICAST_LIST, list, sizeof list), NDIS_STATUS_MULTICAST_FULL);
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_802_3_MULTICAST_LIST, groups, 7), NDIS_STATUS_INVALID_LENGTH);
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_GEN_CURRENT_PACKET_FILTER, &filter, 2), NDIS_STATUS_INVALID_LENGTH);
    EXPECT_EQ(request->m_Request.DATA.SET_INFORMATION.BytesNeeded, 4u);

    /* Counters of the frames passed on pend too; 8 bytes when the buffer holds them. */
    auto frame = hooktest::Frame(60);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(NdisHookReceiveFrame(adapter, frame.data(), 60, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSendFrame(adapter, frame.data(), 60, nullptr), STATUS_SUCCESS);
    ASSERT_TRUE(hktest::WaitUntil([&] {
        return NdisHookDeliveredCount(adapter, FILTER_DIRECTION_TO_PROTOCOL) == 3 &&
               NdisHookDeliveredCount(adapter, FILTER_DIRECTION_TO_ADAPTER) == 1;
    }));
    ULONG64 received = 0;
    EXPECT_EQ(Make(NdisRequestQueryStatistics, OID_GEN_RCV_OK, &received, 8), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(received, 3u);
    EXPECT_FALSE(completedInside);
    EXPECT_EQ(QueryUlong(OID_GEN_XMIT_OK), 1u);

    /* What no miniport knows, and short buffers. */
    ULONG value = 0;
    EXPECT_EQ(Make(NdisRequestQueryInformation, OID_GEN_VENDOR_DESCRIPTION, &value, 4), NDIS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Make(NdisRequestSetInformation, OID_GEN_VENDOR_ID, &value, 4), NDIS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Make(NdisRequestQueryInformation, OID_802_3_CURRENT_ADDRESS, mac, 4), NDIS_STATUS_BUFFER_TOO_SHORT);
    EXPECT_EQ(request->m_Request.DATA.QUERY_INFORMATION.BytesNeeded, 6u);
    EXPECT_EQ(NdisHookPendingRequests(), 0u);
}

TEST_F(NdisRequests, ForgedHandlesAreRefusedAndTheHandleIsTheRecordPlus24)
{
    EXPECT_TRUE(Filter_IsValidNdisRequest(request));
    PUCHAR block = (PUCHAR)request - NDIS_HOOK_REQUEST_RECORD_OFFSET;
    EXPECT_EQ(*(PULONG)(block + NDIS_HOOK_REQUEST_TAG_OFFSET), (ULONG)FILTER_NDIS_REQUEST_TAG);

    /* A record laid out as the hook driver's: passing its address instead of the handle fails. */
    alignas(8) UCHAR fake[128] = {};
    PUCHAR record = fake + 32;
    *(PULONG)(record + NDIS_HOOK_REQUEST_TAG_OFFSET) = FILTER_NDIS_REQUEST_TAG;
    EXPECT_TRUE(Filter_IsValidNdisRequest((PFilterNdisRequest)(record + 24)));
    HkDebugClearCapture();
    EXPECT_FALSE(Filter_IsValidNdisRequest(nullptr));
    EXPECT_FALSE(Filter_IsValidNdisRequest((PFilterNdisRequest)(ULONG_PTR)24));
    EXPECT_EQ(Filter_MakeNdisRequest(adapter, (PFilterNdisRequest)record, nullptr), FILTER_ERROR_INVALID_NDIS_REQUEST);
    EXPECT_EQ(Filter_FreeNdisRequest((PFilterNdisRequest)record), FILTER_ERROR_INVALID_NDIS_REQUEST);
    static void *page = mmap(nullptr, sysconf(_SC_PAGESIZE), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_FALSE(Filter_IsValidNdisRequest((PFilterNdisRequest)((PUCHAR)page + 24)));
    auto lines = nftest::TakeTrace();
    EXPECT_GE(FindLine(lines, "Filter_IsValidNdisRequest: Invalid Handle 0x0000000000000000, NULL pointer"), 0);
    EXPECT_GE(FindLine(lines, "Filter_IsValidNdisRequest: Invalid Handle 0x0000000000000000, bad tag 0xffffffff"), 0);
    char expected[128];
    std::snprintf(expected, sizeof expected, "Filter_IsValidNdisRequest: Invalid Handle 0x%016llX, bad tag 0x0",
                  (unsigned long long)(ULONG_PTR)(record - 24));
    EXPECT_GE(FindLine(lines, expected), 0);
    EXPECT_GE(FindLine(lines, "Filter_IsValidNdisRequest: exception, code = -1073741819"), 0);

    EXPECT_EQ(Filter_MakeNdisRequest(nullptr, request, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_MakeNdisRequest((PFilterAdapter)page, request, nullptr), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    /* A result pointer that cannot be written: the block goes back to the hook driver. */
    EXPECT_EQ(Filter_AllocateNdisRequest((PFilterNdisRequest *)page), FILTER_ERROR_EXCEPTION);
}

TEST_F(NdisRequests, WithTheHookUnboundEveryCallButValidationIsRefused)
{
    ASSERT_EQ(NdisHookUnbind(), STATUS_SUCCESS);
    PFilterNdisRequest another = nullptr;
    EXPECT_EQ(Filter_AllocateNdisRequest(&another), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(another, nullptr);
    EXPECT_TRUE(Filter_IsValidNdisRequest(request));
    EXPECT_EQ(Filter_MakeNdisRequest(adapter, request, nullptr), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(Filter_FreeNdisRequest(request), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_TRUE(g_completed.empty());
    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS);
}

} // namespace
