// Device I/O control from user mode and between drivers: buffer handling,
// pending requests, cancellation, and the misuse the verifier reports.
#include "test_io_driver.h"

#include <thread>

namespace iotest {
namespace {

using hktest::ExpectVerifierFinding;
using hktest::WaitUntil;

using BufferedIoctl = EchoDriverTest;

TEST_F(BufferedIoctl, InputAndOutputShareOneSystemBufferAndOnlyReturnedBytesAreCopiedBack)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    UCHAR in[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    UCHAR out[16];
    std::memset(out, 0xEE, sizeof(out));
    DWORD returned = 0;
    ASSERT_TRUE(DeviceIoControl(h, kIoctlXor, in, sizeof(in), out, sizeof(out), &returned, nullptr));
    EXPECT_EQ(8u, returned);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(static_cast<UCHAR>(in[i] ^ 0xFF), out[i]) << i;
    for (int i = 8; i < 16; ++i)
        EXPECT_EQ(0xEE, out[i]) << "byte " << i << " was not reported by the driver";
    EXPECT_EQ(1, in[0]) << "the caller's input buffer must stay untouched";

    // More input than output: the driver sees both lengths, the caller gets what fits.
    UCHAR small[4] = {};
    ASSERT_TRUE(DeviceIoControl(h, kIoctlXor, in, sizeof(in), small, sizeof(small), &returned, nullptr));
    EXPECT_EQ(4u, returned);
    EXPECT_EQ(0xFE, small[0]);
    EXPECT_EQ(0xFB, small[3]);
    CloseHandle(h);
}

TEST_F(BufferedIoctl, FailuresReachTheCallerAsWin32Errors)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    UCHAR out[2];
    DWORD returned = 99;
    EXPECT_FALSE(DeviceIoControl(h, kIoctlNeedFour, nullptr, 0, out, sizeof(out), &returned, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
    EXPECT_EQ(0u, returned);

    EXPECT_FALSE(DeviceIoControl(h, CTL_CODE(FILE_DEVICE_UNKNOWN, 0x9FF, METHOD_BUFFERED, 0),
                                 nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_FUNCTION), GetLastError());
    CloseHandle(h);

    EXPECT_FALSE(DeviceIoControl(h, kIoctlXor, nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
}

TEST(StatusMapping, CommonStatusesMapToTheirWin32Errors)
{
    EXPECT_EQ(50u, RtlNtStatusToDosError(STATUS_NOT_SUPPORTED));
    EXPECT_EQ(87u, RtlNtStatusToDosError(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(122u, RtlNtStatusToDosError(STATUS_BUFFER_TOO_SMALL));
    EXPECT_EQ(995u, RtlNtStatusToDosError(STATUS_CANCELLED));
    EXPECT_EQ(31u, RtlNtStatusToDosError(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(1450u, RtlNtStatusToDosError(STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(234u, RtlNtStatusToDosError(STATUS_BUFFER_OVERFLOW));
    EXPECT_EQ(317u, RtlNtStatusToDosError(static_cast<NTSTATUS>(0xC0DE0001)));
}

TEST_F(BufferedIoctl, BufferedReadsAndWritesCopyThroughTheSystemBuffer)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(h, "hello", 5, &written, nullptr));
    EXPECT_EQ(5u, written);
    EXPECT_EQ((std::vector<UCHAR>{'h', 'e', 'l', 'l', 'o'}), echo_.stored);

    char in[16];
    std::memset(in, '#', sizeof(in));
    DWORD read = 0;
    ASSERT_TRUE(ReadFile(h, in, sizeof(in), &read, nullptr));
    EXPECT_EQ(5u, read);
    EXPECT_EQ(0, std::memcmp(in, "hello#", 6));
    CloseHandle(h);
}

using PendingRequests = EchoDriverTest;

TEST_F(PendingRequests, AnOverlappedRequestCompletedLaterFromAnotherThreadSignalsItsEvent)
{
    HANDLE h = Open(FILE_FLAG_OVERLAPPED);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    OVERLAPPED ov{};
    ov.hEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr); // reset when the request starts
    ASSERT_NE(nullptr, ov.hEvent);
    UCHAR out[8] = {};
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out, sizeof(out), nullptr, &ov));
    ASSERT_EQ(static_cast<DWORD>(ERROR_IO_PENDING), GetLastError());
    EXPECT_FALSE(HasOverlappedIoCompleted(&ov));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(ov.hEvent, 0));
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(h, &ov, &bytes, FALSE));
    EXPECT_EQ(static_cast<DWORD>(ERROR_IO_INCOMPLETE), GetLastError());

    std::thread completer([] { EXPECT_TRUE(EchoCompleteOne(STATUS_SUCCESS, {0x11, 0x22, 0x33})); });
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(ov.hEvent, 30000));
    completer.join();
    ASSERT_TRUE(GetOverlappedResult(h, &ov, &bytes, TRUE));
    EXPECT_EQ(3u, bytes);
    EXPECT_EQ(0x11, out[0]);
    EXPECT_EQ(0x33, out[2]);
    EXPECT_EQ(0, out[3]);
    CloseHandle(ov.hEvent);
    CloseHandle(h);
}

TEST_F(PendingRequests, ASynchronousHandleWaitsForThePendingRequest)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    std::thread completer([this] {
        ASSERT_TRUE(WaitUntil([this] { return echo_.Queued() == 1; }));
        EXPECT_TRUE(EchoCompleteOne(STATUS_SUCCESS, {5, 6}));
    });
    UCHAR out[4] = {};
    DWORD returned = 0;
    EXPECT_TRUE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out, sizeof(out), &returned, nullptr));
    completer.join();
    EXPECT_EQ(2u, returned);
    EXPECT_EQ(6, out[1]);
    CloseHandle(h);
}

TEST_F(PendingRequests, CancelIoExRunsTheCancelRoutineHoldingTheCancelSpinLock)
{
    HANDLE h = Open(FILE_FLAG_OVERLAPPED);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    OVERLAPPED first{};
    OVERLAPPED second{};
    UCHAR out1[4];
    UCHAR out2[4];
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out1, sizeof(out1), nullptr, &first));
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out2, sizeof(out2), nullptr, &second));
    ASSERT_EQ(2, echo_.Queued());

    ASSERT_TRUE(CancelIoEx(h, &first));
    EXPECT_EQ(1, echo_.cancelCalls);
    EXPECT_EQ(DISPATCH_LEVEL, echo_.irqlInCancel);
    EXPECT_EQ(PASSIVE_LEVEL, echo_.cancelIrql);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    DWORD bytes = 1;
    EXPECT_FALSE(GetOverlappedResult(h, &first, &bytes, TRUE));
    EXPECT_EQ(static_cast<DWORD>(ERROR_OPERATION_ABORTED), GetLastError());
    EXPECT_EQ(0u, bytes);
    EXPECT_FALSE(HasOverlappedIoCompleted(&second));

    ASSERT_TRUE(CancelIoEx(h, nullptr));
    EXPECT_EQ(2, echo_.cancelCalls);
    EXPECT_TRUE(HasOverlappedIoCompleted(&second));
    EXPECT_FALSE(CancelIoEx(h, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_FOUND), GetLastError());
    CloseHandle(h);
}

TEST_F(PendingRequests, ACancelRoutineThatKeepsTheCancelSpinLockIsReported)
{
    echo_.cancelRoutineKeepsLock = true;
    HANDLE h = Open(FILE_FLAG_OVERLAPPED);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    OVERLAPPED ov{};
    UCHAR out[4];
    EXPECT_FALSE(DeviceIoControl(h, kIoctlPend, nullptr, 0, out, sizeof(out), nullptr, &ov));
    {
        ExpectVerifierFinding finding("without releasing the cancel spin lock");
        EXPECT_TRUE(CancelIoEx(h, &ov));
    }
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    EXPECT_TRUE(HasOverlappedIoCompleted(&ov));
    CloseHandle(h);
}

using DriverMistakes = EchoDriverTest;

TEST_F(DriverMistakes, CompletingARequestTwiceIsReported)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    {
        ExpectVerifierFinding finding("completed twice");
        EXPECT_TRUE(DeviceIoControl(h, kIoctlCompleteTwice, nullptr, 0, nullptr, 0, nullptr, nullptr));
    }
    CloseHandle(h);
}

TEST_F(DriverMistakes, ReturningPendingWithoutMarkingTheIrpIsReported)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    {
        ExpectVerifierFinding finding("without calling IoMarkIrpPending");
        EXPECT_TRUE(DeviceIoControl(h, kIoctlPendingUnmarked, nullptr, 0, nullptr, 0, nullptr, nullptr));
    }
    CloseHandle(h);
}

TEST_F(DriverMistakes, CompletingWithStatusPendingIsReported)
{
    HANDLE h = Open();
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    {
        ExpectVerifierFinding finding("completed with STATUS_PENDING");
        DeviceIoControl(h, kIoctlCompleteWithPending, nullptr, 0, nullptr, 0, nullptr, nullptr);
    }
    CloseHandle(h);
}

// ---- a driver sending internal requests to another one ----

constexpr ULONG kIoctlForward = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x810, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kInternalQuery = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x811, METHOD_BUFFERED, FILE_ANY_ACCESS);

struct LowerDriver {
    std::mutex lock;
    std::vector<UCHAR> majors;
    PDEVICE_OBJECT device = nullptr;
    KIRQL workIrql = HIGH_LEVEL;
    ULONG inputSeen = 0;
};
LowerDriver *g_lower = nullptr;
PDEVICE_OBJECT g_upperDevice = nullptr;

NTSTATUS LowerRecord(PDEVICE_OBJECT, PIRP irp)
{
    std::lock_guard<std::mutex> guard(g_lower->lock);
    g_lower->majors.push_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction);
    return CompleteIrp(irp, STATUS_SUCCESS, 0);
}

// Completes a pended query from a work item: the answer overwrites the input.
VOID LowerAnswer(PDEVICE_OBJECT, PVOID context)
{
    PIRP irp = static_cast<PIRP>(context);
    g_lower->workIrql = KeGetCurrentIrql();
    PIO_WORKITEM item = static_cast<PIO_WORKITEM>(irp->Tail.Overlay.DriverContext[0]);
    IoFreeWorkItem(item);
    std::memcpy(irp->AssociatedIrp.SystemBuffer, "LOWER", 5);
    CompleteIrp(irp, STATUS_SUCCESS, 5);
}

NTSTATUS LowerInternalControl(PDEVICE_OBJECT device, PIRP irp)
{
    {
        std::lock_guard<std::mutex> guard(g_lower->lock);
        g_lower->majors.push_back(IRP_MJ_INTERNAL_DEVICE_CONTROL);
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode != kInternalQuery)
        return CompleteIrp(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    if (std::memcmp(irp->AssociatedIrp.SystemBuffer, "ping", 4) == 0)
        g_lower->inputSeen = stack->Parameters.DeviceIoControl.InputBufferLength;
    PIO_WORKITEM item = IoAllocateWorkItem(device);
    irp->Tail.Overlay.DriverContext[0] = item;
    IoMarkIrpPending(irp);
    IoQueueWorkItem(item, LowerAnswer, DelayedWorkQueue, irp);
    return STATUS_PENDING;
}

VOID LowerUnload(PDRIVER_OBJECT driver)
{
    IoDeleteDevice(driver->DeviceObject);
}

NTSTATUS LowerEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\HkIoLower");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_lower->device);
    if (!NT_SUCCESS(status))
        return status;
    driver->MajorFunction[IRP_MJ_CREATE] = LowerRecord;
    driver->MajorFunction[IRP_MJ_CLEANUP] = LowerRecord;
    driver->MajorFunction[IRP_MJ_CLOSE] = LowerRecord;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = LowerInternalControl;
    driver->DriverUnload = LowerUnload;
    return STATUS_SUCCESS;
}

// Answers a user request by asking the lower driver and passing its answer on.
NTSTATUS UpperDeviceControl(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode != kIoctlForward)
        return CompleteIrp(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\HkIoLower");
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT lower = nullptr;
    NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &lower);
    if (!NT_SUCCESS(status))
        return CompleteIrp(irp, status, 0);
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    char question[4] = {'p', 'i', 'n', 'g'};
    char answer[8] = {};
    PIRP query = IoBuildDeviceIoControlRequest(kInternalQuery, lower, question, sizeof(question),
                                               answer, sizeof(answer), TRUE, &done, &iosb);
    status = query == nullptr ? STATUS_INSUFFICIENT_RESOURCES : IoCallDriver(lower, query);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = iosb.Status;
    }
    ObDereferenceObject(file);
    if (!NT_SUCCESS(status))
        return CompleteIrp(irp, status, 0);
    std::memcpy(irp->AssociatedIrp.SystemBuffer, answer, iosb.Information);
    return CompleteIrp(irp, STATUS_SUCCESS, iosb.Information);
}

NTSTATUS UpperCreateClose(PDEVICE_OBJECT, PIRP irp)
{
    return CompleteIrp(irp, STATUS_SUCCESS, 0);
}

VOID UpperUnload(PDRIVER_OBJECT driver)
{
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkIoUpper");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(driver->DeviceObject);
}

NTSTATUS UpperEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    UNICODE_STRING link;
    RtlInitUnicodeString(&name, L"\\Device\\HkIoUpper");
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkIoUpper");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_upperDevice);
    if (!NT_SUCCESS(status))
        return status;
    IoCreateSymbolicLink(&link, &name);
    driver->MajorFunction[IRP_MJ_CREATE] = UpperCreateClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = UpperCreateClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = UpperCreateClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = UpperDeviceControl;
    driver->DriverUnload = UpperUnload;
    return STATUS_SUCCESS;
}

TEST(DriverToDriver, AnInternalRequestBuiltForAnotherDriverCompletesThroughItsEvent)
{
    LowerDriver lowerState;
    g_lower = &lowerState;
    PDRIVER_OBJECT lower = nullptr;
    PDRIVER_OBJECT upper = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(LowerEntry, "HkIoLower", &lower));
    ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(UpperEntry, "HkIoUpper", &upper));

    HANDLE h = CreateFileA("\\\\.\\HkIoUpper", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    char out[16] = {};
    DWORD returned = 0;
    EXPECT_TRUE(DeviceIoControl(h, kIoctlForward, nullptr, 0, out, sizeof(out), &returned, nullptr));
    EXPECT_EQ(5u, returned);
    EXPECT_EQ(0, std::memcmp(out, "LOWER", 5));
    EXPECT_EQ(4u, lowerState.inputSeen);
    EXPECT_EQ(PASSIVE_LEVEL, lowerState.workIrql);
    EXPECT_EQ((std::vector<UCHAR>{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_INTERNAL_DEVICE_CONTROL,
                                  IRP_MJ_CLOSE}),
              lowerState.majors);
    CloseHandle(h);

    // A request the lower driver has no dispatch routine for fails at once, and
    // the built IRP still reports through its status block and event.
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    iosb.Status = STATUS_PENDING;
    PIRP irp = IoBuildDeviceIoControlRequest(kInternalQuery, lowerState.device, nullptr, 0,
                                             nullptr, 0, FALSE, &done, &iosb);
    ASSERT_NE(nullptr, irp);
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, IoCallDriver(lowerState.device, irp));
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, iosb.Status);
    EXPECT_NE(0, KeReadStateEvent(&done));

    HkUnloadDriver(upper);
    HkUnloadDriver(lower);
    g_lower = nullptr;
}

} // namespace
} // namespace iotest
