/*
 * The example adapter monitor: its records in a context slot, the adapter
 * events it reports to the event queue, and its NDIS requests answered by
 * the adapters, at once and later.
 */
#include "app_fixture.h"

#include "example-event.h"
#include "example-monitor.h"

#include <string>
#include <vector>

namespace {

class ExampleMonitor : public apptest::AppTest {
protected:
    EXAMPLE_MONITOR_COUNTERS Counters()
    {
        EXAMPLE_MONITOR_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_MONITOR_GET_COUNTERS>(MONITOR_IMAGE, EXAMPLE_MONITOR_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    /* The texts in the event queue with the given first value, oldest first. */
    static std::vector<std::string> QueuedTexts()
    {
        std::vector<std::string> texts;
        PLIST_ENTRY head = &g_pGlobal->m_FilterLogList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink)
            texts.emplace_back(CONTAINING_RECORD(link, FilterLogRecord, m_Link)->m_Text + EXAMPLE_EVENT_TEXT_OFFSET);
        return texts;
    }
};

TEST_F(ExampleMonitor, ReportsEveryAdapterEventAndAsksEachAdapterThroughNdisRequests)
{
    ASSERT_EQ(LoadClient(MONITOR_IMAGE, EXAMPLE_MONITOR_SERVICE_NAME), STATUS_SUCCESS);
    /* The adapter open before the monitor loaded was found by enumeration. */
    PFilterAdapter second = OpenAdapter(2);
    ULONG secondId = 0;
    ASSERT_EQ(Filter_AdapterToId(second, &secondId), FILTER_STATUS_SUCCESS);
    Replay(apptest::Traffic().Frames);
    WaitForQuiet();
    ASSERT_EQ(NdisHookSetMediaConnected(m_adapter, FALSE), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSetMediaConnected(m_adapter, TRUE), STATUS_SUCCESS);
    IPConfig config = {};
    config.hAdapter = second;
    config.m_nIP = 1;
    config.m_IP[0] = {0x0A01A8C0, 0x00FFFFFF, 0};
    ASSERT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(hktest::WaitUntil([] { return NdisHookPendingRequests() == 0; }));

    EXAMPLE_MONITOR_COUNTERS c = Counters();
    ASSERT_EQ(c.AdapterCount, 2u);
    EXPECT_EQ(g_pGlobal->m_pContextDriver[c.Slot] != nullptr, true);
    const EXAMPLE_MONITOR_ADAPTER &a = c.Adapters[0];
    EXPECT_EQ(a.Id, m_adapterId);
    EXPECT_EQ(a.Events[FILTER_EVENT_ADAPTER_OPENED], 1u);
    EXPECT_EQ(a.Events[FILTER_EVENT_MEDIA_DISCONNECT], 1u);
    EXPECT_EQ(a.Events[FILTER_EVENT_MEDIA_CONNECT], 1u);
    EXPECT_EQ(a.Answers[EXAMPLE_MONITOR_LINK_SPEED], 1000000u);
    EXPECT_EQ(a.Answers[EXAMPLE_MONITOR_MTU], 1500u);
    /* The counters asked again at the reconnect: every frame the adapter passed on. */
    EXPECT_EQ(a.Answers[EXAMPLE_MONITOR_XMIT_OK], Delivered(FILTER_DIRECTION_TO_ADAPTER).size());
    EXPECT_EQ(a.Answers[EXAMPLE_MONITOR_RCV_OK], Delivered(FILTER_DIRECTION_TO_PROTOCOL).size());
    EXPECT_EQ(a.Answered, 6u);
    EXPECT_EQ(a.Pended, 4u); /* the counters, twice; link speed and MTU are answered at once */
    EXPECT_EQ(a.Failed, 0u);
    EXPECT_EQ(c.Adapters[1].Id, secondId);
    EXPECT_EQ(c.Adapters[1].Events[FILTER_EVENT_IPCONFIG_CHANGED], 1u);
    EXPECT_EQ(c.Reported, 5u);

    std::vector<std::string> expected = {
        "ExampleMonitor: adapter 1 (00-11-22-33-44-01) opened",
        "ExampleMonitor: adapter 2 (00-11-22-33-44-02) opened",
        "ExampleMonitor: adapter 1 (00-11-22-33-44-01) media disconnected",
        "ExampleMonitor: adapter 1 (00-11-22-33-44-01) media connected",
        "ExampleMonitor: adapter 2 (00-11-22-33-44-02) has a new IP configuration: 1 addresses, first "
        "192.168.1.10/255.255.255.0",
    };
    EXPECT_EQ(QueuedTexts(), expected);

    /* Unloaded, it leaves no slot taken and no value behind in the adapters. */
    ASSERT_EQ(NdisHookCloseAdapter(second), STATUS_SUCCESS);
    HkUnloadDriver(m_clients.back());
    m_clients.pop_back();
    EXPECT_EQ(g_pGlobal->m_pContextDriver[c.Slot], nullptr);
    EXPECT_EQ(m_adapter->m_pAdapterContext[c.Slot], 0u);
    EXPECT_EQ(second->m_pAdapterContext[c.Slot], 0u);
}

} // namespace
