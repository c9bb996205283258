/*
 * ndisfilter-adapter-context.cpp - per-adapter context slots of the client
 * drivers and their adapter event handlers.
 *
 * Each client driver may own one of NF_CONTEXT_SLOTS slots; every adapter
 * record carries one pointer-sized value per slot. The owner table is guarded
 * by m_pContextLock; the values themselves by nothing (a pointer-sized store
 * is atomic). Values stay in the adapters when a slot is released, so the
 * next owner reads them until it sets its own.
 *
 * Event handlers live on one global list under the m_EventHandlerLock spin
 * lock, in registration order, at most one per driver. A driver's handler
 * goes with the driver; its slot does not.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

#define NF_ADAPTER_POOL_TAG 0x6441664E /* "NfAd" */

/*
 * Filter_AcquireAdapterContext - the lowest slot the driver owns already, or
 * else the lowest free one, which it then owns. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_AcquireAdapterContext(PFilterDriver FilterDriver, PULONG Index)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_AcquireAdapterContext", status);

    if (FilterDriver == NULL || Index == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }

    ULONG found = NF_CONTEXT_SLOTS;
    {
        NfWriteLock lock(&g_pGlobal->m_pContextLock);
        for (ULONG slot = 0; slot < NF_CONTEXT_SLOTS && found == NF_CONTEXT_SLOTS; slot++)
            if (g_pGlobal->m_pContextDriver[slot] == FilterDriver)
                found = slot;
        for (ULONG slot = 0; slot < NF_CONTEXT_SLOTS && found == NF_CONTEXT_SLOTS; slot++) {
            if (g_pGlobal->m_pContextDriver[slot] == NULL) {
                g_pGlobal->m_pContextDriver[slot] = FilterDriver;
                found = slot;
            }
        }
    }
    if (found == NF_CONTEXT_SLOTS) {
        status = FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT;
        return status;
    }
    /* The caller's pointer is written outside the lock: a fault there leaves the table consistent. */
    LONG code = FilterGuard([&] { *Index = found; });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_AcquireAdapterContext", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_SetAdapterContext - stores Context in the adapter's value of a slot
 * the driver owns. No lock is taken. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterContext(PFilterDriver FilterDriver, PFilterAdapter Adapter, ULONG Index,
                                                      PVOID Context)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_SetAdapterContext", status);

    if (FilterDriver == NULL || Adapter == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else if (!Filter_IsValidDriver(FilterDriver))
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    else if (!Filter_IsValidAdapter(Adapter))
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    else if (Index >= NF_CONTEXT_SLOTS)
        status = FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
    else if (g_pGlobal->m_pContextDriver[Index] != FilterDriver)
        status = FILTER_ERROR_INVALID_CONTEXT_OWNER;
    else if (LONG code = FilterGuard([&] { Adapter->m_pAdapterContext[Index] = (ULONG_PTR)Context; })) {
        NF_PRINT_EXCEPTION("Filter_SetAdapterContext", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_GetAdapterContext - the adapter's value of any slot; reading needs
 * no ownership. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterContext(PFilterAdapter Adapter, ULONG Index, PVOID *Context)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_GetAdapterContext", status);

    if (Adapter == NULL || Context == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else if (!Filter_IsValidAdapter(Adapter))
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    else if (Index >= NF_CONTEXT_SLOTS)
        status = FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
    else if (LONG code = FilterGuard([&] { *Context = (PVOID)Adapter->m_pAdapterContext[Index]; })) {
        NF_PRINT_EXCEPTION("Filter_GetAdapterContext", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_ReleaseAdapterContext - gives up a slot the driver owns; the
 * adapters' values in it stay. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ReleaseAdapterContext(PFilterDriver FilterDriver, ULONG Index)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_ReleaseAdapterContext", status);

    if (FilterDriver == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else if (Index >= NF_CONTEXT_SLOTS) {
        status = FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
    } else if (g_pGlobal->m_pContextDriver[Index] != FilterDriver) {
        status = FILTER_ERROR_INVALID_CONTEXT_OWNER;
    } else {
        NfWriteLock lock(&g_pGlobal->m_pContextLock);
        g_pGlobal->m_pContextDriver[Index] = NULL;
    }
    return status;
}

/*
 * Filter_RegisterEventHandler - appends the driver's one adapter event
 * handler. EventProc runs at DISPATCH_LEVEL with the handler list's spin lock
 * held, so it must not register or deregister handlers. When memory is short
 * the answer is success and *EventHandler is not written. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterEventHandler(PFilterDriver FilterDriver, PFILTER_EVENT_PROC EventProc,
                                                         PVOID EventContext, PEventHandler *EventHandler)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_RegisterEventHandler", status);

    if (FilterDriver == NULL || EventProc == NULL || EventHandler == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }

    PEventHandler handler = NULL;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_EventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        if (CONTAINING_RECORD(link, struct _EventHandler, m_ListEntry)->m_hFilterDriver == FilterDriver) {
            status = FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED;
            break;
        }
    }
    if (status == FILTER_STATUS_SUCCESS) {
        handler = (PEventHandler)NdisFilter_AllocateRecord(sizeof(struct _EventHandler), NF_ADAPTER_POOL_TAG);
        if (handler != NULL) {
            RtlZeroMemory(handler, sizeof(*handler));
            handler->m_Tag = FILTER_EVENT_HANDLER_TAG;
            handler->m_hFilterDriver = FilterDriver;
            handler->m_pDriverContext = FilterDriver->m_pDriverContext;
            handler->m_pfEventProc = EventProc;
            handler->m_pEventContext = EventContext;
            InsertTailList(head, &handler->m_ListEntry);
        }
    }
    KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);

    if (handler != NULL) {
        LONG code = FilterGuard([&] { *EventHandler = handler; });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_RegisterEventHandler", code);
            status = FILTER_ERROR_EXCEPTION;
        }
    }
    return status;
}

/* Filter_IsValidEventHandler - the tag check; failures are printed whatever the mask. Any IRQL. */
EXTERN_C BOOLEAN NTAPI Filter_IsValidEventHandler(PEventHandler EventHandler)
{
    return NdisFilter_CheckHandle("Filter_IsValidEventHandler", EventHandler,
                                  FIELD_OFFSET(struct _EventHandler, m_Tag), FILTER_EVENT_HANDLER_TAG);
}

/*
 * Filter_DeregisterEventHandler - removes the driver's own handler, found by
 * address on the list (the record is never read unless it is listed).
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterEventHandler(PFilterDriver FilterDriver, PEventHandler EventHandler)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_DeregisterEventHandler", status);

    if (FilterDriver == NULL || EventHandler == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }
    if (!Filter_IsValidEventHandler(EventHandler)) {
        status = FILTER_ERROR_INVALID_EVENT_HANDLER;
        return status;
    }

    PEventHandler unlinked = NULL;
    status = FILTER_ERROR_EVENT_HANDLER_NOT_FOUND;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&g_pGlobal->m_EventHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_EventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        if (link != &EventHandler->m_ListEntry)
            continue;
        if (EventHandler->m_hFilterDriver != FilterDriver) {
            status = FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER;
        } else {
            RemoveEntryList(link);
            unlinked = EventHandler;
            status = FILTER_STATUS_SUCCESS;
        }
        break;
    }
    KeReleaseSpinLock(&g_pGlobal->m_EventHandlerLock, irql);

    if (unlinked != NULL) {
        unlinked->m_Tag = 0; /* a stale handle no longer passes the check */
        NdisFilter_FreeRecord(unlinked);
    }
    return status;
}
