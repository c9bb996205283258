/*
 * ndisfilter-main-hook.cpp - binding with the NDIS hook driver.
 *
 * The hook driver opens the control device and sends one internal request
 * carrying an NdisHookAPI record: the framework hands over its five callbacks
 * and keeps the hook driver's fourteen functions. A second request undoes it.
 * Users of the hook functions test NF_HOOK_ACTIVE first and answer
 * FILTER_ERROR_INTERFACE_NOT_ACTIVE when the hook is not there.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-ethrlog.h"

namespace {

/* The five callback fields (offsets 16 to 48) and the fourteen hook fields (56 to 160). */
#define NF_HOOK_CALLBACKS_OFFSET FIELD_OFFSET(NdisHookAPI, Filter_AdapterOpened)
#define NF_HOOK_FUNCTIONS_OFFSET FIELD_OFFSET(NdisHookAPI, Hook_GetOsVersion)
#define NF_HOOK_CALLBACKS_SIZE (NF_HOOK_FUNCTIONS_OFFSET - NF_HOOK_CALLBACKS_OFFSET)
#define NF_HOOK_FUNCTIONS_SIZE (sizeof(NdisHookAPI) - NF_HOOK_FUNCTIONS_OFFSET)
C_ASSERT(NF_HOOK_CALLBACKS_OFFSET == 16 && NF_HOOK_FUNCTIONS_OFFSET == 56);

PUCHAR Field(PNdisHookAPI Api, LONG Offset)
{
    return (PUCHAR)Api + Offset;
}

} // namespace

/* ---- the callback gate ---- */

namespace {

/* The callbacks inside, counted by processor slot; closed until start-up opens it. */
NfGate CallbackGate = {1, {0}, {}};

} // namespace

VOID NdisFilter_OpenCallbacks(VOID)
{
    NfGateOpen(&CallbackGate);
}

/* Closes the gate and waits, at PASSIVE_LEVEL, for the callbacks still inside. */
VOID NdisFilter_CloseCallbacks(VOID)
{
    NfGateClose(&CallbackGate);
}

BOOLEAN NdisFilter_EnterCallback(ULONG *Slot)
{
    return NfGateEnter(&CallbackGate, Slot);
}

VOID NdisFilter_LeaveCallback(ULONG Slot)
{
    NfGateLeave(&CallbackGate, Slot);
}

/* ---- binding ---- */

/* NdisFilterBindHookInterface - exchanges the callbacks and functions, then learns the open adapters. */
VOID NdisFilterBindHookInterface(PNdisHookAPI Caller)
{
    PNdisHookAPI own = &g_pGlobal->m_NdisHookAPI;
    NF_TRACE(NF_DBG_CORE, "\nEnter NdisFilterBindHookInterface\n");
    {
        NfWriteLock lock(&g_pGlobal->m_HookAPILock);
        RtlCopyMemory(Field(Caller, NF_HOOK_CALLBACKS_OFFSET), Field(own, NF_HOOK_CALLBACKS_OFFSET),
                      NF_HOOK_CALLBACKS_SIZE);
        RtlCopyMemory(Field(own, NF_HOOK_FUNCTIONS_OFFSET), Field(Caller, NF_HOOK_FUNCTIONS_OFFSET),
                      NF_HOOK_FUNCTIONS_SIZE);
        /* A full barrier: hook references read the flag, then a function. */
        InterlockedOr((volatile LONG *)&own->m_Flags, NDIS_HOOK_FLAG_BOUND);
        Caller->m_Flags |= NDIS_HOOK_FLAG_BOUND;
    }
    NdisFilter_ResumeEthrLogs();
    NdisFilter_EnumOpenedAdapter();
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterBindHookInterface\n");
}

/* NdisFilterUnBindHookInterface - forgets the hook functions; adapters, filters and queues stay. */
VOID NdisFilterUnBindHookInterface(PNdisHookAPI Caller)
{
    PNdisHookAPI own = &g_pGlobal->m_NdisHookAPI;
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterUnBindHookInterface\n");
    /* Clones queued for the capture logs go back to the hook driver while it can take them. */
    NdisFilter_SuspendEthrLogs();
    {
        NfWriteLock lock(&g_pGlobal->m_HookAPILock);
        own->m_Flags &= ~(ULONG)NDIS_HOOK_FLAG_BOUND;
        Caller->m_Flags &= ~(ULONG)NDIS_HOOK_FLAG_BOUND;
        RtlZeroMemory(Field(Caller, NF_HOOK_CALLBACKS_OFFSET), NF_HOOK_CALLBACKS_SIZE);
        RtlZeroMemory(Field(own, NF_HOOK_FUNCTIONS_OFFSET), NF_HOOK_FUNCTIONS_SIZE);
    }
    /* Hook calls that read a function before the unbind end before it returns. */
    NfGraceWait(&g_pGlobal->m_HookAPIGrace);
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterUnBindHookInterface\n");
}

/* NdisFilterTestHookInterface - prints the framework's copy of the record, field by field. */
VOID NdisFilterTestHookInterface(VOID)
{
    const NdisHookAPI *api = &g_pGlobal->m_NdisHookAPI;
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterTestHookInterface\n");
    NF_PRINT("  m_NdisHookAPI.m_Size = 0x%p\n", (PVOID)(ULONG_PTR)api->m_Size);
    NF_PRINT("  m_NdisHookAPI.m_Flags = 0x%p\n", (PVOID)(ULONG_PTR)api->m_Flags);
    NF_PRINT("  m_NdisHookAPI.m_MajorVersion = 0x%p\n", (PVOID)(ULONG_PTR)api->m_MajorVersion);
    NF_PRINT("  m_NdisHookAPI.m_MinorVersion = 0x%p\n", (PVOID)(ULONG_PTR)api->m_MinorVersion);
#define NF_PRINT_HOOK_FIELD(name) NF_PRINT("  m_NdisHookAPI." #name " = 0x%p\n", (PVOID)api->name);
    NF_HOOK_API_FUNCTIONS(NF_PRINT_HOOK_FIELD)
#undef NF_PRINT_HOOK_FIELD
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterTestHookInterface\n");
}

namespace {

/* The size and version checks of a binding record; the first failure ends them. */
NTSTATUS CheckHookRecord(const NdisHookAPI *Api)
{
    if (Api->m_Size != sizeof(NdisHookAPI)) {
        NF_TRACE(NF_DBG_CORE, "  pNdisHookAPI->m_Size (%d) != sizeof(NdisHookAPI)\n", (int)Api->m_Size);
        return STATUS_INVALID_PARAMETER;
    }
    if (Api->m_MajorVersion != NDIS_HOOK_MAJOR_VERSION) {
        NF_TRACE(NF_DBG_CORE, "  pNdisHookAPI->m_MajorVersion (%d) != NDIS_HOOK_MAJOR_VERSION\n",
                 (int)Api->m_MajorVersion);
        return STATUS_INVALID_PARAMETER;
    }
    if (Api->m_MinorVersion != NDIS_HOOK_MINOR_VERSION) {
        NF_TRACE(NF_DBG_CORE, "  pNdisHookAPI->m_MinorVersion (%d) != NDIS_HOOK_MINOR_VERSION\n",
                 (int)Api->m_MinorVersion);
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

} // namespace

/*
 * NdisFilterInternalIoControl - the hook driver's bind and unbind requests.
 * The system buffer holds one NdisHookAPI for input and output; on success
 * the modified record goes back. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisFilterInternalIoControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    PNdisHookAPI api = (PNdisHookAPI)Irp->AssociatedIrp.SystemBuffer;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;

    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterInternalIoControl\n");
    NF_TRACE(NF_DBG_CORE, "  - ControlCode - 0x%x\n", (unsigned)code);
    NF_TRACE(NF_DBG_CORE, "  - InputBufferLength - 0x%x\n", (unsigned)inputLength);
    NF_TRACE(NF_DBG_CORE, "  - OutputBufferLength - 0x%x\n", (unsigned)outputLength);
    NF_TRACE(NF_DBG_CORE, "  - sizeof(NdisHookAPI) - 0x%x\n", (unsigned)sizeof(NdisHookAPI));

    if (code != IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK && code != IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK) {
        NF_PRINT("  Unknown IOCTL = 0x%x\n", (unsigned)code);
        status = STATUS_INVALID_PARAMETER;
    } else {
        BOOLEAN bind = code == IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK;
        NF_TRACE(NF_DBG_CORE, "%s", bind ? "  IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK\n"
                                         : "  IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK\n");
        if (inputLength < sizeof(NdisHookAPI) || outputLength < sizeof(NdisHookAPI)) {
            NF_TRACE(NF_DBG_CORE, "  Input or Output Buffer Length are too small\n");
            status = STATUS_BUFFER_TOO_SMALL;
        } else {
            status = CheckHookRecord(api);
        }
        if (NT_SUCCESS(status)) {
            if (bind) {
                NdisFilterBindHookInterface(api);
                NdisFilterTestHookInterface();
            } else {
                NdisFilterUnBindHookInterface(api);
            }
            information = sizeof(NdisHookAPI);
        }
    }

    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterInternalIoControl\n");
    return status;
}
