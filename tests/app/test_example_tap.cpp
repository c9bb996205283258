/*
 * The example tap: copies of the chosen ports' packets reach the user
 * program through the output ring, and every packet still goes its way.
 */
#include "app_fixture.h"

#include "example-tap.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace {

struct Received {
    ULONG AdapterId, Direction, Code;
    ULONG64 Value;
    std::vector<UCHAR> Frame;
};

class ExampleTap : public apptest::AppTest {
protected:
    NTSTATUS LoadWithPorts(const char *ports)
    {
        std::string key = apptest::ClientKey(EXAMPLE_TAP_SERVICE_NAME);
        if (ports != nullptr)
            HkRegistrySetString(key.c_str(), EXAMPLE_TAP_PORTS_VALUE, ports);
        return LoadClient(TAP_IMAGE, EXAMPLE_TAP_SERVICE_NAME);
    }

    EXAMPLE_TAP_COUNTERS Counters()
    {
        EXAMPLE_TAP_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_TAP_GET_COUNTERS>(TAP_IMAGE, EXAMPLE_TAP_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    /* Replays the capture with the application's receiver running; what it received, in order. */
    std::vector<Received> ReplayIntoTheApplication(size_t expected)
    {
        nfapp::SharedChannel channel;
        EXPECT_TRUE(channel.Open() && channel.Start()) << channel.ControlError().Describe();
        std::mutex lock;
        std::vector<Received> received;
        std::thread receiver([&] {
            channel.RunReceiver([&](const nfapp::ReceivedBlock &b) {
                std::lock_guard<std::mutex> guard(lock);
                received.push_back({b.AdapterId, b.Direction, b.IndicateCode, b.IndicateValue,
                                    std::vector<UCHAR>(b.Frame, b.Frame + b.Length)});
            });
        });
        Replay(m_traffic.Frames);
        WaitForQuiet();
        EXPECT_TRUE(hktest::WaitUntil([&] {
            std::lock_guard<std::mutex> guard(lock);
            return received.size() >= expected;
        }));
        channel.RequestStop();
        receiver.join();
        EXPECT_FALSE(channel.ReceiveFailed()) << channel.ReceiveError().Describe();
        return received;
    }

    apptest::Traffic m_traffic;
};

bool UsesPort(const apptest::Traffic &t, size_t i, long port)
{
    for (const char *column : {"udp.srcport", "udp.dstport", "tcp.srcport", "tcp.dstport"})
        if (t.Number(i, column) == port)
            return true;
    return false;
}

TEST_F(ExampleTap, CopiesOfThePortsPacketsReachTheApplicationInOrderAndEveryPacketPasses)
{
    ASSERT_EQ(LoadWithPorts(nullptr), STATUS_SUCCESS); /* the default: DNS */
    std::vector<size_t> dns;
    for (size_t i = 0; i < m_traffic.Frames.size(); i++)
        if (UsesPort(m_traffic, i, 53))
            dns.push_back(i);
    ASSERT_EQ(dns.size(), 8u);

    std::vector<Received> received = ReplayIntoTheApplication(dns.size());
    ASSERT_EQ(received.size(), dns.size());
    for (size_t n = 0; n < dns.size(); n++) {
        SCOPED_TRACE(n);
        EXPECT_EQ(received[n].Frame, m_traffic.Frames[dns[n]]);
        EXPECT_EQ(received[n].AdapterId, m_adapterId);
        EXPECT_EQ(received[n].Code, 53u);
        EXPECT_EQ(received[n].Value, (ULONG64)(n + 1));
        EXPECT_EQ(received[n].Direction, m_traffic.FromHostA(dns[n]) ? (ULONG)FILTER_DIRECTION_TO_ADAPTER
                                                                     : (ULONG)FILTER_DIRECTION_TO_PROTOCOL);
    }
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER).size() + Delivered(FILTER_DIRECTION_TO_PROTOCOL).size(),
              m_traffic.Frames.size());
    EXAMPLE_TAP_COUNTERS c = Counters();
    EXPECT_EQ(c.Indicated[EXAMPLE_CHAIN_INCOMING] + c.Indicated[EXAMPLE_CHAIN_OUTGOING], 8u);
    EXPECT_EQ(c.Incomplete[EXAMPLE_CHAIN_INCOMING] + c.Incomplete[EXAMPLE_CHAIN_OUTGOING], 0u);
}

TEST_F(ExampleTap, FullSizeFramesBeyondTheLookaheadArriveWhole)
{
    ASSERT_EQ(LoadWithPorts("8080, 9999"), STATUS_SUCCESS);
    std::vector<size_t> chosen;
    for (size_t i = 0; i < m_traffic.Frames.size(); i++)
        if (UsesPort(m_traffic, i, 8080) || UsesPort(m_traffic, i, 9999))
            chosen.push_back(i);

    std::vector<Received> received = ReplayIntoTheApplication(chosen.size());
    ASSERT_EQ(received.size(), chosen.size());
    size_t longest = 0;
    for (size_t n = 0; n < chosen.size(); n++) {
        EXPECT_EQ(received[n].Frame, m_traffic.Frames[chosen[n]]) << n;
        EXPECT_EQ(received[n].Code, UsesPort(m_traffic, chosen[n], 8080) ? 8080u : 9999u) << n;
        longest = std::max(longest, received[n].Frame.size());
    }
    EXPECT_EQ(longest, 1514u);
}

TEST_F(ExampleTap, WithoutAnApplicationTheTapStillLetsEveryPacketPass)
{
    ASSERT_EQ(LoadWithPorts(nullptr), STATUS_SUCCESS);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER).size() + Delivered(FILTER_DIRECTION_TO_PROTOCOL).size(),
              m_traffic.Frames.size());
}

TEST_F(ExampleTap, APortListThatCannotBeUsedFailsTheLoad)
{
    for (const char *ports : {"0", "65536", "53;80", "dns", "1 2 3 4 5 6 7 8 9"})
        EXPECT_EQ(LoadWithPorts(ports), STATUS_INVALID_PARAMETER) << ports;
    EXPECT_TRUE(m_clients.empty());
}

} // namespace
