// Devices, symbolic links, opening and closing handles, loading and unloading.
#include "test_io_driver.h"

namespace iotest {
namespace {

using hktest::ExpectVerifierFinding;

UNICODE_STRING Ustr(PCWSTR text)
{
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, text);
    return s;
}

using DeviceNamespace = EchoDriverTest;

TEST_F(DeviceNamespace, ASecondLinkWithTheSameNameCollidesUnderEverySpelling)
{
    UNICODE_STRING target = Ustr(L"\\Device\\HkIoEcho");
    UNICODE_STRING same = Ustr(L"\\DosDevices\\HkIoEcho");
    UNICODE_STRING alias = Ustr(L"\\??\\hkioecho");
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&same, &target));
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION, IoCreateSymbolicLink(&alias, &target));
    EXPECT_TRUE(HkSymbolicLinkExists("\\??\\HKIOECHO"));
}

TEST_F(DeviceNamespace, DeletingAnUnknownLinkFailsAndADeletedLinkNoLongerOpens)
{
    UNICODE_STRING unknown = Ustr(L"\\DosDevices\\HkIoNoSuchLink");
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, IoDeleteSymbolicLink(&unknown));

    UNICODE_STRING target = Ustr(L"\\Device\\HkIoEcho");
    UNICODE_STRING extra = Ustr(L"\\DosDevices\\HkIoEchoToo");
    ASSERT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&extra, &target));
    HANDLE h = CreateFileA("\\\\.\\HkIoEchoToo", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    EXPECT_TRUE(CloseHandle(h));
    ASSERT_EQ(STATUS_SUCCESS, IoDeleteSymbolicLink(&extra));
    EXPECT_EQ(INVALID_HANDLE_VALUE,
              CreateFileA("\\\\.\\HkIoEchoToo", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

TEST_F(DeviceNamespace, ADeviceNameIsTakenOnlyOnce)
{
    UNICODE_STRING name = Ustr(L"\\device\\HKIOECHO");
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION,
              IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device));
    EXPECT_EQ(nullptr, device);
    EXPECT_EQ(echo_.device, HkFindDevice("\\Device\\HkIoEcho"));
}

TEST_F(DeviceNamespace, UnknownWin32NamesAreNotFound)
{
    EXPECT_EQ(INVALID_HANDLE_VALUE,
              CreateFileA("\\\\.\\HkIoNobody", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    EXPECT_EQ(INVALID_HANDLE_VALUE,
              CreateFileW(L"\\\\.\\HkIoNobody", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

using DeviceHandles = EchoDriverTest;

TEST_F(DeviceHandles, OpenAndCloseSendCreateCleanupAndCloseInOrder)
{
    HANDLE h = CreateFileW(L"\\\\.\\hkioecho", GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    EXPECT_EQ(std::vector<UCHAR>{IRP_MJ_CREATE}, echo_.Majors());
    EXPECT_TRUE(CloseHandle(h));
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}), echo_.Majors());
    EXPECT_FALSE(CloseHandle(h));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
}

TEST_F(DeviceHandles, ClosingWithARequestInFlightDelaysCloseUntilItCompletes)
{
    HANDLE h = Open(FILE_FLAG_OVERLAPPED);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    OVERLAPPED ov{};
    UCHAR out[4] = {};
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out, sizeof(out), nullptr, &ov));
    ASSERT_EQ(static_cast<DWORD>(ERROR_IO_PENDING), GetLastError());

    EXPECT_TRUE(CloseHandle(h));
    // Cleanup cancels nothing by itself: the request stays queued in the driver.
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP}), echo_.Majors());
    EXPECT_EQ(1, echo_.Queued());
    EXPECT_FALSE(HasOverlappedIoCompleted(&ov));

    ASSERT_TRUE(EchoCompleteOne(STATUS_SUCCESS, {7, 8}));
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}), echo_.Majors());
    EXPECT_TRUE(HasOverlappedIoCompleted(&ov));
    EXPECT_EQ(2u, ov.InternalHigh);
    EXPECT_EQ(7, out[0]);
}

TEST_F(DeviceHandles, ACloseTriggeredAtDispatchLevelIsSentLaterAtPassiveLevel)
{
    HANDLE h = Open(FILE_FLAG_OVERLAPPED);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    OVERLAPPED ov{};
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, nullptr, 0, nullptr, &ov));
    EXPECT_TRUE(CloseHandle(h));

    // The driver completes from DISPATCH_LEVEL; that drops the file object's last reference.
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    EXPECT_TRUE(EchoCompleteOne(STATUS_SUCCESS, {}));
    KeLowerIrql(irql);
    EXPECT_TRUE(HasOverlappedIoCompleted(&ov));
    ASSERT_TRUE(hktest::WaitUntil([this] { return echo_.Majors().size() == 3; }));
    EXPECT_EQ(IRP_MJ_CLOSE, echo_.Majors().back());
    EXPECT_EQ(PASSIVE_LEVEL, echo_.closeIrql);
}

TEST_F(DeviceHandles, ADriverOpeningAnotherDeviceGetsCleanupAtOnceAndCloseOnDereference)
{
    UNICODE_STRING name = Ustr(L"\\Device\\HkIoEcho");
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device));
    EXPECT_EQ(echo_.device, device);
    EXPECT_EQ(device, file->DeviceObject);
    // Its handle is closed inside IoGetDeviceObjectPointer, as on Windows.
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP}), echo_.Majors());
    ObDereferenceObject(file);
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}), echo_.Majors());
}

// ---- loading and unloading ----

TEST(DriverLoading, DriverEntryGetsItsServiceKeyAndDevicesFinishInitializing)
{
    EchoDriver echo;
    g_echo = &echo;
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(EchoDriverEntry, "HkIoEcho", &driver));
    const char *expected = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\HkIoEcho";
    EXPECT_EQ(std::vector<WCHAR>(expected, expected + std::strlen(expected)), echo.registryPath);
    ASSERT_NE(nullptr, echo.device);
    EXPECT_EQ(0u, echo.device->Flags & DO_DEVICE_INITIALIZING);
    EXPECT_EQ(driver, echo.device->DriverObject);
    EXPECT_EQ(driver->DeviceObject, echo.device);
    EXPECT_EQ(1u, HkLoadedDriverCount());

    HkUnloadDriver(driver);
    EXPECT_EQ(nullptr, HkFindDevice("\\Device\\HkIoEcho"));
    EXPECT_FALSE(HkSymbolicLinkExists("\\DosDevices\\HkIoEcho"));
    EXPECT_EQ(0u, HkLoadedDriverCount());
    g_echo = nullptr;
}

TEST(DriverLoading, UnloadReportsAndRemovesTheDeviceAndLinkADriverLeft)
{
    EchoDriver echo;
    echo.keepDeviceOnUnload = true;
    g_echo = &echo;
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(EchoDriverEntry, "HkIoEcho", &driver));
    {
        ExpectVerifierFinding finding("was not deleted", 2);
        HkUnloadDriver(driver);
    }
    EXPECT_EQ(nullptr, HkFindDevice("\\Device\\HkIoEcho"));
    EXPECT_FALSE(HkSymbolicLinkExists("\\DosDevices\\HkIoEcho"));

    // The names are free again for the next load.
    echo.keepDeviceOnUnload = false;
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(EchoDriverEntry, "HkIoEcho", &driver));
    HkUnloadDriver(driver);
    g_echo = nullptr;
}

NTSTATUS FailingDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name = Ustr(L"\\Device\\HkIoHalfDone");
    PDEVICE_OBJECT device = nullptr;
    IoCreateDevice(driver, 16, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return STATUS_INSUFFICIENT_RESOURCES; // forgets to delete its device
}

TEST(DriverLoading, AFailedDriverEntryLeavesItsObjectsUntilDiscarded)
{
    PDRIVER_OBJECT driver = nullptr;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, HkLoadDriver(FailingDriverEntry, "HkIoFails", &driver));
    ASSERT_NE(nullptr, driver);
    PDEVICE_OBJECT device = HkFindDevice("\\Device\\HkIoHalfDone");
    ASSERT_NE(nullptr, device);
    EXPECT_NE(0u, device->Flags & DO_DEVICE_INITIALIZING);
    // A device still initializing cannot be opened.
    UNICODE_STRING name = Ustr(L"\\Device\\HkIoHalfDone");
    PFILE_OBJECT file = nullptr;
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device));
    {
        ExpectVerifierFinding finding("device \\Device\\HkIoHalfDone was not deleted");
        HkDiscardDriver(driver);
    }
    EXPECT_EQ(nullptr, HkFindDevice("\\Device\\HkIoHalfDone"));
}

TEST(DriverLoading, ADriverImageThatDoesNotExistIsNotLoaded)
{
    PDRIVER_OBJECT driver = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              HkLoadDriverImage("/nonexistent/hkio-driver.so", "HkIoMissing", &driver));
    EXPECT_EQ(nullptr, driver);
}

} // namespace
} // namespace iotest
