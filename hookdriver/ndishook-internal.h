/*
 * ndishook-internal.h - the simulated NDIS hook driver: its records and what
 * its parts offer each other.
 *
 * The driver part (ndishook-main, -adapter, -packet, -request) is kernel code:
 * kernel and NDIS interfaces only, no C library beyond what the kernel
 * exports, no STL. The host control part (ndishook-control) drives it
 * through the Nh* routines declared at the end.
 *
 * One spin lock guards the driver's lists and tables; the packet path does
 * not take it. Packet records come from the driver's own blocks of records,
 * kept free per processor (each processor's list under its own lock), and
 * the packet path's counters are kept per processor and summed when read, so
 * processors passing frames at once share no line. The framework's callbacks
 * are never called with a lock held: the framework calls straight back into
 * the hook functions, which take them.
 */
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#define NH_ADAPTER_MAGIC 0x41644E48u /* "HNdA" */
#define NH_PACKET_MAGIC 0x6B504E48u  /* "HNPk" */
#define NH_REQUEST_MAGIC 0x71524E48u /* "HNRq" */

#define NH_ADAPTER_TAG 0x64614E48u  /* "HNad" adapters */
#define NH_PACKET_TAG 0x6B704E48u   /* "HNpk" packet records */
#define NH_FRAME_TAG 0x72664E48u    /* "HNfr" frame memory behind NDIS buffers */
#define NH_DELIVERY_TAG 0x6C644E48u /* "HNdl" recorded deliveries */
#define NH_REQUEST_TAG 0x71724E48u  /* "HNrq" request blocks */
#define NH_CLAIM_TAG 0x63694E48u    /* "HNic" claimed control codes */

#define NH_ADAPTER_NAME_CHARS 128
#define NH_MAX_CLAIMS 8
#define NH_MAX_PROCESSORS 64       /* per-processor state, by processor number modulo this */
#define NH_RECORDS_PER_BLOCK 128   /* packet records allocated at once */
#define NH_MAX_RECORD_BLOCKS 512   /* at most 65536 records out at once */
#define NH_RECORD_BATCH 32         /* records moved between a processor and the shared list */
#define NH_MAX_ADAPTER_RECORDS 1024
#define NH_DEFAULT_LINK_SPEED 1000000 /* 100 Mbit/s in units of 100 bit/s */
#define NH_MULTICAST_LIST_SIZE 32       /* addresses an adapter filters on */
#define NH_DEFAULT_LOOKAHEAD 128
#define NH_ETHERNET_HEADER 14

/* Indexes of the two delivery directions. */
#define NH_TO_PROTOCOL 0
#define NH_TO_ADAPTER 1

/* Where the frames delivered on an adapter go when the host takes them as they come
 * (Direction: FILTER_DIRECTION_*). */
typedef VOID (*PNH_DELIVERY_SINK)(PFilterAdapter Adapter, ULONG Direction, const UCHAR *Frame, ULONG Length,
                                  PVOID Context);

/* A frame the hook driver passed on: up to the protocols or down to the wire. */
typedef struct _NhDelivery {
    LIST_ENTRY m_Link;
    ULONG m_nLength;
    UCHAR m_Frame[1];
} NhDelivery, *PNhDelivery;

/*
 * One adapter. The framework sees the FilterAdapter at its start; the rest
 * is the hook driver's. The record lives from the adapter's first open until
 * the hook driver unloads: closed, it stays in the list marked so, and the
 * adapter of the same device name opening again gets it back.
 */
typedef struct _NhAdapter {
    FilterAdapter m_Filter;
    ULONG m_Magic;
    BOOLEAN m_bOpen;
    LIST_ENTRY m_Link; /* in g_Hook.m_Adapters */
    ULONG m_nLinkSpeed;
    CHAR m_szName[256]; /* AdapterInfo.m_szAdapterName */
    WCHAR m_wszDeviceName[NH_ADAPTER_NAME_CHARS]; /* behind m_Filter.m_AdapterName */
    LIST_ENTRY m_Delivered[2]; /* NhDelivery, by NH_TO_PROTOCOL / NH_TO_ADAPTER */
    ULONG m_nDelivered[2];
    /* where delivered frames go instead of m_Delivered (host control) */
    PNH_DELIVERY_SINK m_pfDeliverySink;
    PVOID m_pDeliveryContext;
    struct alignas(64) {
        /* what the miniport answers to NDIS requests; reset when the adapter opens */
        volatile LONG64 m_nFramesOk[2]; /* by NH_TO_PROTOCOL (received) / NH_TO_ADAPTER (sent) */
        volatile LONG m_nSinkCalls;     /* sink calls begun here less those ended here */
    } m_PerProcessor[NH_MAX_PROCESSORS];
    ULONG m_nPacketFilter;
    ULONG m_nLookahead;
    ULONG m_nMulticast;
    UCHAR m_Multicast[NH_MULTICAST_LIST_SIZE][6];
} NhAdapter, *PNhAdapter;

/* Where a packet record came from. */
#define NH_ORIGIN_ALLOCATED 1 /* Hook_AllocatePacket */
#define NH_ORIGIN_RECEIVED 2  /* a frame received on an adapter */
#define NH_ORIGIN_SENT 3      /* a frame sent by the protocols */

/* States of a packet record. */
#define NH_RECORD_FREE 0      /* in a free list */
#define NH_RECORD_OUT 1       /* handed out */
#define NH_RECORD_RETURNING 2 /* taken back, not yet disposed of: still outstanding */

/* The hook driver's bookkeeping of a packet, inside FilterPacket.m_HookPrivate1. */
typedef struct _NhPacketPrivate {
    ULONG m_Magic;
    ULONG m_nOrigin;
    LIST_ENTRY m_Link; /* in a free list while free */
    volatile LONG m_State;
    PNhAdapter m_pAdapter;
    PNDIS_PACKET m_pNdisPacket;
    PUCHAR m_pFrame; /* the memory the NDIS buffers describe */
    ULONG m_nFrameLength;
    ULONG m_nLine;
    PCSTR m_pszFile;
} NhPacketPrivate, *PNhPacketPrivate;

C_ASSERT(sizeof(NhPacketPrivate) <= RTL_FIELD_SIZE(FilterPacket, m_HookPrivate1));

#define NH_PRIVATE(Packet) ((PNhPacketPrivate)(Packet)->m_HookPrivate1)

/* A control code the hook driver answers in Hook_HandleIoControl. */
typedef struct _NhClaim {
    ULONG m_Code;
    NTSTATUS m_Status;
    PUCHAR m_pData;
    ULONG m_nLength;
    BOOLEAN m_bUsed;
} NhClaim;

/* Running totals of the packet path. */
typedef struct _NhCounters {
    ULONG m_nHandedOut;       /* packet records handed out */
    ULONG m_nFreed;           /* records back through Hook_FreePacket */
    ULONG m_nInjected;        /* records back through an inject function */
    ULONG m_nReleaseCallbacks;
    ULONG m_nReceivesIndicated;
    ULONG m_nSendsIndicated;
} NhCounters;

typedef VOID (*PNH_PACKET_OBSERVER)(PFilterPacket Packet, PVOID Context);

/* What each processor keeps of the packet path (interlocked: a thread may move meanwhile). */
typedef struct alignas(64) _NhProcessor {
    KSPIN_LOCK m_Lock;         /* guards m_FreeRecords */
    LIST_ENTRY m_FreeRecords;  /* NhPacketPrivate.m_Link */
    ULONG m_nFreeRecords;
    volatile LONG m_nOutstanding; /* handed out here less taken back here */
    volatile LONG m_nCallsIntoFramework;
    NhCounters m_Counters;
} NhProcessor;

/* The driver's one global record. */
typedef struct _NhGlobal {
    BOOLEAN m_bLoaded;
    PDRIVER_OBJECT m_pDriver;
    KSPIN_LOCK m_Lock;
    LIST_ENTRY m_Adapters; /* every adapter record, in the order they last opened */
    /* every adapter record, in the order they were made: entries below the count are set
     * once and stay until unload, so the packet path finds adapters without the lock */
    PNhAdapter m_AdapterTable[NH_MAX_ADAPTER_RECORDS];
    volatile LONG m_nAdapterRecords;
    /* the blocks of packet records: entries below the count stay until unload */
    PFilterPacket m_RecordBlocks[NH_MAX_RECORD_BLOCKS];
    volatile LONG m_nRecordBlocks;
    LIST_ENTRY m_FreeRecords; /* records no processor keeps */
    LIST_ENTRY m_Requests; /* request blocks allocated */
    LIST_ENTRY m_PendingRequests; /* requests the adapters answer later */
    NDIS_TIMER m_RequestTimer;    /* completes the pending requests, as a miniport's DPC would */
    BOOLEAN m_bRequestTimerSet;
    BOOLEAN m_bStopRequests;      /* unloading: nothing pends any more */
    BOOLEAN m_bHoldRequests;      /* the host holds pending requests back */
    volatile LONG m_nRequestTimerRuns;
    NhProcessor m_Processors[NH_MAX_PROCESSORS];
    NhClaim m_Claims[NH_MAX_CLAIMS];
    PNH_PACKET_OBSERVER m_pfObserver;
    PVOID m_pObserverContext;

    /* the binding: m_Api as the framework returned it, valid while m_bBound */
    NdisHookAPI m_Api;
    BOOLEAN m_bBound;

    NDIS_HANDLE m_hPacketPool;
    NDIS_HANDLE m_hBufferPool;
} NhGlobal;

extern NhGlobal g_Hook;

/* Holds g_Hook.m_Lock for the scope (raises to DISPATCH_LEVEL). */
class NhLock {
public:
    NhLock() { KeAcquireSpinLock(&g_Hook.m_Lock, &m_OldIrql); }
    ~NhLock() { KeReleaseSpinLock(&g_Hook.m_Lock, m_OldIrql); }
    NhLock(const NhLock &) = delete;
    NhLock &operator=(const NhLock &) = delete;

private:
    KIRQL m_OldIrql;
};

/*
 * A window in which the framework's callbacks may be called: taken only while
 * bound, and unbinding waits until every window has closed.
 */
class NhFrameworkCall {
public:
    NhFrameworkCall();
    ~NhFrameworkCall();
    NhFrameworkCall(const NhFrameworkCall &) = delete;
    NhFrameworkCall &operator=(const NhFrameworkCall &) = delete;
    /* The callbacks, or NULL when not bound. */
    const NdisHookAPI *Api() const { return m_pProcessor != NULL ? &g_Hook.m_Api : NULL; }

private:
    NhProcessor *m_pProcessor; /* whose count of calls the window raised; NULL when not bound */
};

/* The calling processor's share of the packet path. */
inline NhProcessor *NhThisProcessor(VOID)
{
    return &g_Hook.m_Processors[KeGetCurrentProcessorNumber() % NH_MAX_PROCESSORS];
}

/* Adds one to a counter of the calling processor's share. */
inline VOID NhCount(ULONG *Counter)
{
    InterlockedIncrement((volatile LONG *)Counter);
}

/* ---- verifier findings (ndishook-finding.cpp) ---- */
VOID NhReportFinding(PCSTR Format, ...) __attribute__((format(printf, 1, 2)));

/* ---- the fourteen hook functions ---- */
EXTERN_C NTSTATUS NTAPI NhGetOsVersion(PULONG Value1, PULONG Value2, PULONG Value3, PULONG Value4);
EXTERN_C NTSTATUS NTAPI NhHandleIoControl(ULONG IoControlCode, PVOID InputBuffer, ULONG InputLength,
                                          PVOID OutputBuffer, ULONG OutputLength, PULONG BytesReturned);
EXTERN_C PFilterPacket NTAPI NhAllocatePacket(PFilterAdapter Adapter, PCSTR File, ULONG Line);
EXTERN_C VOID NTAPI NhFreePacket(PFilterPacket Packet, PCSTR File, ULONG Line);
EXTERN_C NDIS_STATUS NTAPI NhInjectPacketToAdapter(PFilterAdapter Adapter, PFilterPacket Packet);
EXTERN_C NDIS_STATUS NTAPI NhInjectPacketToProtocol(PFilterAdapter Adapter, PFilterPacket Packet);
EXTERN_C PVOID NTAPI NhAllocateRequest(VOID);
EXTERN_C NDIS_STATUS NTAPI NhMakeNdisRequest(PFilterAdapter Adapter, PVOID Request, PVOID Argument);
EXTERN_C VOID NTAPI NhFreeRequest(PVOID Request);
EXTERN_C NTSTATUS NTAPI NhSetAdapterStatus(PUCHAR AdapterKey, ULONG State);
EXTERN_C NTSTATUS NTAPI NhGetAdapterStatus(PUCHAR AdapterKey, PULONG State);
EXTERN_C VOID NTAPI NhGetTcpIpBoundAdapters(PVOID AdapterList);
EXTERN_C PVOID NTAPI NhMmMapLockedPages(PMDL Mdl, ULONG ShareValue, PMappedMemory Memory);
EXTERN_C VOID NTAPI NhMmUnmapLockedPages(PMDL Mdl, PVOID UserAddress);

/* ---- binding (ndishook-main.cpp); IRQL == PASSIVE_LEVEL ---- */
NTSTATUS NhBind(VOID);
NTSTATUS NhUnbind(VOID);
/* A copy of the binding record as the hook driver holds it. */
VOID NhQueryApi(PNdisHookAPI Copy);

/* ---- adapters (ndishook-adapter.cpp) ---- */
typedef struct _NhAdapterSetup {
    PCWSTR m_pszDeviceName; /* becomes m_AdapterName */
    PCSTR m_pszName;        /* AdapterInfo name: the instance id first */
    UCHAR m_CurrentAddress[6];
    UCHAR m_PermanentAddress[6];
    USHORT m_usMTU;
    ULONG m_nMedium;
    BOOLEAN m_bNdisWan;
    BOOLEAN m_bConnected;
    ULONG m_nLinkSpeed;
    const IPConfig *m_pIPConfig; /* written into the record at open (its handle set); may be NULL */
} NhAdapterSetup;

/* Opens an adapter and reports it, reusing the record of an adapter of the same device name
 * that opened before; NULL when that adapter is open or without memory. IRQL == PASSIVE_LEVEL. */
PNhAdapter NhOpenAdapter(const NhAdapterSetup *Setup);
/* Marks an open adapter closed and reports it; the record stays. IRQL == PASSIVE_LEVEL. */
NTSTATUS NhCloseAdapter(PFilterAdapter Adapter);
/* Sets the media state (NdisMediaStateConnected / Disconnected) and reports a change. */
NTSTATUS NhSetMediaState(PFilterAdapter Adapter, ULONG State);
/* The open adapter behind a handle; NULL when it is not one. Takes the lock. */
PNhAdapter NhFindOpenAdapter(PFilterAdapter Adapter);
/* The open adapter whose record is at Adapter; NULL otherwise. Caller holds the lock. */
PNhAdapter NhFindOpenAdapterLocked(PFilterAdapter Adapter);
/* Closes every open adapter (at unload). */
VOID NhCloseAllAdapters(VOID);
/* Frees every adapter record with its deliveries (at unload, after the packets). */
VOID NhFreeAdapters(VOID);

/* Records a frame delivered on an adapter (NH_TO_PROTOCOL / NH_TO_ADAPTER), or hands it to its sink. */
VOID NhRecordDelivery(PNhAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length);
/* Frames passed on by an adapter in one direction since it opened (the miniport's counter). */
ULONG64 NhFramesOk(PNhAdapter Adapter, ULONG Index);
ULONG NhDeliveredCount(PFilterAdapter Adapter, ULONG Index);
/* Copies delivery `Position`; STATUS_NOT_FOUND when there is none, STATUS_BUFFER_TOO_SMALL
 * (with *Length set) when it does not fit. With Remove the delivery copied is forgotten. */
NTSTATUS NhGetDelivered(PFilterAdapter Adapter, ULONG Index, ULONG Position, PVOID Buffer,
                        ULONG BufferSize, PULONG Length, BOOLEAN Remove);
VOID NhClearDelivered(PFilterAdapter Adapter);
/* Hands the deliveries of an open adapter to Sink from now on (NULL: records them again); clearing
 * waits until the sink calls running have returned. IRQL == PASSIVE_LEVEL. */
NTSTATUS NhSetDeliverySink(PFilterAdapter Adapter, PNH_DELIVERY_SINK Sink, PVOID Context);

/* ---- packets (ndishook-packet.cpp) ---- */
NTSTATUS NhInitializePackets(VOID);
/* Reports and reclaims packet records still out, then frees the pools (at unload). */
VOID NhReclaimPackets(VOID);
/* Indicates a frame as NDIS would: received (NH_TO_PROTOCOL) or sent (NH_TO_ADAPTER). */
NTSTATUS NhIndicateFrame(PFilterAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length,
                         ULONG HeaderSplit, ULONG ChunkSize, ULONG Lookahead);
LONG NhPacketsOutstanding(VOID);
VOID NhQueryCounters(NhCounters *Counters);
VOID NhSetPacketObserver(PNH_PACKET_OBSERVER Observer, PVOID Context);

/* ---- requests and the rest (ndishook-request.cpp) ---- */
/* Prepares the completion of pending requests (at entry). IRQL == PASSIVE_LEVEL. */
VOID NhInitializeRequests(VOID);
/* Requests made and not completed yet. */
ULONG NhPendingRequestCount(VOID);
/* Holds pending requests back (TRUE) or lets them complete (FALSE). */
VOID NhHoldPendingRequests(BOOLEAN Hold);
/* Reports and frees request blocks still allocated, and the claims (at unload). */
VOID NhReclaimRequests(VOID);
NTSTATUS NhClaimIoControl(ULONG Code, NTSTATUS Status, const VOID *Data, ULONG Length);
VOID NhReleaseIoControls(VOID);
