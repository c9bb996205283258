/* Driver entry, the control device, start-up and teardown of the global state. */
#include "framework.h"

#include <windows.h>

namespace {

const std::string RegistryKeyText = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";

class DriverStartup : public nftest::Framework {};

} // namespace

TEST_F(DriverStartup, TheCoreTraceShowsEveryStartUpStepInOrder)
{
    ASSERT_EQ(Load(0x100), STATUS_SUCCESS);
    std::vector<std::string> expected = {
        "RtlQueryRegistryValues " + RegistryKeyText + "\\GlobalDebugFlag success, Value = 0x100",
        "NdisFilter: GlobalDebugFlag = 0x00000100",
        "RtlQueryRegistryValues " + RegistryKeyText + "\\PendingPacketLimit success, Value = 0x800",
        "  IoCreateDevice(\\Device\\NdisFilter) success",
        "Enter NdisFilterInitialize",
        "  NDIS Hook APi Initialized",
        "Enter NdisFilter_AllocateMappedMemory",
        "  ExAllocatePoolWithTag(NonPagedPool, Size=1724520) success",
        "  IoAllocateMdl() success",
        "  MmBuildMdlForNonPagedPool() complete",
        "Leave NdisFilter_AllocateMappedMemory",
        "  Mapped Memory Initialized",
        "  Shared Memory Initialized",
        "  PsCreateSystemThread(ShareMemoryThread) success",
        "  Adapter list Initialized",
        "  Adapter context owner buffer Initialized",
        "  Adapter Event handler list Initialized",
        "  Filter Driver list Initialized",
        "  Packet Filter list Initialized",
        "  PsCreateSystemThread(InjectedPacketThread) success",
        "  PsCreateSystemThread(InjectedPacketThread) success",
        "  Injected packet list Initialized",
        "  Interface list Initialized",
        "  Interface Event handler list Initialized",
        "  Filter Log lookaside list Initialized",
        "  Filter Timer list Initialized",
        "  IOCTL handler list Initialized",
        "Leave NdisFilterInitialize",
        "  IoCreateSymbolicLink(\\DosDevices\\NdisFilter -> \\Device\\NdisFilter) success",
        "Leave DriverEntry",
    };
    EXPECT_EQ(nftest::TakeTrace(), expected);

    Unload();
    std::vector<std::string> teardown = {
        "Enter NdisFilterUnload",
        "Enter NdisFilterDeInitialize",
        "  IoFreeMdl() complete",
        "  ExFreePool complete",
        "Leave NdisFilterDeInitialize",
        "  IoDeleteSymbolicLink(\\DosDevices\\NdisFilter), status = 0x0",
        "  IoDeleteDevice(\\Device\\NdisFilter)",
        "Leave NdisFilterUnload",
    };
    EXPECT_EQ(nftest::TakeTrace(), teardown);
}

TEST_F(DriverStartup, WithoutRegistryValuesTheMaskIsZeroAndThePendingLimit2048)
{
    ASSERT_EQ(Load(0, /*writeDebugFlag=*/false), STATUS_SUCCESS);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "NdisFilter: GlobalDebugFlag = 0x00000000"), 0);
    EXPECT_EQ(nftest::FindLine(lines, "Enter NdisFilterInitialize"), -1);
    EXPECT_EQ(GlobalDebugFlag, 0u);
    EXPECT_EQ(g_PendingPacketLimit, 2048u);
}

TEST_F(DriverStartup, WithoutTheServiceKeyBothReadsFailAndTheDefaultsHold)
{
    HkRegistryReset();
    HkDebugClearCapture();
    ASSERT_EQ(HkLoadDriver(DriverEntry, "NdisFilter", &m_driver), STATUS_SUCCESS);
    m_loaded = true;
    std::vector<std::string> lines = nftest::TakeTrace();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "RtlQueryRegistryValues " + RegistryKeyText + "\\GlobalDebugFlag fail, error = 0xC0000034");
    EXPECT_EQ(lines[1], "NdisFilter: GlobalDebugFlag = 0x00000000");
    EXPECT_EQ(lines[2], "RtlQueryRegistryValues " + RegistryKeyText + "\\PendingPacketLimit fail, error = 0xC0000034");
    EXPECT_EQ(g_PendingPacketLimit, 2048u);
}

TEST_F(DriverStartup, AnExistingSymbolicLinkFailsEntryWithItsStatusAndLeavesNothingRunning)
{
    UNICODE_STRING link, target;
    RtlInitUnicodeString(&link, L"\\DosDevices\\NdisFilter");
    RtlInitUnicodeString(&target, L"\\Device\\SomethingElse");
    ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);

    EXPECT_EQ(Load(0x100), STATUS_OBJECT_NAME_COLLISION);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines,
                               "  IoCreateSymbolicLink(\\DosDevices\\NdisFilter -> \\Device\\NdisFilter) fails, "
                               "status = 0xc0000035"),
              0);
    /* The image goes without a call to unload: its threads, state and device went with the entry. */
    EXPECT_EQ(HkSystemThreadCount(), 0u);
    EXPECT_EQ(HkFindDevice("\\Device\\NdisFilter"), nullptr);
    EXPECT_EQ(g_pGlobal, nullptr);
    EXPECT_TRUE(HkSymbolicLinkExists("\\DosDevices\\NdisFilter"));
    EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
}

TEST_F(DriverStartup, ThreeWorkerThreadsRunAtPriority16UntilTeardownStopsThem)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(g_pGlobal->m_nNdisHelperWorkThread, 3);
    EXPECT_EQ(HkSystemThreadCount(), 3u);
    HK_SYSTEM_THREAD_INFO threads[8];
    ULONG count = HkQuerySystemThreads(threads, 8);
    ASSERT_EQ(count, 3u);
    for (ULONG i = 0; i < count; i++) {
        for (int tries = 0; tries < 500 && threads[i].Priority != 16; tries++) {
            Sleep(10);
            HkQuerySystemThreads(threads, 8);
        }
        EXPECT_EQ(threads[i].Priority, 16);
    }

    NdisFilter_TerminateShare();
    EXPECT_EQ(g_pGlobal->m_nNdisHelperWorkThread, 0);
    EXPECT_TRUE(NdisWaitEvent(&g_pGlobal->m_WorkThreadExitEvent, 1));

    Unload();
    EXPECT_TRUE(HkWaitForSystemThreads(5000));
    EXPECT_EQ(HkSystemThreadCount(), 0u);
    EXPECT_EQ(HkPoolLiveAllocationCount(), 0u);
}

TEST_F(DriverStartup, WithoutMappedMemoryTheShareThreadIsNotStartedAndUnloadStillEndsTheOthers)
{
    HkPoolFailAllocations(0x4D70614D /* "MapM" */, 1);
    ASSERT_EQ(Load(0x100), STATUS_SUCCESS);
    HkPoolClearFailures();
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "  ExAllocatePoolWithTag fails"), 0);
    EXPECT_EQ(nftest::FindLine(lines, "  PsCreateSystemThread(ShareMemoryThread) success"), -1);
    EXPECT_EQ(g_pGlobal->m_pMappedMemory, nullptr);
    EXPECT_EQ(g_pGlobal->m_nNdisHelperWorkThread, 2);

    Unload();
    EXPECT_EQ(HkSystemThreadCount(), 0u);
    EXPECT_EQ(HkPoolLiveAllocationCount(), 0u);
}

TEST_F(DriverStartup, UnloadWaitsForTheSafeDebugFlagRead)
{
    ASSERT_EQ(Load(0x800), STATUS_SUCCESS);
    ULONG result = 0;
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql); /* the caller may run above passive level */
    Filter_SafeGetGlobalDebugFlag(&g_RegistryPath, 5, &result);
    KeLowerIrql(irql);
    Unload(); /* at once: the read is waited for, never run in an unloaded image */
    EXPECT_EQ(result, 0x800u);
}

TEST_F(DriverStartup, GetVersionWritesOnePointZeroButReportsNoBytes)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    std::vector<UCHAR> buffer(2, 0xEE);
    ULONG_PTR information = 99;
    EXPECT_EQ(nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, IOCTL_NDIS_FILTER_GET_VERSION, buffer, 0, 2, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer[1], 0);
    EXPECT_EQ(information, 0u);

    buffer.assign(2, 0xEE);
    EXPECT_EQ(nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, IOCTL_NDIS_FILTER_GET_VERSION, buffer, 0, 1, &information),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(buffer[0], 0xEE);
}

TEST_F(DriverStartup, TheUserProgramOpensTheDeviceAndItsRequestsComplete)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    HANDLE device = CreateFileA("\\\\.\\NdisFilter", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(device, INVALID_HANDLE_VALUE);

    UCHAR version[2] = {0xEE, 0xEE};
    DWORD returned = 99;
    EXPECT_TRUE(DeviceIoControl(device, IOCTL_NDIS_FILTER_GET_VERSION, nullptr, 0, version, 2, &returned, nullptr));
    EXPECT_EQ(returned, 0u); /* nothing reported, so nothing is copied back */

    EXPECT_FALSE(DeviceIoControl(device, IOCTL_NDIS_FILTER_GET_VERSION, nullptr, 0, version, 1, &returned, nullptr));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);

    ULONG size = 0;
    EXPECT_TRUE(DeviceIoControl(device, IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, nullptr, 0, &size, sizeof(size),
                                &returned, nullptr));
    EXPECT_EQ(returned, 4u);
    EXPECT_EQ(size, 1724520u);

    EXPECT_FALSE(DeviceIoControl(device, 0x80002FFC, nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(CloseHandle(device));
}
