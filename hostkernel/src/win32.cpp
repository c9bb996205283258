// Host kernel runtime, I/O area: the Win32 side of handles, events, errors and
// time.
//
// User handles are a table of their own (objects.cpp). A device handle refers
// to a file object; an event handle to an event object whose body is a KEVENT,
// so a driver given the handle can reference it with ObReferenceObjectByHandle
// and signal it with KeSetEvent.
#include "bridge_internal.h"

#include <hostkernel.h>

#include <chrono>
#include <thread>

namespace hk {
namespace {

thread_local DWORD t_lastError = ERROR_SUCCESS;

// "\\.\X" and "\\?\X" name "\??\X" in the object namespace.
bool DevicePathFromWin32(const Name &win32Name, Name *path)
{
    static const Name prefixes[] = {u"\\\\.\\", u"\\\\?\\"};
    for (const Name &prefix : prefixes) {
        if (win32Name.size() > prefix.size() && win32Name.compare(0, prefix.size(), prefix) == 0) {
            *path = Name(u"\\??\\") + win32Name.substr(prefix.size());
            return true;
        }
    }
    return false;
}

HANDLE OpenDevice(const Name &win32Name, DWORD access, DWORD share, DWORD flags)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "CreateFile");
    Name path;
    if (!DevicePathFromWin32(win32Name, &path)) {
        VerifierError("CreateFile(\"%s\"): the host runtime opens only devices (\\\\.\\Name)",
                      Narrow(win32Name).c_str());
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = FileOpen(path, access, share, (flags & FILE_FLAG_OVERLAPPED) == 0,
                               UserMode, &file);
    // A process that loaded no driver is a user program: its devices are in the daemon.
    if (status == STATUS_OBJECT_NAME_NOT_FOUND && HkLoadedDriverCount() == 0)
        return BridgeOpen(win32Name, access, share, flags);
    if (!NT_SUCCESS(status)) {
        SetLastError(RtlNtStatusToDosError(status));
        return INVALID_HANDLE_VALUE;
    }
    HANDLE handle = ObjectInsertUserHandle(file, access);
    ObDereferenceObject(file); // the handle holds its own reference
    SetLastError(ERROR_SUCCESS);
    return handle;
}

HANDLE NewEvent(BOOL manualReset, BOOL initialState, bool named)
{
    if (named) {
        VerifierError("CreateEvent: named events are not supported by the host runtime");
        SetLastError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    void *body = ObjectCreate(sizeof(KEVENT), kEventTypeName, nullptr);
    if (body == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    KeInitializeEvent(static_cast<PKEVENT>(body),
                      manualReset ? NotificationEvent : SynchronizationEvent,
                      initialState ? TRUE : FALSE);
    HANDLE handle = ObjectInsertUserHandle(body, GENERIC_ALL);
    ObDereferenceObject(body);
    SetLastError(ERROR_SUCCESS);
    return handle;
}

// Runs `action` on the event behind `handle`. FALSE with ERROR_INVALID_HANDLE otherwise.
template <typename Action> BOOL WithEvent(HANDLE handle, Action action)
{
    void *body = nullptr;
    if (!NT_SUCCESS(ObjectReferenceUserHandle(handle, kEventTypeName, &body))) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    action(static_cast<PKEVENT>(body));
    ObDereferenceObject(body);
    return TRUE;
}

} // namespace
} // namespace hk

using namespace hk;

extern "C" {

HANDLE CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile)
{
    UNREFERENCED_PARAMETER(lpSecurityAttributes);
    UNREFERENCED_PARAMETER(dwCreationDisposition);
    UNREFERENCED_PARAMETER(hTemplateFile);
    return OpenDevice(ToName(lpFileName), dwDesiredAccess, dwShareMode, dwFlagsAndAttributes);
}

// Opens "\\.\Name": the link \DosDevices\Name leads to the device, which gets
// IRP_MJ_CREATE in the calling thread. INVALID_HANDLE_VALUE and the mapped
// error (ERROR_FILE_NOT_FOUND for an unknown name) on failure. PASSIVE_LEVEL.
HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile)
{
    UNREFERENCED_PARAMETER(lpSecurityAttributes);
    UNREFERENCED_PARAMETER(dwCreationDisposition);
    UNREFERENCED_PARAMETER(hTemplateFile);
    return OpenDevice(ToName(lpFileName), dwDesiredAccess, dwShareMode, dwFlagsAndAttributes);
}

// Closes a user handle. The last handle of a device sends IRP_MJ_CLEANUP, and
// IRP_MJ_CLOSE follows once no request holds the file object. PASSIVE_LEVEL.
BOOL CloseHandle(HANDLE hObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "CloseHandle");
    if (!NT_SUCCESS(ObjectCloseUserHandle(hObject))) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                    BOOL bInitialState, LPCSTR lpName)
{
    UNREFERENCED_PARAMETER(lpEventAttributes);
    return NewEvent(bManualReset, bInitialState, lpName != nullptr);
}

// An unnamed event (manual-reset: notification; auto-reset: synchronization).
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                    BOOL bInitialState, LPCWSTR lpName)
{
    UNREFERENCED_PARAMETER(lpEventAttributes);
    return NewEvent(bManualReset, bInitialState, lpName != nullptr);
}

BOOL SetEvent(HANDLE hEvent)
{
    return WithEvent(hEvent, [](PKEVENT event) { KeSetEvent(event, IO_NO_INCREMENT, FALSE); });
}

BOOL ResetEvent(HANDLE hEvent)
{
    return WithEvent(hEvent, [](PKEVENT event) { KeClearEvent(event); });
}

// Waits for an event: WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED for a handle
// that is not an event. PASSIVE_LEVEL.
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "WaitForSingleObject");
    void *body = nullptr;
    if (!NT_SUCCESS(ObjectReferenceUserHandle(hHandle, nullptr, &body))) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    if (!ObjectIsOfType(body, kEventTypeName)) {
        VerifierError("WaitForSingleObject: waiting on a %s handle is not supported by the host "
                      "runtime", ObjectTypeName(body));
        ObDereferenceObject(body);
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<LONGLONG>(dwMilliseconds) * 10000;
    NTSTATUS status = KeWaitForSingleObject(body, Executive, UserMode, FALSE,
                                            dwMilliseconds == INFINITE ? nullptr : &timeout);
    ObDereferenceObject(body);
    return status == STATUS_TIMEOUT ? WAIT_TIMEOUT : WAIT_OBJECT_0;
}

DWORD GetLastError(void)
{
    return t_lastError;
}

void SetLastError(DWORD dwErrCode)
{
    t_lastError = dwErrCode;
}

void Sleep(DWORD dwMilliseconds)
{
    if (dwMilliseconds == INFINITE) {
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(dwMilliseconds));
}

// Milliseconds since an arbitrary start (monotonic).
ULONGLONG GetTickCount64(void)
{
    using namespace std::chrono;
    return static_cast<ULONGLONG>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

DWORD GetTickCount(void)
{
    return static_cast<DWORD>(GetTickCount64());
}

} // extern "C"
