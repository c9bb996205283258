/*
 * ndisfilter-records.h - the records behind the handles of the exported API.
 *
 * Every record comes from NdisFilter_AllocateRecord, begins with its list link
 * (so teardown can free a list without knowing the record) and carries a tag
 * that its Filter_IsValid* check compares inside a fault guard.
 */
#pragma once

/* A registered client driver. Its name's characters follow the record in the same block. */
struct _FilterDriver {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_DRIVER_TAG */
    STRING m_DriverName;
    PVOID m_pDriverContext;
};

/*
 * A filter's counts kept by one walk slot, on a cache line of its own. A
 * walk slot belongs to one thread while its walks last (see
 * ndisfilter-packetapi.cpp), so that thread adds to its line with plain
 * increments; the last slot is shared by walks that found no slot and is
 * only added to with interlocked increments. Readers sum every slot.
 */
#define NF_WALK_SLOTS 32
#define NF_FILTER_COUNT_SLOTS (NF_WALK_SLOTS + 1)
typedef struct _NfFilterCounts {
    volatile LONG m_PacketProcess;
    volatile LONG m_PacketBypass;
    volatile LONG m_PacketDiscard;
    volatile LONG m_PacketConsume;
    volatile LONG m_PacketCapture;
    UCHAR m_Padding[64 - 5 * sizeof(LONG)];
} NfFilterCounts;

/*
 * A packet filter in one of the four chains. Its name's characters follow
 * the record, then (from the next 64-byte boundary) its per-slot counts.
 */
struct _PacketFilter {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_PACKET_FILTER_TAG */
    STRING m_FilterName;
    PFilterDriver m_hFilterDriver;
    PVOID m_pDriverContext;
    PFILTER_PROC m_pfFilterProc;
    PVOID m_pFilterContext;
    FILTER_TYPE m_FilterType;
    ULONG m_FilterOrder;
    NfFilterCounts *m_pCounts; /* NF_FILTER_COUNT_SLOTS records in the same block */
    LIST_ENTRY m_RemovedLink; /* on the remover's list while walks drain */
};

/*
 * The exact totals of a filter's counts (their m_Padding is left alone).
 * Reads only through the record, so callers with a doubtful handle run it
 * under the fault guard.
 */
VOID NdisFilter_SumFilterCounts(const PacketFilter *Filter, NfFilterCounts *Totals);

/* An adapter event handler; at most one per filter driver. */
struct _EventHandler {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_EVENT_HANDLER_TAG */
    PFilterDriver m_hFilterDriver;
    PVOID m_pDriverContext;
    PFILTER_EVENT_PROC m_pfEventProc;
    PVOID m_pEventContext;
};

/* A handler of user-mode control requests; at most one per filter driver. */
struct _IoCtrlHandler {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_IOCTL_HANDLER_TAG */
    PFilterDriver m_hFilterDriver;
    PFILTER_IOCTL_PROC m_pfIoCtrlProc;
    PVOID m_pIoCtrlContext;
};

/* A named interface published by one client driver; its block copy, then its name, follow the record. */
struct _FilterInterface {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_INTERFACE_TAG */
    STRING m_InterfaceName;
    PFilterDriver m_hFilterDriver;
    BOOLEAN m_bActive;
    BOOLEAN m_bDeregistering;
    PVOID m_pInterface;
    NDIS_RW_LOCK m_Lock; /* guards m_ReferenceList */
    LIST_ENTRY m_ReferenceList;
};

/* A driver told of interfaces coming and going; at most one per filter driver. */
struct _IfEventHandler {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_IF_EVENT_HANDLER_TAG */
    PFilterDriver m_hFilterDriver;
    PVOID m_pDriverContext;
    PFILTER_IF_EVENT_PROC m_pfEventProc;
    PVOID m_pEventContext;
};

/*
 * A timer of a client driver. The NDIS timer's routine queues the client's
 * callback as a work item; each queued work item and the timer list hold a
 * reference, and the record is freed with the last one, so no work item
 * ever finds it gone. m_StateLock orders arming against expiry.
 */
struct _FilterTimer {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_TIMER_TAG */
    NDIS_TIMER m_NdisTimer;
    PFilterDriver m_hFilterDriver;
    PVOID m_pDriverContext;
    PFILTER_TIMER_PROC m_pfTimerProc;
    PVOID m_pTimerContext;
    BOOLEAN m_bRepeatTimer;
    ULONG m_MsToDelay;
    volatile LONG m_nPending; /* callbacks queued and not yet finished */
    KEVENT m_CompletionEvent; /* set when m_nPending falls to 0 */
    KSPIN_LOCK m_StateLock;
    LONG m_nExpiries;   /* expiries still wanted (under m_StateLock) */
    BOOLEAN m_bEnded;   /* never armed again (under m_StateLock) */
    volatile LONG m_bSilenced; /* queued callbacks are dropped: the owner has left */
    volatile LONG m_nReferences;
};

/* A reference to an interface held by the driver that queried it; the caller holds m_Interface's address. */
struct FilterInterfaceReference {
    LIST_ENTRY m_ListEntry;
    ULONG m_Tag; /* FILTER_INTERFACE_REF_TAG */
    PFilterDriver m_hFilterDriver;
    PFilterInterface m_pFilterInterface;
    BOOLEAN m_bValid;
    /* the copy of the interface block follows */
};

/*
 * Unlinks and frees every record of `Head` whose owner is `Driver`, calling
 * `BeforeFree(record)` first. The caller holds the list's lock.
 */
template <typename Record, typename BeforeFree>
VOID NdisFilter_RemoveOwnedRecords(PLIST_ENTRY Head, PFilterDriver Record::*Owner, PFilterDriver Driver,
                                   BeforeFree &&beforeFree)
{
    PLIST_ENTRY link = Head->Flink;
    while (link != Head) {
        PLIST_ENTRY next = link->Flink;
        Record *record = CONTAINING_RECORD(link, Record, m_ListEntry);
        if (record->*Owner == Driver) {
            RemoveEntryList(link);
            beforeFree(record);
            NdisFilter_FreeRecord(record);
        }
        link = next;
    }
}

/* A counted string copied behind `Header` in the same block, followed by two zero bytes. */
VOID NdisFilter_CopyNameBehind(PSTRING Destination, PVOID Header, SIZE_T HeaderSize, const STRING *Source);
/* A new block (Filter_AllocateMemory, `PoolTag`) holding a counted string and a copy of `Name`, or NULL. */
PSTRING NdisFilter_DuplicateName(const STRING *Name, ULONG PoolTag);

/* Prints "<function>: Invalid Handle 0x<handle>, bad tag 0x<tag>" whatever the mask says. */
#define NF_PRINT_INVALID_HANDLE(name, handle, tag) \
    NF_PRINT(name ": Invalid Handle 0x%p, bad tag 0x%x\n", (PVOID)(handle), (unsigned)(tag))

/*
 * The common handle check: TRUE when `Handle` is not NULL and the 32-bit tag
 * at `TagOffset` inside it reads `Tag`. The read is guarded; a bad handle or
 * a fault is printed under `Name` whatever the mask says.
 */
BOOLEAN NdisFilter_CheckHandle(PCSTR Name, PVOID Handle, ULONG TagOffset, ULONG Tag);
