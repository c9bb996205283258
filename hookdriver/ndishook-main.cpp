/*
 * ndishook-main.cpp - entry, unload and the binding with the framework.
 *
 * The hook driver binds the way the real one does: it opens the framework's
 * control device and sends one internal device control request carrying its
 * NdisHookAPI record; the framework keeps the fourteen hook functions and
 * writes its five callbacks into the record that comes back.
 */
#include "ndishook-internal.h"
#include "include/ndishook.h"

NhGlobal g_Hook;

namespace {

/* Fills the hook driver's half of a binding record. */
VOID PrepareRecord(PNdisHookAPI Api)
{
    RtlZeroMemory(Api, sizeof(*Api));
    Api->m_Size = sizeof(NdisHookAPI);
    Api->m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    Api->m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    Api->Hook_GetOsVersion = NhGetOsVersion;
    Api->Hook_HandleIoControl = NhHandleIoControl;
    Api->Hook_AllocatePacket = NhAllocatePacket;
    Api->Hook_FreePacket = NhFreePacket;
    Api->Hook_InjectPacketToAdapter = NhInjectPacketToAdapter;
    Api->Hook_InjectPacketToProtocol = NhInjectPacketToProtocol;
    Api->Hook_AllocateRequest = NhAllocateRequest;
    Api->Hook_MakeNdisRequest = NhMakeNdisRequest;
    Api->Hook_FreeRequest = NhFreeRequest;
    Api->Hook_SetAdapterStatus = NhSetAdapterStatus;
    Api->Hook_GetAdapterStatus = NhGetAdapterStatus;
    Api->Hook_GetTcpIpBoundAdapters = NhGetTcpIpBoundAdapters;
    Api->Hook_MmMapLockedPages = NhMmMapLockedPages;
    Api->Hook_MmUnmapLockedPages = NhMmUnmapLockedPages;
}

/*
 * Sends a bind or unbind request with Api to the framework's control device
 * and waits for it; the record comes back as the framework left it.
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS SendBindingRequest(ULONG Code, PNdisHookAPI Api)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDISFILTER_DEVICE_NAME);
    PFILE_OBJECT file = NULL;
    PDEVICE_OBJECT device = NULL;
    NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_READ_DATA | FILE_WRITE_DATA, &file, &device);
    if (!NT_SUCCESS(status)) {
        DbgPrint("NdisHook: IoGetDeviceObjectPointer(\\Device\\NdisFilter) fails, status = 0x%x\n",
                 (unsigned)status);
        return status;
    }

    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus;
    ioStatus.Status = STATUS_UNSUCCESSFUL;
    ioStatus.Information = 0;
    PIRP irp = IoBuildDeviceIoControlRequest(Code, device, Api, sizeof(*Api), Api, sizeof(*Api), TRUE,
                                             &done, &ioStatus);
    if (irp == NULL) {
        ObDereferenceObject(file);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoGetNextIrpStackLocation(irp)->FileObject = file;
    status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
        status = ioStatus.Status;
    }
    ObDereferenceObject(file);
    return status;
}

/* The BindAtLoad value of the service key; 1 when it is missing. IRQL == PASSIVE_LEVEL. */
ULONG ReadBindAtLoad(PUNICODE_STRING RegistryPath)
{
    WCHAR path[260];
    ULONG chars = RegistryPath->Length / sizeof(WCHAR);
    if (chars >= RTL_NUMBER_OF(path))
        return 1;
    RtlCopyMemory(path, RegistryPath->Buffer, chars * sizeof(WCHAR));
    path[chars] = 0;

    ULONG value = 1, defaultValue = 1;
    RTL_QUERY_REGISTRY_TABLE table[2];
    RtlZeroMemory(table, sizeof(table));
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = (PWSTR)L"BindAtLoad";
    table[0].EntryContext = &value;
    table[0].DefaultType = REG_DWORD;
    table[0].DefaultData = &defaultValue;
    table[0].DefaultLength = sizeof(ULONG);
    if (!NT_SUCCESS(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL, path, table,
                                           NULL, NULL)))
        return 1;
    return value;
}

/*
 * NhUnload - reports the adapters closed while still bound, unbinds, then
 * reclaims what is still out (each a verifier finding) and frees the adapter
 * records. IRQL == PASSIVE_LEVEL.
 */
VOID NhUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    NhCloseAllAdapters();
    NhUnbind();
    NhReclaimPackets();
    NhReclaimRequests();
    NhFreeAdapters();
    g_Hook.m_bLoaded = FALSE;
}

} // namespace

/* ---- a window for calling the framework ---- */

/*
 * The window raises the calling processor's count of calls before it looks
 * at m_bBound; NhUnbind clears m_bBound before it reads the counts (with
 * interlocked reads), so either the window sees the binding gone or unbinding
 * waits for it. m_Api does not change while a window is open.
 */
NhFrameworkCall::NhFrameworkCall() : m_pProcessor(NhThisProcessor())
{
    InterlockedIncrement(&m_pProcessor->m_nCallsIntoFramework);
    if (!*(volatile BOOLEAN *)&g_Hook.m_bBound) {
        InterlockedDecrement(&m_pProcessor->m_nCallsIntoFramework);
        m_pProcessor = NULL;
    }
}

NhFrameworkCall::~NhFrameworkCall()
{
    if (m_pProcessor != NULL)
        InterlockedDecrement(&m_pProcessor->m_nCallsIntoFramework);
}

namespace {

/* Windows open now, summed over the processors. */
LONG CallsIntoFramework(VOID)
{
    LONG calls = 0;
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++)
        calls += InterlockedCompareExchange(&g_Hook.m_Processors[i].m_nCallsIntoFramework, 0, 0);
    return calls;
}

} // namespace

/*
 * NhBind - binds with the framework unless already bound. Returns the status
 * of the request (the framework not loaded: STATUS_OBJECT_NAME_NOT_FOUND).
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhBind(VOID)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    {
        NhLock lock;
        if (g_Hook.m_bBound)
            return STATUS_SUCCESS;
    }
    NdisHookAPI api;
    PrepareRecord(&api);
    NTSTATUS status = SendBindingRequest(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api);
    if (!NT_SUCCESS(status)) {
        DbgPrint("NdisHook: bind fails, status = 0x%x\n", (unsigned)status);
        return status;
    }
    if ((api.m_Flags & NDIS_HOOK_FLAG_BOUND) == 0 || api.Filter_FilterReceivedPacket == NULL ||
        api.Filter_FilterSendPacket == NULL) {
        DbgPrint("NdisHook: the framework returned no callbacks\n");
        return STATUS_UNSUCCESSFUL;
    }
    {
        NhLock lock;
        g_Hook.m_Api = api;
        g_Hook.m_bBound = TRUE;
    }
    return STATUS_SUCCESS;
}

/*
 * NhUnbind - stops calling the framework, waits for callbacks still running,
 * then unbinds. Not to be called from within a framework callback.
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhUnbind(VOID)
{
    NdisHookAPI api;
    {
        NhLock lock;
        if (!g_Hook.m_bBound)
            return STATUS_SUCCESS;
        g_Hook.m_bBound = FALSE;
        api = g_Hook.m_Api;
    }
    while (CallsIntoFramework() != 0) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    NTSTATUS status = SendBindingRequest(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, &api);
    if (!NT_SUCCESS(status)) {
        /* The framework is gone or refused: forget its callbacks all the same. */
        api.m_Flags &= ~(ULONG)NDIS_HOOK_FLAG_BOUND;
        api.Filter_AdapterOpened = NULL;
        api.Filter_AdapterStatusChanged = NULL;
        api.Filter_AdapterClosed = NULL;
        api.Filter_FilterReceivedPacket = NULL;
        api.Filter_FilterSendPacket = NULL;
    }
    {
        NhLock lock;
        g_Hook.m_Api = api;
    }
    if (!NT_SUCCESS(status))
        DbgPrint("NdisHook: unbind fails, status = 0x%x\n", (unsigned)status);
    return status;
}

/* NhQueryApi - a copy of the binding record as the hook driver holds it. */
VOID NhQueryApi(PNdisHookAPI Copy)
{
    NhLock lock;
    *Copy = g_Hook.m_Api;
}

/*
 * NdisHookDriverEntry - sets up the driver and, unless the service key's
 * BindAtLoad is 0, binds with the framework (a failed bind leaves it loaded
 * and unbound). Only one instance may be loaded. IRQL == PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisHookDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    if (g_Hook.m_bLoaded)
        return STATUS_OBJECT_NAME_COLLISION;
    RtlZeroMemory(&g_Hook, sizeof(g_Hook));
    KeInitializeSpinLock(&g_Hook.m_Lock);
    InitializeListHead(&g_Hook.m_Adapters);
    InitializeListHead(&g_Hook.m_FreeRecords);
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++) {
        KeInitializeSpinLock(&g_Hook.m_Processors[i].m_Lock);
        InitializeListHead(&g_Hook.m_Processors[i].m_FreeRecords);
    }
    InitializeListHead(&g_Hook.m_Requests);
    PrepareRecord(&g_Hook.m_Api);
    NhInitializeRequests();

    NTSTATUS status = NhInitializePackets();
    if (!NT_SUCCESS(status))
        return status;
    g_Hook.m_pDriver = DriverObject;
    g_Hook.m_bLoaded = TRUE;
    DriverObject->DriverUnload = NhUnload;

    if (ReadBindAtLoad(RegistryPath) != 0)
        NhBind();
    return STATUS_SUCCESS;
}
