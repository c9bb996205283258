// A tiny driver for the I/O tests: device \Device\HkIoEcho with the link
// \DosDevices\HkIoEcho, a cancel-safe queue of pending requests guarded by the
// cancel spin lock, and a few deliberately wrong requests for verifier checks.
#pragma once

#include <ntddk.h>
#include <windows.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace iotest {

constexpr ULONG kIoctlXor = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlPend = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlNeedFour = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlCompleteTwice = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlPendingUnmarked = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x804, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlCompleteWithPending = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x805, METHOD_BUFFERED, FILE_ANY_ACCESS);

constexpr const char *kEchoWin32Name = "\\\\.\\HkIoEcho";

struct EchoDriver {
    std::mutex lock;
    std::vector<UCHAR> majors; // create / cleanup / close requests, in order
    PDEVICE_OBJECT device = nullptr;
    LIST_ENTRY queue;          // pending requests, guarded by the cancel spin lock
    int queued = 0;            // likewise
    std::vector<WCHAR> registryPath;
    std::vector<UCHAR> stored; // what the last write left for reads
    KIRQL closeIrql = HIGH_LEVEL;
    // Behaviour switches a test sets before loading.
    bool keepDeviceOnUnload = false;
    bool cancelRoutineKeepsLock = false;
    // What the cancel routine observed.
    int cancelCalls = 0;
    KIRQL irqlInCancel = 0;
    KIRQL cancelIrql = 0;

    std::vector<UCHAR> Majors()
    {
        std::lock_guard<std::mutex> guard(lock);
        return majors;
    }
    int Queued()
    {
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        int count = queued;
        IoReleaseCancelSpinLock(irql);
        return count;
    }
};

inline EchoDriver *g_echo = nullptr;

inline NTSTATUS CompleteIrp(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

inline NTSTATUS EchoCreateCleanupClose(PDEVICE_OBJECT, PIRP irp)
{
    {
        std::lock_guard<std::mutex> guard(g_echo->lock);
        g_echo->majors.push_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction);
        if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_CLOSE)
            g_echo->closeIrql = KeGetCurrentIrql();
    }
    return CompleteIrp(irp, STATUS_SUCCESS, 0);
}

// The device does buffered I/O: writes are kept, reads return them.
inline NTSTATUS EchoReadWrite(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PUCHAR buffer = static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer);
    std::lock_guard<std::mutex> guard(g_echo->lock);
    if (stack->MajorFunction == IRP_MJ_WRITE) {
        g_echo->stored.assign(buffer, buffer + stack->Parameters.Write.Length);
        return CompleteIrp(irp, STATUS_SUCCESS, stack->Parameters.Write.Length);
    }
    size_t count = g_echo->stored.size();
    if (count > stack->Parameters.Read.Length)
        count = stack->Parameters.Read.Length;
    if (count > 0)
        std::memcpy(buffer, g_echo->stored.data(), count);
    return CompleteIrp(irp, STATUS_SUCCESS, count);
}

// Runs holding the cancel spin lock at DISPATCH_LEVEL.
inline VOID EchoCancel(PDEVICE_OBJECT, PIRP irp)
{
    g_echo->cancelCalls++;
    g_echo->irqlInCancel = KeGetCurrentIrql();
    g_echo->cancelIrql = irp->CancelIrql;
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    g_echo->queued--;
    if (!g_echo->cancelRoutineKeepsLock)
        IoReleaseCancelSpinLock(irp->CancelIrql);
    CompleteIrp(irp, STATUS_CANCELLED, 0);
}

inline NTSTATUS EchoQueue(PIRP irp)
{
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    if (irp->Cancel) {
        IoReleaseCancelSpinLock(irql);
        return CompleteIrp(irp, STATUS_CANCELLED, 0);
    }
    IoMarkIrpPending(irp);
    IoSetCancelRoutine(irp, EchoCancel);
    InsertTailList(&g_echo->queue, &irp->Tail.Overlay.ListEntry);
    g_echo->queued++;
    IoReleaseCancelSpinLock(irql);
    return STATUS_PENDING;
}

// Completes the oldest queued request with `payload` as its output. Returns
// false when nothing was queued. Called from any thread at PASSIVE_LEVEL.
inline bool EchoCompleteOne(NTSTATUS status, const std::vector<UCHAR> &payload)
{
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    if (IsListEmpty(&g_echo->queue)) {
        IoReleaseCancelSpinLock(irql);
        return false;
    }
    PIRP irp = CONTAINING_RECORD(RemoveHeadList(&g_echo->queue), IRP, Tail.Overlay.ListEntry);
    g_echo->queued--;
    IoSetCancelRoutine(irp, nullptr);
    IoReleaseCancelSpinLock(irql);
    if (!payload.empty())
        std::memcpy(irp->AssociatedIrp.SystemBuffer, payload.data(), payload.size());
    CompleteIrp(irp, status, payload.size());
    return true;
}

inline NTSTATUS EchoDeviceControl(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG in = stack->Parameters.DeviceIoControl.InputBufferLength;
    ULONG out = stack->Parameters.DeviceIoControl.OutputBufferLength;
    PUCHAR buffer = static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer);
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case kIoctlXor: {
        // Reads the input and writes the output in the same system buffer.
        ULONG count = in < out ? in : out;
        for (ULONG i = 0; i < count; ++i)
            buffer[i] ^= 0xFF;
        return CompleteIrp(irp, STATUS_SUCCESS, count);
    }
    case kIoctlPend:
        return EchoQueue(irp);
    case kIoctlNeedFour:
        if (out < 4)
            return CompleteIrp(irp, STATUS_BUFFER_TOO_SMALL, 0);
        std::memcpy(buffer, "\xDD\xCC\xBB\xAA", 4);
        return CompleteIrp(irp, STATUS_SUCCESS, 4);
    case kIoctlCompleteTwice:
        CompleteIrp(irp, STATUS_SUCCESS, 0);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
    case kIoctlPendingUnmarked:
        CompleteIrp(irp, STATUS_SUCCESS, 0);
        return STATUS_PENDING;
    case kIoctlCompleteWithPending:
        CompleteIrp(irp, STATUS_PENDING, 0);
        return STATUS_SUCCESS;
    default:
        return CompleteIrp(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

inline VOID EchoUnload(PDRIVER_OBJECT driver)
{
    if (g_echo->keepDeviceOnUnload)
        return;
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkIoEcho");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(driver->DeviceObject);
}

inline NTSTATUS EchoDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    g_echo->registryPath.assign(registryPath->Buffer,
                                registryPath->Buffer + registryPath->Length / sizeof(WCHAR));
    UNICODE_STRING name;
    UNICODE_STRING link;
    RtlInitUnicodeString(&name, L"\\Device\\HkIoEcho");
    RtlInitUnicodeString(&link, L"\\DosDevices\\HkIoEcho");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                     &g_echo->device);
    if (!NT_SUCCESS(status))
        return status;
    status = IoCreateSymbolicLink(&link, &name);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(g_echo->device);
        return status;
    }
    InitializeListHead(&g_echo->queue);
    g_echo->device->Flags |= DO_BUFFERED_IO;
    driver->MajorFunction[IRP_MJ_CREATE] = EchoCreateCleanupClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = EchoCreateCleanupClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = EchoCreateCleanupClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = EchoDeviceControl;
    driver->MajorFunction[IRP_MJ_READ] = EchoReadWrite;
    driver->MajorFunction[IRP_MJ_WRITE] = EchoReadWrite;
    driver->DriverUnload = EchoUnload;
    return STATUS_SUCCESS;
}

// Loads the echo driver for one test and unloads it afterwards.
class EchoDriverTest : public testing::Test {
protected:
    void SetUp() override
    {
        g_echo = &echo_;
        ASSERT_EQ(STATUS_SUCCESS, HkLoadDriver(EchoDriverEntry, "HkIoEcho", &driver_));
    }
    void TearDown() override
    {
        if (driver_ != nullptr)
            HkUnloadDriver(driver_);
        g_echo = nullptr;
    }

    HANDLE Open(DWORD flags = 0)
    {
        return CreateFileA(kEchoWin32Name, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                           OPEN_EXISTING, flags, nullptr);
    }

    EchoDriver echo_;
    PDRIVER_OBJECT driver_ = nullptr;
};

} // namespace iotest
