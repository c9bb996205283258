/*
 * ndisfilter-global.h - the framework's one global state record and the
 * routines its parts offer each other.
 *
 * There is exactly one NdisFilterDeviceExtension. It lives in the device
 * extension of the control device and every part reaches it through g_pGlobal.
 * Each list in it has its own NDIS read-write lock (read for walks, write for
 * changes); the adapter event-handler list is guarded by a spin lock.
 */
#pragma once

#include "ndisfilter-trace.h"
#include "ndisfilter-passive-lock.h"
#include "ndisfilter-processor-local.h"

struct _FilterDriver;

#define NF_INJECT_QUEUE_COUNT 2
#define NF_CONTEXT_SLOTS 16
#define NF_WORKER_PRIORITY 16 /* the lowest real-time priority */
#define NF_WORKER_EXIT_WAIT_MS 0x0FFFFFFF
#define NF_DEFAULT_PENDING_PACKET_LIMIT 2048
#define NF_DEFAULT_INJECT_PACKET_MAX 512

/* The adapter table as Hook_GetTcpIpBoundAdapters writes it: a count, then the entries. */
#pragma pack(push, 1)
typedef struct _AdapterList {
    ULONG m_nAdapterCount;
    AdapterInfo m_Adapters[FILTER_MAX_ADAPTERS];
} AdapterList;
#pragma pack(pop)

/* One queued event record (from the event lookaside list). */
typedef struct _FilterLogRecord {
    LIST_ENTRY m_Link;
    ULONG m_dwEvent1;
    ULONG m_dwEvent2;
    LONG m_nLength; /* text bytes, or -1 when a formatted text did not fit */
    CHAR m_Text[FILTER_EVENT_TEXT_SIZE];
} FilterLogRecord, *PFilterLogRecord;

C_ASSERT(sizeof(FilterLogRecord) == 1056);
/* What the user program receives of a record: everything behind the link. */
#define FILTER_EVENT_RECORD_SIZE 1036
C_ASSERT(FIELD_OFFSET(FilterLogRecord, m_Text) + FILTER_EVENT_TEXT_SIZE - FIELD_OFFSET(FilterLogRecord, m_dwEvent1) ==
         FILTER_EVENT_RECORD_SIZE);

/*
 * The framework's own view of one shared ring. The program can rewrite every
 * byte of the shared area at any moment, so the geometry, the block base and
 * the index the framework owns live here, and only the program's index is
 * read from the shared header (and checked) before use.
 */
typedef struct _NfSharedRing {
    PSharedBlockRing m_pHeader; /* the header the program sees */
    PSharedBlock m_pBlocks;     /* kernel address of block 0 */
    volatile LONG m_iOwnIndex;  /* input ring: read index; output ring: write index (read unlocked by the parked read) */
} NfSharedRing;

typedef struct _NdisFilterDeviceExtension {
    PDEVICE_OBJECT m_pDeviceObject;
    UNICODE_STRING m_DeviceSymbolicLink;
    BOOLEAN m_bSymbolicLinkCreated;

    NDIS_RW_LOCK m_HookAPILock; /* binding changes and listings of the record */
    NdisHookAPI m_NdisHookAPI;
    NfGrace m_HookAPIGrace;     /* hook calls in flight: an unbind waits for them */

    /* shared-memory channel */
    PMappedMemory m_pMappedMemory;
    PMDL m_pMappedMemoryMdl;  /* the framework's copies of the mapping, */
    PVOID m_pUserMapping;     /* never read back from the shared area */
    KEVENT m_ShareOwnerLock;  /* serialises taking and giving back the share */
    PFILE_OBJECT m_FileObject;
    PSharedMemory m_pSharedMemory;
    NfSharedRing m_InputRing;
    NfSharedRing m_OutputRing;
    volatile BOOLEAN m_bStopShare;
    NDIS_RW_LOCK m_MappedMemoryLock;
    HANDLE m_hShareMemoryThread[1];
    volatile LONG m_nNdisHelperWorkThread;
    PIRP volatile m_pPendingReadIrp;
    NDIS_RW_LOCK m_PendingReadLock;
    NDIS_RW_LOCK m_InputBlockLock;
    NDIS_RW_LOCK m_OutputBlockLock;
    NDIS_EVENT m_ShareMemoryEvent;
    NDIS_EVENT m_WorkThreadExitEvent;

    /* adapters */
    NDIS_RW_LOCK m_AdapterListLock;
    AdapterList m_AdapterList;
    NDIS_RW_LOCK m_pContextLock;
    struct _FilterDriver *m_pContextDriver[NF_CONTEXT_SLOTS];
    KSPIN_LOCK m_EventHandlerLock;
    LIST_ENTRY m_EventHandlerList;

    /* filter drivers and the four packet-filter chains */
    NDIS_RW_LOCK m_FilterDriverLock;
    LIST_ENTRY m_FilterDriverList;
    NDIS_RW_LOCK m_PacketFilterLock[FILTER_TYPE_COUNT]; /* changes and listings of a chain */
    LIST_ENTRY m_PacketFilterList[FILTER_TYPE_COUNT];
    NfGrace m_PacketFilterGrace[FILTER_TYPE_COUNT];     /* walks: a removal waits for them */

    /* injected-packet queues */
    HANDLE m_hInjectPacketThread[NF_INJECT_QUEUE_COUNT];
    NDIS_RW_LOCK m_InjectedPacketLock[NF_INJECT_QUEUE_COUNT];
    LIST_ENTRY m_InjectedPacketList[NF_INJECT_QUEUE_COUNT];
    NDIS_EVENT m_InjectPacketEvent[NF_INJECT_QUEUE_COUNT];
    volatile LONG m_nInjectPacketCount;
    ULONG m_nInjectPacketMax;

    /* interfaces */
    NDIS_RW_LOCK m_InterfaceLock;
    LIST_ENTRY m_InterfaceList;
    NDIS_RW_LOCK m_IfEventHandlerLock;
    LIST_ENTRY m_IfEventHandlerList;

    /* event queue */
    NPAGED_LOOKASIDE_LIST m_LogLookasideList;
    NDIS_RW_LOCK m_FilterLogLock;
    LIST_ENTRY m_FilterLogList;
    volatile LONG m_CurrentLogSize;

    /* timers */
    NDIS_RW_LOCK m_FilterTimerLock;
    LIST_ENTRY m_FilterTimerList;
    ULONG m_dwTickIncrement;

    /* work items of the image in flight, plus one held by teardown */
    volatile LONG m_nPendingWorkItems;
    KEVENT m_WorkItemsDoneEvent;

    /* IOCTL handlers and diagnostics */
    NfPassiveLock m_IoCtrlHandlerLock; /* held shared while handlers run, at PASSIVE_LEVEL */
    LIST_ENTRY m_IoCtrlHandlerList;
    volatile LONG m_bDiagInProgress;

    /* capture logs of the user-program channel */
    PVOID m_pAppToDriverEthrLog;
    PVOID m_pDriverToAppEthrLog;
} NdisFilterDeviceExtension, *PNdisFilterDeviceExtension;

/* The nineteen functions of an NdisHookAPI record, in record order, for listings: X(field). */
#define NF_HOOK_API_FUNCTIONS(X)                                                                            \
    X(Filter_AdapterOpened) X(Filter_AdapterStatusChanged) X(Filter_AdapterClosed)                         \
    X(Filter_FilterReceivedPacket) X(Filter_FilterSendPacket) X(Hook_GetOsVersion) X(Hook_HandleIoControl) \
    X(Hook_AllocatePacket) X(Hook_FreePacket) X(Hook_InjectPacketToAdapter) X(Hook_InjectPacketToProtocol) \
    X(Hook_AllocateRequest) X(Hook_MakeNdisRequest) X(Hook_FreeRequest) X(Hook_SetAdapterStatus)         \
    X(Hook_GetAdapterStatus) X(Hook_GetTcpIpBoundAdapters) X(Hook_MmMapLockedPages)                       \
    X(Hook_MmUnmapLockedPages)

/* ---- the framework's own records (ndisfilter-memory.cpp) ---- */
/*
 * Blocks laid out like Filter_AllocateMemory's (and traced the same), whose
 * header Filter_FreeMemory refuses: a client cannot free a record that is
 * still on one of the framework's lists.
 */
PVOID NdisFilter_AllocateRecord(ULONG Size, ULONG PoolTag);
VOID NdisFilter_FreeRecord(PVOID Record);

/* ---- plain globals (ndisfilter-main.cpp) ---- */
EXTERN_C PNdisFilterDeviceExtension g_pGlobal;
EXTERN_C ULONG g_PendingPacketLimit;
EXTERN_C UNICODE_STRING g_RegistryPath;
EXTERN_C ULONG g_nMappedMemorySize;
EXTERN_C ULONG g_dwShareValue; /* the value given by the last START_SHARE */

/* ---- driver core (ndisfilter-main.cpp) ---- */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
EXTERN_C VOID NTAPI NdisFilterUnload(PDRIVER_OBJECT DriverObject);
EXTERN_C NTSTATUS NTAPI NdisFilterOpen(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C NTSTATUS NTAPI NdisFilterClose(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C NTSTATUS NTAPI NdisFilterCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C NTSTATUS NTAPI NdisFilterShutdown(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C NTSTATUS NTAPI NdisFilterIoControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C NTSTATUS NTAPI NdisFilterInternalIoControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
EXTERN_C VOID NdisFilterInitialize(VOID);
EXTERN_C VOID NdisFilterDeInitialize(VOID);

/* A worker thread's arrival and departure in m_nNdisHelperWorkThread. */
VOID NdisFilter_WorkerThreadEnter(VOID);
VOID NdisFilter_WorkerThreadLeave(VOID);
/* At teardown: returns once every worker thread has ended. */
VOID NdisFilter_WaitForWorkerThreads(VOID);
/* Work items of the image: counted when queued, waited for at teardown. */
VOID NdisFilter_WorkItemQueued(VOID);
VOID NdisFilter_WorkItemDone(VOID);
VOID NdisFilter_WaitForWorkItems(VOID);

/* ---- adapters (ndisfilter-adapter.cpp) ---- */
VOID NdisFilter_InitializeAdapterIds(VOID);
VOID NdisFilter_EnumOpenedAdapter(VOID);
/* TRUE while the hook driver has `Adapter` open (decided by address). Any IRQL. */
BOOLEAN NdisFilter_IsOpenAdapter(PFilterAdapter Adapter);
/*
 * Calls every adapter event handler, in registration order, with Event for
 * Adapter, at DISPATCH_LEVEL under m_EventHandlerLock; a handler's fault is
 * printed under CallerName. IRQL <= DISPATCH_LEVEL.
 */
VOID NdisFilter_DeliverAdapterEvent(PCSTR CallerName, ULONG Event, PFilterAdapter Adapter);

/* ---- timers (ndisfilter-timer.cpp) ---- */
VOID NdisFilter_RemoveDriverTimers(struct _FilterDriver *Driver);
/* At teardown: ends every timer and lets the work items still queued free the last ones. */
VOID NdisFilter_CancelTimers(VOID);

/* ---- IOCTL handlers of client drivers (ndisfilter-ioctl-handler.cpp) ---- */
/*
 * Offers a request no one else claimed to the handlers in registration
 * order. *Status is STATUS_NOT_SUPPORTED on entry; the first other answer
 * is kept with the bytes it reports (bounded by OutputLength).
 */
VOID NdisFilter_OfferToIoCtrlHandlers(PIRP Irp, ULONG Code, PVOID Input, ULONG InputLength, PVOID Output,
                                      ULONG OutputLength, NTSTATUS *Status, ULONG *Information);

/* ---- hook callbacks handed to the hook driver ---- */
EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterOpened(PFilterAdapter Adapter);
EXTERN_C VOID NTAPI NdisFilter_AdapterStatusChanged(PFilterAdapter Adapter, NDIS_STATUS Status);
EXTERN_C NTSTATUS NTAPI NdisFilter_AdapterClosed(PFilterAdapter Adapter);
EXTERN_C VOID NTAPI NdisFilter_FilterReceivedPacket(PFilterPacket Packet);
EXTERN_C VOID NTAPI NdisFilter_FilterSendPacket(PFilterPacket Packet);

/* ---- event queue (ndisfilter-events.cpp) ---- */
VOID NdisFilter_InitializeEventQueue(VOID);
VOID NdisFilter_DeleteEventQueue(VOID);
PFilterLogRecord NdisFilter_AllocateLogRecord(VOID);
VOID NdisFilter_FreeLogRecord(PFilterLogRecord Record);
BOOLEAN NdisFilter_TakeEvent(PVOID Body);
VOID NdisFilter_ClearEvents(VOID);

/* ---- diagnostic channel (ndisfilter-diag.cpp, ndisfilter-diag-dump.cpp) ---- */
FILTER_STATUS Filter_PrepareDiag(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer, ULONG OutputLength);
ULONG Filter_EndDiag(VOID);
NTSTATUS NdisFilter_DiagHandler(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer, ULONG OutputLength);
/* Prints the whole global state to the debugger, whatever the mask says. */
VOID NdisFilter_DumpDeviceExtension(VOID);
/* Listings both the dump and the diagnostic replies print, each through its own printer. */
typedef VOID(__cdecl *NfPrinter)(PCSTR Format, ...);
VOID NdisFilter_PrintRing(NfPrinter Print, const SharedBlockRing *Ring);
VOID NdisFilter_PrintHookApi(NfPrinter Print, const NdisHookAPI &Api);
VOID NdisFilter_PrintAdapterTable(NfPrinter Print);
VOID NdisFilter_PrintDrivers(NfPrinter Print);
VOID NdisFilter_PrintTimers(NfPrinter Print);
VOID NdisFilter_PrintIoControlHandlers(NfPrinter Print);

/* ---- shared-memory channel (ndisfilter-sharedmem.cpp) ---- */
EXTERN_C PMappedMemory NdisFilter_AllocateMappedMemory(VOID);
EXTERN_C VOID NdisFilter_InitializeSharedMemory(PMappedMemory Memory);
EXTERN_C VOID NdisFilter_FreeMappedMemory(VOID);
EXTERN_C VOID NdisFilter_TerminateShare(VOID);
EXTERN_C VOID NdisFilter_UnmapMemoryToUserSpace(PMappedMemory Memory);
EXTERN_C VOID NdisFilter_CompleteRead(VOID);
EXTERN_C VOID NdisFilter_StopShare(PIRP Irp);
EXTERN_C VOID NTAPI ShareMemoryThread(PVOID StartContext);
EXTERN_C PVOID NdisFilter_MapMemoryToUserSpace(PMappedMemory Memory);
EXTERN_C ULONG_PTR NdisFilter_StartShare(PIRP Irp);
EXTERN_C PFilterPacket NdisFilter_ReadShareMemory(VOID);
EXTERN_C BOOLEAN NdisFilter_WriteShareMemory(PFilterPacket Packet);
EXTERN_C BOOLEAN NdisFilter_WriteSignalPacket(PVOID Signal);
EXTERN_C NTSTATUS NdisFilter_IOCtrlReadShare(PIRP Irp);
EXTERN_C NTSTATUS NdisFilter_IOCtrlWriteShare(PIRP Irp);
EXTERN_C VOID NTAPI CancelPendingReadShare(PDEVICE_OBJECT DeviceObject, PIRP Irp);

/* ---- packets and injection (ndisfilter-packetapi.cpp) ---- */
EXTERN_C VOID NTAPI InjectedPacketThread(PVOID StartContext);
VOID NdisFilter_ReleaseQueuedPackets(VOID);
/* Releases every queued packet bound for `Adapter` or handed back to `Filter` (either may be NULL). */
VOID NdisFilter_PurgeQueuedPackets(PFilterAdapter Adapter, PPacketFilter Filter);
/*
 * Hand-off marks: a filter procedure runs inside a walk frame; a packet it
 * hands on (releases, injects, queues) while inside is marked, so a fault
 * after the hand-off leaves the packet where it went.
 */
VOID NdisFilter_PacketHandedOn(PFilterPacket Packet);
/*
 * Filter_ReleasePacket with the hand-off mark only when `HandOn` says so: a
 * walk of a packet no walk frame of this thread carries (the hook driver's,
 * a worker's) passes FALSE (ndisfilter-packetapi-packet.cpp).
 */
FILTER_STATUS NdisFilter_ReleasePacket(PFilterPacket Packet, PCSTR File, ULONG Line, BOOLEAN HandOn);

/* The packet checksum of `Length` bytes as stored into a header (ndisfilter-packetapi-checksum.cpp). */
EXTERN_C USHORT NdisFilter_Checksum(const UCHAR *Data, ULONG Length);

/*
 * A worker that has just emptied its queue polls `Ready` for up to
 * NF_WORKER_POLL_US before it sleeps, so a steady stream is served without
 * a wake-up per packet or per burst. TRUE when `Ready` answered TRUE.
 * IRQL = PASSIVE_LEVEL.
 */
#define NF_WORKER_POLL_US 50
template <typename Ready>
BOOLEAN NdisFilter_PollBriefly(Ready &&ready)
{
    ULONGLONG until = KeQueryInterruptTime() + NF_WORKER_POLL_US * 10;
    for (ULONG spin = 0;; spin++) {
        if (ready())
            return TRUE;
        YieldProcessor();
        if ((spin & 31) == 31 && KeQueryInterruptTime() >= until)
            return FALSE;
    }
}

/* ---- hook binding (ndisfilter-main-hook.cpp) ---- */

/*
 * The gate of the five callbacks the hook driver calls: open from start-up,
 * closed at teardown, which then waits until no callback is inside. A
 * callback that finds it closed does nothing.
 */
VOID NdisFilter_OpenCallbacks(VOID);
VOID NdisFilter_CloseCallbacks(VOID);
BOOLEAN NdisFilter_EnterCallback(ULONG *Slot);
VOID NdisFilter_LeaveCallback(ULONG Slot);

/*
 * RAII holders of an NDIS read-write lock, so that every return releases it.
 * Both raise to DISPATCH_LEVEL for as long as they live.
 */
class NfReadLock {
public:
    explicit NfReadLock(NDIS_RW_LOCK *lock) : m_lock(lock) { NdisAcquireReadWriteLock(m_lock, FALSE, &m_state); }
    ~NfReadLock() { NdisReleaseReadWriteLock(m_lock, &m_state); }
    NfReadLock(const NfReadLock &) = delete;
    NfReadLock &operator=(const NfReadLock &) = delete;

private:
    NDIS_RW_LOCK *m_lock;
    LOCK_STATE m_state;
};

/*
 * A reference on the hook binding: a reader of m_HookAPIGrace while it
 * lives, so an unbind waits for every hook call made through it. Get()
 * reads one hook function once: NULL while unbound or when not supplied.
 * Raises to DISPATCH_LEVEL; the hook functions that need PASSIVE_LEVEL (the
 * control-request handler, mapping into user space) are read once instead.
 */
class NfHookReference;

class NfWriteLock {
public:
    explicit NfWriteLock(NDIS_RW_LOCK *lock) : m_lock(lock) { NdisAcquireReadWriteLock(m_lock, TRUE, &m_state); }
    ~NfWriteLock() { NdisReleaseReadWriteLock(m_lock, &m_state); }
    NfWriteLock(const NfWriteLock &) = delete;
    NfWriteLock &operator=(const NfWriteLock &) = delete;

private:
    NDIS_RW_LOCK *m_lock;
    LOCK_STATE m_state;
};

class NfHookReference {
public:
    NfHookReference() : m_read(&g_pGlobal->m_HookAPIGrace) {}

    template <typename Function>
    Function Get(Function NdisHookAPI::*Field) const
    {
        const NdisHookAPI &api = g_pGlobal->m_NdisHookAPI;
        if ((*(const volatile ULONG *)&api.m_Flags & NDIS_HOOK_FLAG_BOUND) == 0)
            return NULL;
        return *(Function const volatile *)&(api.*Field);
    }

private:
    NfGraceRead m_read;
};

/* Holds the callback gate for as long as it lives; Entered() is FALSE once teardown has closed it. */
class NfCallbackScope {
public:
    NfCallbackScope() : m_slot(0), m_entered(NdisFilter_EnterCallback(&m_slot)) {}
    ~NfCallbackScope()
    {
        if (m_entered)
            NdisFilter_LeaveCallback(m_slot);
    }
    BOOLEAN Entered() const { return m_entered; }
    NfCallbackScope(const NfCallbackScope &) = delete;
    NfCallbackScope &operator=(const NfCallbackScope &) = delete;

private:
    ULONG m_slot;
    BOOLEAN m_entered;
};
