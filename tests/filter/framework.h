/*
 * The framework driver loaded on the host runtime for one test: the service
 * key is filled first, DriverEntry runs, and the fixture unloads the driver
 * and checks that nothing was left behind (memory, threads, devices).
 */
#pragma once

#include "precomp.h"
#include "ndisfilter-global.h"

#include <hostkernel.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nftest {

/* A pool tag from its four characters in memory order. */
constexpr ULONG PoolTag(const char (&text)[5])
{
    return (ULONG)(UCHAR)text[0] | (ULONG)(UCHAR)text[1] << 8 | (ULONG)(UCHAR)text[2] << 16 |
           (ULONG)(UCHAR)text[3] << 24;
}

inline const char *ServiceKey()
{
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
}

/* Debug lines captured since the last call, oldest first. */
inline std::vector<std::string> TakeTrace()
{
    return hk::TakeCapturedDebugLines();
}

/* Index of the first line equal to `line`, or -1. */
inline int FindLine(const std::vector<std::string> &lines, const std::string &line)
{
    for (size_t i = 0; i < lines.size(); i++)
        if (lines[i] == line)
            return (int)i;
    return -1;
}

/* Keeps a completed request for its sender instead of letting the I/O manager finish it. */
inline NTSTATUS NTAPI KeepCompletedRequest(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

/*
 * Sends one buffered request straight to the framework's control device, the
 * way the I/O manager would, and leaves the system buffer (`buffer`, at least
 * as large as both lengths) for the test to look at. Returns the completion
 * status; `information` receives the bytes the request reported.
 */
inline NTSTATUS SendToDevice(UCHAR major, ULONG code, std::vector<UCHAR> &buffer, ULONG inputLength,
                             ULONG outputLength, ULONG_PTR *information)
{
    PDEVICE_OBJECT device = g_pGlobal->m_pDeviceObject;
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    irp->AssociatedIrp.SystemBuffer = buffer.empty() ? nullptr : buffer.data();
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->Parameters.DeviceIoControl.IoControlCode = code;
    stack->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    stack->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    IoSetCompletionRoutine(irp, KeepCompletedRequest, nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(device, irp);
    NTSTATUS status = irp->IoStatus.Status;
    *information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    return status;
}

class Framework : public ::testing::Test {
protected:
    /* Loads the driver; GlobalDebugFlag is written to the service key unless `noDebugFlag`. A driver
     * whose entry failed is discarded. */
    NTSTATUS Load(ULONG debugFlag = 0, bool writeDebugFlag = true)
    {
        HkRegistryReset();
        HkRegistryCreateKey(ServiceKey());
        if (writeDebugFlag)
            HkRegistrySetDword(ServiceKey(), "GlobalDebugFlag", debugFlag);
        HkDebugClearCapture();
        NTSTATUS status = HkLoadDriver(DriverEntry, "NdisFilter", &m_driver);
        m_loaded = NT_SUCCESS(status);
        /* A failed entry leaves its driver object behind; it goes, so the next load can take the name. */
        if (!m_loaded && m_driver != nullptr) {
            HkDiscardDriver(m_driver);
            m_driver = nullptr;
        }
        return status;
    }

    void Unload()
    {
        if (m_loaded) {
            HkUnloadDriver(m_driver);
            m_loaded = false;
        }
    }

    void TearDown() override
    {
        Unload();
        HkRegistryReset();
    }

    PDRIVER_OBJECT m_driver = nullptr;
    bool m_loaded = false;
};

} // namespace nftest
