/*
 * The example collector: every frame of the replayed traffic reaches a
 * collector made of the test's own sockets, as a datagram and on a TCP
 * connection, and the driver answers datagrams on its own port.
 */
#include "app_fixture.h"

#include <tdi.h>

#include "collector_peer.h"
#include "example-collector.h"

#include <algorithm>

namespace {

/* The record a frame should give. */
std::string RecordOf(const nftest::Frame &frame, UCHAR chain)
{
    size_t captured = frame.size() < EXAMPLE_COLLECTOR_SNAP_LENGTH ? frame.size() : EXAMPLE_COLLECTOR_SNAP_LENGTH;
    EXAMPLE_COLLECTOR_RECORD header = {htons((USHORT)captured), htons((USHORT)frame.size()), chain, 1, 0};
    return std::string(reinterpret_cast<char *>(&header), sizeof(header)) +
           std::string(reinterpret_cast<const char *>(frame.data()), captured);
}

class ExampleCollector : public apptest::AppTest {
protected:
    apptest::Traffic m_traffic;

    NTSTATUS Load(USHORT port, const char *address = "127.0.0.1")
    {
        std::string key = apptest::ClientKey(EXAMPLE_COLLECTOR_SERVICE_NAME);
        HkRegistryCreateKey(key.c_str());
        if (address != nullptr)
            HkRegistrySetString(key.c_str(), EXAMPLE_COLLECTOR_ADDRESS_VALUE, address);
        else
            HkRegistryDeleteValue(key.c_str(), EXAMPLE_COLLECTOR_ADDRESS_VALUE);
        HkRegistrySetDword(key.c_str(), EXAMPLE_COLLECTOR_PORT_VALUE, port);
        return LoadClient(COLLECTOR_IMAGE, EXAMPLE_COLLECTOR_SERVICE_NAME);
    }
    EXAMPLE_COLLECTOR_COUNTERS Counters()
    {
        EXAMPLE_COLLECTOR_COUNTERS counters = {};
        auto get = ClientExport<PEXAMPLE_COLLECTOR_GET_COUNTERS>(COLLECTOR_IMAGE, EXAMPLE_COLLECTOR_GET_COUNTERS);
        if (get != nullptr)
            get(&counters);
        return counters;
    }
    void TearDown() override
    {
        apptest::AppTest::TearDown();
        EXPECT_TRUE(hktest::WaitUntil([] { return HkTransportSocketCount() == 0; }));
    }
};

TEST_F(ExampleCollector, EveryFrameReachesTheCollectorOverUdpAndTcpAndDatagramsAreAnswered)
{
    CollectorPeer peer;
    ASSERT_GE(peer.listener, 0);
    ASSERT_EQ(STATUS_SUCCESS, Load(peer.port));
    EXAMPLE_COLLECTOR_COUNTERS counters = Counters();
    EXPECT_EQ(1u, counters.TcpConnected);
    ASSERT_NE(0, counters.AnswerPort);
    peer.Start();

    Replay(m_traffic.Frames);
    WaitForQuiet();
    const size_t frames = m_traffic.Frames.size();
    ASSERT_TRUE(hktest::WaitUntil([&] {
        EXAMPLE_COLLECTOR_COUNTERS c = Counters();
        return c.SentUdp + c.Dropped >= frames && c.SentTcp + c.Dropped >= 2 * frames - c.SentUdp;
    }));
    counters = Counters();
    EXPECT_EQ(frames, counters.Captured);
    EXPECT_EQ(0u, counters.Dropped);
    EXPECT_EQ(0u, counters.Failed);

    std::vector<std::string> expected;
    std::string stream;
    for (const nftest::Frame &frame : m_traffic.Frames) {
        expected.push_back(RecordOf(frame, apptest::SentByHostA(frame) ? EXAMPLE_CHAIN_OUTGOING
                                                                       : EXAMPLE_CHAIN_INCOMING));
        stream += expected.back();
    }
    ASSERT_TRUE(hktest::WaitUntil([&] {
        std::lock_guard<std::mutex> guard(peer.lock);
        return peer.datagrams.size() >= frames && peer.bytes.size() >= stream.size();
    }));
    {
        std::lock_guard<std::mutex> guard(peer.lock);
        EXPECT_TRUE(peer.bytes == stream) << "the TCP records differ from the frames in order";
        std::vector<std::string> got = peer.datagrams;
        std::sort(got.begin(), got.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_TRUE(got == expected) << "the datagrams differ from the frames";
    }

    // A datagram to the driver's own port is answered with its counters.
    std::string answer = AskForAnswer(counters.AnswerPort, "status?");
    EXPECT_EQ(0u, answer.rfind("ExampleCollector udp ", 0)) << answer;
    EXPECT_EQ(1u, Counters().Answered);
}

TEST_F(ExampleCollector, LoadFailsWithoutAnAddressOrWhenTheCollectorRefuses)
{
    CollectorPeer peer;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Load(peer.port, nullptr));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Load(peer.port, "127.0.0"));
    peer.CloseListener(); // nobody takes the connection
    EXPECT_EQ(STATUS_CONNECTION_REFUSED, Load(peer.port));
    EXPECT_EQ(0u, HkTransportSocketCount());
}

} // namespace
