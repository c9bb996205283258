/* Adapter context slots of client drivers and their adapter event handlers. */
#include "hook_fixture.h"
#include "registry.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

/* driver, its context, event, adapter, IRQL, whether the handler list's lock was held */
using Seen = std::tuple<PFilterDriver, PVOID, ULONG, PFilterAdapter, KIRQL, bool>;

std::vector<Seen> g_seen;

VOID NTAPI Record(PFilterDriver driver, PVOID driverContext, ULONG event, PVOID, PFilterAdapter adapter)
{
    bool locked = *(volatile ULONG_PTR *)&g_pGlobal->m_EventHandlerLock != 0;
    g_seen.emplace_back(driver, driverContext, event, adapter, KeGetCurrentIrql(), locked);
}

VOID NTAPI Ignore(PFilterDriver, PVOID, ULONG, PVOID, PFilterAdapter) {}

class AdapterContexts : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        g_seen.clear();
        LoadBoth();
    }

    PFilterDriver Register(const std::string &name, PVOID context = nullptr)
    {
        STRING counted = nftest::Counted(name.c_str());
        PFilterDriver driver = nullptr;
        EXPECT_EQ(Filter_RegisterDriver(&counted, context, 1, 0, &driver), FILTER_STATUS_SUCCESS);
        return driver;
    }

    /* A page that faults on any access, for handles that point at nothing. */
    static PVOID FaultingPage()
    {
        static void *page = mmap(nullptr, sysconf(_SC_PAGESIZE), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return page;
    }
};

TEST_F(AdapterContexts, SixteenSlotsOnePerDriverWhoseValuesOutliveTheirOwner)
{
    PFilterAdapter a = OpenAdapter(1), b = OpenAdapter(2);
    std::vector<PFilterDriver> drivers;
    for (int i = 0; i < 17; i++)
        drivers.push_back(Register("driver" + std::to_string(i)));
    for (ULONG i = 0; i < 16; i++) {
        ULONG index = 99;
        ASSERT_EQ(Filter_AcquireAdapterContext(drivers[i], &index), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(index, i);
    }
    ULONG index = 99;
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[16], &index), FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT);
    EXPECT_EQ(index, 99u);
    /* A second acquire finds the same slot and takes no other. */
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[3], &index), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(index, 3u);

    EXPECT_EQ(Filter_SetAdapterContext(drivers[3], a, 3, (PVOID)0xA3), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_SetAdapterContext(drivers[3], b, 3, (PVOID)0xB3), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_SetAdapterContext(drivers[4], a, 3, (PVOID)1), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[4], 3), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    /* Any driver reads any slot. */
    PVOID value = nullptr;
    EXPECT_EQ(Filter_GetAdapterContext(a, 3, &value), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(value, (PVOID)0xA3);
    EXPECT_EQ(Filter_GetAdapterContext(b, 4, &value), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(value, nullptr);

    /* Released, the slot goes to the next driver, which reads the old values until it sets its own. */
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[3], 3), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[16], &index), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(index, 3u);
    EXPECT_EQ(Filter_GetAdapterContext(a, 3, &value), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(value, (PVOID)0xA3);
    EXPECT_EQ(Filter_GetAdapterContext(b, 3, &value), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(value, (PVOID)0xB3);
    EXPECT_EQ(Filter_SetAdapterContext(drivers[3], a, 3, (PVOID)1), FILTER_ERROR_INVALID_CONTEXT_OWNER);

    /* Index 16, arguments and a handle that faults (under the guard). */
    EXPECT_EQ(Filter_GetAdapterContext(a, 16, &value), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_SetAdapterContext(drivers[16], a, 16, nullptr), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[16], 16), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[0], nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_GetAdapterContext(a, 0, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_GetAdapterContext((PFilterAdapter)FaultingPage(), 0, &value), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(Filter_AcquireAdapterContext((PFilterDriver)FaultingPage(), &index), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "Filter_IsValidAdapter: exception, code = -1073741819"), 0);

    /* A departing driver keeps its slot: releasing it is the driver's own business. */
    EXPECT_EQ(Filter_DeregisterDriver(drivers[5]), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(g_pGlobal->m_pContextDriver[5], drivers[5]);
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[3], &index), FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT);
}

TEST_F(AdapterContexts, HandlersHearEveryEventInRegistrationOrderAtDispatchLevelUnderTheirLock)
{
    PFilterDriver first = Register("first", (PVOID)0x1111);
    PFilterDriver second = Register("second", (PVOID)0x2222);
    PEventHandler h1 = nullptr, h2 = nullptr;
    ASSERT_EQ(Filter_RegisterEventHandler(second, Record, nullptr, &h2), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_RegisterEventHandler(first, Record, nullptr, &h1), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(Filter_IsValidEventHandler(h1));
    PEventHandler again = nullptr;
    EXPECT_EQ(Filter_RegisterEventHandler(first, Ignore, nullptr, &again), FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED);
    EXPECT_EQ(again, nullptr);

    PFilterAdapter adapter = OpenAdapter(1);
    ASSERT_EQ(NdisHookSetMediaConnected(adapter, FALSE), STATUS_SUCCESS);
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_nIP = 1;
    config.m_IP[0] = {0x0A01A8C0, 0x00FFFFFF, 0};
    ASSERT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(NdisHookCloseAdapter(adapter), STATUS_SUCCESS);

    std::vector<Seen> expected;
    for (ULONG event : {FILTER_EVENT_ADAPTER_OPENED, FILTER_EVENT_MEDIA_DISCONNECT, FILTER_EVENT_IPCONFIG_CHANGED,
                        FILTER_EVENT_ADAPTER_CLOSED}) {
        expected.emplace_back(second, (PVOID)0x2222, event, adapter, DISPATCH_LEVEL, true);
        expected.emplace_back(first, (PVOID)0x1111, event, adapter, DISPATCH_LEVEL, true);
    }
    EXPECT_EQ(g_seen, expected);

    /* Another driver's handler stays; the driver's own goes with it when it deregisters. */
    EXPECT_EQ(Filter_DeregisterEventHandler(first, h2), FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER);
    EXPECT_EQ(Filter_DeregisterDriver(second), FILTER_STATUS_SUCCESS);
    g_seen.clear();
    OpenAdapter(2);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(std::get<0>(g_seen[0]), first);

    EXPECT_EQ(Filter_DeregisterEventHandler(first, h1), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_DeregisterEventHandler(first, (PEventHandler)&g_seen), FILTER_ERROR_INVALID_EVENT_HANDLER);
    /* A record with the right tag that is not on the list is not found. */
    struct _EventHandler lookalike = {};
    lookalike.m_Tag = FILTER_EVENT_HANDLER_TAG;
    lookalike.m_hFilterDriver = first;
    EXPECT_EQ(Filter_DeregisterEventHandler(first, &lookalike), FILTER_ERROR_EVENT_HANDLER_NOT_FOUND);
    EXPECT_EQ(Filter_RegisterEventHandler(first, nullptr, nullptr, &again), FILTER_ERROR_INVALID_ARGUMENT);
    HkDebugClearCapture();
    EXPECT_FALSE(Filter_IsValidEventHandler(nullptr));
    EXPECT_FALSE(Filter_IsValidEventHandler((PEventHandler)FaultingPage()));
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Filter_IsValidEventHandler: Invalid Handle 0x0000000000000000, bad tag 0xffffffff"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Filter_IsValidEventHandler: exception, code = -1073741819"), 0);
}

} // namespace
