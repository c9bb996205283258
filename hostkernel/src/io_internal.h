/*
 * Host kernel runtime, I/O area: what the object manager, namespace, I/O
 * manager, IRP, MDL, Win32 and loader files offer each other. Not seen by
 * drivers, tests or the other runtime areas (they use internal.h).
 */
#pragma once
#include "internal.h"

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace hk {

// ======================================================================
// UTF-16 names (ustring.cpp). Object names are compared case-insensitively;
// Name holds them as UTF-16 code units without touching the C library.
// ======================================================================
using Name = std::u16string;

Name ToName(PCUNICODE_STRING s);
Name ToName(PCWSTR s);
Name ToName(const char *s);
// ASCII letters folded to upper case; the key under which names are compared.
Name UpcaseName(const Name &s);
// For messages: non-ASCII code units become '?'.
std::string Narrow(const Name &s);
std::string Narrow(PCUNICODE_STRING s);

// A UNICODE_STRING that owns its buffer (terminated, so Buffer is also a PCWSTR).
class OwnedUnicodeString {
public:
    OwnedUnicodeString() { Assign(Name()); }
    explicit OwnedUnicodeString(const Name &s) { Assign(s); }
    OwnedUnicodeString(const OwnedUnicodeString &) = delete;
    OwnedUnicodeString &operator=(const OwnedUnicodeString &) = delete;
    void Assign(const Name &s);
    UNICODE_STRING *Get() { return &string_; }

private:
    std::vector<WCHAR> buffer_;
    UNICODE_STRING string_{};
};

// ======================================================================
// Object manager extensions (objects.cpp)
// ======================================================================

// Called in the closing thread when the last handle to an object is closed
// (before that handle's reference is dropped).
void ObjectSetLastHandleProcedure(void *body, ObjectDeleteProcedure onLastHandle);
// A new user-mode (Win32) handle holding one reference of its own.
HANDLE ObjectInsertUserHandle(void *body, ACCESS_MASK grantedAccess);
// References the object behind a user handle; typeName (nullable) must match.
NTSTATUS ObjectReferenceUserHandle(HANDLE handle, const char *typeName, void **body);
// Closes a user handle: STATUS_INVALID_HANDLE when it is not one.
NTSTATUS ObjectCloseUserHandle(HANDLE handle);
// Whether `body` is a live object of type `typeName` (case-insensitive).
bool ObjectIsOfType(const void *body, const char *typeName);

// Object type names used by the I/O area.
extern const char kDriverTypeName[];
extern const char kDeviceTypeName[];
extern const char kFileTypeName[];
extern const char kEventTypeName[];

// ======================================================================
// Namespace of named objects (names.cpp). Names are full paths such as
// "\Device\X"; "\DosDevices\X" and "\??\X" are the same link.
// ======================================================================

// Inserts a named object (device or driver). STATUS_OBJECT_NAME_COLLISION when the
// name is taken, STATUS_OBJECT_NAME_INVALID when it is not a full path.
NTSTATUS NameInsertObject(const Name &name, void *body);
// Removes the name if it still refers to `body`.
void NameRemoveObject(const Name &name, const void *body);
NTSTATUS NameInsertLink(const Name &link, const Name &target);
NTSTATUS NameRemoveLink(const Name &link);
bool NameLinkExists(const Name &link);
// The object registered under exactly this name (no links followed), or nullptr.
void *NameLookupObject(const Name &name);
// Follows links: the device a path names, referenced, and the rest of the path
// after the device name ("" or "\more"). STATUS_OBJECT_NAME_NOT_FOUND when none.
NTSTATUS NameResolveDevice(const Name &path, PDEVICE_OBJECT *device, Name *remainder);
// Every link with its target (for reports).
std::vector<std::pair<Name, Name>> NameListLinks();

// ======================================================================
// I/O manager (iomgr.cpp, files.cpp)
// ======================================================================

// What the runtime keeps about a driver object besides DRIVER_OBJECT.
struct DriverState {
    enum class Phase { Initializing, Running, EntryFailed, Gone };
    std::string serviceName;
    Name objectName; // "\Driver\<service>"
    OwnedUnicodeString driverName;
    OwnedUnicodeString serviceKeyName;
    void *image = nullptr;  // dlopen handle when loaded from a shared object
    bool keepImage = false; // its threads may still run: never dlclose
    std::atomic<bool> loaded{true};
    std::atomic<long> pendingWorkItems{0};
    std::atomic<long> openFiles{0};
    Phase phase = Phase::Initializing;
    std::vector<Name> deviceNames; // every named device it created (IoLock)
};

// Guards driver device lists and DriverState::deviceNames.
std::mutex &IoLock();
// The state of a driver object created by DriverCreate, or nullptr.
DriverState *DriverStateOf(PDRIVER_OBJECT driver);
// Whether the driver's code may still be called (not unloaded).
bool DriverIsLoaded(PDRIVER_OBJECT driver);
// The driver object "\Driver\<serviceName>" with every dispatch routine set to
// the invalid-request one, or nullptr with *status set.
PDRIVER_OBJECT DriverCreate(const char *serviceName, NTSTATUS *status);
// Marks the driver unloaded (its code is no longer called), removes its name
// and drops the loader's reference.
void DriverRetire(PDRIVER_OBJECT driver);
// Clears DO_DEVICE_INITIALIZING on the driver's devices (after DriverEntry).
void DriverFinishDeviceInitialization(PDRIVER_OBJECT driver);
// The name a device was created with ("" when unnamed), for messages.
std::string DeviceDisplayName(PDEVICE_OBJECT device);

// Opens the device a path names: a new file object, IRP_MJ_CREATE sent to the
// driver in the calling thread. On success *file holds one reference; closing
// its last handle sends IRP_MJ_CLEANUP, its last reference IRP_MJ_CLOSE.
// What ZwCreateFile adds to an open: disposition, options, attributes and the
// extended-attribute buffer (the caller's, for the duration of the create).
struct FileOpenAttributes {
    ULONG disposition = 0;
    ULONG options = 0;
    ULONG attributes = 0;
    void *ea = nullptr;
    ULONG eaLength = 0;
};
NTSTATUS FileOpen(const Name &path, ACCESS_MASK access, ULONG shareAccess, bool synchronous,
                  KPROCESSOR_MODE mode, PFILE_OBJECT *file,
                  const FileOpenAttributes *extra = nullptr);

// The TCP/IP transport (transport.cpp) creates its devices the first time a
// path names one of them.
void TransportStartFor(const Name &path);

// Files on drives (drive_files.cpp). DrivePathOf: whether `path` names a file
// on a drive ("\??\C:\..."), with its letter and the rest from the backslash
// after the colon. The two others do ZwCreateFile's and ZwWriteFile's work for
// such files, after the caller checked the IRQL and the handle.
extern const char kDiskFileTypeName[];
bool DrivePathOf(const Name &path, char16_t *letter, Name *rest);
NTSTATUS DriveCreateFile(char16_t Letter, const Name &Rest, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                         ULONG Attributes, PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess,
                         ULONG CreateDisposition, ULONG CreateOptions);
NTSTATUS DriveWriteFile(void *body, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                        PLARGE_INTEGER ByteOffset);

// Win32 requests in flight on a file object, for CancelIoEx and for
// GetOverlappedResult without an event. (files.cpp owns it; win32_io.cpp uses it)
struct Win32Request;
struct FileRequests {
    std::mutex lock;
    std::condition_variable completed; // notified whenever one of them completes
    std::vector<Win32Request *> pending;
};
FileRequests *FileGetRequests(PFILE_OBJECT file);

// ======================================================================
// IRPs (irp.cpp)
// ======================================================================

// Called once an IRP has been completed through every stack location; owns the
// IRP from then on (frees it with IrpFree).
typedef void (*IrpFinishRoutine)(PIRP irp, void *owner);
// An IRP with `stackSize` locations whose final completion goes to finish(irp, owner).
PIRP IrpAllocate(CCHAR stackSize, IrpFinishRoutine finish, void *owner);
void IrpFree(PIRP irp);
// Whether any driver returned STATUS_PENDING for it at the top location (set at completion).
bool IrpTopPendingReturned(PIRP irp);

// An IRP for IrpSendSynchronous, which sends it, waits for its completion when
// the driver pends it and returns the final status (*information receives
// IoStatus.Information). The IRP is freed on completion. IRQL == PASSIVE_LEVEL.
PIRP IrpAllocateSynchronous(CCHAR stackSize);
NTSTATUS IrpSendSynchronous(PDEVICE_OBJECT device, PIRP irp, ULONG_PTR *information);

// Live IRPs allocated through IoAllocateIrp and not freed; all live IRPs.
long IrpLiveDriverAllocated();
long IrpLiveCount();

// "IRP_MJ_READ" etc. for messages.
const char *MajorFunctionName(UCHAR major);
// Verifier checks of STATUS_PENDING against IoMarkIrpPending.
void IrpCheckPendingProtocol(UCHAR major, NTSTATUS dispatchStatus, bool pendingReturned);
// Buffers of a device-control style request for its METHOD_* (see irp.cpp).
NTSTATUS IrpSetUpBuffers(PIRP irp, ULONG method, PVOID input, ULONG inputLength, PVOID output,
                         ULONG outputLength);
// Copies `count` bytes of the system buffer to `output` and frees the buffer.
void IrpReleaseSystemBuffer(PIRP irp, PVOID output, ULONG_PTR count);
// Unlocks and frees the IRP's MDL chain.
void IrpReleaseMdls(PIRP irp);

// ======================================================================
// MDLs (mdl.cpp)
// ======================================================================
long MdlLiveCount();

// Leak reports run when the last driver is gone (loader.cpp).
void ReportLeaks();

} // namespace hk
