/*
 * ndishook.h - the simulated NDIS hook driver and its host control interface.
 *
 * The hook driver is a kernel driver of its own, loaded next to the framework
 * on the host runtime. It binds with the framework through the framework's
 * internal bind request, hands it the fourteen hook functions, and plays the
 * part of NDIS and the adapters below: tests and host tools open adapters,
 * feed frames in and read back the frames that came out.
 *
 * Load the framework first, then the hook driver; unload the hook driver
 * first. Every control routine runs at PASSIVE_LEVEL on a thread of the host
 * program and answers STATUS_DEVICE_NOT_READY (or NULL) while the hook
 * driver is not loaded. Adapter names are narrow strings (ASCII).
 *
 * Valid C11 and C++17; C++ conveniences at the end.
 */
#ifndef NDISHOOK_H
#define NDISHOOK_H

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

HK_EXTERN_C_BEGIN

/* ======================================================================
 * The driver
 * ====================================================================== */

/* The hook driver's entry point: HkLoadDriver(NdisHookDriverEntry, "NdisHook", &driver). Only one
 * instance can be loaded at a time. */
NTSTATUS NTAPI NdisHookDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

#define NDIS_HOOK_SERVICE_NAME "NdisHook"
#define NDIS_HOOK_SERVICE_KEY "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisHook"
/* REG_DWORD of the service key: 0 keeps the driver from binding at load (default 1). */
#define NDIS_HOOK_BIND_AT_LOAD_VALUE "BindAtLoad"

/* What Hook_GetOsVersion reports: 5.1, build 2600, service pack 2. */
#define NDIS_HOOK_OS_MAJOR 5
#define NDIS_HOOK_OS_MINOR 1
#define NDIS_HOOK_OS_BUILD 2600
#define NDIS_HOOK_OS_SERVICE_PACK 2

/*
 * A block from Hook_AllocateRequest: the framework keeps its tag in the ULONG
 * at byte NDIS_HOOK_REQUEST_TAG_OFFSET and hands its client the
 * FilterNdisRequest at byte NDIS_HOOK_REQUEST_RECORD_OFFSET;
 * Hook_MakeNdisRequest and Hook_FreeRequest take the block itself.
 *
 * Hook_MakeNdisRequest(Adapter, Block, Context) answers as the adapter's
 * miniport would. Queries of the adapter's general and 802.3 information
 * (OID_GEN_MEDIA_CONNECT_STATUS, _MEDIA_SUPPORTED, _MEDIA_IN_USE,
 * _MAXIMUM_FRAME_SIZE (the MTU), _MAXIMUM_TOTAL_SIZE (MTU + 14), _LINK_SPEED,
 * _MAXIMUM_LOOKAHEAD, _CURRENT_LOOKAHEAD, _CURRENT_PACKET_FILTER,
 * OID_802_3_CURRENT_ADDRESS, _PERMANENT_ADDRESS, _MULTICAST_LIST,
 * _MAXIMUM_LIST_SIZE) complete at once. The counters OID_GEN_XMIT_OK and
 * OID_GEN_RCV_OK (frames sent on the wire and indicated up since the adapter
 * opened; 8 bytes when the buffer holds them, else 4) and the sets of
 * OID_GEN_CURRENT_PACKET_FILTER, OID_GEN_CURRENT_LOOKAHEAD and
 * OID_802_3_MULTICAST_LIST (at most NDIS_HOOK_MULTICAST_LIST_SIZE addresses,
 * else NDIS_STATUS_MULTICAST_FULL) pend: they return NDIS_STATUS_PENDING and
 * complete about a millisecond later at DISPATCH_LEVEL. Any other OID is
 * NDIS_STATUS_NOT_SUPPORTED; a short buffer NDIS_STATUS_BUFFER_TOO_SHORT
 * (query) or NDIS_STATUS_INVALID_LENGTH (set) with BytesNeeded; a closed
 * adapter NDIS_STATUS_ADAPTER_NOT_FOUND. Either way the block's m_Status
 * reads NDIS_STATUS_PENDING until completion, then the outcome, and its
 * m_pfComplete (when set) is called once with Context. A block made again
 * while pending, or freed while pending, is a verifier finding; at unload
 * pending requests complete with NDIS_STATUS_REQUEST_ABORTED.
 */
#define NDIS_HOOK_REQUEST_TAG_OFFSET 16
#define NDIS_HOOK_REQUEST_RECORD_OFFSET 24
#define NDIS_HOOK_MULTICAST_LIST_SIZE 32

/*
 * Contract of the hook functions beyond ndisfilter.h:
 *  - media states (FilterAdapter.m_nAdapterMediaState, AdapterInfo.m_dwAdapterState,
 *    Hook_Get/SetAdapterStatus) are NDIS_MEDIA_STATE values: NdisMediaStateConnected (0)
 *    or NdisMediaStateDisconnected (1). Hook_SetAdapterStatus indicates a change through
 *    Filter_AdapterStatusChanged before it returns;
 *  - an adapter handle (the FilterAdapter record) stays valid from the adapter's first open
 *    until the hook driver unloads. A closed adapter keeps its record, marked closed; the
 *    adapter of the same device name opening again gets the same record and so the same
 *    handle back, and the framework's identifier for it (Filter_AdapterToId) with it.
 *    The framework never reuses identifiers and has FILTER_MAX_ADAPTERS of them, so this is
 *    what keeps adapters that come and go reachable from the application;
 *  - Hook_AllocatePacket returns NULL for an adapter that is not open;
 *  - an inject function always takes the packet back, whatever status it returns;
 *  - a packet handed back twice (freed or injected), or a pointer that never was a packet
 *    of the hook driver, is a verifier finding and is left alone; so is a packet still out
 *    when the hook driver unloads (it is then freed).
 */

/* Loads the hook driver, writing BindAtLoad to its service key first. IRQL == PASSIVE_LEVEL. */
NTSTATUS NdisHookLoad(BOOLEAN BindAtLoad, PDRIVER_OBJECT *Driver);
/* Unloads it: open adapters are closed (and reported), the binding undone, and what is still
 * out is reported and reclaimed. */
VOID NdisHookUnload(PDRIVER_OBJECT Driver);

/* Binds with the framework now (STATUS_SUCCESS when already bound; the framework's device
 * missing gives STATUS_OBJECT_NAME_NOT_FOUND). */
NTSTATUS NdisHookBind(VOID);
/* Undoes the binding (STATUS_SUCCESS when not bound). Callbacks into the framework that are
 * running are waited for first. */
NTSTATUS NdisHookUnbind(VOID);
BOOLEAN NdisHookIsBound(VOID);
/* A copy of the binding record as the hook driver holds it: its functions, and while bound
 * the framework's five callbacks and NDIS_HOOK_FLAG_BOUND. */
VOID NdisHookQueryApi(PNdisHookAPI Copy);

/* ======================================================================
 * Adapters
 * ====================================================================== */

typedef struct _NDIS_HOOK_ADAPTER_SETUP {
    PCSTR DeviceName;  /* FilterAdapter.m_AdapterName, e.g. "\\DEVICE\\{...}" */
    PCSTR InstanceId;  /* network-configuration instance id "{...}": AdapterInfo's name starts with it */
    PCSTR Description; /* appended to the instance id in AdapterInfo's name; may be NULL */
    UCHAR CurrentAddress[6];
    UCHAR PermanentAddress[6];
    USHORT Mtu;        /* 0: 1500 */
    ULONG Medium;      /* NDIS_MEDIUM */
    BOOLEAN NdisWan;
    BOOLEAN Disconnected; /* the media state it opens with */
    ULONG LinkSpeed;   /* units of 100 bit/s; 0: 100 Mbit/s */
    /* The IP configuration TCP/IP has for it, written into FilterAdapter.m_IPConfig (with its
     * handle) when it opens; NULL leaves the record's as it was (zero at the first open). */
    const IPConfig *IpConfig;
} NDIS_HOOK_ADAPTER_SETUP, *PNDIS_HOOK_ADAPTER_SETUP;

/* Opens an adapter; while bound the framework hears of it through Filter_AdapterOpened (and
 * finds it in the adapter table after a later bind otherwise). Device names are compared
 * without regard to case: an adapter that was open before gets its record back, with the
 * setup's addresses, MTU, medium and media state written into it. Returns the adapter
 * handle; NULL when an adapter of that device name is open now, or without memory. */
PFilterAdapter NdisHookOpenAdapter(const NDIS_HOOK_ADAPTER_SETUP *Setup);
/* Closes an open adapter (Filter_AdapterClosed while bound); its recorded frames go with it,
 * its record stays until unload. STATUS_NOT_FOUND when it is not open. */
NTSTATUS NdisHookCloseAdapter(PFilterAdapter Adapter);
/* Connects or disconnects the medium; a change is indicated as NDIS_STATUS_MEDIA_CONNECT /
 * NDIS_STATUS_MEDIA_DISCONNECT through Filter_AdapterStatusChanged while bound. */
NTSTATUS NdisHookSetMediaConnected(PFilterAdapter Adapter, BOOLEAN Connected);

/* ======================================================================
 * Frames
 * ====================================================================== */

/* HeaderSplit value for a frame in one buffer. */
#define NDIS_HOOK_NO_SPLIT 0xFFFFFFFFu

/* How a frame is laid out in the NDIS packet and how much of it the packet record carries.
 * Zero fields take the defaults: the first buffer 14 bytes, then buffers of 256 bytes;
 * a lookahead of 128 bytes (at most FILTER_PACKET_DATA_SIZE). */
typedef struct _NDIS_HOOK_FRAME_LAYOUT {
    ULONG HeaderSplit;
    ULONG ChunkSize;
    ULONG Lookahead;
} NDIS_HOOK_FRAME_LAYOUT, *PNDIS_HOOK_FRAME_LAYOUT;

/*
 * A frame arriving on the adapter (Receive) or handed down by the protocols
 * (Send). While bound it becomes an NDIS packet of several buffers inside a
 * FilterPacket (m_pIncomingNdisPacket / m_pOutgoingNdisPacket, the lookahead
 * prefix in m_Data, m_nPacketSize the frame's length) handed to
 * Filter_FilterReceivedPacket / Filter_FilterSendPacket at DISPATCH_LEVEL.
 * While not bound the frame passes straight through: up to the protocols /
 * out on the wire. Layout may be NULL.
 */
NTSTATUS NdisHookReceiveFrame(PFilterAdapter Adapter, const VOID *Frame, ULONG Length,
                              const NDIS_HOOK_FRAME_LAYOUT *Layout);
NTSTATUS NdisHookSendFrame(PFilterAdapter Adapter, const VOID *Frame, ULONG Length,
                           const NDIS_HOOK_FRAME_LAYOUT *Layout);

/* Called at DISPATCH_LEVEL with each packet record just before it goes to the framework
 * (tests inspect it or set its release callback). NULL removes it. */
typedef VOID (*PNDIS_HOOK_PACKET_OBSERVER)(PFilterPacket Packet, PVOID Context);
VOID NdisHookSetPacketObserver(PNDIS_HOOK_PACKET_OBSERVER Observer, PVOID Context);

/*
 * Frames that left the hook driver on an adapter, oldest first, by direction:
 * FILTER_DIRECTION_TO_PROTOCOL (indicated up) or FILTER_DIRECTION_TO_ADAPTER
 * (sent on the wire). They come from the inject functions, and from frames
 * passed through while not bound.
 */
ULONG NdisHookDeliveredCount(PFilterAdapter Adapter, ULONG Direction);
/* Copies frame Index; *Length receives its length. STATUS_NOT_FOUND when there is no such
 * frame, STATUS_BUFFER_TOO_SMALL when it does not fit. */
NTSTATUS NdisHookGetDelivered(PFilterAdapter Adapter, ULONG Direction, ULONG Index, PVOID Buffer,
                              ULONG BufferSize, PULONG Length);
/* Takes the oldest frame out of the record: copies it as NdisHookGetDelivered does and forgets
 * it (on STATUS_BUFFER_TOO_SMALL it stays). Frames delivered meanwhile are kept, so a reader
 * can drain the record while traffic flows. */
NTSTATUS NdisHookTakeDelivered(PFilterAdapter Adapter, ULONG Direction, PVOID Buffer, ULONG BufferSize,
                               PULONG Length);
VOID NdisHookClearDelivered(PFilterAdapter Adapter);

/*
 * A device behind an adapter: from NdisHookSetDeliverySink on, what leaves
 * the hook driver on the adapter is handed to Sink (Direction
 * FILTER_DIRECTION_TO_PROTOCOL or FILTER_DIRECTION_TO_ADAPTER, the frame only
 * for the call) instead of being recorded. Sink runs at IRQL <= DISPATCH_LEVEL,
 * on whichever thread delivers, and must not block. A NULL Sink records the
 * deliveries again and returns once no call of the old sink is running (the
 * adapter may be closed by then). NDIS_STATUS_ADAPTER_NOT_FOUND for a handle
 * that is not an adapter's (or not open, when setting). IRQL == PASSIVE_LEVEL.
 */
typedef VOID (*PNDIS_HOOK_DELIVERY_SINK)(PFilterAdapter Adapter, ULONG Direction, const UCHAR *Frame, ULONG Length,
                                         PVOID Context);
NTSTATUS NdisHookSetDeliverySink(PFilterAdapter Adapter, PNDIS_HOOK_DELIVERY_SINK Sink, PVOID Context);

/* ======================================================================
 * Accounting and control codes
 * ====================================================================== */

typedef struct _NDIS_HOOK_STATISTICS {
    LONG PacketsOutstanding; /* packet records handed out and not back yet */
    ULONG PacketsHandedOut;  /* all handed out: indicated frames and Hook_AllocatePacket */
    ULONG PacketsFreed;      /* back through Hook_FreePacket */
    ULONG PacketsInjected;   /* back through an inject function */
    ULONG ReleaseCallbacks;  /* m_pfReleaseCallback calls */
    ULONG ReceivesIndicated; /* frames handed to Filter_FilterReceivedPacket */
    ULONG SendsIndicated;    /* frames handed to Filter_FilterSendPacket */
} NDIS_HOOK_STATISTICS, *PNDIS_HOOK_STATISTICS;

LONG NdisHookPacketsOutstanding(VOID);
/* NDIS requests made and not completed yet. */
ULONG NdisHookPendingRequests(VOID);
/* TRUE holds requests that pend back (they stay pending); FALSE lets them complete. */
VOID NdisHookHoldPendingRequests(BOOLEAN Hold);
VOID NdisHookGetStatistics(PNDIS_HOOK_STATISTICS Statistics);

/* Makes Hook_HandleIoControl answer Code with Status and the Length bytes of Output (copied);
 * up to 8 codes. Released at unload or by NdisHookReleaseIoControls. */
NTSTATUS NdisHookClaimIoControl(ULONG Code, NTSTATUS Status, const VOID *Output, ULONG Length);
VOID NdisHookReleaseIoControls(VOID);

HK_EXTERN_C_END

#ifdef __cplusplus
#include <vector>

namespace ndishook {

/* The frames delivered on an adapter in one direction, oldest first. */
std::vector<std::vector<UCHAR>> DeliveredFrames(PFilterAdapter Adapter, ULONG Direction);
/* Takes them out of the record (NdisHookTakeDelivered), oldest first. */
std::vector<std::vector<UCHAR>> TakeDeliveredFrames(PFilterAdapter Adapter, ULONG Direction);

} // namespace ndishook
#endif

#endif /* NDISHOOK_H */
