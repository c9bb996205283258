/*
 * ndisfilter-filter-registry.cpp - the four packet-filter chains.
 *
 * Each chain (one per FILTER_TYPE) is kept sorted by the filters' orders,
 * taken as unsigned numbers, so FIRST (0) < fixed positions < NEXT
 * (0xFFFFFFFE) < LAST (0xFFFFFFFF); a new filter goes in front of the first
 * filter whose order is greater than or equal to its own. Registration and
 * removal take the chain's lock for writing, listings for reading. Walks take
 * no lock: they are readers of the chain's grace guard, so a new filter is
 * linked in one publishing store, and a removed one is freed only after
 * NfGraceWait, when no walk can stand on it any more.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"
#include "ndisfilter-processor-local.h"

#define NF_FILTER_POOL_TAG 0x4146664E /* "NfFA" */

namespace {

BOOLEAN IsFilterType(FILTER_TYPE Type)
{
    return (ULONG)Type < FILTER_TYPE_COUNT;
}

/* The filter of `Head` with an equal name, or NULL. The caller holds the chain's lock. */
PPacketFilter FindByName(PLIST_ENTRY Head, const STRING *Name)
{
    for (PLIST_ENTRY link = Head->Flink; link != Head; link = link->Flink) {
        PPacketFilter filter = CONTAINING_RECORD(link, PacketFilter, m_ListEntry);
        if (Filter_CompareString(&filter->m_FilterName, Name) == 0)
            return filter;
    }
    return NULL;
}

/* Inserts `Filter` in front of the first filter whose order is >= its own. */
VOID InsertByOrder(PLIST_ENTRY Head, PPacketFilter Filter)
{
    PLIST_ENTRY link = Head->Flink;
    while (link != Head && CONTAINING_RECORD(link, PacketFilter, m_ListEntry)->m_FilterOrder < Filter->m_FilterOrder)
        link = link->Flink;
    NfPublishBefore(link, &Filter->m_ListEntry); /* walks in progress see it whole or not at all */
}

} // namespace

/*
 * Filter_RegisterFilter - builds a filter record and places it in the chain
 * of its type; the chain is dumped afterwards. When memory is short the call
 * still succeeds and writes no handle. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterFilter(PFilterDriver FilterDriver, PSTRING FilterName,
                                                   PFILTER_PROC FilterProc, PVOID FilterContext, FILTER_TYPE Type,
                                                   FILTER_ORDER Order, PPacketFilter *Filter)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_RegisterFilter", status);

    if (FilterDriver == NULL || FilterName == NULL || FilterProc == NULL || Filter == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }
    if (!IsFilterType(Type)) {
        status = FILTER_ERROR_INVALID_FILTER_TYPE;
        return status;
    }

    {
        NfWriteLock lock(&g_pGlobal->m_PacketFilterLock[Type]);
        PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[Type];
        if (FindByName(head, FilterName) != NULL) {
            status = FILTER_ERROR_FILTER_ALREADY_REGISTERED;
            return status;
        }
        ULONG countsOffset = sizeof(PacketFilter) + FilterName->Length + 2;
        ULONG size = countsOffset + NF_CACHE_LINE - 1 + NF_FILTER_COUNT_SLOTS * sizeof(NfFilterCounts);
        PPacketFilter filter = (PPacketFilter)NdisFilter_AllocateRecord(size, NF_FILTER_POOL_TAG);
        if (filter != NULL) {
            RtlZeroMemory(filter, size);
            filter->m_Tag = FILTER_PACKET_FILTER_TAG;
            NdisFilter_CopyNameBehind(&filter->m_FilterName, filter, sizeof(PacketFilter), FilterName);
            ULONG_PTR counts = (ULONG_PTR)filter + countsOffset;
            filter->m_pCounts = (NfFilterCounts *)((counts + NF_CACHE_LINE - 1) & ~(ULONG_PTR)(NF_CACHE_LINE - 1));
            filter->m_hFilterDriver = FilterDriver;
            filter->m_pDriverContext = FilterDriver->m_pDriverContext;
            filter->m_pfFilterProc = FilterProc;
            filter->m_pFilterContext = FilterContext;
            filter->m_FilterType = Type;
            filter->m_FilterOrder = (ULONG)Order;
            InsertByOrder(head, filter);
            *Filter = filter;
        }
    }
    Filter_DumpFilter(Type);
    return status;
}

/* Filter_IsValidFilter - the tag check, and a type that names a chain. */
EXTERN_C BOOLEAN NTAPI Filter_IsValidFilter(PPacketFilter Filter)
{
    if (!NdisFilter_CheckHandle("Filter_IsValidFilter", Filter, FIELD_OFFSET(PacketFilter, m_Tag),
                                FILTER_PACKET_FILTER_TAG))
        return FALSE;
    BOOLEAN valid = FALSE;
    LONG code = FilterGuard([&] { valid = IsFilterType(Filter->m_FilterType); });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_IsValidFilter", code);
        return FALSE;
    }
    if (!valid)
        NF_PRINT_INVALID_HANDLE("Filter_IsValidFilter", Filter, FILTER_PACKET_FILTER_TAG);
    return valid;
}

/*
 * Filter_DeregisterFilter - removes one of the driver's own filters from its
 * chain; the procedure is not called. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterFilter(PFilterDriver FilterDriver, PPacketFilter Filter)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_ENTER(NF_DBG_PACKET_FILTER, "Filter_DeregisterFilter");

    if (FilterDriver == NULL || Filter == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else if (!Filter_IsValidFilter(Filter)) {
        status = FILTER_ERROR_INVALID_PACKET_FILTER;
    } else {
        FILTER_TYPE type = Filter->m_FilterType;
        BOOLEAN removed = FALSE;
        {
            NfWriteLock lock(&g_pGlobal->m_PacketFilterLock[type]);
            PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[type];
            PLIST_ENTRY link = head->Flink;
            while (link != head && link != &Filter->m_ListEntry)
                link = link->Flink;
            if (link == head) {
                status = FILTER_ERROR_FILTER_NOT_FOUND;
            } else if (Filter->m_hFilterDriver != FilterDriver) {
                status = FILTER_ERROR_INVALID_FILTER_OWNER;
            } else {
                RemoveEntryList(link);
                removed = TRUE;
            }
        }
        if (removed) {
            /* Walks that may still call it end first. */
            NfGraceWait(&g_pGlobal->m_PacketFilterGrace[type]);
            Filter->m_Tag = 0; /* a stale handle no longer passes the check */
            NdisFilter_PurgeQueuedPackets(NULL, Filter);
            NdisFilter_FreeRecord(Filter);
            Filter_DumpFilter(type);
            /* A successful removal ends with the error line for success and no leave line. */
            NF_TRACE_ERROR(NF_DBG_PACKET_FILTER, status);
            return status;
        }
    }
    NF_TRACE_ERROR(NF_DBG_PACKET_FILTER, status);
    NF_LEAVE_STATUS(NF_DBG_PACKET_FILTER, "Filter_DeregisterFilter", status);
    return status;
}

namespace {

/*
 * The checks shared by the four getters; TRUE when the value may be read.
 * Takes no lock.
 */
BOOLEAN CheckGetter(PPacketFilter Filter, PVOID Output, FILTER_STATUS *Status)
{
    if (Filter == NULL || Output == NULL)
        *Status = FILTER_ERROR_INVALID_ARGUMENT;
    else if (!Filter_IsValidFilter(Filter))
        *Status = FILTER_ERROR_INVALID_PACKET_FILTER;
    return *Status == FILTER_STATUS_SUCCESS;
}

} // namespace

/* A copy of the name in a block the caller frees with Filter_FreeMemory. */
EXTERN_C FILTER_STATUS NTAPI Filter_GetFilterName(PPacketFilter Filter, PSTRING *FilterName)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_GetFilterName", status);
    if (CheckGetter(Filter, FilterName, &status)) {
        PSTRING copy = NdisFilter_DuplicateName(&Filter->m_FilterName, NF_FILTER_POOL_TAG);
        if (copy != NULL)
            *FilterName = copy;
    }
    return status;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetFilterContext(PPacketFilter Filter, PVOID *FilterContext)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_GetFilterContext", status);
    if (CheckGetter(Filter, FilterContext, &status))
        *FilterContext = Filter->m_pFilterContext;
    return status;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetFilterType(PPacketFilter Filter, FILTER_TYPE *Type)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_GetFilterType", status);
    if (CheckGetter(Filter, Type, &status))
        *Type = Filter->m_FilterType;
    return status;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetFilterOrder(PPacketFilter Filter, FILTER_ORDER *Order)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_GetFilterOrder", status);
    if (CheckGetter(Filter, Order, &status))
        *Order = (FILTER_ORDER)Filter->m_FilterOrder;
    return status;
}

/*
 * Filter_EnumFilter - calls EnumProc(Context, filter) for the driver's filters
 * in the chain of `Type` whose type shares a bit with `Type` (so type 0 never
 * matches). The callback runs with the chain read-locked.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_EnumFilter(PFilterDriver FilterDriver, PFILTER_ENUM_FILTER_PROC EnumProc,
                                               PVOID Context, FILTER_TYPE Type)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_EnumFilter", status);

    if (FilterDriver == NULL || EnumProc == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else if (!IsFilterType(Type)) {
        status = FILTER_ERROR_INVALID_FILTER_TYPE;
    } else {
        NfReadLock lock(&g_pGlobal->m_PacketFilterLock[Type]);
        PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[Type];
        LONG code = FilterGuard([&] {
            for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
                PPacketFilter filter = CONTAINING_RECORD(link, PacketFilter, m_ListEntry);
                if (filter->m_hFilterDriver == FilterDriver && (filter->m_FilterType & Type) != 0)
                    EnumProc(Context, filter);
            }
        });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_EnumFilter", code);
            status = FILTER_ERROR_EXCEPTION;
        }
    }
    return status;
}

/* Filter_DumpFilter - prints a chain's head and every filter in it, whatever the mask says. */
EXTERN_C FILTER_STATUS NTAPI Filter_DumpFilter(FILTER_TYPE Type)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET_FILTER, "Filter_DumpFilter", status);
    if (!IsFilterType(Type)) {
        status = FILTER_ERROR_INVALID_FILTER_TYPE;
        return status;
    }
    PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[Type];
    NF_PRINT("Dumping Packet Filter(Type = %d - %s)\n", (int)Type, Filter_TypeString(Type));
    NF_PRINT("- PacketFilterList  = 0x%p\n", (PVOID)head);
    NF_PRINT("-          +- Blink = 0x%p\n", (PVOID)head->Blink);
    NF_PRINT("-          +- Flink = 0x%p\n", (PVOID)head->Flink);
    NfReadLock lock(&g_pGlobal->m_PacketFilterLock[Type]);
    LONG position = 0;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink)
        Filter_ShowFilter(CONTAINING_RECORD(link, PacketFilter, m_ListEntry), position++);
    return status;
}

/*
 * Filter_ShowFilter - prints one filter, field by field, whatever the mask
 * says. Nothing of a handle that fails its check is read beyond its tag
 * (FILTER_ERROR_INVALID_PACKET_FILTER); a valid one is copied under the fault
 * guard before anything is printed, and a fault prints the exception line
 * and answers FILTER_ERROR_EXCEPTION. Names are printed up to 255 bytes.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ShowFilter(PPacketFilter Filter, LONG Position)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    if (Filter == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!NdisFilter_CheckHandle("Filter_ShowFilter", Filter, FIELD_OFFSET(PacketFilter, m_Tag),
                                FILTER_PACKET_FILTER_TAG)) {
        status = FILTER_ERROR_INVALID_PACKET_FILTER;
        return status;
    }
    PacketFilter copy;
    NfFilterCounts counts;
    CHAR name[256];
    int nameLength = 0;
    LONG code = FilterGuard([&] {
        RtlCopyMemory(&copy, (const VOID *)Filter, sizeof(copy));
        NdisFilter_SumFilterCounts(&copy, &counts);
        nameLength = copy.m_FilterName.Buffer == NULL ? 0 : copy.m_FilterName.Length;
        if (nameLength > (int)sizeof(name) - 1)
            nameLength = (int)sizeof(name) - 1;
        if (nameLength != 0)
            RtlCopyMemory(name, copy.m_FilterName.Buffer, nameLength);
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_ShowFilter", code);
        status = FILTER_ERROR_EXCEPTION;
        return status;
    }
    name[nameLength] = '\0';
    NF_PRINT("Filter[%d] ----------- 0x%p\n", (int)Position, (PVOID)Filter);
    NF_PRINT("- &m_ListEntry      = 0x%p\n", (PVOID)&Filter->m_ListEntry);
    NF_PRINT("-      +-Blink      = 0x%p\n", (PVOID)copy.m_ListEntry.Blink);
    NF_PRINT("-      +-Flink      = 0x%p\n", (PVOID)copy.m_ListEntry.Flink);
    NF_PRINT("- m_Tag             = 0x%x\n", (unsigned)copy.m_Tag);
    NF_PRINT("- m_FilterName      = %*.*s\n", nameLength, nameLength, name);
    NF_PRINT("- m_hFilterDriver   = 0x%p\n", (PVOID)copy.m_hFilterDriver);
    NF_PRINT("- m_pDriverContext  = 0x%p\n", copy.m_pDriverContext);
    NF_PRINT("- m_pfFilterProc    = 0x%p\n", (PVOID)copy.m_pfFilterProc);
    NF_PRINT("- m_pFilterContext  = 0x%p\n", copy.m_pFilterContext);
    NF_PRINT("- m_FilterType      = %ld - %s\n", (LONG)copy.m_FilterType, Filter_TypeString(copy.m_FilterType));
    NF_PRINT("- m_FilterOrder     = %lu - %s\n", (ULONG)copy.m_FilterOrder,
             Filter_OrderString((FILTER_ORDER)copy.m_FilterOrder));
    NF_PRINT("- m_PacketProcess   = %ld\n", (LONG)counts.m_PacketProcess);
    NF_PRINT("- m_PacketBypass    = %ld\n", (LONG)counts.m_PacketBypass);
    NF_PRINT("- m_PacketDiscard   = %ld\n", (LONG)counts.m_PacketDiscard);
    NF_PRINT("- m_PacketConsume   = %ld\n", (LONG)counts.m_PacketConsume);
    NF_PRINT("- m_PacketCapture   = %ld\n", (LONG)counts.m_PacketCapture);
    return status;
}

VOID NdisFilter_SumFilterCounts(const PacketFilter *Filter, NfFilterCounts *Totals)
{
    Totals->m_PacketProcess = Totals->m_PacketBypass = Totals->m_PacketDiscard = 0;
    Totals->m_PacketConsume = Totals->m_PacketCapture = 0;
    for (ULONG slot = 0; slot < NF_FILTER_COUNT_SLOTS; slot++) {
        const NfFilterCounts *counts = &Filter->m_pCounts[slot];
        Totals->m_PacketProcess += counts->m_PacketProcess;
        Totals->m_PacketBypass += counts->m_PacketBypass;
        Totals->m_PacketDiscard += counts->m_PacketDiscard;
        Totals->m_PacketConsume += counts->m_PacketConsume;
        Totals->m_PacketCapture += counts->m_PacketCapture;
    }
}
