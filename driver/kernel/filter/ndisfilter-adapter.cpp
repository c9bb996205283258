/*
 * ndisfilter-adapter.cpp - the adapters the hook driver reports: the adapter
 * table, adapter identifiers, lookups, enumeration, the hook's three adapter
 * callbacks and the delivery of adapter events to the event handlers.
 *
 * The framework opens no adapter itself. The hook driver owns a FilterAdapter
 * record per adapter (an adapter handle is its address) and rewrites the
 * adapter table in place whenever the framework asks it to.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"
#include "ndisfilter-ethrlog.h"

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

/*
 * The adapters open now, by handle. Membership is decided by the address
 * alone, never by reading the record, so a handle whose adapter has closed
 * (and whose record the hook driver may have freed) is refused safely.
 * Slots change with interlocked operations; readers take no lock.
 */
static PFilterAdapter volatile OpenAdapters[FILTER_MAX_ADAPTERS];
/* One past the highest slot ever filled: lookups stop there. Only grows. */
static volatile LONG OpenAdapterSlots;

/* At start-up: an empty table whose first identifier will be 1. */
VOID NdisFilter_InitializeAdapterIds(VOID)
{
    NdisInitializeReadWriteLock(&AdapterIdTable.m_AdapterIdLock);
    AdapterIdTable.m_nCount = 0;
    AdapterIdTable.m_dwNextId = 1;
}

/* TRUE when `Adapter` is open now. Any IRQL; no lock. */
BOOLEAN NdisFilter_IsOpenAdapter(PFilterAdapter Adapter)
{
    if (Adapter == NULL)
        return FALSE;
    ULONG slots = (ULONG)OpenAdapterSlots;
    for (ULONG i = 0; i < slots && i < FILTER_MAX_ADAPTERS; i++)
        if (OpenAdapters[i] == Adapter)
            return TRUE;
    return FALSE;
}

namespace {

VOID AddOpenAdapter(PFilterAdapter Adapter)
{
    if (NdisFilter_IsOpenAdapter(Adapter))
        return;
    for (ULONG i = 0; i < FILTER_MAX_ADAPTERS; i++) {
        if (InterlockedCompareExchangePointer((PVOID volatile *)&OpenAdapters[i], Adapter, NULL) == NULL) {
            LONG seen = OpenAdapterSlots;
            while (seen <= (LONG)i) {
                LONG previous = InterlockedCompareExchange(&OpenAdapterSlots, (LONG)i + 1, seen);
                if (previous == seen)
                    break;
                seen = previous;
            }
            return;
        }
    }
}

VOID RemoveOpenAdapter(PFilterAdapter Adapter)
{
    for (ULONG i = 0; i < FILTER_MAX_ADAPTERS; i++)
        InterlockedCompareExchangePointer((PVOID volatile *)&OpenAdapters[i], NULL, Adapter);
}

/*
 * Has the hook driver rewrite the adapter table in place. Takes no lock:
 * readers holding m_AdapterListLock may see a refresh half done. A fault in
 * the hook driver leaves an empty table.
 */
VOID RefreshAdapterTable(VOID)
{
    NfHookReference hook;
    PHOOK_GET_TCPIP_BOUND_ADAPTERS refresh = hook.Get(&NdisHookAPI::Hook_GetTcpIpBoundAdapters);
    if (refresh == NULL)
        return;
    g_pGlobal->m_AdapterList.m_nAdapterCount = 0;
    LONG code = FilterGuard([&] { refresh(&g_pGlobal->m_AdapterList); });
    if (code != 0) {
        NF_PRINT("Hook_GetTcpIpBoundAdapters: exception, code = %d\n", (int)code);
        g_pGlobal->m_AdapterList.m_nAdapterCount = 0;
    }
}

/*
 * Stamps the adapter's tag under the fault guard; a record that cannot be
 * written is reported under `CallerName` and the callback goes no further.
 */
BOOLEAN StampAdapter(PCSTR CallerName, PFilterAdapter Adapter)
{
    LONG code = FilterGuard([&] { Adapter->m_Tag = FILTER_ADAPTER_TAG; });
    if (code != 0) {
        NF_PRINT("%s: exception, code = %d\n", CallerName, (int)code);
        return FALSE;
    }
    return TRUE;
}

/* The number of valid table entries, never more than the table holds. */
ULONG AdapterCount(VOID)
{
    ULONG count = g_pGlobal->m_AdapterList.m_nAdapterCount;
    return count < FILTER_MAX_ADAPTERS ? count : FILTER_MAX_ADAPTERS;
}

/*
 * Calls every adapter event handler, in registration order, for one adapter.
 * The caller holds m_EventHandlerLock (DISPATCH_LEVEL). A handler that faults
 * is reported under `CallerName` and the walk goes on.
 */
VOID CallEventHandlers(PCSTR CallerName, ULONG Event, PFilterAdapter Adapter)
{
    PLIST_ENTRY head = &g_pGlobal->m_EventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PEventHandler handler = CONTAINING_RECORD(link, EventHandler, m_ListEntry);
        LONG code = FilterGuard([&] {
            handler->m_pfEventProc(handler->m_hFilterDriver, handler->m_pDriverContext, Event,
                                   handler->m_pEventContext, Adapter);
        });
        if (code != 0)
            NF_PRINT("%s: exception, code = %d\n", CallerName, (int)code);
    }
}

/*
 * Traces "AdapterName=<name>". The callbacks run at up to DISPATCH_LEVEL,
 * where the debug print must not convert UTF-16 itself, so the name is
 * narrowed here ('?' for characters beyond ASCII) and printed as 8-bit text.
 */
VOID TraceAdapterName(PFilterAdapter Adapter)
{
    if (!NF_TRACE_ON(NF_DBG_HOOK_PACKET))
        return;
    CHAR name[128];
    ULONG length = 0;
    LONG code = FilterGuard([&] {
        const UNICODE_STRING *source = &Adapter->m_AdapterName;
        ULONG characters = source->Buffer == NULL ? 0 : source->Length / sizeof(WCHAR);
        for (; length < characters && length < sizeof(name) - 1; length++) {
            WCHAR c = source->Buffer[length];
            name[length] = (c >= 0x20 && c < 0x7F) ? (CHAR)c : '?';
        }
    });
    name[code == 0 ? length : 0] = '\0';
    NF_TRACE(NF_DBG_HOOK_PACKET, "AdapterName=%s\n", name);
}

} // namespace

/* Delivers one adapter event to every handler under the handler list's spin lock. */
VOID NdisFilter_DeliverAdapterEvent(PCSTR CallerName, ULONG Event, PFilterAdapter Adapter)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
    CallEventHandlers(CallerName, Event, Adapter);
    KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);
}

/*
 * NdisFilter_AdapterOpened - the hook driver opened an adapter: stamp its tag,
 * refresh the table and tell the event handlers. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterOpened(PFilterAdapter Adapter)
{
    NfCallbackScope gate;
    if (!gate.Entered())
        return STATUS_SUCCESS;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterOpened\n");
    if (Adapter != NULL) {
        TraceAdapterName(Adapter);
        if (StampAdapter("NdisFilter_AdapterOpened", Adapter)) {
            AddOpenAdapter(Adapter);
            RefreshAdapterTable();
            NdisFilter_DeliverAdapterEvent("NdisFilter_AdapterOpened", FILTER_EVENT_ADAPTER_OPENED, Adapter);
        }
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterOpened\n");
    return STATUS_SUCCESS;
}

/*
 * NdisFilter_AdapterStatusChanged - media connect and disconnect become
 * adapter events; any other status is printed and dropped. The table is not
 * refreshed. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NdisFilter_AdapterStatusChanged(PFilterAdapter Adapter, NDIS_STATUS Status)
{
    NfCallbackScope gate;
    if (!gate.Entered())
        return;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterStatusChanged\n");
    if (Adapter != NULL) {
        TraceAdapterName(Adapter);
        if (Status == NDIS_STATUS_MEDIA_CONNECT)
            NdisFilter_DeliverAdapterEvent("NdisFilter_AdapterStatusChanged", FILTER_EVENT_MEDIA_CONNECT, Adapter);
        else if (Status == NDIS_STATUS_MEDIA_DISCONNECT)
            NdisFilter_DeliverAdapterEvent("NdisFilter_AdapterStatusChanged", FILTER_EVENT_MEDIA_DISCONNECT, Adapter);
        else
            NF_PRINT("Unknown adapter status 0x%x\n", (unsigned)Status);
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterStatusChanged\n");
}

/*
 * NdisFilter_AdapterClosed - the hook driver closed an adapter. Its tag and
 * identifier stay; clients learn of the close from the event and must drop
 * the handle. The injection entries refuse it from now on and the packets
 * queued for it are released. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterClosed(PFilterAdapter Adapter)
{
    NfCallbackScope gate;
    if (!gate.Entered())
        return STATUS_SUCCESS;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_AdapterClosed\n");
    if (Adapter != NULL) {
        TraceAdapterName(Adapter);
        RemoveOpenAdapter(Adapter);
        /* Packets still queued for it go back to the hook driver, never to the closed adapter. */
        NdisFilter_PurgeQueuedPackets(Adapter, NULL);
        /* Capture logs of a closed adapter end with it (upper, lower, inject). */
        NdisFilter_CloseAdapterEthrLogs(Adapter);
        RefreshAdapterTable();
        NdisFilter_DeliverAdapterEvent("NdisFilter_AdapterClosed", FILTER_EVENT_ADAPTER_CLOSED, Adapter);
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_AdapterClosed\n");
    return STATUS_SUCCESS;
}

/*
 * NdisFilter_EnumOpenedAdapter - refreshes the table and reports every adapter
 * in it as opened, so handlers learn of adapters that existed before they
 * did. Run right after the hook driver binds, and for clients.
 */
VOID NdisFilter_EnumOpenedAdapter(VOID)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_EnumOpenedAdapter\n");
    RefreshAdapterTable();
    ULONG count = AdapterCount();
    if (count != 0) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
        for (ULONG i = 0; i < count; i++) {
            PFilterAdapter adapter = g_pGlobal->m_AdapterList.m_Adapters[i].m_hAdapter;
            if (!StampAdapter("NdisFilter_AdapterOpened", adapter))
                continue;
            AddOpenAdapter(adapter);
            CallEventHandlers("NdisFilter_AdapterOpened", FILTER_EVENT_ADAPTER_OPENED, adapter);
        }
        KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_EnumOpenedAdapter\n");
}

EXTERN_C VOID NTAPI Filter_EnumOpenedAdapter(VOID)
{
    NdisFilter_EnumOpenedAdapter();
}

/*
 * Filter_IsValidAdapter - TRUE when the handle's tag shows an adapter the
 * framework has seen (also after it closed). Any IRQL.
 */
EXTERN_C BOOLEAN NTAPI Filter_IsValidAdapter(PFilterAdapter Adapter)
{
    return NdisFilter_CheckHandle("Filter_IsValidAdapter", Adapter, FIELD_OFFSET(FilterAdapter, m_Tag),
                                  FILTER_ADAPTER_TAG);
}

/*
 * Filter_AdapterToId - the identifier of an adapter handle, issuing the next
 * one the first time a handle is asked for. Nothing is validated: any handle
 * gets an identifier while the table has room. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_AdapterToId(PFilterAdapter Adapter, PULONG Id)
{
    for (ULONG i = 0; i < AdapterIdTable.m_nCount; i++) {
        if (AdapterIdTable.m_Entries[i].m_hAdapter == Adapter) {
            *Id = AdapterIdTable.m_Entries[i].m_dwId;
            return FILTER_STATUS_SUCCESS;
        }
    }
    if (AdapterIdTable.m_nCount >= FILTER_MAX_ADAPTERS)
        return FILTER_ERROR_INTERNAL_ERROR;

    NfWriteLock lock(&AdapterIdTable.m_AdapterIdLock);
    /* A second caller may have added the handle (or filled the table) meanwhile. */
    for (ULONG i = 0; i < AdapterIdTable.m_nCount; i++) {
        if (AdapterIdTable.m_Entries[i].m_hAdapter == Adapter) {
            *Id = AdapterIdTable.m_Entries[i].m_dwId;
            return FILTER_STATUS_SUCCESS;
        }
    }
    if (AdapterIdTable.m_nCount >= FILTER_MAX_ADAPTERS)
        return FILTER_ERROR_INTERNAL_ERROR;
    AdapterIdEntry *entry = &AdapterIdTable.m_Entries[AdapterIdTable.m_nCount];
    entry->m_hAdapter = Adapter;
    entry->m_dwId = AdapterIdTable.m_dwNextId++;
    *Id = entry->m_dwId;
    InterlockedIncrement((volatile LONG *)&AdapterIdTable.m_nCount);
    return FILTER_STATUS_SUCCESS;
}

/* Filter_IdToAdapter - the handle an identifier was issued for. IRQL <= DISPATCH_LEVEL. */
EXTERN_C FILTER_STATUS NTAPI Filter_IdToAdapter(ULONG Id, PFilterAdapter *Adapter)
{
    NfReadLock lock(&AdapterIdTable.m_AdapterIdLock);
    for (ULONG i = 0; i < AdapterIdTable.m_nCount; i++) {
        if (AdapterIdTable.m_Entries[i].m_dwId == Id) {
            *Adapter = AdapterIdTable.m_Entries[i].m_hAdapter;
            return FILTER_STATUS_SUCCESS;
        }
    }
    return FILTER_ERROR_INVALID_ARGUMENT;
}

/* Filter_GetFirstAdapter - the first adapter of the table, or NULL. */
EXTERN_C PFilterAdapter NTAPI Filter_GetFirstAdapter(VOID)
{
    return AdapterCount() == 0 ? NULL : g_pGlobal->m_AdapterList.m_Adapters[0].m_hAdapter;
}

/*
 * Filter_EnumAdapter - calls EnumProc(Context, adapter) for each adapter in
 * table order until it answers FALSE. The procedure runs with the table
 * read-locked (DISPATCH_LEVEL).
 */
EXTERN_C FILTER_STATUS NTAPI Filter_EnumAdapter(PFilterDriver FilterDriver, PFILTER_ENUM_ADAPTER_PROC EnumProc,
                                                PVOID Context)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_EnumAdapter", status);

    if (FilterDriver == NULL || EnumProc == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else {
        NfReadLock lock(&g_pGlobal->m_AdapterListLock);
        LONG code = FilterGuard([&] {
            ULONG count = AdapterCount();
            for (ULONG i = 0; i < count; i++)
                if (!EnumProc(Context, g_pGlobal->m_AdapterList.m_Adapters[i].m_hAdapter))
                    break;
        });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_EnumAdapter", code);
            status = FILTER_ERROR_EXCEPTION;
        }
    }
    return status;
}

/*
 * Filter_FindAdapterByMacAddress - the first adapter in table order whose
 * current address (not the permanent one) is the given MAC.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_FindAdapterByMacAddress(const UCHAR *MacAddress, PFilterAdapter *Adapter)
{
    FILTER_STATUS status = FILTER_ERROR_ADAPTER_NOT_FOUND;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_FindAdapterByMacAddress", status);

    if (MacAddress == NULL || Adapter == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    NfReadLock lock(&g_pGlobal->m_AdapterListLock);
    LONG code = FilterGuard([&] {
        ULONG count = AdapterCount();
        for (ULONG i = 0; i < count; i++) {
            const AdapterInfo *info = &g_pGlobal->m_AdapterList.m_Adapters[i];
            if (RtlEqualMemory(info->m_CurrentAddress, MacAddress, 6)) {
                *Adapter = info->m_hAdapter;
                status = FILTER_STATUS_SUCCESS;
                return;
            }
        }
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_FindAdapterByMacAddress", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_FindAdapterByNetCfgInstanceId - the first adapter in table order
 * whose name begins with the given instance id (case-sensitive prefix).
 */
EXTERN_C FILTER_STATUS NTAPI Filter_FindAdapterByNetCfgInstanceId(PCSTR InstanceId, PFilterAdapter *Adapter)
{
    FILTER_STATUS status = FILTER_ERROR_ADAPTER_NOT_FOUND;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_FindAdapterByNetCfgInstanceId", status);

    if (InstanceId == NULL || Adapter == NULL || InstanceId[0] == '\0') {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    NfReadLock lock(&g_pGlobal->m_AdapterListLock);
    LONG code = FilterGuard([&] {
        ULONG length = 0;
        while (InstanceId[length] != '\0')
            length++;
        /* A name holds at most 255 characters before its terminator. */
        if (length >= sizeof(((AdapterInfo *)0)->m_szAdapterName))
            return;
        ULONG count = AdapterCount();
        for (ULONG i = 0; i < count; i++) {
            const AdapterInfo *info = &g_pGlobal->m_AdapterList.m_Adapters[i];
            if (RtlEqualMemory(info->m_szAdapterName, InstanceId, length)) {
                NF_TRACE(NF_DBG_ADAPTER, "Find Filter_FindAdapterByNetCfgInstanceId\n");
                *Adapter = info->m_hAdapter;
                status = FILTER_STATUS_SUCCESS;
                return;
            }
        }
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_FindAdapterByNetCfgInstanceId", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}
