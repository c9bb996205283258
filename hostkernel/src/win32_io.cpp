// Host kernel runtime, I/O area: Win32 device I/O (DeviceIoControl, ReadFile,
// WriteFile, overlapped results, cancellation).
//
// A request is dispatched in the calling thread at PASSIVE_LEVEL, as on
// Windows. Without an OVERLAPPED (or on a handle opened without
// FILE_FLAG_OVERLAPPED) a pending request is waited for; otherwise the call
// returns ERROR_IO_PENDING and the OVERLAPPED is filled in, and its event
// signalled, when the driver completes the IRP. Each request in flight is
// listed on its file object for CancelIoEx, and holds a reference on the file
// object, so IRP_MJ_CLOSE waits for it.
#include "bridge_internal.h"

#include <thread>

namespace hk {

struct Win32Request {
    std::atomic<int> references{2}; // the issuing call and the IRP's completion
    std::atomic<int> phases{0};     // dispatch returned / IRP completed
    PFILE_OBJECT file = nullptr;
    PIRP irp = nullptr;
    UCHAR major = 0;
    PVOID output = nullptr;       // where BUFFERED output goes
    ULONG outputLength = 0;
    LPOVERLAPPED overlapped = nullptr;
    PKEVENT overlappedEvent = nullptr; // referenced event object
    std::thread::id issuer;
    NTSTATUS dispatchStatus = STATUS_PENDING;

    std::mutex lock;
    std::condition_variable done;
    bool completed = false;
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
    bool pendingReturned = false;
};

namespace {

void Release(Win32Request *request)
{
    if (request->references.fetch_sub(1) == 1) {
        IrpFree(request->irp);
        delete request;
    }
}

// Runs once both the dispatch routine has returned and the IRP has completed.
void PhaseDone(Win32Request *request)
{
    if (request->phases.fetch_add(1) == 1)
        IrpCheckPendingProtocol(request->major, request->dispatchStatus, request->pendingReturned);
}

// The IRP has been completed through every stack location: copy the output
// back, report into the OVERLAPPED, wake the waiters. Any IRQL <= DISPATCH_LEVEL.
void FinishRequest(PIRP irp, void *owner)
{
    Win32Request *request = static_cast<Win32Request *>(owner);
    NTSTATUS status = irp->IoStatus.Status;
    ULONG_PTR information = irp->IoStatus.Information;
    ULONG_PTR count = 0;
    if (request->output != nullptr && !NT_ERROR(status))
        count = information < request->outputLength ? information : request->outputLength;
    IrpReleaseSystemBuffer(irp, request->output, count);
    IrpReleaseMdls(irp);

    if (request->overlapped != nullptr) {
        request->overlapped->InternalHigh = information;
        __atomic_store_n(&request->overlapped->Internal,
                         static_cast<ULONG_PTR>(static_cast<ULONG>(status)), __ATOMIC_RELEASE);
    }
    if (request->overlappedEvent != nullptr) {
        KeSetEvent(request->overlappedEvent, IO_NO_INCREMENT, FALSE);
        ObDereferenceObject(request->overlappedEvent);
        request->overlappedEvent = nullptr;
    }
    PFILE_OBJECT file = request->file;
    {
        FileRequests *list = FileGetRequests(file);
        std::lock_guard<std::mutex> guard(list->lock);
        for (auto it = list->pending.begin(); it != list->pending.end(); ++it) {
            if (*it == request) {
                list->pending.erase(it);
                break;
            }
        }
        list->completed.notify_all();
    }
    {
        std::lock_guard<std::mutex> guard(request->lock);
        request->status = status;
        request->information = information;
        request->pendingReturned = IrpTopPendingReturned(irp);
        request->completed = true;
        request->done.notify_all();
    }
    PhaseDone(request);
    ObDereferenceObject(file);
    Release(request);
}

// The file object behind a Win32 handle, referenced; nullptr (ERROR_INVALID_HANDLE) otherwise.
PFILE_OBJECT ReferenceFile(HANDLE handle)
{
    void *body = nullptr;
    if (!NT_SUCCESS(ObjectReferenceUserHandle(handle, kFileTypeName, &body))) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return static_cast<PFILE_OBJECT>(body);
}

// A request with its IRP for `file`; the caller's file reference passes to it.
Win32Request *NewRequest(PFILE_OBJECT file, UCHAR major)
{
    Win32Request *request = new Win32Request();
    request->file = file;
    request->major = major;
    request->issuer = std::this_thread::get_id();
    request->irp = IrpAllocate(file->DeviceObject->StackSize, FinishRequest, request);
    if (request->irp == nullptr) {
        delete request;
        return nullptr;
    }
    PIRP irp = request->irp;
    irp->RequestorMode = UserMode;
    irp->Tail.Overlay.OriginalFileObject = file;
    if (file->Flags & FO_SYNCHRONOUS_IO)
        irp->Flags |= IRP_SYNCHRONOUS_API;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->FileObject = file;
    return request;
}

// Undoes NewRequest for a request that was never sent.
void DiscardRequest(Win32Request *request)
{
    IrpReleaseSystemBuffer(request->irp, nullptr, 0);
    IrpReleaseMdls(request->irp);
    IrpFree(request->irp);
    ObDereferenceObject(request->file);
    delete request;
}

// Sends the request and reports its outcome the Win32 way. PASSIVE_LEVEL.
BOOL Issue(Win32Request *request, LPDWORD bytes, LPOVERLAPPED overlapped)
{
    PFILE_OBJECT file = request->file;
    bool asynchronous = overlapped != nullptr && (file->Flags & FO_SYNCHRONOUS_IO) == 0;
    if (overlapped != nullptr) {
        if (overlapped->hEvent != nullptr) {
            void *event = nullptr;
            if (!NT_SUCCESS(ObjectReferenceUserHandle(overlapped->hEvent, kEventTypeName, &event))) {
                DiscardRequest(request);
                SetLastError(ERROR_INVALID_HANDLE);
                return FALSE;
            }
            request->overlappedEvent = static_cast<PKEVENT>(event);
            KeClearEvent(request->overlappedEvent);
        }
        request->overlapped = overlapped;
        overlapped->InternalHigh = 0;
        __atomic_store_n(&overlapped->Internal,
                         static_cast<ULONG_PTR>(static_cast<ULONG>(STATUS_PENDING)), __ATOMIC_RELEASE);
    }
    {
        FileRequests *list = FileGetRequests(file);
        std::lock_guard<std::mutex> guard(list->lock);
        list->pending.push_back(request);
    }

    NTSTATUS returned = IofCallDriver(file->DeviceObject, request->irp);

    std::unique_lock<std::mutex> lock(request->lock);
    if (returned != STATUS_PENDING && !request->completed) {
        VerifierError("%s: the dispatch routine returned 0x%08x without completing the IRP (or "
                      "returning STATUS_PENDING)", MajorFunctionName(request->major),
                      static_cast<unsigned>(returned));
        returned = STATUS_PENDING;
    }
    request->dispatchStatus = returned;
    lock.unlock();
    PhaseDone(request);

    if (asynchronous && returned == STATUS_PENDING) {
        Release(request);
        SetLastError(ERROR_IO_PENDING);
        return FALSE;
    }
    lock.lock();
    request->done.wait(lock, [request] { return request->completed; });
    NTSTATUS status = returned == STATUS_PENDING ? request->status : returned;
    ULONG_PTR information = request->information;
    lock.unlock();
    Release(request);

    if (bytes != nullptr)
        *bytes = static_cast<DWORD>(information);
    if (!NT_SUCCESS(status)) {
        SetLastError(RtlNtStatusToDosError(status));
        return FALSE;
    }
    return TRUE;
}

// Read and write requests follow the device's buffering flags.
BOOL ReadOrWrite(HANDLE handle, UCHAR major, PVOID buffer, DWORD length, LPDWORD bytes,
                 LPOVERLAPPED overlapped)
{
    PFILE_OBJECT file = ReferenceFile(handle);
    if (file == nullptr)
        return FALSE;
    Win32Request *request = NewRequest(file, major);
    if (request == nullptr) {
        ObDereferenceObject(file);
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return FALSE;
    }
    PIRP irp = request->irp;
    ULONG deviceFlags = file->DeviceObject->Flags;
    bool read = major == IRP_MJ_READ;
    NTSTATUS status = STATUS_SUCCESS;
    if (deviceFlags & DO_BUFFERED_IO) {
        status = read ? IrpSetUpBuffers(irp, METHOD_BUFFERED, nullptr, 0, buffer, length)
                      : IrpSetUpBuffers(irp, METHOD_BUFFERED, buffer, length, nullptr, 0);
        if (read) {
            request->output = buffer;
            request->outputLength = length;
        }
    } else if (deviceFlags & DO_DIRECT_IO) {
        status = IrpSetUpBuffers(irp, read ? METHOD_OUT_DIRECT : METHOD_IN_DIRECT, nullptr, 0,
                                 buffer, length);
    }
    if (!NT_SUCCESS(status)) {
        DiscardRequest(request);
        SetLastError(RtlNtStatusToDosError(status));
        return FALSE;
    }
    irp->UserBuffer = buffer;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.Read.Length = length;
    stack->Parameters.Read.Key = 0;
    if (overlapped != nullptr)
        stack->Parameters.Read.ByteOffset.QuadPart =
            (static_cast<LONGLONG>(overlapped->OffsetHigh) << 32) | overlapped->Offset;
    else
        stack->Parameters.Read.ByteOffset = file->CurrentByteOffset;
    DWORD transferred = 0;
    BOOL result = Issue(request, &transferred, overlapped);
    if (result && (file->Flags & FO_SYNCHRONOUS_IO))
        file->CurrentByteOffset.QuadPart += transferred;
    if (bytes != nullptr)
        *bytes = transferred;
    return result;
}

bool MatchOverlapped(Win32Request *request, void *overlapped)
{
    return overlapped == nullptr || request->overlapped == overlapped;
}

bool MatchThread(Win32Request *request, void *)
{
    return request->issuer == std::this_thread::get_id();
}

// Cancels (IoCancelIrp) the requests in flight on `file` that match. Returns how many.
size_t CancelRequests(PFILE_OBJECT file, bool (*match)(Win32Request *, void *), void *context)
{
    std::vector<Win32Request *> chosen;
    {
        FileRequests *list = FileGetRequests(file);
        std::lock_guard<std::mutex> guard(list->lock);
        for (Win32Request *request : list->pending) {
            if (match(request, context)) {
                request->references.fetch_add(1);
                chosen.push_back(request);
            }
        }
    }
    for (Win32Request *request : chosen) {
        IoCancelIrp(request->irp);
        Release(request);
    }
    return chosen.size();
}

} // namespace
} // namespace hk

using namespace hk;

extern "C" {

// Sends IRP_MJ_DEVICE_CONTROL to the handle's device in the calling thread.
// METHOD_BUFFERED: one system buffer of max(nInBufferSize, nOutBufferSize)
// holding the input; IoStatus.Information bytes of it are copied to
// lpOutBuffer when the request completes. IN/OUT_DIRECT: input in the system
// buffer, output through MdlAddress. NEITHER: the caller's buffers. PASSIVE_LEVEL.
BOOL DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer,
                     DWORD nInBufferSize, LPVOID lpOutBuffer, DWORD nOutBufferSize,
                     LPDWORD lpBytesReturned, LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "DeviceIoControl");
    PFILE_OBJECT file = ReferenceFile(hDevice);
    if (file == nullptr) {
        if (BridgeIsRemote(hDevice))
            return BridgeRequest(hDevice, IRP_MJ_DEVICE_CONTROL, dwIoControlCode, lpInBuffer, nInBufferSize,
                                 lpOutBuffer, nOutBufferSize, lpBytesReturned, lpOverlapped);
        return FALSE;
    }
    Win32Request *request = NewRequest(file, IRP_MJ_DEVICE_CONTROL);
    if (request == nullptr) {
        ObDereferenceObject(file);
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return FALSE;
    }
    PIRP irp = request->irp;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.DeviceIoControl.IoControlCode = dwIoControlCode;
    stack->Parameters.DeviceIoControl.InputBufferLength = nInBufferSize;
    stack->Parameters.DeviceIoControl.OutputBufferLength = nOutBufferSize;
    irp->UserBuffer = lpOutBuffer;
    ULONG method = dwIoControlCode & 3;
    NTSTATUS status = IrpSetUpBuffers(irp, method, lpInBuffer, nInBufferSize, lpOutBuffer,
                                      nOutBufferSize);
    if (!NT_SUCCESS(status)) {
        DiscardRequest(request);
        SetLastError(RtlNtStatusToDosError(status));
        return FALSE;
    }
    if (method == METHOD_BUFFERED) {
        request->output = lpOutBuffer;
        request->outputLength = nOutBufferSize;
    }
    return Issue(request, lpBytesReturned, lpOverlapped);
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
              LPDWORD lpNumberOfBytesRead, LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ReadFile");
    if (BridgeIsRemote(hFile))
        return BridgeRequest(hFile, IRP_MJ_READ, 0, nullptr, 0, lpBuffer, nNumberOfBytesToRead,
                             lpNumberOfBytesRead, lpOverlapped);
    return ReadOrWrite(hFile, IRP_MJ_READ, lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead,
                       lpOverlapped);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
               LPDWORD lpNumberOfBytesWritten, LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "WriteFile");
    if (BridgeIsRemote(hFile))
        return BridgeRequest(hFile, IRP_MJ_WRITE, 0, lpBuffer, nNumberOfBytesToWrite, nullptr, 0,
                             lpNumberOfBytesWritten, lpOverlapped);
    return ReadOrWrite(hFile, IRP_MJ_WRITE, const_cast<LPVOID>(lpBuffer), nNumberOfBytesToWrite,
                       lpNumberOfBytesWritten, lpOverlapped);
}

// The outcome of an overlapped request: FALSE with ERROR_IO_INCOMPLETE while it
// is in flight and bWait is FALSE; otherwise waits (on hEvent when there is
// one) and reports its bytes and status. PASSIVE_LEVEL.
BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                         LPDWORD lpNumberOfBytesTransferred, BOOL bWait)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "GetOverlappedResult");
    PFILE_OBJECT file = ReferenceFile(hFile);
    if (file == nullptr) {
        if (BridgeIsRemote(hFile))
            return BridgeGetOverlappedResult(hFile, lpOverlapped, lpNumberOfBytesTransferred, bWait);
        return FALSE;
    }
    auto inFlight = [lpOverlapped] {
        return static_cast<NTSTATUS>(__atomic_load_n(&lpOverlapped->Internal, __ATOMIC_ACQUIRE)) ==
               STATUS_PENDING;
    };
    if (inFlight()) {
        if (!bWait) {
            ObDereferenceObject(file);
            SetLastError(ERROR_IO_INCOMPLETE);
            return FALSE;
        }
        if (lpOverlapped->hEvent != nullptr)
            WaitForSingleObject(lpOverlapped->hEvent, INFINITE);
        FileRequests *list = FileGetRequests(file);
        std::unique_lock<std::mutex> lock(list->lock);
        list->completed.wait(lock, [&] { return !inFlight(); });
    }
    ObDereferenceObject(file);
    NTSTATUS status = static_cast<NTSTATUS>(lpOverlapped->Internal);
    if (lpNumberOfBytesTransferred != nullptr)
        *lpNumberOfBytesTransferred = static_cast<DWORD>(lpOverlapped->InternalHigh);
    if (!NT_SUCCESS(status)) {
        SetLastError(RtlNtStatusToDosError(status));
        return FALSE;
    }
    return TRUE;
}

// Cancels the handle's requests in flight (those of lpOverlapped, or all with
// NULL) through IoCancelIrp; FALSE with ERROR_NOT_FOUND when there are none.
// Does not wait for them to complete. PASSIVE_LEVEL.
BOOL CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "CancelIoEx");
    if (BridgeIsRemote(hFile)) {
        if (BridgeCancel(hFile, lpOverlapped, false) != 0)
            return TRUE;
        SetLastError(ERROR_NOT_FOUND);
        return FALSE;
    }
    PFILE_OBJECT file = ReferenceFile(hFile);
    if (file == nullptr)
        return FALSE;
    size_t cancelled = CancelRequests(file, MatchOverlapped, lpOverlapped);
    ObDereferenceObject(file);
    if (cancelled == 0) {
        SetLastError(ERROR_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

// Cancels the requests the calling thread issued on the handle. PASSIVE_LEVEL.
BOOL CancelIo(HANDLE hFile)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "CancelIo");
    if (BridgeIsRemote(hFile)) {
        BridgeCancel(hFile, nullptr, true);
        return TRUE;
    }
    PFILE_OBJECT file = ReferenceFile(hFile);
    if (file == nullptr)
        return FALSE;
    CancelRequests(file, MatchThread, nullptr);
    ObDereferenceObject(file);
    return TRUE;
}

} // extern "C"
