/* The adapter table, adapter identifiers, lookups and the delivery of adapter events. */
#include "hook_fixture.h"
#include "ndisfilter-records.h"

#include <tuple>
#include <windows.h>

namespace {

struct SeenEvent {
    PFilterDriver driver;
    ULONG event;
    PFilterAdapter adapter;
    KIRQL irql;
    bool operator==(const SeenEvent &o) const
    {
        return std::tie(driver, event, adapter, irql) == std::tie(o.driver, o.event, o.adapter, o.irql);
    }
};

VOID NTAPI RecordEvent(PFilterDriver driver, PVOID, ULONG event, PVOID context, PFilterAdapter adapter)
{
    static_cast<std::vector<SeenEvent> *>(context)->push_back({driver, event, adapter, KeGetCurrentIrql()});
}

class AdapterTable : public hooktest::HookTest {
protected:
    /* An event handler placed on the list by hand, as its registration will place it. */
    void AddHandler(PFilterDriver owner)
    {
        PEventHandler handler = (PEventHandler)NdisFilter_AllocateRecord(sizeof(EventHandler), 0x6441664E);
        memset(handler, 0, sizeof(*handler));
        handler->m_Tag = FILTER_EVENT_HANDLER_TAG;
        handler->m_hFilterDriver = owner;
        handler->m_pfEventProc = RecordEvent;
        handler->m_pEventContext = &m_events;
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
        InsertTailList(&g_pGlobal->m_EventHandlerList, &handler->m_ListEntry);
        KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);
    }

    std::vector<SeenEvent> m_events;
};

PFilterDriver Owner(int n)
{
    return (PFilterDriver)(ULONG_PTR)(0x1000 * n);
}

} // namespace

TEST_F(AdapterTable, EventsReachEveryHandlerInOrderAtDispatchLevel)
{
    LoadBoth(false);
    PFilterAdapter early = OpenAdapter(1);
    AddHandler(Owner(1));
    AddHandler(Owner(2));
    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS); /* the enumeration reports the adapter already open */
    PFilterAdapter late = OpenAdapter(2);
    NdisHookSetMediaConnected(late, FALSE);
    NdisHookCloseAdapter(late);

    std::vector<SeenEvent> expected = {
        {Owner(1), FILTER_EVENT_ADAPTER_OPENED, early, DISPATCH_LEVEL},
        {Owner(2), FILTER_EVENT_ADAPTER_OPENED, early, DISPATCH_LEVEL},
        {Owner(1), FILTER_EVENT_ADAPTER_OPENED, late, DISPATCH_LEVEL},
        {Owner(2), FILTER_EVENT_ADAPTER_OPENED, late, DISPATCH_LEVEL},
        {Owner(1), FILTER_EVENT_MEDIA_DISCONNECT, late, DISPATCH_LEVEL},
        {Owner(2), FILTER_EVENT_MEDIA_DISCONNECT, late, DISPATCH_LEVEL},
        {Owner(1), FILTER_EVENT_ADAPTER_CLOSED, late, DISPATCH_LEVEL},
        {Owner(2), FILTER_EVENT_ADAPTER_CLOSED, late, DISPATCH_LEVEL},
    };
    EXPECT_EQ(m_events, expected);
    EXPECT_TRUE(Filter_IsValidAdapter(early));
}

TEST_F(AdapterTable, AnUnknownStatusIsPrintedWhateverTheMaskAndRaisesNoEvent)
{
    LoadBoth(true);
    PFilterAdapter adapter = OpenAdapter(1);
    AddHandler(Owner(1));
    m_events.clear();
    HkDebugClearCapture();
    NdisFilter_AdapterStatusChanged(adapter, (NDIS_STATUS)0x40010012);
    EXPECT_TRUE(m_events.empty());
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "Unknown adapter status 0x40010012"), 0);
}

TEST_F(AdapterTable, IdentifiersStartAtOneAreNeverReusedAndSurviveAClose)
{
    LoadBoth(true);
    PFilterAdapter first = OpenAdapter(1);
    PFilterAdapter second = OpenAdapter(2);
    ULONG id = 0;
    ASSERT_EQ(Filter_AdapterToId(second, &id), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(id, 1u); /* in the order callers first ask */
    ASSERT_EQ(Filter_AdapterToId(first, &id), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(id, 2u);
    ASSERT_EQ(Filter_AdapterToId(second, &id), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(id, 1u);

    NdisHookCloseAdapter(second);
    EXPECT_TRUE(Filter_IsValidAdapter(second));
    PFilterAdapter found = nullptr;
    ASSERT_EQ(Filter_IdToAdapter(1, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, second);
    EXPECT_EQ(Filter_IdToAdapter(3, &found), FILTER_ERROR_INVALID_ARGUMENT);

    /* Any handle gets an identifier, until 32 have been given. */
    static UCHAR notAdapters[40];
    for (ULONG i = 3; i <= 32; i++) {
        ASSERT_EQ(Filter_AdapterToId((PFilterAdapter)&notAdapters[i], &id), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(id, i);
    }
    EXPECT_EQ(Filter_AdapterToId((PFilterAdapter)&notAdapters[33], &id), FILTER_ERROR_INTERNAL_ERROR);
    ASSERT_EQ(Filter_AdapterToId(first, &id), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(id, 2u);
}

TEST_F(AdapterTable, LookupsGoByCurrentAddressAndByInstanceIdPrefixInTableOrder)
{
    LoadBoth(true);
    PFilterAdapter first = OpenAdapter(1);
    PFilterAdapter second = OpenAdapter(2);
    ASSERT_EQ(g_pGlobal->m_AdapterList.m_nAdapterCount, 2u);
    EXPECT_EQ(Filter_GetFirstAdapter(), first);

    const UCHAR current[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x02};
    const UCHAR permanent[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x02};
    PFilterAdapter found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByMacAddress(current, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, second);
    EXPECT_EQ(Filter_FindAdapterByMacAddress(permanent, &found), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_FindAdapterByMacAddress(nullptr, &found), FILTER_ERROR_INVALID_ARGUMENT);

    found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{00000002-1111-2222-3333-444455556666}", &found),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, second);
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{0000000", &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, first); /* a prefix of both names: the lower index */
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{00000002-1111-2222-3333-444455556666} - Simulated", &found),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{00000002-1111", &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{00000002-1111-2222-3333-444455556666}X", &found),
              FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("", &found), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId(std::string(300, '{').c_str(), &found),
              FILTER_ERROR_ADAPTER_NOT_FOUND);
}

TEST_F(AdapterTable, EnumerationVisitsTheTableInOrderUntilTheProcedureSaysStop)
{
    LoadBoth(true);
    PFilterAdapter first = OpenAdapter(1);
    OpenAdapter(2);
    STRING name;
    RtlInitAnsiString(&name, "enumerator");
    PFilterDriver driver = nullptr;
    ASSERT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 0, &driver), FILTER_STATUS_SUCCESS);

    std::vector<PFilterAdapter> seen;
    auto stopAtFirst = [](PVOID context, PFilterAdapter adapter) -> BOOLEAN {
        static_cast<std::vector<PFilterAdapter> *>(context)->push_back(adapter);
        return FALSE;
    };
    EXPECT_EQ(Filter_EnumAdapter(driver, stopAtFirst, &seen), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(seen, (std::vector<PFilterAdapter>{first}));
    EXPECT_EQ(Filter_EnumAdapter(nullptr, stopAtFirst, &seen), FILTER_ERROR_INVALID_ARGUMENT);
    ULONG bogus[8] = {0};
    EXPECT_EQ(Filter_EnumAdapter((PFilterDriver)bogus, stopAtFirst, &seen), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    Filter_DeregisterDriver(driver);
}

TEST_F(AdapterTable, BadAdapterRecordsFromTheHookAreReportedAndCallbacksAfterUnloadDoNothing)
{
    LoadBoth();
    static ULONG unreadable;
    PFilterAdapter bad = (PFilterAdapter)(ULONG_PTR)0x10; /* not a record at all */
    HkDebugClearCapture();
    EXPECT_EQ(NdisFilter_AdapterOpened(bad), STATUS_SUCCESS);
    EXPECT_EQ(NdisFilter_AdapterClosed(bad), STATUS_SUCCESS);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "NdisFilter_AdapterOpened: exception, code = -1073741819"), 0);
    EXPECT_GE(nftest::FindLine(lines, "NdisFilter_AdapterClosed: exception, code = -1073741819"), 0);
    EXPECT_FALSE(NdisFilter_IsOpenAdapter(bad));

    /* A hook driver that calls in after the framework's teardown finds the gate closed. */
    NdisHookAPI api;
    NdisHookQueryApi(&api);
    ASSERT_NE(api.Filter_FilterReceivedPacket, nullptr);
    UnloadHook();
    Unload();
    api.Filter_FilterReceivedPacket((PFilterPacket)&unreadable);
    api.Filter_AdapterStatusChanged((PFilterAdapter)&unreadable, NDIS_STATUS_MEDIA_CONNECT);
    EXPECT_EQ(api.Filter_AdapterOpened((PFilterAdapter)&unreadable), STATUS_SUCCESS);
}

TEST_F(AdapterTable, AnUnknownDirectCodeReachesTheHookWithTheBuffersItsTransferTypeGives)
{
    LoadBoth();
    const ULONG outDirect = 0x80002F02; /* METHOD_OUT_DIRECT: the output is the caller's own pages */
    std::vector<UCHAR> claimed(64);
    for (size_t i = 0; i < claimed.size(); i++)
        claimed[i] = (UCHAR)(i + 1);
    ASSERT_EQ(NdisHookClaimIoControl(outDirect, STATUS_SUCCESS, claimed.data(), (ULONG)claimed.size()),
              STATUS_SUCCESS);
    HANDLE device = CreateFileA("\\\\.\\NdisFilter", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    ULONG input = 1;
    std::vector<UCHAR> output(64);
    DWORD returned = 0;
    EXPECT_TRUE(DeviceIoControl(device, outDirect, &input, sizeof(input), output.data(), (DWORD)output.size(),
                                &returned, nullptr));
    EXPECT_EQ(returned, 64u);
    EXPECT_EQ(output, claimed);
    /* A caller's output too small for the answer: the hook refuses, nothing is written past it. */
    EXPECT_FALSE(DeviceIoControl(device, outDirect, &input, sizeof(input), output.data(), 8, &returned, nullptr));
    CloseHandle(device);
}
