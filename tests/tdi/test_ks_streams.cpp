// Connections of the library's endpoints to real peers on the loopback
// interface: connect, send, receive by event handler and by request, graceful
// and abortive disconnects both ways, refusals, many requests at once.
#include "ks_fixture.h"

#include <memory>
#include <thread>

using namespace kstest;

namespace {

// What the address's event handlers saw, and how the receive handler behaves.
struct StreamEvents {
    std::mutex lock;
    std::string received;
    std::vector<ULONG> disconnects;
    std::vector<PVOID> contexts;
    long budget = -1;        // bytes the receive handler still takes; -1: everything
    bool sawPartial = false; // an indication showed less than was available
    std::atomic<int> completions{0};
    std::atomic<LONGLONG> completedBytes{0};
    std::atomic<int> failures{0};

    static NTSTATUS NTAPI OnReceive(PVOID context, CONNECTION_CONTEXT connection, ULONG,
                                    ULONG indicated, ULONG available, ULONG *taken, PVOID data,
                                    PIRP *irp)
    {
        auto *self = static_cast<StreamEvents *>(context);
        EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
        std::lock_guard<std::mutex> guard(self->lock);
        self->contexts.push_back(connection);
        self->sawPartial |= indicated < available;
        ULONG take = indicated;
        if (self->budget >= 0 && static_cast<ULONG>(self->budget) < take)
            take = static_cast<ULONG>(self->budget);
        if (self->budget >= 0)
            self->budget -= take;
        self->received.append(static_cast<char *>(data), take);
        *taken = take;
        *irp = nullptr;
        return take == indicated ? STATUS_SUCCESS : STATUS_DATA_NOT_ACCEPTED;
    }
    static NTSTATUS NTAPI OnDisconnect(PVOID context, CONNECTION_CONTEXT connection, LONG, PVOID,
                                       LONG, PVOID, ULONG flags)
    {
        auto *self = static_cast<StreamEvents *>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->contexts.push_back(connection);
        self->disconnects.push_back(flags);
        return STATUS_SUCCESS;
    }
    static VOID NTAPI OnCompletion(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto *self = static_cast<StreamEvents *>(context);
        if (!NT_SUCCESS(status->Status))
            self->failures.fetch_add(1);
        self->completedBytes.fetch_add(static_cast<LONGLONG>(status->Information));
        self->completions.fetch_add(1);
    }
    std::string Received()
    {
        std::lock_guard<std::mutex> guard(lock);
        return received;
    }
    size_t Disconnects()
    {
        std::lock_guard<std::mutex> guard(lock);
        return disconnects.size();
    }
};

class KsStreams : public KsTest {
protected:
    KS_ADDRESS address{};
    StreamEvents events;

    void SetUp() override
    {
        TA_IP_ADDRESS local = IpAddress(Loopback(), 0);
        ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\Tcp",
                                                          reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                          &address));
        ASSERT_EQ(STATUS_SUCCESS,
                  KS_SetEventHandlers(&address, &events, nullptr, StreamEvents::OnDisconnect,
                                      nullptr, StreamEvents::OnReceive, nullptr, nullptr));
    }
    void TearDown() override
    {
        KS_CloseTransportAddress(&address);
        EXPECT_EQ(0u, address.ReferenceCount);
        EXPECT_EQ(nullptr, address.Irp);
        KsTest::TearDown();
    }
    void Open(KS_ENDPOINT *endpoint)
    {
        ASSERT_EQ(STATUS_SUCCESS,
                  KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &address, endpoint, endpoint));
        EXPECT_EQ(STATUS_SUCCESS, endpoint->AssociateStatus);
        EXPECT_EQ(&address, endpoint->Address);
    }
    NTSTATUS Connect(KS_ENDPOINT *endpoint, USHORT port)
    {
        TA_IP_ADDRESS peer = IpAddress(Loopback(), port);
        return KS_Connect(endpoint, &peer);
    }
    static NTSTATUS Send(KS_ENDPOINT *endpoint, const std::string &text, IO_STATUS_BLOCK *status)
    {
        MdlBuffer buffer(text);
        return KS_SendOnEndpoint(endpoint, nullptr, nullptr, nullptr, status, buffer.mdl, 0);
    }
};

std::string HostReceive(int fd, size_t length)
{
    std::string out;
    pollfd p{fd, POLLIN, 0};
    while (out.size() < length && poll(&p, 1, 10000) == 1) {
        char buffer[65536];
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0)
            break;
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

void HostSend(int fd, const std::string &text)
{
    ASSERT_EQ(static_cast<ssize_t>(text.size()), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

TEST_F(KsStreams, ConnectSendReceiveByHandlerAndRequestThenGracefulClose)
{
    HostSocket listener(SOCK_STREAM);
    KS_ENDPOINT endpoint;
    Open(&endpoint);
    EXPECT_EQ(2u, address.ReferenceCount); // the endpoint holds one
    ASSERT_EQ(STATUS_SUCCESS, Connect(&endpoint, listener.port));
    HostSocket peer(listener.Accept(), true);
    ASSERT_GE(peer.fd, 0);

    // Synchronous send.
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(STATUS_SUCCESS, Send(&endpoint, "hello", &status));
    EXPECT_EQ(5u, status.Information);
    EXPECT_EQ("hello", HostReceive(peer.fd, 5));

    // Indicated to the receive handler with the endpoint's connection context.
    HostSend(peer.fd, "world");
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Received() == "world"; }));
    EXPECT_EQ(&endpoint, events.contexts.back());

    // More than one indication shows: the handler sees part of what is there each time.
    const std::string big(20000, 'b');
    HostSend(peer.fd, big);
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Received().size() == 5 + big.size(); }));
    EXPECT_TRUE(events.sawPartial);
    {
        std::lock_guard<std::mutex> guard(events.lock);
        events.received = "world";
    }

    // The handler takes part of an indication: the rest waits for a receive request.
    {
        std::lock_guard<std::mutex> guard(events.lock);
        events.budget = 3;
    }
    HostSend(peer.fd, "abcdefgh");
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Received() == "worldabc"; }));
    MdlBuffer rest(64);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    NTSTATUS result = KS_ReceiveOnEndpoint(&endpoint, &event, nullptr, nullptr, &status, rest.mdl, 0);
    EXPECT_TRUE(result == STATUS_PENDING || result == STATUS_SUCCESS) << std::hex << result;
    ASSERT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, status.Status);
    EXPECT_EQ("defgh", rest.Text(status.Information));

    // The peer releases its side: the disconnect handler hears it.
    shutdown(peer.fd, SHUT_WR);
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Disconnects() == 1; }));
    EXPECT_EQ(static_cast<ULONG>(TDI_DISCONNECT_RELEASE), events.disconnects[0]);
    // Our side releases synchronously; the peer reads the end of the stream.
    EXPECT_EQ(STATUS_SUCCESS,
              KS_Disconnect(&endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_RELEASE));
    EXPECT_EQ("", HostReceive(peer.fd, 1));

    EXPECT_EQ(1u, endpoint.ReferenceCount);
    KS_CloseConnectionEndpoint(&endpoint);
    EXPECT_EQ(0u, endpoint.ReferenceCount);
    EXPECT_EQ(nullptr, endpoint.EndpointHandle);
    EXPECT_EQ(nullptr, endpoint.Address);
    EXPECT_EQ(1u, address.ReferenceCount);
}

TEST_F(KsStreams, AbortiveDisconnectsBothWays)
{
    HostSocket listener(SOCK_STREAM);
    KS_ENDPOINT first, second;
    Open(&first);
    Open(&second);
    EXPECT_EQ(3u, address.ReferenceCount);
    ASSERT_EQ(STATUS_SUCCESS, Connect(&first, listener.port));
    HostSocket peerOfFirst(listener.Accept(), true);
    ASSERT_EQ(STATUS_SUCCESS, Connect(&second, listener.port));
    HostSocket peerOfSecond(listener.Accept(), true);

    // The peer resets: a pending receive fails and the handler hears an abort.
    MdlBuffer into(16);
    IO_STATUS_BLOCK status{};
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(STATUS_PENDING, KS_ReceiveOnEndpoint(&first, &event, nullptr, nullptr, &status, into.mdl, 0));
    peerOfFirst.Reset();
    ASSERT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
    EXPECT_EQ(STATUS_CONNECTION_RESET, status.Status);
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Disconnects() == 1; }));
    EXPECT_EQ(static_cast<ULONG>(TDI_DISCONNECT_ABORT), events.disconnects[0]);
    EXPECT_EQ(&first, events.contexts.back());
    EXPECT_EQ(STATUS_CONNECTION_RESET, Send(&first, "late", &status));

    // We abort: the peer sees a reset.
    EXPECT_EQ(STATUS_SUCCESS,
              KS_Disconnect(&second, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_ABORT));
    char byte;
    ASSERT_TRUE(peerOfSecond.Readable());
    EXPECT_EQ(-1, recv(peerOfSecond.fd, &byte, 1, 0));
    EXPECT_EQ(ECONNRESET, errno);

    KS_CloseConnectionEndpoint(&first);
    KS_CloseConnectionEndpoint(&second);
    EXPECT_EQ(1u, address.ReferenceCount);
}

TEST_F(KsStreams, RefusedConnectionAndUnassociatedEndpoint)
{
    KS_ENDPOINT endpoint;
    Open(&endpoint);
    EXPECT_EQ(STATUS_CONNECTION_REFUSED, Connect(&endpoint, UnusedPort(SOCK_STREAM)));
    // Sending on an endpoint that never connected fails at once.
    IO_STATUS_BLOCK status{};
    EXPECT_EQ(STATUS_INVALID_CONNECTION, Send(&endpoint, "x", &status));
    EXPECT_EQ(STATUS_INVALID_CONNECTION, status.Status);
    KS_CloseConnectionEndpoint(&endpoint);

    // Opened without an address: open, but not associated.
    KS_ENDPOINT loose;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, KS_OpenConnectionEndpoint(L"\\Device\\Tcp", nullptr, &loose, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, loose.Status);
    EXPECT_EQ(STATUS_INVALID_CONNECTION, Connect(&loose, 9));
    KS_CloseConnectionEndpoint(&loose);
    EXPECT_EQ(1u, address.ReferenceCount);
}

TEST_F(KsStreams, ManySendsInFlightGoOutInOrderThroughPartialWrites)
{
    HostSocket listener(SOCK_STREAM);
    KS_ENDPOINT endpoint;
    Open(&endpoint);
    ASSERT_EQ(STATUS_SUCCESS, Connect(&endpoint, listener.port));
    HostSocket peer(listener.Accept(), true);

    // Far more than the socket buffers hold: sends pend and go out piecewise.
    constexpr int kSends = 24;
    constexpr size_t kSize = 256 * 1024;
    std::vector<std::unique_ptr<MdlBuffer>> buffers;
    for (int i = 0; i < kSends; ++i) {
        buffers.push_back(std::make_unique<MdlBuffer>(kSize, static_cast<UCHAR>('A' + i)));
        NTSTATUS status = KS_SendOnEndpoint(&endpoint, nullptr, StreamEvents::OnCompletion,
                                            &events, nullptr, buffers.back()->mdl, 0);
        EXPECT_EQ(STATUS_PENDING, status);
    }
    EXPECT_GT(endpoint.ReferenceCount, 1u); // requests in flight hold references
    std::string all = HostReceive(peer.fd, kSends * kSize);
    ASSERT_EQ(kSends * kSize, all.size());
    for (int i = 0; i < kSends; ++i)
        ASSERT_EQ(std::string(kSize, static_cast<char>('A' + i)), all.substr(i * kSize, kSize)) << i;
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.completions.load() == kSends; }));
    EXPECT_EQ(0, events.failures.load());
    EXPECT_EQ(static_cast<LONGLONG>(kSends * kSize), events.completedBytes.load());
    EXPECT_EQ(1u, endpoint.ReferenceCount);
    KS_CloseConnectionEndpoint(&endpoint);
}

TEST_F(KsStreams, EchoThroughSocatWithEveryCompletionMode)
{
    if (!HaveSocat())
        GTEST_SKIP() << "socat is not installed (scripts/install-deps)";
    USHORT port = UnusedPort(SOCK_STREAM);
    Socat socat({"TCP4-LISTEN:" + std::to_string(port) + ",bind=127.0.0.1,reuseaddr", "PIPE"}, port,
                SOCK_STREAM);
    // Requests only: no receive handler on this address.
    ASSERT_EQ(STATUS_SUCCESS, KS_SetEventHandlers(&address, &events, nullptr, StreamEvents::OnDisconnect,
                                                  nullptr, nullptr, nullptr, nullptr));
    KS_ENDPOINT endpoint;
    Open(&endpoint);
    ASSERT_EQ(STATUS_SUCCESS, Connect(&endpoint, port));

    // Completion routine.
    MdlBuffer out("echo me");
    EXPECT_EQ(STATUS_PENDING, KS_SendOnEndpoint(&endpoint, nullptr, StreamEvents::OnCompletion,
                                                &events, nullptr, out.mdl, 0));
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.completions.load() == 1; }));
    // Synchronous receive, no status block of our own: the result is the status.
    MdlBuffer back(64);
    std::string echoed;
    while (echoed.size() < 7) {
        IO_STATUS_BLOCK status{};
        ASSERT_EQ(STATUS_SUCCESS,
                  KS_ReceiveOnEndpoint(&endpoint, nullptr, nullptr, nullptr, &status, back.mdl, 0));
        ASSERT_GT(status.Information, 0u);
        echoed += back.Text(status.Information);
    }
    EXPECT_EQ("echo me", echoed);

    // Caller's event: a graceful release; socat closes its side in turn.
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK status{};
    KS_Disconnect(&endpoint, &event, nullptr, nullptr, &status, TDI_DISCONNECT_RELEASE);
    ASSERT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, status.Status);
    ASSERT_TRUE(hktest::WaitUntil([&] { return events.Disconnects() == 1; }));
    EXPECT_EQ(static_cast<ULONG>(TDI_DISCONNECT_RELEASE), events.disconnects[0]);
    KS_CloseConnectionEndpoint(&endpoint);
}

// The connect handler takes an incoming connection with an accept request on
// one of the address's endpoints, built in the handler as a client does.
struct Acceptor {
    KS_ENDPOINT *endpoint = nullptr;
    std::atomic<int> accepted{0};
    std::atomic<NTSTATUS> status{STATUS_PENDING};

    static NTSTATUS NTAPI Accepted(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        auto *self = static_cast<Acceptor *>(context);
        self->status = irp->IoStatus.Status;
        IoFreeIrp(irp);
        self->accepted.fetch_add(1);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    static NTSTATUS NTAPI OnConnect(PVOID context, LONG remoteLength, PVOID, LONG, PVOID, LONG, PVOID,
                                    CONNECTION_CONTEXT *connection, PIRP *acceptIrp)
    {
        auto *self = static_cast<Acceptor *>(context);
        EXPECT_EQ(22, remoteLength);
        PDEVICE_OBJECT device = IoGetRelatedDeviceObject(self->endpoint->EndpointFileObject);
        PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
        TdiBuildAccept(irp, device, self->endpoint->EndpointFileObject, Accepted, self, nullptr, nullptr);
        *connection = self->endpoint;
        *acceptIrp = irp;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
};

TEST_F(KsStreams, AnIncomingConnectionIsAcceptedByTheConnectHandler)
{
    KS_ADDRESS listening;
    USHORT port = UnusedPort(SOCK_STREAM);
    TA_IP_ADDRESS local = IpAddress(Loopback(), port);
    ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\Tcp",
                                                      reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                      &listening));
    KS_ENDPOINT endpoint;
    ASSERT_EQ(STATUS_SUCCESS, KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &listening, &endpoint, &endpoint));
    Acceptor acceptor;
    acceptor.endpoint = &endpoint;
    ASSERT_EQ(STATUS_SUCCESS, KS_SetEventHandlers(&listening, &acceptor, Acceptor::OnConnect, nullptr,
                                                  nullptr, nullptr, nullptr, nullptr));
    HostSocket client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), true);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = Loopback();
    to.sin_port = htons(port);
    ASSERT_EQ(0, connect(client.fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)));
    ASSERT_TRUE(hktest::WaitUntil([&] { return acceptor.accepted.load() == 1; }));
    EXPECT_EQ(STATUS_SUCCESS, acceptor.status.load());

    IO_STATUS_BLOCK status{};
    EXPECT_EQ(STATUS_SUCCESS, Send(&endpoint, "welcome", &status));
    EXPECT_EQ("welcome", HostReceive(client.fd, 7));
    EXPECT_EQ(STATUS_SUCCESS,
              KS_Disconnect(&endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_RELEASE));
    EXPECT_EQ("", HostReceive(client.fd, 1));
    KS_CloseConnectionEndpoint(&endpoint);
    KS_CloseTransportAddress(&listening);
    EXPECT_EQ(0u, listening.ReferenceCount);
}

} // namespace
