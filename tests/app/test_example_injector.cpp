/*
 * The example injector: the packets it consumes come back through the
 * framework's injected-packet queue and reach their destination after it.
 */
#include "app_fixture.h"

#include "example-injector.h"

#include <mutex>
#include <thread>

namespace {

/* What a probe filter placed behind the injector saw of one packet. */
struct Sighting {
    UCHAR Protocol;
    ULONG_PTR Origin;
    std::thread::id Thread;
};

class ExampleInjector : public apptest::AppTest {
protected:
    NTSTATUS LoadWithProtocol(long protocol)
    {
        std::string key = apptest::ClientKey(EXAMPLE_INJECTOR_SERVICE_NAME);
        if (protocol >= 0)
            HkRegistrySetDword(key.c_str(), EXAMPLE_INJECTOR_PROTOCOL_VALUE, (ULONG)protocol);
        return LoadClient(INJECTOR_IMAGE, EXAMPLE_INJECTOR_SERVICE_NAME);
    }

    EXAMPLE_INJECTOR_COUNTERS Counters()
    {
        EXAMPLE_INJECTOR_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_INJECTOR_GET_COUNTERS>(INJECTOR_IMAGE, EXAMPLE_INJECTOR_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }

    /* A filter of the test's own in the incoming chain, behind the injector (order 100). */
    void PlaceProbe()
    {
        STRING name;
        RtlInitAnsiString(&name, "InjectorProbe");
        ASSERT_EQ(Filter_RegisterDriver(&name, this, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION, &m_probe),
                  FILTER_STATUS_SUCCESS);
        PPacketFilter filter = nullptr;
        ASSERT_EQ(Filter_RegisterFilter(m_probe, &name, Probe, nullptr, FILTER_TYPE_INCOMING_PACKET, 150, &filter),
                  FILTER_STATUS_SUCCESS);
    }

    static FILTER_RESULT NTAPI Probe(PFilterDriver, PVOID context, PPacketFilter, PVOID, PFilterPacket packet)
    {
        auto *self = static_cast<ExampleInjector *>(context);
        UCHAR protocol = packet->m_Data[12] == 0x08 && packet->m_Data[13] == 0x00 ? packet->m_Data[23] : 0;
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_sightings.push_back({protocol, packet->m_InjectOrigin, std::this_thread::get_id()});
        return FILTER_RESULT_BYPASS;
    }

    void TearDown() override
    {
        if (m_probe != nullptr)
            Filter_DeregisterDriver(m_probe);
        apptest::AppTest::TearDown();
    }

    apptest::Traffic m_traffic;
    PFilterDriver m_probe = nullptr;
    std::mutex m_lock;
    std::vector<Sighting> m_sightings;
};

TEST_F(ExampleInjector, ConsumedPacketsAreDeliveredAfterGoingThroughTheQueue)
{
    ASSERT_EQ(LoadWithProtocol(-1), STATUS_SUCCESS); /* the default: ICMP */
    PlaceProbe();
    const apptest::Traffic &t = m_traffic;
    std::vector<nftest::Frame> icmpUp, otherUp;
    size_t icmpOut = 0, sent = 0;
    for (size_t i = 0; i < t.Frames.size(); i++) {
        bool icmp = t.Number(i, "ip.proto") == 1; /* fragments too */
        if (t.FromHostA(i)) {
            sent++;
            icmpOut += icmp;
        } else {
            (icmp ? icmpUp : otherUp).push_back(t.Frames[i]);
        }
    }
    ASSERT_FALSE(icmpUp.empty());

    Replay(t.Frames);
    WaitForQuiet();

    /* Everything arrives; ICMP keeps its own order through the one queue. */
    std::vector<nftest::Frame> gotIcmp, gotOther;
    for (auto &frame : Delivered(FILTER_DIRECTION_TO_PROTOCOL))
        (frame[12] == 0x08 && frame[13] == 0x00 && frame[23] == 1 ? gotIcmp : gotOther).push_back(frame);
    EXPECT_EQ(gotIcmp, icmpUp);
    EXPECT_EQ(gotOther, otherUp);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER).size(), sent);

    /* Behind the injector, ICMP comes from the worker, marked as handed back by a filter. */
    std::lock_guard<std::mutex> guard(m_lock);
    ASSERT_EQ(m_sightings.size(), icmpUp.size() + otherUp.size());
    for (const Sighting &s : m_sightings) {
        if (s.Protocol == 1) {
            EXPECT_EQ(s.Origin, (ULONG_PTR)(0x80000000u | FILTER_METHOD_START_AFTER_THIS_FILTER));
            EXPECT_NE(s.Thread, std::this_thread::get_id());
        } else {
            EXPECT_EQ(s.Origin, 0u);
            EXPECT_EQ(s.Thread, std::this_thread::get_id());
        }
    }

    EXAMPLE_INJECTOR_COUNTERS c = Counters();
    EXPECT_EQ(c.Protocol, 1u);
    EXPECT_EQ(c.Consumed[EXAMPLE_CHAIN_INCOMING], icmpUp.size());
    EXPECT_EQ(c.Consumed[EXAMPLE_CHAIN_OUTGOING], icmpOut);
    EXPECT_EQ(c.Reinjected[EXAMPLE_CHAIN_INCOMING] + c.Reinjected[EXAMPLE_CHAIN_OUTGOING], icmpUp.size() + icmpOut);
    EXPECT_EQ(c.InjectFailed[EXAMPLE_CHAIN_INCOMING] + c.InjectFailed[EXAMPLE_CHAIN_OUTGOING], 0u);
}

TEST_F(ExampleInjector, TheProtocolComesFromTheServiceKey)
{
    ASSERT_EQ(LoadWithProtocol(17), STATUS_SUCCESS);
    size_t udp = 0;
    for (size_t i = 0; i < m_traffic.Frames.size(); i++)
        udp += m_traffic.Number(i, "ip.proto") == 17;
    Replay(m_traffic.Frames);
    WaitForQuiet();
    EXAMPLE_INJECTOR_COUNTERS c = Counters();
    EXPECT_EQ(c.Protocol, 17u);
    EXPECT_EQ(c.Consumed[EXAMPLE_CHAIN_INCOMING] + c.Consumed[EXAMPLE_CHAIN_OUTGOING], udp);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER).size() + Delivered(FILTER_DIRECTION_TO_PROTOCOL).size(),
              m_traffic.Frames.size());
}

TEST_F(ExampleInjector, AProtocolNumberAbove255FailsTheLoad)
{
    EXPECT_EQ(LoadWithProtocol(256), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(m_clients.empty());
}

} // namespace
