/*
 * ndisfilter-main.cpp - driver entry, the control device, the global state,
 * its construction and teardown, and unload.
 *
 * Start-up runs in a fixed order (NdisFilterInitialize) and every step is
 * traced under NF_DBG_CORE; teardown (NdisFilterDeInitialize) runs only at
 * unload and takes no list lock.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"
#include "ndisfilter-ethrlog.h"

/* ---- plain globals ---- */
ULONG GlobalDebugFlag = 0;
PNdisFilterDeviceExtension g_pGlobal = NULL;
ULONG g_PendingPacketLimit = NF_DEFAULT_PENDING_PACKET_LIMIT;
UNICODE_STRING g_RegistryPath = {0, 0, NULL};
ULONG g_nMappedMemorySize = 0;
ULONG g_dwShareValue = 0;

namespace {

const char DeviceNameText[] = "\\Device\\NdisFilter";
const char SymbolicLinkText[] = "\\DosDevices\\NdisFilter";

/* Completes a request with a status and a byte count; returns the status. */
NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status, ULONG_PTR Information)
{
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

/*
 * Starts one worker thread. The thread is counted in m_nNdisHelperWorkThread
 * before it exists, so teardown can never miss a thread that has not yet been
 * scheduled; a thread that fails to start is not counted.
 */
BOOLEAN StartWorkerThread(PHANDLE Handle, PKSTART_ROUTINE Routine, PVOID Context)
{
    InterlockedIncrement(&g_pGlobal->m_nNdisHelperWorkThread);
    NTSTATUS status = PsCreateSystemThread(Handle, 0, NULL, NULL, NULL, Routine, Context);
    if (!NT_SUCCESS(status)) {
        InterlockedDecrement(&g_pGlobal->m_nNdisHelperWorkThread);
        *Handle = NULL;
        return FALSE;
    }
    return TRUE;
}

/*
 * Waits until the thread behind `Handle` has ended, then closes the handle.
 * Waiting on the thread object itself, not on a flag the thread sets, means
 * it has left the image's code when the wait returns.
 */
VOID WaitForThreadEnd(PHANDLE Handle)
{
    if (*Handle == NULL)
        return;
    PVOID thread = NULL;
    if (NT_SUCCESS(ObReferenceObjectByHandle(*Handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, NULL))) {
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, NULL);
        ObDereferenceObject(thread);
    }
    ZwClose(*Handle);
    *Handle = NULL;
}

/*
 * Frees every record on a list of records allocated with NdisFilter_AllocateRecord.
 * Each of these records keeps its list link as its first field.
 */
VOID FreeRecordList(PLIST_ENTRY Head)
{
    while (!IsListEmpty(Head))
        NdisFilter_FreeRecord(RemoveHeadList(Head));
}

/* Frees every interface, each after the references its own list holds. */
VOID FreeInterfaces(PLIST_ENTRY Head)
{
    while (!IsListEmpty(Head)) {
        FilterInterface *item = CONTAINING_RECORD(RemoveHeadList(Head), FilterInterface, m_ListEntry);
        FreeRecordList(&item->m_ReferenceList);
        NdisFilter_FreeRecord(item);
    }
}

/* Fills the framework's copy of the binding record: unbound, our callbacks, no hook functions. */
VOID InitializeHookApi(PNdisHookAPI Api)
{
    RtlZeroMemory(Api, sizeof(*Api));
    Api->m_Size = sizeof(NdisHookAPI);
    Api->m_Flags = 0;
    Api->m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    Api->m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    Api->Filter_AdapterOpened = NdisFilter_AdapterOpened;
    Api->Filter_AdapterStatusChanged = NdisFilter_AdapterStatusChanged;
    Api->Filter_AdapterClosed = NdisFilter_AdapterClosed;
    Api->Filter_FilterReceivedPacket = NdisFilter_FilterReceivedPacket;
    Api->Filter_FilterSendPacket = NdisFilter_FilterSendPacket;
}

} // namespace

/*
 * DriverEntry - saves the registry path, reads the two settings, creates the
 * control device, builds the global state and creates the symbolic link.
 * When the link cannot be created the state is torn down and the device
 * deleted (the image is unloaded without a call to unload, so no thread or
 * work item of it may outlive the entry), and the link's status is returned.
 * IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    NF_TRACE(NF_DBG_CORE, "Enter DriverEntry\n");

    if (!NT_SUCCESS(Filter_SaveDriverRegistryPath(RegistryPath, &g_RegistryPath))) {
        NF_TRACE(NF_DBG_CORE, "NdisFilter: Couldn't allocate pool for registry path.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    GlobalDebugFlag = Filter_GetGlobalDebugFlag(&g_RegistryPath, 0);
    NF_PRINT("NdisFilter: GlobalDebugFlag = 0x%8.8X\n", GlobalDebugFlag);
    g_PendingPacketLimit = Filter_GetPendingPacketLimit(&g_RegistryPath, NF_DEFAULT_PENDING_PACKET_LIMIT);

    UNICODE_STRING deviceName;
    RtlInitUnicodeString(&deviceName, NDISFILTER_DEVICE_NAME);
    PDEVICE_OBJECT device = NULL;
    NTSTATUS status = IoCreateDevice(DriverObject, sizeof(NdisFilterDeviceExtension), &deviceName,
                                     FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) {
        NF_TRACE(NF_DBG_CORE, "  IoCreateDevice(%s) fails, status = 0x%x\n", DeviceNameText, (unsigned)status);
        return status;
    }
    NF_TRACE(NF_DBG_CORE, "  IoCreateDevice(%s) success\n", DeviceNameText);
    g_pGlobal = (PNdisFilterDeviceExtension)device->DeviceExtension;
    g_pGlobal->m_pDeviceObject = device;
    RtlInitUnicodeString(&g_pGlobal->m_DeviceSymbolicLink, NDISFILTER_SYMBOLIC_LINK);

    NdisFilterInitialize();

    status = IoCreateSymbolicLink(&g_pGlobal->m_DeviceSymbolicLink, &deviceName);
    if (!NT_SUCCESS(status)) {
        NF_TRACE(NF_DBG_CORE, "  IoCreateSymbolicLink(%s -> %s) fails, status = 0x%x\n", SymbolicLinkText,
                 DeviceNameText, (unsigned)status);
        /* A failed entry unloads the image without calling unload: nothing of it may stay running. */
        NdisFilterDeInitialize();
        g_pGlobal = NULL;
        IoDeleteDevice(device);
        return status;
    }
    NF_TRACE(NF_DBG_CORE, "  IoCreateSymbolicLink(%s -> %s) success\n", SymbolicLinkText, DeviceNameText);
    g_pGlobal->m_bSymbolicLinkCreated = TRUE;

    DriverObject->MajorFunction[IRP_MJ_CREATE] = NdisFilterOpen;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = NdisFilterClose;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = NdisFilterCleanup;
    DriverObject->MajorFunction[IRP_MJ_SHUTDOWN] = NdisFilterShutdown;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = NdisFilterIoControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = NdisFilterInternalIoControl;
    DriverObject->DriverUnload = NdisFilterUnload;

    NF_TRACE(NF_DBG_CORE, "Leave DriverEntry\n");
    return STATUS_SUCCESS;
}

/*
 * NdisFilterInitialize - builds every list, lock, event and thread of the
 * global state, in this order. Nothing here fails except the mapped memory
 * and the threads, and those failures are only traced. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C VOID NdisFilterInitialize(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterInitialize\n");

    NdisInitializeReadWriteLock(&global->m_HookAPILock);
    NfGraceInitialize(&global->m_HookAPIGrace);
    InitializeHookApi(&global->m_NdisHookAPI);
    NdisFilter_OpenCallbacks();
    global->m_nPendingWorkItems = 1; /* teardown's own reference */
    KeInitializeEvent(&global->m_WorkItemsDoneEvent, NotificationEvent, FALSE);
    NF_TRACE(NF_DBG_CORE, "  NDIS Hook APi Initialized\n");

    global->m_pMappedMemory = NdisFilter_AllocateMappedMemory();
    g_nMappedMemorySize = MAPPED_MEMORY_SIZE;
    g_dwShareValue = 0;

    NdisFilter_InitializeAdapterIds();

    global->m_FileObject = NULL;
    global->m_pSharedMemory = NULL;
    global->m_pUserMapping = NULL;
    KeInitializeEvent(&global->m_ShareOwnerLock, SynchronizationEvent, TRUE);
    global->m_bStopShare = FALSE;
    NdisInitializeReadWriteLock(&global->m_MappedMemoryLock);
    global->m_hShareMemoryThread[0] = NULL;
    global->m_nNdisHelperWorkThread = 0;
    global->m_pPendingReadIrp = NULL;
    NdisInitializeReadWriteLock(&global->m_PendingReadLock);
    NdisInitializeReadWriteLock(&global->m_InputBlockLock);
    NdisInitializeReadWriteLock(&global->m_OutputBlockLock);
    NdisInitializeEvent(&global->m_ShareMemoryEvent);
    NdisInitializeEvent(&global->m_WorkThreadExitEvent);
    NF_TRACE(NF_DBG_CORE, "  Mapped Memory Initialized\n");

    if (global->m_pMappedMemory != NULL) {
        NdisFilter_InitializeSharedMemory(global->m_pMappedMemory);
        NF_TRACE(NF_DBG_CORE, "  Shared Memory Initialized\n");
        if (StartWorkerThread(&global->m_hShareMemoryThread[0], ShareMemoryThread, NULL))
            NF_TRACE(NF_DBG_CORE, "  PsCreateSystemThread(ShareMemoryThread) success\n");
        else
            NF_TRACE(NF_DBG_CORE, "PsCreateSystemThread(ShareMemoryThread) fails\n");
    }

    NdisInitializeReadWriteLock(&global->m_AdapterListLock);
    global->m_AdapterList.m_nAdapterCount = 0;
    NF_TRACE(NF_DBG_CORE, "  Adapter list Initialized\n");
    NdisFilter_InitializeEthrLogs();

    NdisInitializeReadWriteLock(&global->m_pContextLock);
    for (ULONG slot = 0; slot < NF_CONTEXT_SLOTS; slot++)
        global->m_pContextDriver[slot] = NULL;
    NF_TRACE(NF_DBG_CORE, "  Adapter context owner buffer Initialized\n");

    KeInitializeSpinLock(&global->m_EventHandlerLock);
    InitializeListHead(&global->m_EventHandlerList);
    NF_TRACE(NF_DBG_CORE, "  Adapter Event handler list Initialized\n");

    NdisInitializeReadWriteLock(&global->m_FilterDriverLock);
    InitializeListHead(&global->m_FilterDriverList);
    NF_TRACE(NF_DBG_CORE, "  Filter Driver list Initialized\n");

    for (ULONG type = 0; type < FILTER_TYPE_COUNT; type++) {
        NdisInitializeReadWriteLock(&global->m_PacketFilterLock[type]);
        InitializeListHead(&global->m_PacketFilterList[type]);
        NfGraceInitialize(&global->m_PacketFilterGrace[type]);
    }
    NF_TRACE(NF_DBG_CORE, "  Packet Filter list Initialized\n");

    global->m_nInjectPacketMax = NF_DEFAULT_INJECT_PACKET_MAX;
    global->m_nInjectPacketCount = 0;
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++) {
        NdisInitializeReadWriteLock(&global->m_InjectedPacketLock[queue]);
        InitializeListHead(&global->m_InjectedPacketList[queue]);
        NdisInitializeEvent(&global->m_InjectPacketEvent[queue]);
        global->m_hInjectPacketThread[queue] = NULL;
    }
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++) {
        if (StartWorkerThread(&global->m_hInjectPacketThread[queue], InjectedPacketThread, (PVOID)(ULONG_PTR)queue))
            NF_TRACE(NF_DBG_CORE, "  PsCreateSystemThread(InjectedPacketThread) success\n");
        else
            NF_TRACE(NF_DBG_CORE, "PsCreateSystemThread(InjectedPacketThread) fails\n");
    }
    NF_TRACE(NF_DBG_CORE, "  Injected packet list Initialized\n");

    NdisInitializeReadWriteLock(&global->m_InterfaceLock);
    InitializeListHead(&global->m_InterfaceList);
    NF_TRACE(NF_DBG_CORE, "  Interface list Initialized\n");

    NdisInitializeReadWriteLock(&global->m_IfEventHandlerLock);
    InitializeListHead(&global->m_IfEventHandlerList);
    NF_TRACE(NF_DBG_CORE, "  Interface Event handler list Initialized\n");

    NdisFilter_InitializeEventQueue();
    NF_TRACE(NF_DBG_CORE, "  Filter Log lookaside list Initialized\n");

    NdisInitializeReadWriteLock(&global->m_FilterTimerLock);
    InitializeListHead(&global->m_FilterTimerList);
    global->m_dwTickIncrement = KeQueryTimeIncrement();
    NF_TRACE(NF_DBG_CORE, "  Filter Timer list Initialized\n");

    NdisFilter_InitializePassiveLock(&global->m_IoCtrlHandlerLock);
    InitializeListHead(&global->m_IoCtrlHandlerList);
    NF_TRACE(NF_DBG_CORE, "  IOCTL handler list Initialized\n");
    global->m_bDiagInProgress = 0;

    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterInitialize\n");
}

/*
 * NdisFilterDeInitialize - stops the worker threads, frees the mapped memory
 * and empties every list, releasing queued packets. Runs only at unload, so
 * it takes no list lock. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C VOID NdisFilterDeInitialize(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterDeInitialize\n");

    NdisFilter_CloseCallbacks();
    NdisFilter_TerminateShare();
    NdisFilter_FreeMappedMemory();

    FreeRecordList(&global->m_EventHandlerList);
    FreeRecordList(&global->m_FilterDriverList);
    for (ULONG type = 0; type < FILTER_TYPE_COUNT; type++)
        FreeRecordList(&global->m_PacketFilterList[type]);
    NdisFilter_ReleaseQueuedPackets();
    FreeInterfaces(&global->m_InterfaceList);
    FreeRecordList(&global->m_IfEventHandlerList);
    NdisFilter_DeleteEventQueue();
    NdisFilter_CancelTimers();
    FreeRecordList(&global->m_IoCtrlHandlerList);
    NdisFilter_CloseAllEthrLogs();
    NdisFilter_WaitForWorkItems();

    if (g_RegistryPath.Buffer != NULL) {
        ExFreePool(g_RegistryPath.Buffer);
        g_RegistryPath.Buffer = NULL;
        g_RegistryPath.Length = g_RegistryPath.MaximumLength = 0;
    }

    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterDeInitialize\n");
}

/*
 * NdisFilterUnload - tears the state down, then deletes the symbolic link and
 * the device. Afterwards the plain globals hold their load-time values again,
 * as a freshly loaded image would. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C VOID NTAPI NdisFilterUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterUnload\n");

    NdisFilterDeInitialize();

    if (g_pGlobal->m_bSymbolicLinkCreated) {
        NTSTATUS status = IoDeleteSymbolicLink(&g_pGlobal->m_DeviceSymbolicLink);
        NF_TRACE(NF_DBG_CORE, "  IoDeleteSymbolicLink(%s), status = 0x%x\n", SymbolicLinkText, (unsigned)status);
    }
    PDEVICE_OBJECT device = g_pGlobal->m_pDeviceObject;
    g_pGlobal = NULL; /* the state lives in the device extension */
    if (device != NULL) {
        IoDeleteDevice(device);
        NF_TRACE(NF_DBG_CORE, "  IoDeleteDevice(%s)\n", DeviceNameText);
    }

    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterUnload\n");
    GlobalDebugFlag = 0;
    g_PendingPacketLimit = NF_DEFAULT_PENDING_PACKET_LIMIT;
    g_nMappedMemorySize = 0;
    g_dwShareValue = 0;
}

/* ---- worker threads and work items ---- */

/*
 * At teardown, once m_bStopShare is set and the threads are woken: waits for
 * m_WorkThreadExitEvent while a worker is counted, then for each thread's end.
 */
VOID NdisFilter_WaitForWorkerThreads(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    if (global->m_nNdisHelperWorkThread != 0)
        NdisWaitEvent(&global->m_WorkThreadExitEvent, NF_WORKER_EXIT_WAIT_MS);
    WaitForThreadEnd(&global->m_hShareMemoryThread[0]);
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++)
        WaitForThreadEnd(&global->m_hInjectPacketThread[queue]);
}

/* A work item of the image is about to be queued: teardown will wait for it. */
VOID NdisFilter_WorkItemQueued(VOID)
{
    InterlockedIncrement(&g_pGlobal->m_nPendingWorkItems);
}

/* The last thing a work item of the image does. */
VOID NdisFilter_WorkItemDone(VOID)
{
    if (InterlockedDecrement(&g_pGlobal->m_nPendingWorkItems) == 0)
        KeSetEvent(&g_pGlobal->m_WorkItemsDoneEvent, IO_NO_INCREMENT, FALSE);
}

/* At teardown: gives up teardown's own reference and waits for the queued work items. */
VOID NdisFilter_WaitForWorkItems(VOID)
{
    if (InterlockedDecrement(&g_pGlobal->m_nPendingWorkItems) != 0)
        KeWaitForSingleObject(&g_pGlobal->m_WorkItemsDoneEvent, Executive, KernelMode, FALSE, NULL);
}

/* The first thing a worker thread does: run at the lowest real-time priority. */
VOID NdisFilter_WorkerThreadEnter(VOID)
{
    KeSetPriorityThread(KeGetCurrentThread(), NF_WORKER_PRIORITY);
}

/*
 * The last thing a worker thread does: leave the count and, as the last one
 * out, set m_WorkThreadExitEvent for the teardown waiting on it.
 */
VOID NdisFilter_WorkerThreadLeave(VOID)
{
    if (InterlockedDecrement(&g_pGlobal->m_nNdisHelperWorkThread) == 0)
        NdisSetEvent(&g_pGlobal->m_WorkThreadExitEvent);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

/* ---- dispatch routines ---- */

namespace {

/* The requests that need nothing but completion: traced and completed with success. */
NTSTATUS CompleteTraced(PCSTR Name, PIRP Irp)
{
    NF_TRACE(NF_DBG_CORE, "Enter %s\n", Name);
    NTSTATUS status = CompleteRequest(Irp, STATUS_SUCCESS, 0);
    NF_TRACE(NF_DBG_CORE, "Leave %s\n", Name);
    return status;
}

} // namespace

EXTERN_C NTSTATUS NTAPI NdisFilterOpen(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    return CompleteTraced("NdisFilterOpen", Irp);
}

EXTERN_C NTSTATUS NTAPI NdisFilterClose(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    return CompleteTraced("NdisFilterClose", Irp);
}

EXTERN_C NTSTATUS NTAPI NdisFilterShutdown(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    return CompleteTraced("NdisFilterShutdown", Irp);
}

/* A process that closes its handle gives the share back. */
EXTERN_C NTSTATUS NTAPI NdisFilterCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterCleanup\n");
    NdisFilter_StopShare(Irp);
    NTSTATUS status = CompleteRequest(Irp, STATUS_SUCCESS, 0);
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterCleanup\n");
    return status;
}
