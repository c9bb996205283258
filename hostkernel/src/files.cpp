// Host kernel runtime, I/O area: file objects, the I/O manager's view of an
// open device.
//
// Opening sends IRP_MJ_CREATE in the opening thread; closing the last handle
// sends IRP_MJ_CLEANUP in the closing thread; dropping the last reference
// (requests in flight hold one each) sends IRP_MJ_CLOSE. A file object whose
// create failed is deleted without a close request, as on Windows.
#include "io_internal.h"

#include <new>

namespace hk {
namespace {

struct FileState {
    OwnedUnicodeString fileName;
    KPROCESSOR_MODE mode = KernelMode;
    bool opened = false;
    FileRequests requests;
};

struct FileImpl {
    FILE_OBJECT file;
    FileState *state;
};

FileState *StateOf(PFILE_OBJECT file)
{
    return reinterpret_cast<FileImpl *>(file)->state;
}

constexpr ULONG kFileOpen = 0x00000001; // create disposition FILE_OPEN

// Sends a create, cleanup or close request for `file` and waits for it.
NTSTATUS SendFileRequest(PFILE_OBJECT file, UCHAR major, KPROCESSOR_MODE mode,
                         IO_SECURITY_CONTEXT *security, ULONG shareAccess,
                         const FileOpenAttributes *extra = nullptr)
{
    PDEVICE_OBJECT device = file->DeviceObject;
    PIRP irp = IrpAllocateSynchronous(device->StackSize);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    irp->RequestorMode = mode;
    irp->Tail.Overlay.OriginalFileObject = file;
    irp->Flags = IRP_SYNCHRONOUS_API |
                 (major == IRP_MJ_CREATE ? IRP_CREATE_OPERATION : IRP_CLOSE_OPERATION);
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->FileObject = file;
    if (major == IRP_MJ_CREATE) {
        stack->Parameters.Create.SecurityContext = security;
        stack->Parameters.Create.Options = kFileOpen << 24;
        stack->Parameters.Create.ShareAccess = static_cast<USHORT>(shareAccess);
        if (extra != nullptr) {
            // The extended attributes travel in the system buffer, which stays the
            // caller's: it is detached again before the IRP is freed.
            stack->Parameters.Create.Options = (extra->disposition << 24) | extra->options;
            stack->Parameters.Create.FileAttributes = static_cast<USHORT>(extra->attributes);
            stack->Parameters.Create.EaLength = extra->eaLength;
            irp->AssociatedIrp.SystemBuffer = extra->eaLength > 0 ? extra->ea : nullptr;
        }
    }
    return IrpSendSynchronous(device, irp, nullptr);
}

// Last handle closed: IRP_MJ_CLEANUP in the closing thread. PASSIVE_LEVEL.
void OnLastHandleClosed(void *body)
{
    PFILE_OBJECT file = static_cast<PFILE_OBJECT>(body);
    FileState *state = StateOf(file);
    if (state->opened && DriverIsLoaded(file->DeviceObject->DriverObject))
        SendFileRequest(file, IRP_MJ_CLEANUP, state->mode, nullptr, 0);
    file->Flags |= FO_CLEANUP_COMPLETE;
}

// Last reference dropped: IRP_MJ_CLOSE, then the device reference goes. PASSIVE_LEVEL.
void DeleteFileObject(void *body)
{
    PFILE_OBJECT file = static_cast<PFILE_OBJECT>(body);
    FileState *state = StateOf(file);
    PDEVICE_OBJECT device = file->DeviceObject;
    PDRIVER_OBJECT driver = device->DriverObject;
    if (state->opened) {
        if (DriverIsLoaded(driver))
            SendFileRequest(file, IRP_MJ_CLOSE, KernelMode, nullptr, 0);
        DriverStateOf(driver)->openFiles.fetch_sub(1);
    }
    InterlockedDecrement(&device->ReferenceCount);
    delete state;
    ObDereferenceObject(device);
}

} // namespace

FileRequests *FileGetRequests(PFILE_OBJECT file)
{
    return &StateOf(file)->requests;
}

// Resolves `path`, creates the file object and sends IRP_MJ_CREATE. IRQL == PASSIVE_LEVEL.
NTSTATUS FileOpen(const Name &path, ACCESS_MASK access, ULONG shareAccess, bool synchronous,
                  KPROCESSOR_MODE mode, PFILE_OBJECT *file, const FileOpenAttributes *extra)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "open of a device");
    *file = nullptr;
    TransportStartFor(path);
    PDEVICE_OBJECT device = nullptr;
    Name remainder;
    NTSTATUS status = NameResolveDevice(path, &device, &remainder);
    if (!NT_SUCCESS(status))
        return status;
    if ((device->Flags & DO_DEVICE_INITIALIZING) || !DriverIsLoaded(device->DriverObject)) {
        ObDereferenceObject(device);
        return STATUS_NO_SUCH_DEVICE;
    }
    if ((device->Flags & DO_EXCLUSIVE) && device->ReferenceCount > 0) {
        ObDereferenceObject(device);
        return STATUS_ACCESS_DENIED;
    }
    InterlockedIncrement(&device->ReferenceCount);

    void *body = ObjectCreate(sizeof(FileImpl), kFileTypeName, DeleteFileObject);
    if (body == nullptr) {
        InterlockedDecrement(&device->ReferenceCount);
        ObDereferenceObject(device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FileImpl *impl = static_cast<FileImpl *>(body);
    impl->state = new FileState();
    FileState *state = impl->state;
    state->fileName.Assign(remainder);
    state->mode = mode;
    PFILE_OBJECT fo = &impl->file;
    fo->Type = IO_TYPE_FILE;
    fo->Size = sizeof(FILE_OBJECT);
    fo->DeviceObject = device; // the resolution's reference now belongs to the file
    fo->FileName = *state->fileName.Get();
    fo->Flags = synchronous ? FO_SYNCHRONOUS_IO : 0;
    fo->ReadAccess = (access & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA)) != 0;
    fo->WriteAccess = (access & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA)) != 0;
    fo->SharedRead = (shareAccess & FILE_SHARE_READ) != 0;
    fo->SharedWrite = (shareAccess & FILE_SHARE_WRITE) != 0;
    fo->SharedDelete = (shareAccess & FILE_SHARE_DELETE) != 0;
    ObjectSetLastHandleProcedure(fo, OnLastHandleClosed);

    IO_SECURITY_CONTEXT security{};
    security.DesiredAccess = access;
    status = SendFileRequest(fo, IRP_MJ_CREATE, mode, &security, shareAccess, extra);
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(fo);
        return status;
    }
    state->opened = true;
    DriverStateOf(device->DriverObject)->openFiles.fetch_add(1);
    fo->Flags |= FO_HANDLE_CREATED;
    *file = fo;
    return STATUS_SUCCESS;
}

} // namespace hk

using namespace hk;

extern "C" {

// Opens the named device as another driver does: IRP_MJ_CREATE with a new file
// object, whose (only) handle is closed again at once, so IRP_MJ_CLEANUP follows
// immediately and IRP_MJ_CLOSE when the caller dereferences *FileObject.
// *DeviceObject is the device the file object was opened on. IRQL == PASSIVE_LEVEL.
NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                  PFILE_OBJECT *FileObject, PDEVICE_OBJECT *DeviceObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoGetDeviceObjectPointer");
    if (ObjectName == nullptr || FileObject == nullptr || DeviceObject == nullptr)
        return STATUS_INVALID_PARAMETER;
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = FileOpen(ToName(ObjectName), DesiredAccess, 0, true, KernelMode, &file);
    if (!NT_SUCCESS(status))
        return status;
    HANDLE handle = ObjectInsertHandle(file);
    if (handle != nullptr)
        ZwClose(handle);
    *FileObject = file;
    *DeviceObject = file->DeviceObject;
    return STATUS_SUCCESS;
}

// Opens a file on a drive (drive_files.cpp) or, for any other name, a device
// as IoGetDeviceObjectPointer does, keeping the handle. IRQL == PASSIVE_LEVEL.
NTSTATUS ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                      ULONG EaLength)
{
    UNREFERENCED_PARAMETER(AllocationSize);
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwCreateFile");
    if (FileHandle == nullptr || ObjectAttributes == nullptr || ObjectAttributes->ObjectName == nullptr ||
        IoStatusBlock == nullptr || (EaLength > 0 && EaBuffer == nullptr))
        return STATUS_INVALID_PARAMETER;
    *FileHandle = nullptr;
    if (ObjectAttributes->RootDirectory != nullptr) {
        VerifierError("ZwCreateFile: opens relative to a directory handle are not supported by the host runtime");
        return STATUS_NOT_IMPLEMENTED;
    }
    Name path = ToName(ObjectAttributes->ObjectName);
    char16_t letter = 0;
    Name rest;
    if (DrivePathOf(path, &letter, &rest)) {
        if (EaBuffer != nullptr || EaLength != 0)
            return STATUS_EAS_NOT_SUPPORTED;
        return DriveCreateFile(letter, rest, FileHandle, DesiredAccess, ObjectAttributes->Attributes, IoStatusBlock,
                               ShareAccess, CreateDisposition, CreateOptions);
    }
    /* A device takes the disposition, options and extended attributes with its create request
       (a transport reads its address or connection context from them). */
    FileOpenAttributes extra;
    extra.disposition = CreateDisposition;
    extra.options = CreateOptions;
    extra.attributes = FileAttributes;
    extra.ea = EaBuffer;
    extra.eaLength = EaLength;
    bool synchronous = (CreateOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = FileOpen(path, DesiredAccess, ShareAccess, synchronous, KernelMode, &file, &extra);
    if (!NT_SUCCESS(status))
        return status;
    HANDLE handle = (ObjectAttributes->Attributes & OBJ_KERNEL_HANDLE) ? ObjectInsertHandle(file)
                                                                       : ObjectInsertUserHandle(file, DesiredAccess);
    ObfDereferenceObject(file); // the handle holds the file now
    if (handle == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    *FileHandle = handle;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = FILE_OPENED;
    return STATUS_SUCCESS;
}

// Writes to a file on a drive. IRQL == PASSIVE_LEVEL.
NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                     PULONG Key)
{
    UNREFERENCED_PARAMETER(ApcContext);
    UNREFERENCED_PARAMETER(Key);
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwWriteFile");
    if (IoStatusBlock == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (ApcRoutine != nullptr) {
        VerifierError("ZwWriteFile: APC completion is not supported by the host runtime");
        return STATUS_NOT_IMPLEMENTED;
    }
    PVOID body = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(FileHandle, 0, nullptr, KernelMode, &body, nullptr);
    if (!NT_SUCCESS(status))
        return status;
    if (ObjectIsOfType(body, kDiskFileTypeName)) {
        PVOID event = nullptr;
        if (Event != nullptr) {
            status = ObReferenceObjectByHandle(Event, 0, *ExEventObjectType, KernelMode, &event, nullptr);
            if (NT_SUCCESS(status))
                KeClearEvent(static_cast<PKEVENT>(event));
        }
        if (NT_SUCCESS(status))
            status = DriveWriteFile(body, IoStatusBlock, Buffer, Length, ByteOffset);
        if (event != nullptr) {
            KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
            ObfDereferenceObject(event);
        }
    } else if (ObjectIsOfType(body, kFileTypeName)) {
        VerifierError("ZwWriteFile: writes to a device are not supported by the host runtime");
        status = STATUS_NOT_IMPLEMENTED;
    } else {
        status = STATUS_OBJECT_TYPE_MISMATCH;
    }
    ObfDereferenceObject(body);
    return status;
}

} // extern "C"
