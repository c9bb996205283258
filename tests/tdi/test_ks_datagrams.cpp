// Datagrams between a transport address of the library and real peers on the
// loopback interface: host sockets of the test and socat.
#include "ks_fixture.h"

#include <memory>

using namespace kstest;

namespace {

// What the address's event handlers saw.
struct DatagramEvents {
    std::mutex lock;
    std::vector<std::string> datagrams;
    std::vector<USHORT> sourcePorts;
    std::vector<NTSTATUS> errors;
    std::atomic<int> completions{0};
    IO_STATUS_BLOCK lastStatus{};

    static NTSTATUS NTAPI OnDatagram(PVOID context, LONG sourceLength, PVOID source, LONG, PVOID,
                                     ULONG, ULONG indicated, ULONG available, ULONG *taken,
                                     PVOID data, PIRP *irp)
    {
        auto *self = static_cast<DatagramEvents *>(context);
        EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
        EXPECT_EQ(indicated, available);
        EXPECT_EQ(22, sourceLength);
        std::lock_guard<std::mutex> guard(self->lock);
        self->datagrams.emplace_back(static_cast<char *>(data), indicated);
        self->sourcePorts.push_back(
            ntohs(static_cast<PTA_IP_ADDRESS>(source)->Address[0].Address[0].sin_port));
        *taken = indicated;
        *irp = nullptr;
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI OnError(PVOID context, NTSTATUS status)
    {
        auto *self = static_cast<DatagramEvents *>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->errors.push_back(status);
        return STATUS_SUCCESS;
    }
    static VOID NTAPI OnCompletion(PVOID context, PIO_STATUS_BLOCK status, ULONG extra)
    {
        auto *self = static_cast<DatagramEvents *>(context);
        EXPECT_EQ(0u, extra);
        self->lastStatus = *status;
        self->completions.fetch_add(1);
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> guard(lock);
        return datagrams.size();
    }
};

class KsDatagrams : public KsTest {
protected:
    KS_ADDRESS address{};
    USHORT port = 0;

    void SetUp() override
    {
        port = UnusedPort(SOCK_DGRAM);
        TA_IP_ADDRESS local = IpAddress(Loopback(), port);
        ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\Udp",
                                                          reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                          &address));
        EXPECT_EQ(STATUS_SUCCESS, address.Status);
        EXPECT_EQ(1u, address.ReferenceCount);
    }
    void TearDown() override
    {
        KS_CloseTransportAddress(&address);
        EXPECT_EQ(0u, address.ReferenceCount);
        EXPECT_EQ(nullptr, address.AddressHandle);
        KsTest::TearDown();
    }

    NTSTATUS SendTo(USHORT toPort, const std::string &text, PKEVENT event = nullptr,
                    PKS_REQUEST_COMPLETION completion = nullptr, PVOID context = nullptr,
                    PIO_STATUS_BLOCK status = nullptr)
    {
        MdlBuffer buffer(text);
        TA_IP_ADDRESS peer = IpAddress(Loopback(), toPort);
        TDI_CONNECTION_INFORMATION info{};
        info.RemoteAddressLength = sizeof(peer);
        info.RemoteAddress = &peer;
        return KS_SendDatagramOnAddress(&address, event, completion, context, status, buffer.mdl,
                                        &info);
    }
};

TEST_F(KsDatagrams, ExchangeBothWaysWithAHostSocket)
{
    HostSocket peer(SOCK_DGRAM);
    DatagramEvents events;
    ASSERT_EQ(STATUS_SUCCESS, KS_SetEventHandlers(&address, &events, nullptr, nullptr,
                                                  DatagramEvents::OnError, nullptr,
                                                  DatagramEvents::OnDatagram, nullptr));
    // Synchronous send: the peer sees it from our port.
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(STATUS_SUCCESS, SendTo(peer.port, "ping", nullptr, nullptr, nullptr, &status));
    EXPECT_EQ(4u, status.Information);
    sockaddr_in from{};
    EXPECT_EQ("ping", peer.Receive(&from));
    EXPECT_EQ(port, ntohs(from.sin_port));

    // Indicated to the receive-datagram handler, whole, with the sender's address.
    peer.SendTo(port, "pong");
    peer.SendTo(port, std::string(1400, 'z'));
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Count() == 2; }));
    EXPECT_EQ("pong", events.datagrams[0]);
    EXPECT_EQ(1400u, events.datagrams[1].size());
    EXPECT_EQ(peer.port, events.sourcePorts[0]);
    EXPECT_EQ(1u, address.ReferenceCount);
}

TEST_F(KsDatagrams, ReceiveRequestsCompleteThroughEventAndCallbackWithTheSender)
{
    HostSocket peer(SOCK_DGRAM);
    // Caller's event: the request pends until the datagram comes.
    MdlBuffer into(64);
    UCHAR senderBytes[sizeof(TA_IP_ADDRESS)] = {};
    TDI_CONNECTION_INFORMATION sender{};
    sender.RemoteAddressLength = sizeof(senderBytes);
    sender.RemoteAddress = senderBytes;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE); // reset by the request
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(STATUS_PENDING, KS_ReceiveDatagramOnAddress(&address, &event, nullptr, nullptr,
                                                          &status, into.mdl, nullptr, &sender, 0));
    EXPECT_EQ(0, KeReadStateEvent(&event));
    EXPECT_EQ(2u, address.ReferenceCount); // the request holds one
    peer.SendTo(port, "hello");
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10LL * 1000 * 1000 * 10; // 10 s
    ASSERT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout));
    EXPECT_EQ(STATUS_SUCCESS, status.Status);
    EXPECT_EQ(5u, status.Information);
    EXPECT_EQ("hello", into.Text(5));
    auto *source = reinterpret_cast<PTA_IP_ADDRESS>(senderBytes);
    EXPECT_EQ(peer.port, ntohs(source->Address[0].Address[0].sin_port));

    // Completion routine, and a datagram longer than the buffer: truncated, overflow.
    DatagramEvents events;
    MdlBuffer small(4);
    EXPECT_EQ(STATUS_PENDING, KS_ReceiveDatagramOnAddress(&address, nullptr,
                                                          DatagramEvents::OnCompletion, &events,
                                                          nullptr, small.mdl, nullptr, nullptr, 0));
    peer.SendTo(port, "truncated");
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.completions.load() == 1; }));
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, events.lastStatus.Status);
    EXPECT_EQ(4u, events.lastStatus.Information);
    EXPECT_EQ("trun", small.Text(4));
    EXPECT_TRUE(hktest::WaitUntil([&] { return address.ReferenceCount == 1; }));
}

TEST_F(KsDatagrams, AClosedPortIsReportedToTheErrorHandler)
{
    DatagramEvents events;
    ASSERT_EQ(STATUS_SUCCESS, KS_SetEventHandlers(&address, &events, nullptr, nullptr,
                                                  DatagramEvents::OnError, nullptr, nullptr, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, SendTo(UnusedPort(SOCK_DGRAM), "anyone?"));
    ASSERT_TRUE(hktest::WaitUntil([&] {
        std::lock_guard<std::mutex> guard(events.lock);
        return !events.errors.empty();
    }));
    EXPECT_EQ(STATUS_PORT_UNREACHABLE, events.errors[0]);
}

TEST_F(KsDatagrams, ManySendsInFlightReachSocat)
{
    if (!HaveSocat())
        GTEST_SKIP() << "socat is not installed (scripts/install-deps)";
    HostSocket collector(SOCK_DGRAM);
    USHORT relay = UnusedPort(SOCK_DGRAM);
    // socat forwards every datagram it gets on `relay` to the collector socket.
    Socat socat({"-u", "UDP4-RECVFROM:" + std::to_string(relay) + ",bind=127.0.0.1,fork",
                 "UDP4-SENDTO:127.0.0.1:" + std::to_string(collector.port)},
                relay, SOCK_DGRAM);
    DatagramEvents events;
    constexpr int kCount = 32;
    std::vector<std::unique_ptr<MdlBuffer>> buffers;
    TA_IP_ADDRESS peer = IpAddress(Loopback(), relay);
    TDI_CONNECTION_INFORMATION info{};
    info.RemoteAddressLength = sizeof(peer);
    info.RemoteAddress = &peer;
    for (int i = 0; i < kCount; ++i) {
        buffers.push_back(std::make_unique<MdlBuffer>("datagram " + std::to_string(i)));
        NTSTATUS status = KS_SendDatagramOnAddress(&address, nullptr, DatagramEvents::OnCompletion,
                                                   &events, nullptr, buffers.back()->mdl, &info);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_PENDING) << std::hex << status;
    }
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.completions.load() == kCount; }));
    std::vector<bool> seen(kCount);
    for (int i = 0; i < kCount; ++i) {
        std::string got = collector.Receive();
        ASSERT_EQ(0u, got.rfind("datagram ", 0)) << got;
        seen[std::stoi(got.substr(9))] = true;
    }
    EXPECT_EQ(std::vector<bool>(kCount, true), seen);
    EXPECT_EQ(1u, address.ReferenceCount);
}

} // namespace
