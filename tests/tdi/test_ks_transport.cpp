// Provider queries and connection information through the runtime's
// transport, and the library against a transport that refuses one of the event
// handlers.
#include "ks_fixture.h"

using namespace kstest;

namespace {

class KsTransport : public KsTest {};

TEST_F(KsTransport, ProviderInformationAndStatisticsOfBothTransports)
{
    TDI_PROVIDER_INFO info{};
    ASSERT_EQ(STATUS_SUCCESS, KS_QueryProviderInfo(L"\\Device\\Tcp", &info));
    EXPECT_NE(0u, info.ServiceFlags & TDI_SERVICE_CONNECTION_MODE);
    ASSERT_EQ(STATUS_SUCCESS, KS_QueryProviderInfo(L"\\Device\\Udp", &info));
    EXPECT_NE(0u, info.ServiceFlags & TDI_SERVICE_CONNECTIONLESS_MODE);
    EXPECT_EQ(65507u, info.MaxDatagramSize);

    // A datagram sent counts in the statistics.
    TDI_PROVIDER_STATISTICS before{}, after{};
    ASSERT_EQ(STATUS_SUCCESS, KS_QueryProviderStatistics(L"\\Device\\Udp", &before));
    {
        HostSocket peer(SOCK_DGRAM);
        KS_ADDRESS address;
        TA_IP_ADDRESS local = IpAddress(Loopback(), 0);
        ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\Udp",
                                                          reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                          &address));
        MdlBuffer data("counted");
        TA_IP_ADDRESS to = IpAddress(Loopback(), peer.port);
        TDI_CONNECTION_INFORMATION send{};
        send.RemoteAddressLength = sizeof(to);
        send.RemoteAddress = &to;
        EXPECT_EQ(STATUS_SUCCESS, KS_SendDatagramOnAddress(&address, nullptr, nullptr, nullptr,
                                                           nullptr, data.mdl, &send));
        KS_CloseTransportAddress(&address);
    }
    ASSERT_EQ(STATUS_SUCCESS, KS_QueryProviderStatistics(L"\\Device\\Udp", &after));
    EXPECT_EQ(before.DatagramsSent + 1, after.DatagramsSent);
    EXPECT_EQ(before.DatagramBytesSent.QuadPart + 7, after.DatagramBytesSent.QuadPart);

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    NTSTATUS status = KS_QueryProviderInfo(L"\\Device\\NoSuchTransport", &info);
    std::string printed = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, status);
    EXPECT_NE(std::string::npos, printed.find("Unable To Open TDI Control Channel"));
}

TEST_F(KsTransport, ConnectionInformationIsZeroedAndSet)
{
    KS_ADDRESS address;
    TA_IP_ADDRESS local = IpAddress(Loopback(), 0);
    ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\Tcp",
                                                      reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                      &address));
    KS_ENDPOINT endpoint;
    ASSERT_EQ(STATUS_SUCCESS, KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &address, &endpoint, nullptr));
    TDI_CONNECTION_INFO info;
    std::memset(&info, 0xAB, sizeof(info));
    EXPECT_EQ(STATUS_SUCCESS, KS_SetConnectionInfo(&endpoint, &info));
    EXPECT_EQ(0u, info.ReceiveBufferSize);
    EXPECT_EQ(0, info.Unreliable);
    KS_CloseConnectionEndpoint(&endpoint);
    KS_CloseTransportAddress(&address);
    EXPECT_EQ(0u, address.ReferenceCount);
    EXPECT_EQ(STATUS_SUCCESS, KS_CloseTransportAddress(&address)); // nothing left to drop
}

// A transport that accepts every open and refuses the error handler.
struct RefusingTransport {
    static inline std::vector<LONG> types;
    static inline PDEVICE_OBJECT device;

    static NTSTATUS Dispatch(PDEVICE_OBJECT, PIRP irp)
    {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        NTSTATUS status = STATUS_SUCCESS;
        if (stack->MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL &&
            stack->MinorFunction == TDI_SET_EVENT_HANDLER) {
            auto *p = reinterpret_cast<PTDI_REQUEST_KERNEL_SET_EVENT>(&stack->Parameters);
            types.push_back(p->EventType);
            if (p->EventType == TDI_EVENT_ERROR)
                status = STATUS_INSUFFICIENT_RESOURCES;
        }
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    static VOID Unload(PDRIVER_OBJECT) { IoDeleteDevice(device); }
    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        for (auto &major : driver->MajorFunction)
            major = Dispatch;
        driver->DriverUnload = Unload;
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\Device\\KsRefusing");
        return IoCreateDevice(driver, 0, &name, FILE_DEVICE_NETWORK, 0, FALSE, &device);
    }
};

TEST_F(KsTransport, AFailingHandlerRegistrationLeavesTheLaterOnesUnset)
{
    RefusingTransport::types.clear();
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(RefusingTransport::Entry, "KsRefusing", &driver));
    KS_ADDRESS address;
    TA_IP_ADDRESS local = IpAddress(Loopback(), 0);
    ASSERT_EQ(STATUS_SUCCESS, KS_OpenTransportAddress(L"\\Device\\KsRefusing",
                                                      reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                                      &address));
    PTDI_IND_RECEIVE handler = [](PVOID, CONNECTION_CONTEXT, ULONG, ULONG, ULONG, ULONG *,
                                  PVOID, PIRP *) -> NTSTATUS { return STATUS_SUCCESS; };
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
              KS_SetEventHandlers(&address, nullptr, nullptr, nullptr, nullptr, handler, nullptr,
                                  nullptr));
    EXPECT_EQ((std::vector<LONG>{TDI_EVENT_CONNECT, TDI_EVENT_DISCONNECT, TDI_EVENT_ERROR}),
              RefusingTransport::types);
    KS_CloseTransportAddress(&address);
    HkUnloadDriver(driver);
}

TEST_F(KsTransport, AnAddressThatCannotGetItsRequestIsClosedAgain)
{
    KS_ADDRESS address;
    TA_IP_ADDRESS local = IpAddress(Loopback(), 0);
    // No EA buffer: nothing is opened.
    HkPoolFailAllocations(kEaTag, 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
              KS_OpenTransportAddress(L"\\Device\\Udp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                      &address));
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, address.Status);
    EXPECT_EQ(0u, address.ReferenceCount);
    // A bad address is the transport's to refuse.
    local.Address[0].AddressLength = 2;
    EXPECT_EQ(STATUS_INVALID_ADDRESS_COMPONENT,
              KS_OpenTransportAddress(L"\\Device\\Udp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                      &address));
    EXPECT_EQ(nullptr, address.AddressHandle);
}

} // namespace
