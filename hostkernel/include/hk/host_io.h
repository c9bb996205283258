/*
 * Host kernel runtime: loading and unloading drivers, and namespace queries
 * for tests and host tools. Not a Windows interface; drivers never call it.
 */
#ifndef HK_HOST_IO_H
#define HK_HOST_IO_H

#include "hk/base.h"
#include "hk/io.h"

HK_EXTERN_C_BEGIN

/*
 * Creates the driver object "\Driver\<serviceName>" and calls
 * entry(driver, L"\Registry\Machine\System\CurrentControlSet\Services\<serviceName>")
 * at PASSIVE_LEVEL. Fill that registry key beforehand when the driver reads it.
 * Returns what DriverEntry returned; *driver is set in every case where the
 * driver object was created (on failure it stays as the driver left it; pass it
 * to HkDiscardDriver). Call at PASSIVE_LEVEL.
 */
NTSTATUS HkLoadDriver(PDRIVER_INITIALIZE entry, const char *serviceName, PDRIVER_OBJECT *driver);

/*
 * As HkLoadDriver, with the entry point "DriverEntry" of a shared object
 * loaded with its own symbol scope (several drivers may share one process).
 * Returns STATUS_OBJECT_NAME_NOT_FOUND when the image or its DriverEntry is
 * missing. The image stays loaded until the driver is unloaded or discarded.
 */
NTSTATUS HkLoadDriverImage(const char *sharedObjectPath, const char *serviceName,
                           PDRIVER_OBJECT *driver);

/*
 * Unloads a loaded driver: calls DriverUnload at PASSIVE_LEVEL, reports as
 * verifier errors the devices, symbolic links and work items it left behind
 * (and deletes them), waits a few seconds for system threads to end, then
 * frees the driver object. After the last loaded driver, the leak reports run.
 */
void HkUnloadDriver(PDRIVER_OBJECT driver);

/*
 * Disposes of a driver whose DriverEntry failed: what it left behind is
 * reported as verifier errors and deleted, then the driver object is freed.
 */
void HkDiscardDriver(PDRIVER_OBJECT driver);

/* Number of drivers loaded and not yet unloaded or discarded. */
ULONG HkLoadedDriverCount(void);

/* The device named `name` (e.g. "\Device\X", case-insensitive), or NULL. No reference is taken. */
PDEVICE_OBJECT HkFindDevice(const char *name);

/* Whether the symbolic link `name` ("\DosDevices\X" or "\??\X") exists. */
BOOLEAN HkSymbolicLinkExists(const char *name);

/*
 * Drives of kernel file paths. ZwCreateFile("\??\C:\dir\name") opens
 * <HostDirectory>/dir/name. Drive C: starts out mapped to the directory
 * "drive-c" in the build directory (HK_DEFAULT_DRIVE_C_DIRECTORY); other
 * letters are unmapped. HkSetDriveDirectory maps Drive ('A' to 'Z', either
 * case) to HostDirectory, creating it (and its parents) when missing; NULL
 * unmaps the drive. Files already open stay where they are.
 * STATUS_INVALID_PARAMETER for a bad letter, STATUS_OBJECT_PATH_NOT_FOUND
 * when the directory cannot be made.
 */
NTSTATUS HkSetDriveDirectory(char Drive, const char *HostDirectory);
/* The host directory of Drive, copied (terminated) into Buffer; returns its length, 0 when
 * the drive is unmapped or Buffer is too small. */
SIZE_T HkGetDriveDirectory(char Drive, char *Buffer, SIZE_T BufferSize);
/* Files opened on a drive whose last handle has not been closed yet. */
ULONG HkOpenDriveFileCount(void);

/* Number of IRPs and MDLs currently allocated (for leak checks in tests). */
ULONG HkLiveIrpCount(void);
ULONG HkLiveMdlCount(void);
/* Host sockets the TCP/IP transport ("\Device\Tcp", "\Device\Udp") holds open, and
 * its address, connection and control-channel objects not yet closed. */
ULONG HkTransportSocketCount(void);
ULONG HkTransportObjectCount(void);

HK_EXTERN_C_END

#endif /* HK_HOST_IO_H */
