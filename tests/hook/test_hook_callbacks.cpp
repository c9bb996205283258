/*
 * What the hook driver calls, and how: bound to a stand-in for the framework
 * (a small driver owning \Device\NdisFilter that answers the bind request
 * with recording callbacks), so every call, its arguments and its IRQL show.
 */
#include <ndishook.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Call {
    std::string name;
    PFilterAdapter adapter;
    NDIS_STATUS status;
    KIRQL irql;
};

/* What the stand-in saw; it keeps the packets it is handed. */
struct StandIn {
    std::vector<Call> calls;
    std::vector<PFilterPacket> packets;
    NdisHookAPI hook; /* the functions from the last bind */
    PDEVICE_OBJECT device;
};

StandIn *g_standIn;

NTSTATUS NTAPI Opened(PFilterAdapter adapter)
{
    g_standIn->calls.push_back({"opened", adapter, 0, KeGetCurrentIrql()});
    return STATUS_SUCCESS;
}

VOID NTAPI StatusChanged(PFilterAdapter adapter, NDIS_STATUS status)
{
    g_standIn->calls.push_back({"status", adapter, status, KeGetCurrentIrql()});
}

NTSTATUS NTAPI Closed(PFilterAdapter adapter)
{
    g_standIn->calls.push_back({"closed", adapter, 0, KeGetCurrentIrql()});
    return STATUS_SUCCESS;
}

VOID NTAPI Received(PFilterPacket packet)
{
    g_standIn->calls.push_back({"received", packet->m_hAdapter, 0, KeGetCurrentIrql()});
    g_standIn->packets.push_back(packet);
}

VOID NTAPI Sent(PFilterPacket packet)
{
    g_standIn->calls.push_back({"sent", packet->m_hAdapter, 0, KeGetCurrentIrql()});
    g_standIn->packets.push_back(packet);
}

/* The bind and unbind requests: hands out / takes back the recording callbacks. */
NTSTATUS NTAPI StandInInternalControl(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PNdisHookAPI api = (PNdisHookAPI)irp->AssociatedIrp.SystemBuffer;
    if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK) {
        api->Filter_AdapterOpened = Opened;
        api->Filter_AdapterStatusChanged = StatusChanged;
        api->Filter_AdapterClosed = Closed;
        api->Filter_FilterReceivedPacket = Received;
        api->Filter_FilterSendPacket = Sent;
        api->m_Flags |= NDIS_HOOK_FLAG_BOUND;
        g_standIn->hook = *api;
        g_standIn->calls.push_back({"bind", nullptr, 0, KeGetCurrentIrql()});
    } else {
        api->m_Flags &= ~(ULONG)NDIS_HOOK_FLAG_BOUND;
        g_standIn->calls.push_back({"unbind", nullptr, 0, KeGetCurrentIrql()});
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = sizeof(NdisHookAPI);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Succeed(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

VOID NTAPI StandInUnload(PDRIVER_OBJECT)
{
    IoDeleteDevice(g_standIn->device);
}

NTSTATUS NTAPI StandInEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDISFILTER_DEVICE_NAME);
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_standIn->device);
    if (!NT_SUCCESS(status))
        return status;
    driver->MajorFunction[IRP_MJ_CREATE] = Succeed;
    driver->MajorFunction[IRP_MJ_CLEANUP] = Succeed;
    driver->MajorFunction[IRP_MJ_CLOSE] = Succeed;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = StandInInternalControl;
    driver->DriverUnload = StandInUnload;
    return STATUS_SUCCESS;
}

class HookCallbacks : public testing::Test {
protected:
    void SetUp() override
    {
        g_standIn = &standIn;
        HkRegistryReset();
        ASSERT_EQ(HkLoadDriver(StandInEntry, "StandIn", &standInDriver), STATUS_SUCCESS);
        ASSERT_EQ(NdisHookLoad(TRUE, &hookDriver), STATUS_SUCCESS);
        ASSERT_TRUE(NdisHookIsBound());
        setup.DeviceName = "\\DEVICE\\{00000009-1111-2222-3333-444455556666}";
        setup.InstanceId = "{00000009-1111-2222-3333-444455556666}";
        const UCHAR mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x09};
        for (int i = 0; i < 6; i++)
            setup.CurrentAddress[i] = setup.PermanentAddress[i] = mac[i];
    }

    void TearDown() override
    {
        if (hookDriver != nullptr)
            NdisHookUnload(hookDriver);
        HkUnloadDriver(standInDriver);
        HkRegistryReset();
        g_standIn = nullptr;
    }

    std::vector<std::string> CallNames() const
    {
        std::vector<std::string> names;
        for (const Call &call : standIn.calls)
            names.push_back(call.name);
        return names;
    }

    StandIn standIn = {};
    PDRIVER_OBJECT standInDriver = nullptr;
    PDRIVER_OBJECT hookDriver = nullptr;
    NDIS_HOOK_ADAPTER_SETUP setup = {};
};

TEST_F(HookCallbacks, AnAdaptersLifeIsReportedInOrderAndMediaChangesAtDispatchLevel)
{
    PFilterAdapter adapter = NdisHookOpenAdapter(&setup);
    ASSERT_NE(adapter, nullptr);
    ASSERT_EQ(NdisHookSetMediaConnected(adapter, FALSE), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSetMediaConnected(adapter, FALSE), STATUS_SUCCESS); /* no change: no call */
    ASSERT_EQ(standIn.hook.Hook_SetAdapterStatus(setup.CurrentAddress, NdisMediaStateConnected), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookCloseAdapter(adapter), STATUS_SUCCESS);

    EXPECT_EQ(CallNames(), (std::vector<std::string>{"bind", "opened", "status", "status", "closed"}));
    const std::vector<Call> &calls = standIn.calls;
    EXPECT_EQ(calls[1].adapter, adapter);
    EXPECT_EQ(calls[1].irql, PASSIVE_LEVEL);
    EXPECT_EQ(calls[2].status, NDIS_STATUS_MEDIA_DISCONNECT);
    EXPECT_EQ(calls[2].irql, DISPATCH_LEVEL);
    EXPECT_EQ(calls[3].status, NDIS_STATUS_MEDIA_CONNECT);
    EXPECT_EQ(calls[4].adapter, adapter);
}

TEST_F(HookCallbacks, AdaptersStillOpenAtUnloadAreReportedClosedBeforeTheUnbind)
{
    PFilterAdapter adapter = NdisHookOpenAdapter(&setup);
    NdisHookUnload(hookDriver);
    hookDriver = nullptr;
    EXPECT_EQ(CallNames(), (std::vector<std::string>{"bind", "opened", "closed", "unbind"}));
    EXPECT_EQ(standIn.calls[2].adapter, adapter);
}

TEST_F(HookCallbacks, FramesGoToTheReceiveAndSendCallbacksAtDispatchLevel)
{
    PFilterAdapter adapter = NdisHookOpenAdapter(&setup);
    std::vector<UCHAR> frame(600);
    for (size_t i = 0; i < frame.size(); i++)
        frame[i] = (UCHAR)(i * 13);
    ASSERT_EQ(NdisHookReceiveFrame(adapter, frame.data(), 600, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSendFrame(adapter, frame.data(), 100, nullptr), STATUS_SUCCESS);

    ASSERT_EQ(standIn.packets.size(), 2u);
    EXPECT_EQ(standIn.calls[2].name, "received");
    EXPECT_EQ(standIn.calls[2].irql, DISPATCH_LEVEL);
    EXPECT_EQ(standIn.calls[3].name, "sent");
    EXPECT_EQ(standIn.calls[3].irql, DISPATCH_LEVEL);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 2);

    /* Passed on untouched, each packet delivers its whole frame from its buffers. */
    EXPECT_EQ(standIn.hook.Hook_InjectPacketToProtocol(adapter, standIn.packets[0]), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(standIn.hook.Hook_InjectPacketToAdapter(adapter, standIn.packets[1]), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_PROTOCOL),
              std::vector<std::vector<UCHAR>>{frame});
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER),
              std::vector<std::vector<UCHAR>>{std::vector<UCHAR>(frame.begin(), frame.begin() + 100)});
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(HookCallbacks, APacketTheFrameworkKeepsIsReportedWhenTheHookUnloads)
{
    PFilterAdapter adapter = NdisHookOpenAdapter(&setup);
    UCHAR frame[60] = {};
    ASSERT_EQ(NdisHookReceiveFrame(adapter, frame, sizeof frame, nullptr), STATUS_SUCCESS);
    {
        hktest::ExpectVerifierFinding finding("(received frame, allocated at");
        NdisHookUnload(hookDriver);
        hookDriver = nullptr;
    }
}

} // namespace
