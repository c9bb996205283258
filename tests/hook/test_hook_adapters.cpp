/* Adapters: what the framework learns of them, the adapter table, media state by address. */
#include "hook_fixture.h"

#include <cstring>

namespace {

using hooktest::HookTest;

/* The adapter table as the hook writes it for the framework. */
AdapterList TableFromHook(const NdisHookAPI &api)
{
    AdapterList list;
    std::memset(&list, 0xEE, sizeof list);
    api.Hook_GetTcpIpBoundAdapters(&list);
    return list;
}

/* The handle of table entry `index` (the packed field read by value). */
PFilterAdapter HandleAt(const AdapterList &list, ULONG index)
{
    return list.m_Adapters[index].m_hAdapter;
}

TEST_F(HookTest, AdaptersOpenedBeforeTheBindAreInTheFrameworksTableAfterIt)
{
    LoadBoth(false);
    PFilterAdapter first = OpenAdapter(1);
    PFilterAdapter second = OpenAdapter(2);
    EXPECT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 0u);

    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS);
    ASSERT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 2u);
    EXPECT_EQ(HandleAt(g_pGlobal->m_AdapterList, 0), first);
    EXPECT_EQ(HandleAt(g_pGlobal->m_AdapterList, 1), second);
    EXPECT_EQ(first->m_Tag, (ULONG)FILTER_ADAPTER_TAG);

    PFilterAdapter found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId(m_specs[1]->instanceId.c_str(), &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, second);
}

TEST_F(HookTest, OpeningAndClosingWhileBoundKeepTheFrameworksTableCurrent)
{
    LoadBoth(true, 0x2);
    PFilterAdapter first = OpenAdapter(1);
    EXPECT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 1u);
    EXPECT_EQ(first->m_Tag, (ULONG)FILTER_ADAPTER_TAG);
    PFilterAdapter second = OpenAdapter(2);
    EXPECT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 2u);

    EXPECT_EQ(NdisHookCloseAdapter(first), STATUS_SUCCESS);
    ASSERT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 1u);
    EXPECT_EQ(HandleAt(g_pGlobal->m_AdapterList, 0), second);
    EXPECT_EQ(NdisHookCloseAdapter(first), STATUS_NOT_FOUND);

    auto trace = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(trace, "Enter NdisFilter_AdapterOpened"), 0);
    EXPECT_GE(nftest::FindLine(trace, "Enter NdisFilter_AdapterClosed"), 0);
}

TEST_F(HookTest, TheTableEntryAndTheAdapterRecordDescribeTheAdapter)
{
    LoadBoth();
    hooktest::AdapterSpec spec(3, /*connected=*/false);
    spec.setup.Mtu = 1400;
    spec.setup.Medium = NdisMediumWan;
    spec.setup.NdisWan = TRUE;
    PFilterAdapter adapter = NdisHookOpenAdapter(&spec.setup);
    ASSERT_NE(adapter, nullptr);

    AdapterList list = TableFromHook(FrameworkApi());
    ULONG count = list.m_nAdapterCount;
    ASSERT_EQ(count, 1u);
    const AdapterInfo &info = list.m_Adapters[0];
    /* Packed fields are read into aligned copies before they are compared. */
    ULONG medium = info.m_nAdapterMedium, state = info.m_dwAdapterState;
    USHORT mtu = info.m_usMTU;
    EXPECT_EQ(HandleAt(list, 0), adapter);
    EXPECT_EQ(medium, (ULONG)NdisMediumWan);
    EXPECT_EQ(mtu, 1400);
    EXPECT_EQ(state, (ULONG)NdisMediaStateDisconnected);
    EXPECT_EQ(std::memcmp(info.m_CurrentAddress, spec.setup.CurrentAddress, 6), 0);
    EXPECT_EQ(std::memcmp(info.m_PermanentAddress, spec.setup.PermanentAddress, 6), 0);
    EXPECT_EQ(std::string(info.m_szAdapterName), spec.instanceId + " - Simulated Ethernet");
    /* Only the entries written change. */
    USHORT untouched = list.m_Adapters[1].m_usMTU;
    EXPECT_EQ(untouched, 0xEEEE);

    EXPECT_EQ(adapter->m_Tag, (ULONG)FILTER_ADAPTER_TAG);
    EXPECT_EQ(adapter->m_usMTU, 1400);
    EXPECT_TRUE(adapter->m_bNdisWanAdapter);
    EXPECT_EQ(adapter->m_nAdapterMediaState, (ULONG)NdisMediaStateDisconnected);
    std::string name;
    for (USHORT i = 0; i < adapter->m_AdapterName.Length / sizeof(WCHAR); i++)
        name += (char)adapter->m_AdapterName.Buffer[i];
    EXPECT_EQ(name, spec.deviceName);
    EXPECT_EQ(adapter->m_AdapterName.Buffer[adapter->m_AdapterName.Length / sizeof(WCHAR)], 0);
    IPConfig zero = {};
    EXPECT_EQ(std::memcmp(&adapter->m_IPConfig, &zero, sizeof zero), 0);

    EXPECT_EQ(NdisHookCloseAdapter(adapter), STATUS_SUCCESS);
    count = TableFromHook(FrameworkApi()).m_nAdapterCount;
    EXPECT_EQ(count, 0u);
}

TEST_F(HookTest, TheTableHoldsAtMostThirtyTwoAdapters)
{
    LoadBoth();
    for (int n = 1; n <= 33; n++)
        OpenAdapter(n);
    AdapterList list = TableFromHook(FrameworkApi());
    ULONG count = list.m_nAdapterCount;
    EXPECT_EQ(count, (ULONG)FILTER_MAX_ADAPTERS);
    EXPECT_EQ(list.m_Adapters[31].m_CurrentAddress[5], 32);
}

TEST_F(HookTest, MediaStateIsReadAndSetByCurrentAddress)
{
    LoadBoth();
    PFilterAdapter adapter = OpenAdapter(1);
    UCHAR mac[6];
    std::memcpy(mac, adapter->m_CurrentAddress, 6);
    const NdisHookAPI &api = FrameworkApi();

    ULONG state = 99;
    EXPECT_EQ(api.Hook_GetAdapterStatus(mac, &state), STATUS_SUCCESS);
    EXPECT_EQ(state, (ULONG)NdisMediaStateConnected);
    EXPECT_EQ(api.Hook_SetAdapterStatus(mac, NdisMediaStateDisconnected), STATUS_SUCCESS);
    EXPECT_EQ(api.Hook_GetAdapterStatus(mac, &state), STATUS_SUCCESS);
    EXPECT_EQ(state, (ULONG)NdisMediaStateDisconnected);
    EXPECT_EQ(adapter->m_nAdapterMediaState, (ULONG)NdisMediaStateDisconnected);

    EXPECT_EQ(NdisHookSetMediaConnected(adapter, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(api.Hook_GetAdapterStatus(mac, &state), STATUS_SUCCESS);
    EXPECT_EQ(state, (ULONG)NdisMediaStateConnected);

    /* The permanent address is no key; unknown addresses and states are refused. */
    EXPECT_EQ(api.Hook_GetAdapterStatus(adapter->m_PermanentAddress, &state), (NTSTATUS)NDIS_STATUS_ADAPTER_NOT_FOUND);
    UCHAR unknown[6] = {0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x01};
    EXPECT_EQ(api.Hook_SetAdapterStatus(unknown, NdisMediaStateConnected), (NTSTATUS)NDIS_STATUS_ADAPTER_NOT_FOUND);
    EXPECT_EQ(api.Hook_SetAdapterStatus(mac, 7), STATUS_INVALID_PARAMETER);
}

/* The framework never reuses identifiers, so an adapter that comes back must keep its record. */
TEST_F(HookTest, AnAdapterThatComesBackKeepsItsRecordAndItsIdentifier)
{
    LoadBoth();
    PFilterAdapter adapter = OpenAdapter(1);
    ULONG id = 0;
    ASSERT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    /* Kept out over every close, the packet also keeps a new record from landing at the old address. */
    PFilterPacket kept = FrameworkApi().Hook_AllocatePacket(adapter, __FILE__, __LINE__);
    ASSERT_NE(kept, nullptr);
    const std::vector<UCHAR> frame = hooktest::Frame(60);

    for (int round = 0; round < 40; round++) {
        ASSERT_EQ(NdisHookCloseAdapter(adapter), STATUS_SUCCESS);
        EXPECT_EQ(FrameworkApi().Hook_AllocatePacket(adapter, __FILE__, __LINE__), nullptr);
        EXPECT_EQ(kept->m_hAdapter->m_usMTU, 1500); /* a closed adapter's record is still valid */
        ASSERT_EQ(NdisHookOpenAdapter(&m_specs[0]->setup), adapter) << "round " << round;
        ULONG again = 0;
        PFilterAdapter found = nullptr;
        ASSERT_EQ(Filter_AdapterToId(adapter, &again), FILTER_STATUS_SUCCESS) << "round " << round;
        EXPECT_EQ(again, id);
        ASSERT_EQ(Filter_IdToAdapter(id, &found), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(found, adapter);
        ASSERT_EQ(NdisHookReceiveFrame(adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    }
    /* Open now, the same device name is refused; each close took the recorded frames with it. */
    EXPECT_EQ(NdisHookOpenAdapter(&m_specs[0]->setup), nullptr);
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_PROTOCOL), std::vector<std::vector<UCHAR>>{frame});
    EXPECT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 1u);

    ULONG other = 0;
    ASSERT_EQ(Filter_AdapterToId(OpenAdapter(2), &other), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(other, id + 1);
    FrameworkApi().Hook_FreePacket(kept, __FILE__, __LINE__);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

} // namespace
