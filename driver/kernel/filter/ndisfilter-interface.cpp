/*
 * ndisfilter-interface.cpp - named interfaces between client drivers, and
 * the drivers told of their coming and going.
 *
 * An interface is a block of client data (its first USHORT its whole length)
 * that one driver publishes under a name. A driver that queries it gets a
 * private copy behind a reference object listed in the interface; the
 * interface goes only when nobody references it. Lock order: the interface
 * list lock before one interface's own lock. Event handlers are called with
 * the handler list held for reading and no interface lock held.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

#define NF_INTERFACE_POOL_TAG 0x4946664E /* "NfFI" */

namespace {

typedef FilterInterfaceReference Reference;

/* The reference object in front of a copy handed out by a query. */
inline Reference *ReferenceOf(PVOID Block)
{
    return (Reference *)((PUCHAR)Block - sizeof(Reference));
}

inline PVOID BlockOf(Reference *Ref)
{
    return (PVOID)(Ref + 1);
}

/* The leading length word of a block, which need not be aligned. */
inline USHORT BlockLength(const VOID *Block)
{
    USHORT length;
    RtlCopyMemory(&length, Block, sizeof(length));
    return length;
}

/* Tags are cleared before a record is freed, so a stale handle fails its check while the memory lasts. */
VOID FreeInterface(PFilterInterface Interface)
{
    Interface->m_Tag = 0;
    NdisFilter_FreeRecord(Interface);
}

VOID FreeReference(Reference *Ref)
{
    Ref->m_Tag = 0;
    NdisFilter_FreeRecord(Ref);
}

/* Whether `Interface` is on the interface list. The caller holds the list lock. */
BOOLEAN IsListed(PFilterInterface Interface)
{
    PLIST_ENTRY head = &g_pGlobal->m_InterfaceList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink)
        if (link == &Interface->m_ListEntry)
            return TRUE;
    return FALSE;
}

/* The listed interface named `Name`, or NULL; *Code is nonzero when reading the name faulted. */
PFilterInterface FindByName(PSTRING Name, LONG *Code)
{
    PFilterInterface found = NULL;
    PLIST_ENTRY head = &g_pGlobal->m_InterfaceList;
    *Code = FilterGuard([&] {
        for (PLIST_ENTRY link = head->Flink; link != head && found == NULL; link = link->Flink) {
            PFilterInterface item = CONTAINING_RECORD(link, FilterInterface, m_ListEntry);
            if (Filter_CompareString(&item->m_InterfaceName, Name) == 0)
                found = item;
        }
    });
    return found;
}

/* Tells every interface event handler of `Event` for the interface `Name`. */
VOID NotifyInterfaceEvent(ULONG Event, PSTRING Name)
{
    NfReadLock lock(&g_pGlobal->m_IfEventHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_IfEventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PIfEventHandler handler = CONTAINING_RECORD(link, IfEventHandler, m_ListEntry);
        LONG code = FilterGuard([&] {
            handler->m_pfEventProc(handler->m_hFilterDriver, handler->m_pDriverContext, Event,
                                   handler->m_pEventContext, Name);
        });
        if (code != 0)
            NF_PRINT_EXCEPTION("NdisFilter_InterfaceEvent", code);
    }
}

/* The checks every call starts with: arguments, then the driver. */
FILTER_STATUS CheckCall(PFilterDriver Driver, const VOID *First, const VOID *Second, const VOID *Third = "")
{
    if (Driver == NULL || First == NULL || Second == NULL || Third == NULL)
        return FILTER_ERROR_INVALID_ARGUMENT;
    if (!Filter_IsValidDriver(Driver))
        return FILTER_ERROR_INVALID_DRIVER_HANDLE;
    return FILTER_STATUS_SUCCESS;
}

} // namespace

/*
 * Filter_RegisterInterface - publishes a copy of Block (its first USHORT its
 * whole length, at least 2) under Name and tells the event handlers. A name
 * or block that cannot be read gives FILTER_ERROR_EXCEPTION. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterInterface(PFilterDriver FilterDriver, PSTRING Name, PVOID Block,
                                                      PFilterInterface *Interface)
{
    FILTER_STATUS status = CheckCall(FilterDriver, Name, Block, Interface);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_RegisterInterface", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;

    STRING name = {0, 0, NULL};
    USHORT blockLength = 0;
    LONG code = FilterGuard([&] {
        name = *Name;
        blockLength = BlockLength(Block);
    });
    if (code == 0 && (blockLength < sizeof(USHORT) || (name.Length != 0 && name.Buffer == NULL))) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    PFilterInterface item = NULL;
    if (code == 0) {
        NfWriteLock lock(&g_pGlobal->m_InterfaceLock);
        if (FindByName(&name, &code) != NULL) {
            status = FILTER_ERROR_INTERFACE_ALREADY_REGISTERED;
            return status;
        }
        if (code == 0) {
            ULONG size = sizeof(FilterInterface) + name.Length + 1 + blockLength;
            item = (PFilterInterface)NdisFilter_AllocateRecord(size, NF_INTERFACE_POOL_TAG);
            if (item == NULL)
                return status; /* success with no handle: callers test the handle */
            RtlZeroMemory(item, size);
            /* The block copy first, where it is aligned, then the name. */
            item->m_pInterface = item + 1;
            PCHAR characters = (PCHAR)(item + 1) + blockLength;
            code = FilterGuard([&] {
                RtlCopyMemory(characters, name.Buffer, name.Length);
                RtlCopyMemory(item->m_pInterface, Block, blockLength);
            });
            if (code != 0) {
                NdisFilter_FreeRecord(item);
            } else {
                /* The copy's own length word is the one the framework uses from now on. */
                *(PUSHORT)item->m_pInterface = blockLength;
                item->m_InterfaceName.Buffer = characters;
                item->m_InterfaceName.Length = name.Length;
                item->m_InterfaceName.MaximumLength = (USHORT)(name.Length + 1);
                item->m_Tag = FILTER_INTERFACE_TAG;
                item->m_hFilterDriver = FilterDriver;
                item->m_bActive = TRUE;
                item->m_bDeregistering = FALSE;
                NdisInitializeReadWriteLock(&item->m_Lock);
                InitializeListHead(&item->m_ReferenceList);
                InsertTailList(&g_pGlobal->m_InterfaceList, &item->m_ListEntry);
                *Interface = item;
            }
        }
    }
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_RegisterInterface", code);
        status = FILTER_ERROR_EXCEPTION;
        return status;
    }
    NotifyInterfaceEvent(FILTER_INTERFACE_REGISTERED, Name);
    return status;
}

/*
 * Filter_QueryInterface - a private copy of the active interface named Name,
 * and a reference to it held by FilterDriver until released. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_QueryInterface(PFilterDriver FilterDriver, PSTRING Name, PVOID *Block)
{
    FILTER_STATUS status = CheckCall(FilterDriver, Name, Block);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_QueryInterface", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;

    NfReadLock lock(&g_pGlobal->m_InterfaceLock);
    LONG code = 0;
    PFilterInterface item = FindByName(Name, &code);
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_QueryInterface", code);
        status = FILTER_ERROR_EXCEPTION;
    } else if (item == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_FOUND;
    } else if (!item->m_bActive) {
        status = FILTER_ERROR_INTERFACE_ARE_INVALID;
    } else {
        USHORT length = BlockLength(item->m_pInterface);
        Reference *ref = (Reference *)NdisFilter_AllocateRecord(sizeof(Reference) + length, NF_INTERFACE_POOL_TAG);
        if (ref == NULL) {
            status = FILTER_ERROR_OUT_OF_MEMORY;
            return status;
        }
        RtlZeroMemory(ref, sizeof(Reference));
        ref->m_Tag = FILTER_INTERFACE_REF_TAG;
        ref->m_hFilterDriver = FilterDriver;
        ref->m_pFilterInterface = item;
        ref->m_bValid = TRUE;
        RtlCopyMemory(BlockOf(ref), item->m_pInterface, length);
        NfWriteLock references(&item->m_Lock);
        InsertTailList(&item->m_ReferenceList, &ref->m_ListEntry);
        *Block = BlockOf(ref);
    }
    return status;
}

/* Filter_IsValidInterface - whether Block is a live copy handed out by a query. */
EXTERN_C BOOLEAN NTAPI Filter_IsValidInterface(PVOID Block)
{
    ULONG tag = 0xFFFFFFFF;
    BOOLEAN valid = FALSE;
    if (Block != NULL) {
        LONG code = FilterGuard([&] {
            Reference *ref = ReferenceOf(Block);
            tag = ref->m_Tag;
            valid = tag == FILTER_INTERFACE_REF_TAG && ref->m_bValid == TRUE && ref->m_pFilterInterface != NULL;
        });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_IsValidInterface", code);
            return FALSE;
        }
    }
    if (!valid)
        NF_PRINT_INVALID_HANDLE("Filter_IsValidInterface", Block, tag);
    return valid;
}

EXTERN_C BOOLEAN NTAPI Filter_IsValidInterfaceObject(PFilterInterface Interface)
{
    return NdisFilter_CheckHandle("Filter_IsValidInterfaceObject", Interface, FIELD_OFFSET(FilterInterface, m_Tag),
                                  FILTER_INTERFACE_TAG);
}

/*
 * Filter_ReleaseInterface - gives back FilterDriver's reference behind Block.
 * An interface whose owner has deregistered it goes with its last reference.
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ReleaseInterface(PFilterDriver FilterDriver, PVOID Block)
{
    FILTER_STATUS status = CheckCall(FilterDriver, Block, Block);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_ReleaseInterface", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    if (!Filter_IsValidInterface(Block) || !Filter_IsValidInterfaceObject(ReferenceOf(Block)->m_pFilterInterface)) {
        status = FILTER_ERROR_INVALID_FILTER_INTERFACE;
        return status;
    }

    Reference *ref = ReferenceOf(Block);
    PFilterInterface item = ref->m_pFilterInterface;
    BOOLEAN unreferenced = FALSE;
    {
        /* The list lock keeps the interface from going while its own lock is taken. */
        NfReadLock lock(&g_pGlobal->m_InterfaceLock);
        if (!IsListed(item) && !item->m_bDeregistering) {
            status = FILTER_ERROR_INVALID_FILTER_INTERFACE;
            return status;
        }
        NfWriteLock references(&item->m_Lock);
        status = FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND;
        PLIST_ENTRY head = &item->m_ReferenceList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            if (link != &ref->m_ListEntry)
                continue;
            if (ref->m_hFilterDriver != FilterDriver) {
                status = FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER;
            } else {
                RemoveEntryList(link);
                status = FILTER_STATUS_SUCCESS;
                unreferenced = !item->m_bActive && !item->m_bDeregistering && IsListEmpty(head);
            }
            break;
        }
    }
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    FreeReference(ref);
    if (unreferenced) {
        NfWriteLock lock(&g_pGlobal->m_InterfaceLock);
        if (IsListed(item)) { /* its owner's deregistration may have freed it meanwhile */
            RemoveEntryList(&item->m_ListEntry);
            FreeInterface(item);
        }
    }
    return status;
}

/*
 * Filter_DeregisterInterface - withdraws an interface FilterDriver owns. The
 * handlers hear "deregistering"; without references it is freed after
 * "deregistered", otherwise it stays listed, inactive, until the last release
 * (FILTER_ERROR_INTERFACE_ARE_REFERENCED). IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterInterface(PFilterDriver FilterDriver, PFilterInterface Interface)
{
    FILTER_STATUS status = CheckCall(FilterDriver, Interface, Interface);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_DeregisterInterface", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    if (!Filter_IsValidInterfaceObject(Interface)) {
        status = FILTER_ERROR_INVALID_FILTER_INTERFACE;
        return status;
    }
    {
        NfWriteLock lock(&g_pGlobal->m_InterfaceLock);
        if (!IsListed(Interface))
            status = FILTER_ERROR_INTERFACE_NOT_FOUND;
        else if (Interface->m_hFilterDriver != FilterDriver)
            status = FILTER_ERROR_INVALID_INTERFACE_OWNER;
        else {
            RemoveEntryList(&Interface->m_ListEntry);
            Interface->m_bActive = FALSE;
            Interface->m_bDeregistering = TRUE;
        }
    }
    if (status != FILTER_STATUS_SUCCESS)
        return status;

    NotifyInterfaceEvent(FILTER_INTERFACE_DEREGISTERING, &Interface->m_InterfaceName);
    {
        /* Under both locks, so a release sees either "deregistering" or the interface back on the list. */
        NfWriteLock lock(&g_pGlobal->m_InterfaceLock);
        NfWriteLock references(&Interface->m_Lock);
        if (!IsListEmpty(&Interface->m_ReferenceList)) {
            InsertTailList(&g_pGlobal->m_InterfaceList, &Interface->m_ListEntry);
            Interface->m_bDeregistering = FALSE;
            status = FILTER_ERROR_INTERFACE_ARE_REFERENCED;
        }
    }
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    NotifyInterfaceEvent(FILTER_INTERFACE_DEREGISTERED, &Interface->m_InterfaceName);
    FreeInterface(Interface);
    return status;
}

/*
 * Filter_RegisterIfEventHandler - FilterDriver's one handler of interface
 * events. When memory is short it answers success without a handle.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterIfEventHandler(PFilterDriver FilterDriver, PFILTER_IF_EVENT_PROC EventProc,
                                                           PVOID EventContext, PIfEventHandler *Handler)
{
    FILTER_STATUS status = CheckCall(FilterDriver, (const VOID *)EventProc, Handler);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_RegisterIfEventHandler", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;

    NfWriteLock lock(&g_pGlobal->m_IfEventHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_IfEventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        if (CONTAINING_RECORD(link, IfEventHandler, m_ListEntry)->m_hFilterDriver == FilterDriver) {
            status = FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED;
            return status;
        }
    }
    PIfEventHandler handler = (PIfEventHandler)NdisFilter_AllocateRecord(sizeof(IfEventHandler), NF_INTERFACE_POOL_TAG);
    if (handler == NULL)
        return status;
    RtlZeroMemory(handler, sizeof(*handler));
    handler->m_Tag = FILTER_IF_EVENT_HANDLER_TAG;
    handler->m_hFilterDriver = FilterDriver;
    handler->m_pDriverContext = FilterDriver->m_pDriverContext;
    handler->m_pfEventProc = EventProc;
    handler->m_pEventContext = EventContext;
    InsertTailList(head, &handler->m_ListEntry);
    *Handler = handler;
    return status;
}

EXTERN_C BOOLEAN NTAPI Filter_IsValidIfEventHandler(PIfEventHandler Handler)
{
    return NdisFilter_CheckHandle("Filter_IsValidIfEventHandler", Handler, FIELD_OFFSET(IfEventHandler, m_Tag),
                                  FILTER_IF_EVENT_HANDLER_TAG);
}

/*
 * Filter_DeregisterIfEventHandler - removes FilterDriver's handler; waits for
 * a delivery in progress. Not from inside a handler. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterIfEventHandler(PFilterDriver FilterDriver, PIfEventHandler Handler)
{
    FILTER_STATUS status = CheckCall(FilterDriver, Handler, Handler);
    NfStatusTrace trace(NF_DBG_INTERFACE, "Filter_DeregisterIfEventHandler", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    if (!Filter_IsValidIfEventHandler(Handler)) {
        status = FILTER_ERROR_INVALID_EVENT_HANDLER;
        return status;
    }
    {
        NfWriteLock lock(&g_pGlobal->m_IfEventHandlerLock);
        status = FILTER_ERROR_EVENT_HANDLER_NOT_FOUND;
        PLIST_ENTRY head = &g_pGlobal->m_IfEventHandlerList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            if (link != &Handler->m_ListEntry)
                continue;
            if (Handler->m_hFilterDriver != FilterDriver) {
                status = FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER;
            } else {
                RemoveEntryList(link);
                status = FILTER_STATUS_SUCCESS;
            }
            break;
        }
    }
    if (status == FILTER_STATUS_SUCCESS) {
        Handler->m_Tag = 0;
        NdisFilter_FreeRecord(Handler);
        NF_TRACE_ERROR(NF_DBG_INTERFACE, status); /* the success line goes through the error format */
    }
    return status;
}
