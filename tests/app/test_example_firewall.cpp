/*
 * The example firewall on host A's real traffic: what its rules discard,
 * judged against tshark's reading of the capture, and how it counts.
 */
#include "app_fixture.h"
#include "packets.h"

#include "example-firewall.h"
#include "ndisfilter-control.h"

namespace {

class ExampleFirewall : public apptest::AppTest {
protected:
    NTSTATUS LoadWithRules(const char *rules)
    {
        std::string key = apptest::ClientKey(EXAMPLE_FIREWALL_SERVICE_NAME);
        if (rules != nullptr)
            HkRegistrySetString(key.c_str(), EXAMPLE_FIREWALL_RULES_VALUE, rules);
        return LoadClient(FIREWALL_IMAGE, EXAMPLE_FIREWALL_SERVICE_NAME);
    }

    EXAMPLE_FIREWALL_COUNTERS Counters()
    {
        EXAMPLE_FIREWALL_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_FIREWALL_GET_COUNTERS>(FIREWALL_IMAGE, EXAMPLE_FIREWALL_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    /* Replays the capture; the frames tshark's rows say should be discarded are left out of `wire` and `up`. */
    template <typename Discarded>
    void ReplayAndExpect(Discarded discarded, std::vector<nftest::Frame> *wire, std::vector<nftest::Frame> *up)
    {
        for (size_t i = 0; i < m_traffic.Frames.size(); i++) {
            if (discarded(i))
                continue;
            (m_traffic.FromHostA(i) ? wire : up)->push_back(m_traffic.Frames[i]);
        }
        Replay(m_traffic.Frames);
        WaitForQuiet();
    }

    apptest::Traffic m_traffic;
};

const ULONG In = EXAMPLE_CHAIN_INCOMING;
const ULONG Out = EXAMPLE_CHAIN_OUTGOING;

TEST_F(ExampleFirewall, DiscardsWhatItsRulesMatchInEachChainAndCountsItPerRule)
{
    ASSERT_EQ(LoadWithRules("udp dst port 9999; in icmp src host 10.0.0.2"), STATUS_SUCCESS);
    const apptest::Traffic &t = m_traffic;
    ULONG udpSink = 0, icmpFromB = 0;
    auto discarded = [&](size_t i) {
        /* A fragment after the first has no UDP header, so no port: it passes. */
        if (t.FromHostA(i) && t.Number(i, "ip.proto") == 17 && t.Number(i, "udp.dstport") == 9999)
            return ++udpSink, true;
        if (!t.FromHostA(i) && t.Number(i, "ip.proto") == 1 && t.Field(i, "ip.src") == "10.0.0.2")
            return ++icmpFromB, true;
        return false;
    };
    std::vector<nftest::Frame> wire, up;
    ReplayAndExpect(discarded, &wire, &up);
    ASSERT_GT(udpSink, 0u);
    ASSERT_GT(icmpFromB, 0u);

    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), wire);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), up);
    EXAMPLE_FIREWALL_COUNTERS c = Counters();
    ASSERT_EQ(c.RuleCount, 2u);
    EXPECT_EQ(c.Rules[0].Matches[Out], udpSink);
    EXPECT_EQ(c.Rules[0].Matches[In], 0u);
    EXPECT_EQ(c.Rules[1].Matches[In], icmpFromB);
    EXPECT_EQ(c.Rules[1].Matches[Out], 0u); /* "in" keeps it out of the outgoing chain */
    EXPECT_EQ(c.Discarded[Out], udpSink);
    EXPECT_EQ(c.Discarded[In], icmpFromB);
    EXPECT_EQ(c.Inspected[In] + c.Inspected[Out], (ULONG)t.Frames.size());

    /* The same counters as its diagnostic command answers them, whatever the case of its name. */
    nfapp::ControlDevice control;
    ASSERT_TRUE(control.Open());
    std::string reply;
    ASSERT_TRUE(control.Diagnose("examplefirewall show", reply)) << control.LastFailure().Describe();
    EXPECT_NE(reply.find("rule 1: udp dst port 9999 - matched 0 incoming, " + std::to_string(udpSink) + " outgoing\n"),
              std::string::npos)
        << reply;
    ASSERT_TRUE(control.Diagnose("ExampleFirewall help", reply));
    EXPECT_EQ(reply, "usage: ExampleFirewall show\n");
}

TEST_F(ExampleFirewall, APortOnEitherSideAndAHostOnEitherSideMatchBothDirections)
{
    ASSERT_EQ(LoadWithRules("tcp port 8080 host 10.0.0.2"), STATUS_SUCCESS);
    const apptest::Traffic &t = m_traffic;
    ULONG tcpIn = 0, tcpOut = 0;
    auto discarded = [&](size_t i) {
        bool match = t.Number(i, "ip.proto") == 6 &&
                     (t.Number(i, "tcp.srcport") == 8080 || t.Number(i, "tcp.dstport") == 8080);
        if (match)
            ++(t.FromHostA(i) ? tcpOut : tcpIn);
        return match;
    };
    std::vector<nftest::Frame> wire, up;
    ReplayAndExpect(discarded, &wire, &up);
    ASSERT_GT(tcpIn, 0u);
    ASSERT_GT(tcpOut, 0u);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), wire);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), up);
    EXAMPLE_FIREWALL_COUNTERS c = Counters();
    EXPECT_EQ(c.Rules[0].Matches[In], tcpIn);
    EXPECT_EQ(c.Rules[0].Matches[Out], tcpOut);
}

TEST_F(ExampleFirewall, WithoutRulesValueTheDefaultSetAppliesAndAnEmptyValueMeansNoRules)
{
    ASSERT_EQ(LoadWithRules(nullptr), STATUS_SUCCESS);
    EXAMPLE_FIREWALL_COUNTERS c = Counters();
    ASSERT_EQ(c.RuleCount, 1u);
    EXPECT_STREQ(c.Rules[0].Text, EXAMPLE_FIREWALL_DEFAULT_RULES);
    HkUnloadDriver(m_clients.back());
    m_clients.pop_back();

    ASSERT_EQ(LoadWithRules(""), STATUS_SUCCESS);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    c = Counters();
    EXPECT_EQ(c.RuleCount, 0u);
    EXPECT_EQ(c.Discarded[In] + c.Discarded[Out], 0u);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER).size() + Delivered(FILTER_DIRECTION_TO_PROTOCOL).size(),
              m_traffic.Frames.size());
}

TEST_F(ExampleFirewall, RulesAreCaseInsensitiveAndKeptWithTheirSpacesCollapsed)
{
    ASSERT_EQ(LoadWithRules("  UDP\tDst Port 53 ;;, OUT proto 1 ;"), STATUS_SUCCESS);
    EXAMPLE_FIREWALL_COUNTERS c = Counters();
    ASSERT_EQ(c.RuleCount, 2u);
    EXPECT_STREQ(c.Rules[0].Text, "UDP Dst Port 53");
    EXPECT_STREQ(c.Rules[1].Text, "OUT proto 1");

    Replay(m_traffic.Frames);
    WaitForQuiet();
    c = Counters();
    EXPECT_EQ(c.Rules[0].Matches[Out], 4u); /* the queries */
    EXPECT_EQ(c.Rules[0].Matches[In], 0u);  /* the answers come from port 53 */
    EXPECT_GT(c.Rules[1].Matches[Out], 0u);
    EXPECT_EQ(c.Rules[1].Matches[In], 0u);
}

TEST_F(ExampleFirewall, ARuleWithoutTermsOfIpMatchesEveryIpPacketButNeverArp)
{
    ASSERT_EQ(LoadWithRules("in"), STATUS_SUCCESS);
    Replay(m_traffic.Frames);
    WaitForQuiet();
    auto up = Delivered(FILTER_DIRECTION_TO_PROTOCOL);
    ASSERT_EQ(up.size(), 1u); /* host B's ARP reply */
    EXPECT_EQ(up[0][12], 0x08);
    EXPECT_EQ(up[0][13], 0x06);
}

TEST_F(ExampleFirewall, APortRuleNeverMatchesAFragmentThatHasNoTransportHeader)
{
    ASSERT_EQ(LoadWithRules("udp port 9999"), STATUS_SUCCESS);
    /* The second fragment of a UDP datagram, whose payload holds 9999 where ports would be. */
    nftest::Frame fragment = nftest::CaseFrame(16);
    const UCHAR port[2] = {0x27, 0x0F};
    for (size_t offset : {34, 36})
        memcpy(fragment.data() + offset, port, 2);
    ASSERT_EQ(NdisHookReceiveFrame(m_adapter, fragment.data(), (ULONG)fragment.size(), nullptr), STATUS_SUCCESS);
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), std::vector<nftest::Frame>{fragment});
    EXPECT_EQ(Counters().Discarded[In], 0u);
}

TEST_F(ExampleFirewall, RulesThatCannotBeParsedFailTheLoad)
{
    const char *bad[] = {
        "udp port",             /* no number */
        "proto 256",            /* not a protocol */
        "tcp udp",              /* two protocols */
        "port 1 port 2",        /* two ports */
        "src tcp",              /* src before something else than port or host */
        "host 10.0.0",          /* short address */
        "host 10.0.0.256",      /* byte too large */
        "port 65536",           /* port too large */
        "drop everything",      /* unknown words */
        "udp; tcp; icmp; in; out; udp; tcp; icmp; in; out; udp; tcp; icmp; in; out; udp; tcp", /* 17 rules */
    };
    for (const char *rules : bad)
        EXPECT_EQ(LoadWithRules(rules), STATUS_INVALID_PARAMETER) << rules;

    /* Rules that are not text are not taken for missing ones. */
    HkRegistrySetDword(apptest::ClientKey(EXAMPLE_FIREWALL_SERVICE_NAME).c_str(), EXAMPLE_FIREWALL_RULES_VALUE, 1);
    EXPECT_EQ(LoadClient(FIREWALL_IMAGE, EXAMPLE_FIREWALL_SERVICE_NAME), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(m_clients.empty());
}

} // namespace
