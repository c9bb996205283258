/*
 * ndisfilter-driver-registry.cpp - the registered client drivers.
 *
 * A client driver registers under a unique name before it may own anything:
 * packet filters, adapter contexts and event handlers, timers, interfaces and
 * IOCTL handlers all carry its FilterDriver handle. Deregistration removes
 * what it owns, one list at a time, never holding two list locks at once.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

#define NF_DRIVER_POOL_TAG 0x4144664E /* "NfDA" */

/*
 * A counted string copied behind `Header` in the same block: the characters,
 * then two zero bytes; the maximum length counts them.
 */
VOID NdisFilter_CopyNameBehind(PSTRING Destination, PVOID Header, SIZE_T HeaderSize, const STRING *Source)
{
    PCHAR characters = (PCHAR)Header + HeaderSize;
    RtlCopyMemory(characters, Source->Buffer, Source->Length);
    characters[Source->Length] = '\0';
    characters[Source->Length + 1] = '\0';
    Destination->Buffer = characters;
    Destination->Length = Source->Length;
    Destination->MaximumLength = (USHORT)(Source->Length + 2);
}

/*
 * A new block holding a counted-string header and a copy of `Name`; the
 * caller frees it with Filter_FreeMemory. NULL when memory is short.
 */
PSTRING NdisFilter_DuplicateName(const STRING *Name, ULONG PoolTag)
{
    PSTRING copy = (PSTRING)Filter_AllocateMemory(sizeof(STRING) + Name->Length + 2, PoolTag);
    if (copy != NULL)
        NdisFilter_CopyNameBehind(copy, copy, sizeof(STRING), Name);
    return copy;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetAPIVersion(PULONG Major, PULONG Minor)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_FILTER_DRIVER, "Filter_GetAPIVersion", status);
    if (Major == NULL || Minor == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else {
        *Major = FILTER_API_MAJOR_VERSION;
        *Minor = FILTER_API_MINOR_VERSION;
    }
    return status;
}

/*
 * Filter_RegisterDriver - appends a new driver record unless the name is
 * taken. The duplicate check and the insertion happen under one hold of the
 * list lock, so two registrations of one name cannot both succeed.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterDriver(PSTRING DriverName, PVOID DriverContext, ULONG Major, ULONG Minor,
                                                   PFilterDriver *FilterDriver)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_FILTER_DRIVER, "Filter_RegisterDriver", status);

    if (DriverName == NULL || FilterDriver == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (Major != FILTER_API_MAJOR_VERSION || Minor != FILTER_API_MINOR_VERSION) {
        status = FILTER_ERROR_UNSUPPORTED_API_VERSION;
        return status;
    }

    NfWriteLock lock(&g_pGlobal->m_FilterDriverLock);
    PLIST_ENTRY head = &g_pGlobal->m_FilterDriverList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PFilterDriver driver = CONTAINING_RECORD(link, struct _FilterDriver, m_ListEntry);
        if (Filter_CompareString(&driver->m_DriverName, DriverName) == 0) {
            status = FILTER_ERROR_DRIVER_ALREADY_REGISTERED;
            return status;
        }
    }

    ULONG size = sizeof(struct _FilterDriver) + DriverName->Length + 2;
    PFilterDriver driver = (PFilterDriver)NdisFilter_AllocateRecord(size, NF_DRIVER_POOL_TAG);
    if (driver == NULL)
        return status; /* success with no handle: callers test the handle */
    RtlZeroMemory(driver, size);
    driver->m_Tag = FILTER_DRIVER_TAG;
    NdisFilter_CopyNameBehind(&driver->m_DriverName, driver, sizeof(struct _FilterDriver), DriverName);
    driver->m_pDriverContext = DriverContext;
    InsertTailList(head, &driver->m_ListEntry);
    *FilterDriver = driver;
    return status;
}

/* Filter_IsValidDriver - the tag check only; list membership is not looked at. */
EXTERN_C BOOLEAN NTAPI Filter_IsValidDriver(PFilterDriver FilterDriver)
{
    return NdisFilter_CheckHandle("Filter_IsValidDriver", FilterDriver, FIELD_OFFSET(struct _FilterDriver, m_Tag),
                                  FILTER_DRIVER_TAG);
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetDriverName(PFilterDriver FilterDriver, PSTRING *DriverName)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_FILTER_DRIVER, "Filter_GetDriverName", status);
    if (FilterDriver == NULL || DriverName == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else {
        PSTRING copy = NdisFilter_DuplicateName(&FilterDriver->m_DriverName, NF_DRIVER_POOL_TAG);
        if (copy != NULL)
            *DriverName = copy;
    }
    return status;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetDriverContext(PFilterDriver FilterDriver, PVOID *DriverContext)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_FILTER_DRIVER, "Filter_GetDriverContext", status);
    if (FilterDriver == NULL || DriverContext == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else if (!Filter_IsValidDriver(FilterDriver))
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    else
        *DriverContext = FilterDriver->m_pDriverContext;
    return status;
}

namespace {

/* Unlinks the driver's record; FALSE when it is not in the list. */
BOOLEAN UnlinkDriver(PFilterDriver Driver)
{
    NfWriteLock lock(&g_pGlobal->m_FilterDriverLock);
    PLIST_ENTRY head = &g_pGlobal->m_FilterDriverList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        if (link == &Driver->m_ListEntry) {
            RemoveEntryList(link);
            return TRUE;
        }
    }
    return FALSE;
}

VOID RemoveEventHandlers(PFilterDriver Driver)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
    NdisFilter_RemoveOwnedRecords(&g_pGlobal->m_EventHandlerList, &EventHandler::m_hFilterDriver, Driver,
                                  [](EventHandler *handler) { handler->m_Tag = 0; });
    KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);
}

/*
 * The filter procedures are not called: the filters simply leave their
 * chains. Their tags are cleared, so a stale handle fails its check, and the
 * packets still queued for one of them are released before it is freed.
 */
VOID RemovePacketFilters(PFilterDriver Driver)
{
    for (ULONG type = 0; type < FILTER_TYPE_COUNT; type++) {
        LIST_ENTRY removed;
        InitializeListHead(&removed);
        {
            NfWriteLock lock(&g_pGlobal->m_PacketFilterLock[type]);
            PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[type];
            PLIST_ENTRY next;
            for (PLIST_ENTRY link = head->Flink; link != head; link = next) {
                next = link->Flink;
                if (CONTAINING_RECORD(link, PacketFilter, m_ListEntry)->m_hFilterDriver != Driver)
                    continue;
                /* Unlinked only: a walk standing on it still finds its way on through its Flink. */
                RemoveEntryList(link);
                InsertTailList(&removed, &CONTAINING_RECORD(link, PacketFilter, m_ListEntry)->m_RemovedLink);
            }
        }
        if (IsListEmpty(&removed))
            continue;
        NfGraceWait(&g_pGlobal->m_PacketFilterGrace[type]); /* the walks that could still see them */
        while (!IsListEmpty(&removed)) {
            PacketFilter *filter = CONTAINING_RECORD(RemoveHeadList(&removed), PacketFilter, m_RemovedLink);
            filter->m_Tag = 0;
            NdisFilter_PurgeQueuedPackets(NULL, filter);
            NdisFilter_FreeRecord(filter);
        }
    }
}

/*
 * Under an interface's own lock: frees the references `Driver` holds to it.
 * TRUE when that left an interface its owner had withdrawn unreferenced.
 */
BOOLEAN DropReferencesOf(FilterInterface *Item, PFilterDriver Driver)
{
    NfWriteLock references(&Item->m_Lock);
    BOOLEAN dropped = FALSE;
    NdisFilter_RemoveOwnedRecords(&Item->m_ReferenceList, &FilterInterfaceReference::m_hFilterDriver, Driver,
                                  [&](FilterInterfaceReference *ref) {
                                      ref->m_Tag = 0;
                                      dropped = TRUE;
                                  });
    return dropped && !Item->m_bActive && !Item->m_bDeregistering && IsListEmpty(&Item->m_ReferenceList);
}

/*
 * An interface of the driver that nobody references is freed; one that
 * others still reference stays listed but inactive, and its references are
 * marked invalid. The references the driver holds to other drivers'
 * interfaces go too, and with the last one an interface its owner withdrew.
 */
VOID RemoveInterfaces(PFilterDriver Driver)
{
    NfWriteLock lock(&g_pGlobal->m_InterfaceLock);
    PLIST_ENTRY head = &g_pGlobal->m_InterfaceList;
    PLIST_ENTRY link = head->Flink;
    while (link != head) {
        PLIST_ENTRY next = link->Flink;
        FilterInterface *item = CONTAINING_RECORD(link, FilterInterface, m_ListEntry);
        BOOLEAN free = FALSE;
        if (item->m_hFilterDriver != Driver) {
            free = DropReferencesOf(item, Driver);
        } else if (!IsListEmpty(&item->m_ReferenceList)) {
            {
                NfWriteLock references(&item->m_Lock);
                PLIST_ENTRY refHead = &item->m_ReferenceList;
                for (PLIST_ENTRY ref = refHead->Flink; ref != refHead; ref = ref->Flink)
                    CONTAINING_RECORD(ref, FilterInterfaceReference, m_ListEntry)->m_bValid = FALSE;
            }
            item->m_bActive = FALSE;
        } else {
            free = TRUE;
        }
        if (free) {
            RemoveEntryList(link);
            item->m_Tag = 0;
            NdisFilter_FreeRecord(item);
        }
        link = next;
    }
}

VOID RemoveIoCtrlHandlers(PFilterDriver Driver)
{
    NfExclusivePassiveLock lock(&g_pGlobal->m_IoCtrlHandlerLock);
    NdisFilter_RemoveOwnedRecords(&g_pGlobal->m_IoCtrlHandlerList, &IoCtrlHandler::m_hFilterDriver, Driver,
                                  [](IoCtrlHandler *handler) { handler->m_Tag = 0; });
}

} // namespace

/*
 * Filter_DeregisterDriver - removes the driver and, in this order, its
 * timers, adapter event handler, packet filters, interfaces and IOCTL
 * handler. Adapter contexts, interface event handlers and hash tables are the
 * driver's to release before. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterDriver(PFilterDriver FilterDriver)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_FILTER_DRIVER, "Filter_DeregisterDriver", status);

    if (FilterDriver == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else if (!UnlinkDriver(FilterDriver)) {
        status = FILTER_ERROR_DRIVER_NOT_FOUND;
    } else {
        NdisFilter_RemoveDriverTimers(FilterDriver);
        RemoveEventHandlers(FilterDriver);
        RemovePacketFilters(FilterDriver);
        RemoveInterfaces(FilterDriver);
        RemoveIoCtrlHandlers(FilterDriver);
        FilterDriver->m_Tag = 0; /* a stale handle no longer passes the check */
        NdisFilter_FreeRecord(FilterDriver);
    }
    return status;
}
