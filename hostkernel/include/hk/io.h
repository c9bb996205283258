/*
 * Host kernel runtime: object manager, I/O manager and memory descriptor lists.
 *
 * Declares the kernel objects a driver sees (driver, device and file objects,
 * IRPs, MDLs, work items), the object manager calls that reference them and
 * the I/O manager calls that create, send and complete requests. Names,
 * types, values and signatures are the Windows x64 ones. Valid C11 and C++17.
 */
#ifndef HK_IO_H
#define HK_IO_H

#include "hk/base.h"
#include "hk/pool.h"
#include "hk/sync.h"
#include "hk/thread.h"

HK_EXTERN_C_BEGIN

struct _EPROCESS;
struct _VPB;

/* ---- status codes used by the I/O paths ---- */
#ifndef STATUS_REPARSE
#define STATUS_REPARSE                 ((NTSTATUS)0x00000104)
#endif
#ifndef STATUS_NO_MORE_ENTRIES
#define STATUS_NO_MORE_ENTRIES         ((NTSTATUS)0x8000001A)
#endif
#ifndef STATUS_INFO_LENGTH_MISMATCH
#define STATUS_INFO_LENGTH_MISMATCH    ((NTSTATUS)0xC0000004)
#endif
#ifndef STATUS_NO_SUCH_DEVICE
#define STATUS_NO_SUCH_DEVICE          ((NTSTATUS)0xC000000E)
#endif
#ifndef STATUS_NO_SUCH_FILE
#define STATUS_NO_SUCH_FILE            ((NTSTATUS)0xC000000F)
#endif
#ifndef STATUS_MORE_PROCESSING_REQUIRED
#define STATUS_MORE_PROCESSING_REQUIRED ((NTSTATUS)0xC0000016)
#endif
#ifndef STATUS_OBJECT_PATH_SYNTAX_BAD
#define STATUS_OBJECT_PATH_SYNTAX_BAD  ((NTSTATUS)0xC000003B)
#endif
#ifndef STATUS_SHARING_VIOLATION
#define STATUS_SHARING_VIOLATION       ((NTSTATUS)0xC0000043)
#endif
#ifndef STATUS_DELETE_PENDING
#define STATUS_DELETE_PENDING          ((NTSTATUS)0xC0000056)
#endif
#ifndef STATUS_DEVICE_NOT_CONNECTED
#define STATUS_DEVICE_NOT_CONNECTED    ((NTSTATUS)0xC000009D)
#endif
#ifndef STATUS_IO_TIMEOUT
#define STATUS_IO_TIMEOUT              ((NTSTATUS)0xC00000B5)
#endif
#ifndef STATUS_DEVICE_DOES_NOT_EXIST
#define STATUS_DEVICE_DOES_NOT_EXIST   ((NTSTATUS)0xC00000C0)
#endif
#ifndef STATUS_INVALID_USER_BUFFER
#define STATUS_INVALID_USER_BUFFER     ((NTSTATUS)0xC00000E8)
#endif
#ifndef STATUS_FILE_CLOSED
#define STATUS_FILE_CLOSED             ((NTSTATUS)0xC0000128)
#endif
#ifndef STATUS_INVALID_DEVICE_STATE
#define STATUS_INVALID_DEVICE_STATE    ((NTSTATUS)0xC0000184)
#endif
#ifndef STATUS_INVALID_BUFFER_SIZE
#define STATUS_INVALID_BUFFER_SIZE     ((NTSTATUS)0xC0000206)
#endif
#ifndef STATUS_NOT_FOUND
#define STATUS_NOT_FOUND               ((NTSTATUS)0xC0000225)
#endif
#ifndef STATUS_DEVICE_BUSY
#define STATUS_DEVICE_BUSY             ((NTSTATUS)0x80000011)
#endif

#define NT_INFORMATION(s) ((((ULONG)(s)) >> 30) == 1)
#define NT_WARNING(s)     ((((ULONG)(s)) >> 30) == 2)
#define NT_ERROR(s)       ((((ULONG)(s)) >> 30) == 3)

/* ---- access rights ---- */
#define DELETE                   0x00010000UL
#define READ_CONTROL             0x00020000UL
#define WRITE_DAC                0x00040000UL
#define WRITE_OWNER              0x00080000UL
#ifndef SYNCHRONIZE
#define SYNCHRONIZE              0x00100000UL
#endif
#ifndef STANDARD_RIGHTS_REQUIRED
#define STANDARD_RIGHTS_REQUIRED 0x000F0000UL
#endif
#define STANDARD_RIGHTS_READ     READ_CONTROL
#define STANDARD_RIGHTS_WRITE    READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE  READ_CONTROL
#define STANDARD_RIGHTS_ALL      0x001F0000UL
#define MAXIMUM_ALLOWED          0x02000000UL
#define GENERIC_READ             0x80000000UL
#define GENERIC_WRITE            0x40000000UL
#define GENERIC_EXECUTE          0x20000000UL
#define GENERIC_ALL              0x10000000UL
#define FILE_READ_DATA           0x0001
#define FILE_WRITE_DATA          0x0002
#define FILE_APPEND_DATA         0x0004
#define FILE_READ_EA             0x0008
#define FILE_WRITE_EA            0x0010
#define FILE_EXECUTE             0x0020
#define FILE_READ_ATTRIBUTES     0x0080
#define FILE_WRITE_ATTRIBUTES    0x0100
#define FILE_ALL_ACCESS          (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)
#define FILE_SHARE_READ          0x00000001
#define FILE_SHARE_WRITE         0x00000002
#define FILE_SHARE_DELETE        0x00000004

/* ---- objects, handles and names ---- */
typedef struct _OBJECT_TYPE *POBJECT_TYPE;

/* Object types for ObReferenceObjectByHandle/ObReferenceObjectByPointer. */
extern POBJECT_TYPE *IoFileObjectType;
extern POBJECT_TYPE *IoDeviceObjectType;
extern POBJECT_TYPE *IoDriverObjectType;
extern POBJECT_TYPE *ExEventObjectType;
extern POBJECT_TYPE *PsThreadType;

#define OBJ_INHERIT             0x00000002L
#define OBJ_PERMANENT           0x00000010L
#define OBJ_EXCLUSIVE           0x00000020L
#define OBJ_CASE_INSENSITIVE    0x00000040L
#define OBJ_OPENIF              0x00000080L
#define OBJ_OPENLINK            0x00000100L
#define OBJ_KERNEL_HANDLE       0x00000200L
#define OBJ_FORCE_ACCESS_CHECK  0x00000400L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
typedef const OBJECT_ATTRIBUTES *PCOBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

/* Adds a reference to a kernel object. Returns the new count. IRQL <= DISPATCH_LEVEL. */
LONG_PTR ObfReferenceObject(PVOID Object);
/* Drops a reference; the object is deleted when the count reaches zero. IRQL <= DISPATCH_LEVEL. */
LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(o) ObfReferenceObject(o)
#define ObDereferenceObject(o) ObfDereferenceObject(o)

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                   POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                   PVOID *Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation);
NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess,
                                    POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode);
NTSTATUS ZwClose(HANDLE Handle);
NTSTATUS NtClose(HANDLE Handle);

/* Maps a status to the Win32 error code GetLastError reports for it. */
ULONG RtlNtStatusToDosError(NTSTATUS Status);

/* ---- I/O manager types ---- */
typedef ULONG DEVICE_TYPE;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef struct _DRIVER_OBJECT DRIVER_OBJECT, *PDRIVER_OBJECT;
typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
typedef struct _FILE_OBJECT FILE_OBJECT, *PFILE_OBJECT;
typedef struct _IRP IRP, *PIRP;
typedef struct _IO_STACK_LOCATION IO_STACK_LOCATION, *PIO_STACK_LOCATION;
typedef struct _MDL MDL, *PMDL;
typedef struct _IO_WORKITEM *PIO_WORKITEM;

typedef NTSTATUS DRIVER_INITIALIZE(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE *PDRIVER_INITIALIZE;
typedef VOID DRIVER_UNLOAD(PDRIVER_OBJECT DriverObject);
typedef DRIVER_UNLOAD *PDRIVER_UNLOAD;
typedef NTSTATUS DRIVER_DISPATCH(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_DISPATCH *PDRIVER_DISPATCH;
typedef DRIVER_DISPATCH DRIVER_DISPATCH_PAGED;
typedef DRIVER_DISPATCH DRIVER_DISPATCH_RAISED;
typedef VOID DRIVER_CANCEL(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_CANCEL *PDRIVER_CANCEL;
typedef VOID DRIVER_STARTIO(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_STARTIO *PDRIVER_STARTIO;
typedef NTSTATUS DRIVER_ADD_DEVICE(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE *PDRIVER_ADD_DEVICE;
typedef NTSTATUS IO_COMPLETION_ROUTINE(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef IO_COMPLETION_ROUTINE *PIO_COMPLETION_ROUTINE;
typedef VOID IO_WORKITEM_ROUTINE(PDEVICE_OBJECT DeviceObject, PVOID Context);
typedef IO_WORKITEM_ROUTINE *PIO_WORKITEM_ROUTINE;

#define IRP_MJ_CREATE                   0x00
#define IRP_MJ_CREATE_NAMED_PIPE        0x01
#define IRP_MJ_CLOSE                    0x02
#define IRP_MJ_READ                     0x03
#define IRP_MJ_WRITE                    0x04
#define IRP_MJ_QUERY_INFORMATION        0x05
#define IRP_MJ_SET_INFORMATION          0x06
#define IRP_MJ_QUERY_EA                 0x07
#define IRP_MJ_SET_EA                   0x08
#define IRP_MJ_FLUSH_BUFFERS            0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION   0x0b
#define IRP_MJ_DIRECTORY_CONTROL        0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL      0x0d
#define IRP_MJ_DEVICE_CONTROL           0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL  0x0f
#define IRP_MJ_SHUTDOWN                 0x10
#define IRP_MJ_LOCK_CONTROL             0x11
#define IRP_MJ_CLEANUP                  0x12
#define IRP_MJ_CREATE_MAILSLOT          0x13
#define IRP_MJ_QUERY_SECURITY           0x14
#define IRP_MJ_SET_SECURITY             0x15
#define IRP_MJ_POWER                    0x16
#define IRP_MJ_SYSTEM_CONTROL           0x17
#define IRP_MJ_DEVICE_CHANGE            0x18
#define IRP_MJ_QUERY_QUOTA              0x19
#define IRP_MJ_SET_QUOTA                0x1a
#define IRP_MJ_PNP                      0x1b
#define IRP_MJ_MAXIMUM_FUNCTION         0x1b

#define IO_NO_INCREMENT         0
#define IO_DISK_INCREMENT       1
#define IO_NETWORK_INCREMENT    2
#define IO_KEYBOARD_INCREMENT   6
#define IO_SERIAL_INCREMENT     2
#define IO_SOUND_INCREMENT      8

#define IO_TYPE_DEVICE  0x0003
#define IO_TYPE_DRIVER  0x0004
#define IO_TYPE_FILE    0x0005
#define IO_TYPE_IRP     0x0006

/* DEVICE_OBJECT.Flags */
#define DO_VERIFY_VOLUME          0x00000002
#define DO_BUFFERED_IO            0x00000004
#define DO_EXCLUSIVE              0x00000008
#define DO_DIRECT_IO              0x00000010
#define DO_MAP_IO_BUFFER          0x00000020
#define DO_DEVICE_INITIALIZING    0x00000080
#define DO_SHUTDOWN_REGISTERED    0x00000800
#define DO_BUS_ENUMERATED_DEVICE  0x00001000
#define DO_POWER_PAGABLE          0x00002000
#define DO_POWER_INRUSH           0x00004000

/* DEVICE_OBJECT.Characteristics */
#define FILE_REMOVABLE_MEDIA            0x00000001
#define FILE_READ_ONLY_DEVICE           0x00000002
#define FILE_FLOPPY_DISKETTE            0x00000004
#define FILE_WRITE_ONCE_MEDIA           0x00000008
#define FILE_REMOTE_DEVICE              0x00000010
#define FILE_DEVICE_IS_MOUNTED          0x00000020
#define FILE_VIRTUAL_VOLUME             0x00000040
#define FILE_AUTOGENERATED_DEVICE_NAME  0x00000080
#define FILE_DEVICE_SECURE_OPEN         0x00000100
#define FILE_CHARACTERISTIC_PNP_DEVICE  0x00000800

/* Device types beyond the two in hk/base.h. */
#define FILE_DEVICE_NULL            0x00000015
#define FILE_DEVICE_PHYSICAL_NETCARD 0x00000017
#define FILE_DEVICE_TRANSPORT       0x00000021
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014

/* FILE_OBJECT.Flags */
#define FO_SYNCHRONOUS_IO   0x00000002
#define FO_HANDLE_CREATED   0x00040000
#define FO_CLEANUP_COMPLETE 0x00004000

/* IRP.Flags */
#define IRP_NOCACHE                 0x00000001
#define IRP_PAGING_IO               0x00000002
#define IRP_SYNCHRONOUS_API         0x00000004
#define IRP_ASSOCIATED_IRP          0x00000008
#define IRP_BUFFERED_IO             0x00000010
#define IRP_DEALLOCATE_BUFFER       0x00000020
#define IRP_INPUT_OPERATION         0x00000040
#define IRP_CREATE_OPERATION        0x00000080
#define IRP_READ_OPERATION          0x00000100
#define IRP_WRITE_OPERATION         0x00000200
#define IRP_CLOSE_OPERATION         0x00000400
#define IRP_DEFER_IO_COMPLETION     0x00000800

/* IO_STACK_LOCATION.Control */
#define SL_PENDING_RETURNED   0x01
#define SL_ERROR_RETURNED     0x02
#define SL_INVOKE_ON_CANCEL   0x20
#define SL_INVOKE_ON_SUCCESS  0x40
#define SL_INVOKE_ON_ERROR    0x80

/* IO_STACK_LOCATION.Flags */
#define SL_FORCE_ACCESS_CHECK 0x01
#define SL_OPEN_PAGING_FILE   0x02
#define SL_OPEN_TARGET_DIRECTORY 0x04
#define SL_CASE_SENSITIVE     0x80

typedef struct _DRIVER_EXTENSION {
    PDRIVER_OBJECT DriverObject;
    PDRIVER_ADD_DEVICE AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject; /* first device; the rest through NextDevice */
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PDRIVER_STARTIO DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
};

struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT NextDevice;
    PDEVICE_OBJECT AttachedDevice;
    PIRP CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    struct _VPB *Vpb;
    PVOID DeviceExtension; /* zeroed, DeviceExtensionSize bytes */
    DEVICE_TYPE DeviceType;
    CCHAR StackSize;
    ULONG AlignmentRequirement;
    ULONG ActiveThreadCount;
    PVOID SecurityDescriptor;
    USHORT SectorSize;
    USHORT Spare1;
    PVOID DeviceObjectExtension;
    PVOID Reserved;
};

struct _FILE_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    struct _VPB *Vpb;
    PVOID FsContext;
    PVOID FsContext2;
    PVOID SectionObjectPointer;
    PVOID PrivateCacheMap;
    NTSTATUS FinalStatus;
    struct _FILE_OBJECT *RelatedFileObject;
    BOOLEAN LockOperation;
    BOOLEAN DeletePending;
    BOOLEAN ReadAccess;
    BOOLEAN WriteAccess;
    BOOLEAN DeleteAccess;
    BOOLEAN SharedRead;
    BOOLEAN SharedWrite;
    BOOLEAN SharedDelete;
    ULONG Flags;
    UNICODE_STRING FileName; /* the part of the opened name after the device name */
    LARGE_INTEGER CurrentByteOffset;
    ULONG Waiters;
    ULONG Busy;
    PVOID LastLock;
    PVOID CompletionContext;
};

typedef struct _IO_SECURITY_CONTEXT {
    PVOID SecurityQos;
    PVOID AccessState;
    ACCESS_MASK DesiredAccess;
    ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT FileAttributes;
            USHORT ShareAccess;
            ULONG EaLength;
        } Create;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Read;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Write;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
};

typedef VOID (*PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);

/* ---- files ---- */
#ifndef STATUS_DISK_FULL
#define STATUS_DISK_FULL               ((NTSTATUS)0xC000007F)
#endif
#ifndef STATUS_EAS_NOT_SUPPORTED
#define STATUS_EAS_NOT_SUPPORTED       ((NTSTATUS)0xC000004F)
#endif
#ifndef STATUS_FILE_IS_A_DIRECTORY
#define STATUS_FILE_IS_A_DIRECTORY     ((NTSTATUS)0xC00000BA)
#endif
#ifndef STATUS_NOT_A_DIRECTORY
#define STATUS_NOT_A_DIRECTORY         ((NTSTATUS)0xC0000103)
#endif

/* Create dispositions, and what IoStatusBlock->Information reports of them. */
#define FILE_SUPERSEDE           0x00000000
#define FILE_OPEN                0x00000001
#define FILE_CREATE              0x00000002
#define FILE_OPEN_IF             0x00000003
#define FILE_OVERWRITE           0x00000004
#define FILE_OVERWRITE_IF        0x00000005
#define FILE_MAXIMUM_DISPOSITION 0x00000005
#define FILE_SUPERSEDED          0x00000000
#define FILE_OPENED              0x00000001
#define FILE_CREATED             0x00000002
#define FILE_OVERWRITTEN         0x00000003
#define FILE_EXISTS              0x00000004
#define FILE_DOES_NOT_EXIST      0x00000005

/* Create options. */
#define FILE_DIRECTORY_FILE            0x00000001
#define FILE_WRITE_THROUGH             0x00000002
#define FILE_SEQUENTIAL_ONLY           0x00000004
#define FILE_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FILE_SYNCHRONOUS_IO_ALERT      0x00000010
#define FILE_SYNCHRONOUS_IO_NONALERT   0x00000020
#define FILE_NON_DIRECTORY_FILE        0x00000040
#define FILE_RANDOM_ACCESS             0x00000800

#ifndef FILE_ATTRIBUTE_NORMAL
#define FILE_ATTRIBUTE_NORMAL     0x00000080
#endif

/* ByteOffset values of ZwWriteFile (with HighPart -1). */
#define FILE_WRITE_TO_END_OF_FILE      0xffffffff
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe

/*
 * Opens or creates a file. Paths on a drive ("\??\C:\dir\name", also spelt
 * "\DosDevices\C:\..." or "\GLOBAL??\C:\...") are files in the host directory
 * the host program mapped to that drive (hostkernel.h, HkSetDriveDirectory);
 * other names open a device (or the object behind a link), whose IRP_MJ_CREATE
 * carries the extended attributes in the request's system buffer
 * (Parameters.Create.EaLength bytes). Dispositions,
 * share access, FILE_SYNCHRONOUS_IO_* and the Information values are those of
 * Windows. OBJ_KERNEL_HANDLE gives a kernel handle. IRQL == PASSIVE_LEVEL.
 */
NTSTATUS ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                      ULONG EaLength);
/*
 * Writes Length bytes to a file opened on a drive: at *ByteOffset, at the end
 * (FILE_WRITE_TO_END_OF_FILE), or, for a synchronous file, at its current
 * position (ByteOffset NULL or FILE_USE_FILE_POINTER_POSITION), which then
 * advances. Completes before it returns; Event, when given, is set.
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                     PULONG Key);

/*
 * An I/O request packet. Its StackCount stack locations follow it in memory;
 * CurrentLocation counts from StackCount + 1 (no driver owns it yet) down to 1.
 */
struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP *MasterIrp;
        LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PIO_APC_ROUTINE UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL volatile CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            union {
                PVOID DeviceQueueEntry[3];
                struct {
                    PVOID DriverContext[4];
                };
            };
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            struct {
                LIST_ENTRY ListEntry;
                union {
                    struct _IO_STACK_LOCATION *CurrentStackLocation;
                    ULONG PacketType;
                };
            };
            PFILE_OBJECT OriginalFileObject;
        } Overlay;
        PVOID CompletionKey;
    } Tail;
};

#define IoSizeOfIrp(StackSize) \
    ((USHORT)(sizeof(IRP) + ((StackSize) * (sizeof(IO_STACK_LOCATION)))))

/* The stack location of the driver that currently owns the IRP. Any IRQL. */
FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation;
}

/* The stack location the next-lower driver will own after IoCallDriver. Any IRQL. */
FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}

/* Hands the current stack location unchanged to the next-lower driver. Any IRQL. */
FORCEINLINE VOID IoSkipCurrentIrpStackLocation(PIRP Irp)
{
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}

/* Copies the current stack location to the next one, without the completion routine. */
FORCEINLINE VOID IoCopyCurrentIrpStackLocationToNext(PIRP Irp)
{
    PIO_STACK_LOCATION current = IoGetCurrentIrpStackLocation(Irp);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    __builtin_memcpy(next, current, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));
    next->Control = 0;
}

/* Registers a routine the I/O manager calls when the next-lower driver completes the IRP. */
FORCEINLINE VOID IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine,
                                        PVOID Context, BOOLEAN InvokeOnSuccess,
                                        BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->CompletionRoutine = CompletionRoutine;
    next->Context = Context;
    next->Control = 0;
    if (InvokeOnSuccess)
        next->Control |= SL_INVOKE_ON_SUCCESS;
    if (InvokeOnError)
        next->Control |= SL_INVOKE_ON_ERROR;
    if (InvokeOnCancel)
        next->Control |= SL_INVOKE_ON_CANCEL;
}

/* Makes the next stack location the current one, for an IRP a driver hands itself
 * without IoCallDriver (as a transport does with the IRP an event handler returns). */
FORCEINLINE VOID IoSetNextIrpStackLocation(PIRP Irp)
{
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}

/* Records that the current driver returns STATUS_PENDING for this IRP. Any IRQL. */
FORCEINLINE VOID IoMarkIrpPending(PIRP Irp)
{
    IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}

/* Atomically installs a cancel routine (NULL clears it); returns the previous one. */
FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL NewCancelRoutine)
{
    return __atomic_exchange_n(&Irp->CancelRoutine, NewCancelRoutine, __ATOMIC_SEQ_CST);
}

/* ---- devices, links and requests ---- */

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                        PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                        ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT *DeviceObject);
VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                  PFILE_OBJECT *FileObject, PDEVICE_OBJECT *DeviceObject);

/* The device a request on FileObject goes to: the top of the stack attached to its device. */
PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject);

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
VOID IoFreeIrp(PIRP Irp);
VOID IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver(a, b) IofCallDriver(a, b)
#define IoCompleteRequest(a, b) IofCompleteRequest(a, b)
BOOLEAN IoCancelIrp(PIRP Irp);
VOID IoAcquireCancelSpinLock(PKIRQL Irql);
VOID IoReleaseCancelSpinLock(KIRQL Irql);

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                   PVOID InputBuffer, ULONG InputBufferLength,
                                   PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                   PIO_STATUS_BLOCK IoStatusBlock);

/* ---- work items ---- */
/* WORK_QUEUE_TYPE comes with the system work queue (hk/thread.h). */

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
VOID IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                     WORK_QUEUE_TYPE QueueType, PVOID Context);
VOID IoFreeWorkItem(PIO_WORKITEM IoWorkItem);

/* ---- memory descriptor lists ---- */
#ifndef PAGE_SIZE
#define PAGE_SIZE 0x1000
#endif
#ifndef PAGE_SHIFT
#define PAGE_SHIFT 12L
#endif
#ifndef BYTE_OFFSET
#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#endif
#ifndef PAGE_ALIGN
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~((ULONG_PTR)PAGE_SIZE - 1)))
#endif
#ifndef ADDRESS_AND_SIZE_TO_SPAN_PAGES
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((((ULONG_PTR)(Size)) >> PAGE_SHIFT) + \
             ((BYTE_OFFSET(Va) + ((ULONG_PTR)(Size) & (PAGE_SIZE - 1)) + PAGE_SIZE - 1) >> PAGE_SHIFT)))
#endif
#ifndef ROUND_TO_PAGES
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~((ULONG_PTR)PAGE_SIZE - 1))
#endif

typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

/* A description of a virtually contiguous buffer; MDLs chain through Next. */
struct _MDL {
    struct _MDL *Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS *Process;
    PVOID MappedSystemVa;
    PVOID StartVa;   /* page-aligned start of the buffer */
    ULONG ByteCount;
    ULONG ByteOffset; /* offset of the buffer in its first page */
};

#define MDL_MAPPED_TO_SYSTEM_VA     0x0001
#define MDL_PAGES_LOCKED            0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE    0x0008
#define MDL_PARTIAL                 0x0010
#define MDL_PARTIAL_HAS_BEEN_MAPPED 0x0020
#define MDL_IO_PAGE_READ            0x0040
#define MDL_WRITE_OPERATION         0x0080
#define MDL_LOCKED_PAGE_TABLES      0x0100
#define MDL_PARENT_MAPPED_SYSTEM_VA MDL_LOCKED_PAGE_TABLES
#define MDL_FREE_EXTRA_PTES         0x0200
#define MDL_DESCRIBES_AWE           0x0400
#define MDL_IO_SPACE                0x0800
#define MDL_NETWORK_HEADER          0x1000
#define MDL_MAPPING_CAN_FAIL        0x2000
#define MDL_ALLOCATED_MUST_SUCCEED  0x4000
#define MDL_INTERNAL                0x8000

typedef enum _MEMORY_CACHING_TYPE {
    MmNonCached = FALSE,
    MmCached = TRUE,
    MmWriteCombined = 2,
    MmHardwareCoherentCached,
    MmNonCachedUnordered,
    MmUSWCCached,
    MmMaximumCacheType,
    MmNotMapped = -1
} MEMORY_CACHING_TYPE;
#define MmFrameBufferCached MmWriteCombined

#ifndef HK_MM_PAGE_PRIORITY_DEFINED
#define HK_MM_PAGE_PRIORITY_DEFINED
typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;
#endif
#define MdlMappingNoWrite   0x80000000
#define MdlMappingNoExecute 0x40000000

typedef enum _LOCK_OPERATION {
    IoReadAccess,
    IoWriteAccess,
    IoModifyAccess
} LOCK_OPERATION;

/* Size in bytes of an MDL describing Length bytes at Base. */
#define MmSizeOfMdl(Base, Length) \
    ((SIZE_T)(sizeof(MDL) + ADDRESS_AND_SIZE_TO_SPAN_PAGES(Base, Length) * sizeof(PFN_NUMBER)))
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                   BOOLEAN ChargeQuota, PIRP Irp);
VOID IoFreeMdl(PMDL Mdl);
VOID MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                         LOCK_OPERATION Operation);
VOID MmUnlockPages(PMDL MemoryDescriptorList);
PVOID MmMapLockedPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode);
PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                   ULONG BugCheckOnFailure, ULONG Priority);
VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);
VOID IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress, ULONG Length);

/* Sets up an MDL the caller placed in its own memory (MmSizeOfMdl bytes). */
FORCEINLINE VOID MmInitializeMdl(PMDL Mdl, PVOID BaseVa, SIZE_T Length)
{
    Mdl->Next = NULL;
    Mdl->Size = (CSHORT)MmSizeOfMdl(BaseVa, Length);
    Mdl->MdlFlags = 0;
    Mdl->Process = NULL;
    Mdl->MappedSystemVa = NULL;
    Mdl->StartVa = PAGE_ALIGN(BaseVa);
    Mdl->ByteOffset = BYTE_OFFSET(BaseVa);
    Mdl->ByteCount = (ULONG)Length;
}

/* The system address of the buffer an MDL describes, mapping it when needed. */
FORCEINLINE PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority)
{
    if (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
        return Mdl->MappedSystemVa;
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, NULL, FALSE, Priority);
}


/* ---- opening devices with extended attributes ---- */
/* One extended attribute of a create request: the name (EaNameLength bytes and a zero)
 * and then the value (EaValueLength bytes) follow EaName[0]. */
typedef struct _FILE_FULL_EA_INFORMATION {
    ULONG NextEntryOffset;
    UCHAR Flags;
    UCHAR EaNameLength;
    USHORT EaValueLength;
    CHAR EaName[1];
} FILE_FULL_EA_INFORMATION, *PFILE_FULL_EA_INFORMATION;

/* ---- processes ---- */
typedef struct _EPROCESS *PEPROCESS;
/* The process the calling thread runs in: every thread of the host runtime runs in
 * the system process, whose object carries its image name "System". Any IRQL. */
PEPROCESS PsGetCurrentProcess(VOID);
PEPROCESS IoGetCurrentProcess(VOID);

HK_EXTERN_C_END

#endif /* HK_IO_H */
