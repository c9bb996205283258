/*
 * The example flow tracker on host A's real traffic: its table against
 * tshark's reading of the capture, its control request, its aging timer,
 * and the firewall asking its interface which packets are replies.
 */
#include "app_fixture.h"

#include "example-firewall.h"
#include "example-flow-tracker.h"

#include <windows.h>

namespace {

const ULONG In = EXAMPLE_CHAIN_INCOMING;
const ULONG Out = EXAMPLE_CHAIN_OUTGOING;

class ExampleFlowTracker : public apptest::AppTest {
protected:
    NTSTATUS LoadTracker(ULONG idleSeconds, ULONG periodMs)
    {
        std::string key = apptest::ClientKey(EXAMPLE_FLOW_TRACKER_SERVICE_NAME);
        HkRegistryCreateKey(key.c_str());
        HkRegistrySetDword(key.c_str(), EXAMPLE_FLOW_TRACKER_IDLE_VALUE, idleSeconds);
        HkRegistrySetDword(key.c_str(), EXAMPLE_FLOW_TRACKER_PERIOD_VALUE, periodMs);
        return LoadClient(FLOW_TRACKER_IMAGE, EXAMPLE_FLOW_TRACKER_SERVICE_NAME);
    }

    NTSTATUS LoadFirewall(const char *rules)
    {
        std::string key = apptest::ClientKey(EXAMPLE_FIREWALL_SERVICE_NAME);
        HkRegistryCreateKey(key.c_str());
        HkRegistrySetString(key.c_str(), EXAMPLE_FIREWALL_RULES_VALUE, rules);
        return LoadClient(FIREWALL_IMAGE, EXAMPLE_FIREWALL_SERVICE_NAME);
    }

    EXAMPLE_FLOW_TRACKER_COUNTERS Tracker()
    {
        EXAMPLE_FLOW_TRACKER_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_FLOW_TRACKER_GET_COUNTERS>(FLOW_TRACKER_IMAGE,
                                                                   EXAMPLE_FLOW_TRACKER_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    EXAMPLE_FIREWALL_COUNTERS Firewall()
    {
        EXAMPLE_FIREWALL_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_FIREWALL_GET_COUNTERS>(FIREWALL_IMAGE, EXAMPLE_FIREWALL_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    /* The tracker's control request with room for `room` flows; FALSE when it failed. */
    bool List(ULONG room, ULONG *count, std::vector<EXAMPLE_FLOW> *flows, DWORD outputBytes = 0)
    {
        HANDLE device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    0, nullptr);
        EXPECT_NE(device, INVALID_HANDLE_VALUE);
        std::vector<UCHAR> reply(EXAMPLE_FLOW_LIST_HEADER + room * sizeof(EXAMPLE_FLOW));
        if (outputBytes == 0)
            outputBytes = (DWORD)reply.size();
        DWORD bytes = 0;
        BOOL ok = DeviceIoControl(device, IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS, nullptr, 0, reply.data(),
                                  outputBytes, &bytes, nullptr);
        CloseHandle(device);
        if (!ok)
            return false;
        const EXAMPLE_FLOW_LIST *list = (const EXAMPLE_FLOW_LIST *)reply.data();
        EXPECT_EQ(bytes, EXAMPLE_FLOW_LIST_HEADER + list->Listed * sizeof(EXAMPLE_FLOW));
        *count = list->FlowCount;
        flows->assign(list->Flows, list->Flows + list->Listed);
        return true;
    }

    /* IPv4 frames of the capture that host A sent (out) or received (in); incoming TCP ones. */
    void CountIpFrames(ULONG64 *in, ULONG64 *out, ULONG *tcpIn)
    {
        *in = *out = 0;
        *tcpIn = 0;
        for (size_t i = 0; i < m_traffic.Frames.size(); i++) {
            if (m_traffic.Field(i, "ip.proto").empty())
                continue;
            ++(m_traffic.FromHostA(i) ? *out : *in);
            if (!m_traffic.FromHostA(i) && m_traffic.Number(i, "ip.proto") == 6)
                ++*tcpIn;
        }
    }

    apptest::Traffic m_traffic;
};

TEST_F(ExampleFlowTracker, CountsEveryIpv4PacketInItsFlowAndListsTheFlowsThroughItsControlRequest)
{
    ASSERT_EQ(LoadTracker(60, 1000), STATUS_SUCCESS);
    Replay(m_traffic.Frames);
    WaitForQuiet();

    ULONG count = 0;
    std::vector<EXAMPLE_FLOW> flows;
    ASSERT_TRUE(List(EXAMPLE_FLOW_TRACKER_MAX_FLOWS, &count, &flows));
    EXAMPLE_FLOW_TRACKER_COUNTERS c = Tracker();
    ASSERT_GT(count, 1u);
    EXPECT_EQ(flows.size(), count);
    EXPECT_EQ(c.Created, count);
    EXPECT_EQ(c.Untracked, 0u);
    EXPECT_EQ(c.Listings, 1u);

    ULONG64 in = 0, out = 0;
    ULONG tcpIn = 0;
    CountIpFrames(&in, &out, &tcpIn);
    ULONG64 listedIn = 0, listedOut = 0;
    for (const EXAMPLE_FLOW &flow : flows) {
        listedIn += flow.Packets[EXAMPLE_FLOW_IN];
        listedOut += flow.Packets[EXAMPLE_FLOW_OUT];
        EXPECT_EQ(flow.HostAddress, 0x0100000Au); /* 10.0.0.1 in network order */
        if (flow.Protocol == 6) {
            EXPECT_EQ(flow.PeerPort, 8080) << "host A is the TCP client";
            EXPECT_TRUE(flow.OpenedByHost);
        }
    }
    EXPECT_EQ(listedIn, in);
    EXPECT_EQ(listedOut, out);

    /* Too little output for the header fails; room for two lists two of them. */
    EXPECT_FALSE(List(1, &count, &flows, 4));
    ASSERT_TRUE(List(2, &count, &flows));
    EXPECT_EQ(flows.size(), 2u);
    EXPECT_EQ(count, c.Created);
}

TEST_F(ExampleFlowTracker, ItsRepeatingTimerAgesIdleFlowsAway)
{
    ASSERT_EQ(LoadTracker(0, 20), STATUS_SUCCESS);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    EXPECT_TRUE(hktest::WaitUntil([&] {
        EXAMPLE_FLOW_TRACKER_COUNTERS c = Tracker();
        return c.Created > 0 && c.Flows == 0 && c.Aged == c.Created;
    }));
    EXPECT_GT(Tracker().AgingRuns, 1u);
}

TEST_F(ExampleFlowTracker, TheFirewallLetsRepliesToFlowsTheHostOpenedInWhileTheTrackerIsThere)
{
    ASSERT_EQ(LoadFirewall("in tcp unsolicited"), STATUS_SUCCESS);
    EXPECT_EQ(Firewall().FlowInterface, 0u);
    ASSERT_EQ(LoadTracker(60, 1000), STATUS_SUCCESS);
    EXPECT_EQ(Firewall().FlowInterface, 1u); /* told of the interface when the tracker published it */

    ULONG64 in = 0, out = 0;
    ULONG tcpIn = 0;
    CountIpFrames(&in, &out, &tcpIn);
    ASSERT_GT(tcpIn, 0u);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    EXAMPLE_FIREWALL_COUNTERS c = Firewall();
    EXPECT_EQ(c.Discarded[In] + c.Discarded[Out], 0u);
    EXPECT_EQ(c.Replies, in); /* host A opened every flow of the capture */

    /* The tracker leaves: the firewall lets its reference go when told, and no TCP reply is known any more. */
    HkDebugClearCapture();
    HkUnloadDriver(m_clients.back());
    m_clients.pop_back();
    EXPECT_EQ(Firewall().FlowInterface, 0u);
    EXPECT_EQ(nftest::FindLine(nftest::TakeTrace(), "ExampleFlowTracker: the flow interface is still referenced"), -1);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    c = Firewall();
    EXPECT_EQ(c.Discarded[In], tcpIn);
    EXPECT_EQ(c.Discarded[Out], 0u);
    EXPECT_EQ(c.Replies, in);
}

} // namespace
