/*
 * Host kernel runtime: the Win32 user-mode calls a host program uses to talk
 * to drivers (device handles, device I/O control, events, errors, time).
 * Names, types, values and signatures are the Windows ones. Valid C11 and C++17.
 */
#ifndef HK_WIN32_H
#define HK_WIN32_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

typedef void *LPVOID;
typedef const void *LPCVOID;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;     /* status of the request; STATUS_PENDING while in progress */
    ULONG_PTR InternalHigh; /* bytes transferred */
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

#define GENERIC_READ             0x80000000UL
#define GENERIC_WRITE            0x40000000UL
#define GENERIC_EXECUTE          0x20000000UL
#define GENERIC_ALL              0x10000000UL
#define FILE_SHARE_READ          0x00000001
#define FILE_SHARE_WRITE         0x00000002
#define FILE_SHARE_DELETE        0x00000004

#define CREATE_NEW        1
#define CREATE_ALWAYS     2
#define OPEN_EXISTING     3
#define OPEN_ALWAYS       4
#define TRUNCATE_EXISTING 5

#define FILE_ATTRIBUTE_NORMAL     0x00000080
#define FILE_FLAG_OVERLAPPED      0x40000000
#define FILE_FLAG_NO_BUFFERING    0x20000000
#define FILE_FLAG_WRITE_THROUGH   0x80000000

#define INFINITE       0xFFFFFFFF
#define WAIT_OBJECT_0  0x00000000L
#define WAIT_ABANDONED 0x00000080L
#define WAIT_TIMEOUT   258L
#define WAIT_FAILED    ((DWORD)0xFFFFFFFF)

#define ERROR_SUCCESS               0L
#define NO_ERROR                    0L
#define ERROR_INVALID_FUNCTION      1L
#define ERROR_FILE_NOT_FOUND        2L
#define ERROR_PATH_NOT_FOUND        3L
#define ERROR_ACCESS_DENIED         5L
#define ERROR_INVALID_HANDLE        6L
#define ERROR_NOT_ENOUGH_MEMORY     8L
#define ERROR_INVALID_DATA          13L
#define ERROR_OUTOFMEMORY           14L
#define ERROR_NOT_READY             21L
#define ERROR_BAD_COMMAND           22L
#define ERROR_BAD_LENGTH            24L
#define ERROR_GEN_FAILURE           31L
#define ERROR_SHARING_VIOLATION     32L
#define ERROR_HANDLE_EOF            38L
#define ERROR_NOT_SUPPORTED         50L
#define ERROR_DEV_NOT_EXIST         55L
#define ERROR_INVALID_PARAMETER     87L
#define ERROR_CALL_NOT_IMPLEMENTED  120L
#define ERROR_SEM_TIMEOUT           121L
#define ERROR_INSUFFICIENT_BUFFER   122L
#define ERROR_INVALID_NAME          123L
#define ERROR_BUSY                  170L
#define ERROR_ALREADY_EXISTS        183L
#define ERROR_MORE_DATA             234L
#define ERROR_BAD_PATHNAME          161L
#define ERROR_NO_MORE_ITEMS         259L
#define ERROR_MR_MID_NOT_FOUND      317L
#define ERROR_OPERATION_ABORTED     995L
#define ERROR_IO_INCOMPLETE         996L
#define ERROR_IO_PENDING            997L
#define ERROR_NOACCESS              998L
#define ERROR_DEVICE_NOT_CONNECTED  1167L
#define ERROR_NOT_FOUND             1168L
#define ERROR_INTERNAL_ERROR        1359L
#define ERROR_NO_SYSTEM_RESOURCES   1450L
#define ERROR_TIMEOUT               1460L
#define ERROR_INVALID_USER_BUFFER   1784L

#define HasOverlappedIoCompleted(lpOverlapped) \
    (((NTSTATUS)(lpOverlapped)->Internal) != STATUS_PENDING)

/* Opens "\\.\Name": the symbolic link \DosDevices\Name leads to the device. */
HANDLE CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
HANDLE CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
BOOL CloseHandle(HANDLE hObject);

BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer,
                     DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                     LPDWORD lpBytesReturned, LPOVERLAPPED lpOverlapped);
BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
              LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped);
BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
               LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped);
BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                         LPDWORD lpNumberOfBytesTransferred, BOOL bWait);
BOOL CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped);
BOOL CancelIo(HANDLE hFile);

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                    BOOL bInitialState, LPCSTR lpName);
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                    BOOL bInitialState, LPCWSTR lpName);
BOOL SetEvent(HANDLE hEvent);
BOOL ResetEvent(HANDLE hEvent);
DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

DWORD GetLastError(void);
void SetLastError(DWORD dwErrCode);
void Sleep(DWORD dwMilliseconds);
DWORD GetTickCount(void);
ULONGLONG GetTickCount64(void);

#ifdef UNICODE
#define CreateFile CreateFileW
#define CreateEvent CreateEventW
#else
#define CreateFile CreateFileA
#define CreateEvent CreateEventA
#endif

HK_EXTERN_C_END

#endif /* HK_WIN32_H */
