/*
 * ndisfilter-adapter.cpp - the adapters the hook driver reports: the adapter
 * identifier table and the hook's adapter callbacks.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

/* Identifiers by which user mode names adapters; entries are never removed. */
struct AdapterIdEntry {
    PFilterAdapter m_hAdapter;
    ULONG m_dwId;
};

struct AdapterIdTableRecord {
    NDIS_RW_LOCK m_AdapterIdLock;
    ULONG m_nCount;
    ULONG m_dwNextId;
    AdapterIdEntry m_Entries[FILTER_MAX_ADAPTERS];
};

static AdapterIdTableRecord AdapterIdTable;

/* At start-up: an empty table whose first identifier will be 1. */
VOID NdisFilter_InitializeAdapterIds(VOID)
{
    NdisInitializeReadWriteLock(&AdapterIdTable.m_AdapterIdLock);
    AdapterIdTable.m_nCount = 0;
    AdapterIdTable.m_dwNextId = 1;
}

/*
 * The hook driver's adapter callbacks. Adapters are reported here once the
 * hook driver has bound; until the adapter table tracks them the callbacks
 * only trace. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterOpened(PFilterAdapter Adapter)
{
    UNREFERENCED_PARAMETER(Adapter);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterOpened\n");
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterOpened\n");
    return STATUS_SUCCESS;
}

EXTERN_C VOID NTAPI NdisFilter_AdapterStatusChanged(PFilterAdapter Adapter, NDIS_STATUS Status)
{
    UNREFERENCED_PARAMETER(Adapter);
    UNREFERENCED_PARAMETER(Status);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterStatusChanged\n");
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterStatusChanged\n");
}

EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterClosed(PFilterAdapter Adapter)
{
    UNREFERENCED_PARAMETER(Adapter);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterClosed\n");
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterClosed\n");
    return STATUS_SUCCESS;
}

/* Asks the newly bound hook driver for the adapters it already has open. */
VOID NdisFilter_EnumOpenedAdapter(VOID)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_EnumOpenedAdapter\n");
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_EnumOpenedAdapter\n");
}
