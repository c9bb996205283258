// The object manager: handles, references and the Win32 events drivers share.
#include "test_io_driver.h"

namespace iotest {
namespace {

using hktest::ExpectVerifierFinding;

TEST(ObjectHandles, ADriverReferencesAUserEventByHandleAndSignalsIt)
{
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(nullptr, event);
    PVOID object = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(event, SYNCHRONIZE, *ExEventObjectType,
                                                        UserMode, &object, nullptr));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(event, 0));
    KeSetEvent(static_cast<PKEVENT>(object), IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(event, 0));

    // The object outlives the handle while the driver holds its reference.
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_NE(0, KeReadStateEvent(static_cast<PKEVENT>(object)));
    ObDereferenceObject(object);

    PVOID again = nullptr;
    EXPECT_EQ(STATUS_INVALID_HANDLE, ObReferenceObjectByHandle(event, SYNCHRONIZE, nullptr,
                                                               UserMode, &again, nullptr));
    EXPECT_EQ(nullptr, again);
}

TEST(ObjectHandles, TheObjectTypeIsChecked)
{
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    PVOID object = reinterpret_cast<PVOID>(1);
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, ObReferenceObjectByHandle(event, 0, *IoFileObjectType,
                                                                     KernelMode, &object, nullptr));
    EXPECT_EQ(nullptr, object);
    EXPECT_FALSE(SetEvent(reinterpret_cast<HANDLE>(0x7777)));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
    CloseHandle(event);
}

TEST(Win32Events, AutoResetEventsReleaseOneWaitAndManualResetEventsStaySignalled)
{
    HANDLE automatic = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    HANDLE manual = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(automatic, 0));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(automatic, 0));
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(manual, 0));
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(manual, 0));
    EXPECT_TRUE(ResetEvent(manual));
    ULONGLONG before = GetTickCount64();
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(manual, 30));
    EXPECT_GE(GetTickCount64() - before, 25u);
    CloseHandle(automatic);
    CloseHandle(manual);
}

VOID ExitAtOnce(PVOID)
{
    PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST(KernelHandles, AKernelHandleClosesOnceAndIsNotUsableFromUserMode)
{
    HANDLE thread = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr,
                                                   nullptr, ExitAtOnce, nullptr));
    PVOID object = nullptr;
    EXPECT_EQ(STATUS_INVALID_HANDLE, ObReferenceObjectByHandle(thread, SYNCHRONIZE, nullptr,
                                                               UserMode, &object, nullptr));
    ASSERT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(thread, SYNCHRONIZE, *PsThreadType,
                                                        KernelMode, &object, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(thread));
    {
        ExpectVerifierFinding finding("not an open kernel handle");
        EXPECT_EQ(STATUS_INVALID_HANDLE, ZwClose(thread));
    }
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr));
    ObDereferenceObject(object);
}

using ObjectReferences = EchoDriverTest;

TEST_F(ObjectReferences, AFileObjectClosesAtItsLastReferenceAndAnExtraDereferenceIsReported)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\HkIoEcho");
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &device));
    ObReferenceObject(file);
    ObDereferenceObject(file);
    EXPECT_EQ(2u, echo_.Majors().size()) << "closed while still referenced";
    ObDereferenceObject(file);
    EXPECT_EQ(IRP_MJ_CLOSE, echo_.Majors().back());
    {
        ExpectVerifierFinding finding("not a live object");
        ObDereferenceObject(file);
    }
}

} // namespace
} // namespace iotest
