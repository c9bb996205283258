/*
 * ndisfilter.h - the packet filter framework's interface for client drivers.
 *
 * Include <ntddk.h> and <ndis.h> first. Valid C11 and C++.
 *
 * Every exported function is declared with NDISFILTER_API; the framework's
 * image exports exactly these names (its module-definition file and a build
 * test keep the three in step).
 */
#ifndef NDISFILTER_H
#define NDISFILTER_H

#ifdef __cplusplus
extern "C" {
#endif

#define NDISFILTER_API extern

#if defined(__cplusplus)
#define NDISFILTER_LAYOUT(e) static_assert(e, #e)
#else
#define NDISFILTER_LAYOUT(e) _Static_assert(e, #e)
#endif

/* ------------------------------------------------------------------------
 * Status codes and enumerations. The numbers are part of the interface.
 * Each is a 32-bit integer type with its named values.
 * ------------------------------------------------------------------------ */

typedef LONG FILTER_STATUS;
enum {
    FILTER_STATUS_SUCCESS = 0,
    FILTER_ERROR_INVALID_ARGUMENT = -1,
    FILTER_ERROR_INVALID_HANDLE = -2,
    FILTER_ERROR_ADAPTER_NOT_OPEN = -3,
    FILTER_ERROR_INTERNAL_ERROR = -4,
    FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT = -5,
    FILTER_ERROR_INVALID_ADAPTER_CONTEXT = -6,
    FILTER_ERROR_INVALID_ADAPTER_HANDLE = -7,
    FILTER_ERROR_UNSUPPORTED_API_VERSION = -8,
    FILTER_ERROR_DRIVER_ALREADY_REGISTERED = -9,
    FILTER_ERROR_INVALID_DRIVER_HANDLE = -10,
    FILTER_ERROR_BUFFER_TOO_SMALL = -11,
    FILTER_ERROR_DRIVER_NOT_FOUND = -12,
    FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED = -13,
    FILTER_ERROR_EVENT_HANDLER_NOT_FOUND = -14,
    FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER = -15,
    FILTER_ERROR_INVALID_CONTEXT_OWNER = -16,
    FILTER_ERROR_INVALID_EVENT_HANDLER = -17,
    FILTER_ERROR_ADAPTER_NOT_FOUND = -18,
    FILTER_ERROR_INTERFACE_NOT_ACTIVE = -19,
    FILTER_ERROR_OUT_OF_MEMORY = -20,
    FILTER_ERROR_INVALID_NDIS_REQUEST = -21,
    FILTER_ERROR_EXCEPTION = -22,
    FILTER_ERROR_FILTER_ALREADY_REGISTERED = -23,
    FILTER_ERROR_INVALID_PACKET_FILTER = -24,
    FILTER_ERROR_FILTER_NOT_FOUND = -25,
    FILTER_ERROR_INVALID_FILTER_OWNER = -26,
    FILTER_ERROR_INTERFACE_ALREADY_REGISTERED = -27,
    FILTER_ERROR_INTERFACE_NOT_FOUND = -28,
    FILTER_ERROR_INVALID_FILTER_INTERFACE = -29,
    FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER = -30,
    FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND = -31,
    FILTER_ERROR_INVALID_INTERFACE_OWNER = -32,
    FILTER_ERROR_INTERFACE_ARE_REFERENCED = -33,
    FILTER_ERROR_INTERFACE_ARE_INVALID = -34,
    FILTER_ERROR_INVALID_MEMORY_POINTER = -35,
    FILTER_ERROR_INVALID_TIMER_HANDLE = -36,
    FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER = -37,
    FILTER_ERROR_TIMER_HANDLER_NOT_FOUND = -38,
    FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED = -39,
    FILTER_ERROR_INVALID_IOCTL_HANDLER = -40,
    FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER = -41,
    FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND = -42,
    FILTER_ERROR_UNSUPPORTED_PROTOCOL = -43,
    FILTER_ERROR_INVALID_FILTER_TYPE = -44,
    FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS = -45
};

/* The verdict of one packet filter. */
typedef ULONG FILTER_RESULT;
enum {
    FILTER_RESULT_BYPASS = 0,
    FILTER_RESULT_DISCARD = 1,
    FILTER_RESULT_CONSUME = 2,
    FILTER_RESULT_CAPTURE = 3
};

/* The point in the packet path where a filter sits; indexes the four chains. */
typedef LONG FILTER_TYPE;
enum {
    FILTER_TYPE_INVALID = -1,
    FILTER_TYPE_INCOMING_PACKET = 0,
    FILTER_TYPE_OUTGOING_PACKET = 1,
    FILTER_TYPE_INJECT_TO_ADAPTER = 2,
    FILTER_TYPE_INJECT_TO_PROTOCOL = 3
};

#define FILTER_TYPE_COUNT 4

/*
 * Placement of a filter in its chain. Besides the three sentinels every value
 * is itself a fixed position; FILTER_ORDER_FIXED names the first of them.
 */
typedef LONG FILTER_ORDER;
enum {
    FILTER_ORDER_NEXT = -2,
    FILTER_ORDER_LAST = -1,
    FILTER_ORDER_FIRST = 0,
    FILTER_ORDER_FIXED = 1
};

/* How Filter_InvokeFiltersEx walks a chain relative to a given filter. */
typedef ULONG FILTER_METHOD;
enum {
    FILTER_METHOD_START_FROM_FIRST_FILTER = 0,
    FILTER_METHOD_START_UNTIL_THIS_FILTER = 1,
    FILTER_METHOD_STOP_AT_THIS_FILTER = 2,
    FILTER_METHOD_START_FROM_THIS_FILTER = 3,
    FILTER_METHOD_START_AFTER_THIS_FILTER = 4
};


/* Names of the values above; the strings live as long as the framework. */
NDISFILTER_API PCSTR NTAPI Filter_StatusString(FILTER_STATUS Status);
NDISFILTER_API PCSTR NTAPI Filter_ResultString(FILTER_RESULT Result);
NDISFILTER_API PCSTR NTAPI Filter_TypeString(FILTER_TYPE Type);
NDISFILTER_API PCSTR NTAPI Filter_OrderString(FILTER_ORDER Order);
NDISFILTER_API PCSTR NTAPI Filter_MethodString(FILTER_METHOD Method);

/* ------------------------------------------------------------------------
 * Record tags. Every handle record carries one and is checked against it.
 * ------------------------------------------------------------------------ */

#define FILTER_DRIVER_TAG            0x54414731 /* "1GAT" */
#define FILTER_EVENT_HANDLER_TAG     0x54414732 /* "2GAT" */
#define FILTER_PACKET_FILTER_TAG     0x54414733 /* "3GAT" */
#define FILTER_INTERFACE_TAG         0x54414734 /* "4GAT" */
#define FILTER_INTERFACE_REF_TAG     0x54414735 /* "5GAT" */
#define FILTER_LOG_LOOKASIDE_TAG     0x54414736 /* "6GAT" */
#define FILTER_MEMORY_TAG            0x54414737 /* "7GAT" */
#define FILTER_TIMER_TAG             0x54414738 /* "8GAT" */
#define FILTER_IOCTL_HANDLER_TAG     0x54414739 /* "9GAT" */
#define FILTER_IF_EVENT_HANDLER_TAG  0x54414741 /* "AGAT" */
#define FILTER_ADAPTER_TAG           0x41444150 /* "PADA" */
#define FILTER_NDIS_REQUEST_TAG      0x4E524551 /* "QERN" */

/* ------------------------------------------------------------------------
 * Memory, locks, settings and time.
 * ------------------------------------------------------------------------ */

/*
 * A block from Filter_AllocateMemory is preceded by this header; the pointer
 * handed out is the address just behind m_Tag.
 */
typedef struct _FilterMemory {
    ULONG m_Size; /* whole allocation: requested size + 12 */
    ULONG m_Tag;  /* FILTER_MEMORY_TAG while live, 0 once freed */
} FilterMemory, *PFilterMemory;

#define FILTER_MEMORY_OVERHEAD 12

/* A spin lock that remembers the level it raised from. One holder at a time. */
typedef struct _FilterLock {
    KSPIN_LOCK m_SpinLock;
    KIRQL m_OldIrql;
} FilterLock, *PFilterLock;

NDISFILTER_API PVOID NTAPI Filter_AllocateMemory(ULONG Size, ULONG PoolTag);
NDISFILTER_API FILTER_STATUS NTAPI Filter_FreeMemory(PVOID Memory);

NDISFILTER_API FILTER_STATUS NTAPI Filter_InitializeLock(PFilterLock Lock);
NDISFILTER_API FILTER_STATUS NTAPI Filter_AcquireLock(PFilterLock Lock);
NDISFILTER_API FILTER_STATUS NTAPI Filter_ReleaseLock(PFilterLock Lock);
NDISFILTER_API FILTER_STATUS NTAPI Filter_FreeLock(PFilterLock Lock);

/* The four values are the hook driver's version numbers, filled by it. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetOsVersion(PULONG Value1, PULONG Value2,
                                                       PULONG Value3, PULONG Value4);

NDISFILTER_API NTSTATUS NTAPI Filter_SaveDriverRegistryPath(PUNICODE_STRING Source,
                                                            PUNICODE_STRING Destination);
NDISFILTER_API NTSTATUS NTAPI Filter_ReplaceDriverRegistryPath(PUNICODE_STRING Source,
                                                               PUNICODE_STRING Tail,
                                                               PUNICODE_STRING Destination);
NDISFILTER_API ULONG NTAPI Filter_RegGetDwordValue(PUNICODE_STRING RegistryPath,
                                                   PCWSTR ValueName, ULONG Default);
NDISFILTER_API BOOLEAN NTAPI Filter_RegGetStringValue(PUNICODE_STRING RegistryPath,
                                                      PCWSTR ValueName, PUNICODE_STRING Value);
NDISFILTER_API ULONG NTAPI Filter_GetGlobalDebugFlag(PUNICODE_STRING RegistryPath, ULONG Default);
NDISFILTER_API ULONG NTAPI Filter_GetPendingPacketLimit(PUNICODE_STRING RegistryPath, ULONG Default);
NDISFILTER_API VOID NTAPI Filter_SafeGetGlobalDebugFlag(PUNICODE_STRING RegistryPath, ULONG Default,
                                                        PULONG Result);

/* Seconds and milliseconds since 1 January 1601 (UTC). */
NDISFILTER_API LONGLONG NTAPI Filter_GetSystemTime(VOID);
NDISFILTER_API LONGLONG NTAPI Filter_GetSystemTimeMs(VOID);

/* ------------------------------------------------------------------------
 * Event reporting: short records collected by the user program.
 * ------------------------------------------------------------------------ */

#define FILTER_EVENT_TEXT_SIZE 1024
#define FILTER_MAX_EVENT_RECORDS 1023

NDISFILTER_API FILTER_STATUS __cdecl Filter_ReportEvent(ULONG Value1, ULONG Value2, PCSTR Format, ...);
NDISFILTER_API FILTER_STATUS NTAPI Filter_ReportEventEx(ULONG Value1, ULONG Value2, ULONG Length,
                                                        PVOID Data);

/* ------------------------------------------------------------------------
 * Byte order, address text and name comparison. Any IRQL.
 * ------------------------------------------------------------------------ */

NDISFILTER_API USHORT NTAPI htons(USHORT Value);
NDISFILTER_API USHORT NTAPI ntohs(USHORT Value); /* the same routine as htons */
NDISFILTER_API ULONG NTAPI htonl(ULONG Value);
NDISFILTER_API ULONG NTAPI ntohl(ULONG Value); /* the same routine as htonl */
/* Address as it lies in a packet; Buffer of at least 16 bytes, else "" is returned. */
NDISFILTER_API PCHAR NTAPI inet_ntoa(ULONG Address, PCHAR Buffer, ULONG BufferSize);
/* 00-1A-2B-3C-4D-5E into a buffer of 18 bytes. */
NDISFILTER_API PCHAR NTAPI inet_mtoa(const UCHAR *MacAddress, PCHAR Buffer, ULONG BufferSize);
NDISFILTER_API ULONG NTAPI SubnetBroadcastAddress(ULONG Address, ULONG Mask);
NDISFILTER_API BOOLEAN NTAPI IsBroadcastAddress(ULONG Address);
/* 0 when equal; otherwise 1 (A longer or different) or -1 (A shorter or a NULL). Not an ordering. */
NDISFILTER_API LONG NTAPI Filter_CompareString(const STRING *A, const STRING *B);

/* ------------------------------------------------------------------------
 * Records shared with the NDIS hook driver.
 * ------------------------------------------------------------------------ */

typedef struct _FilterAdapter FilterAdapter, *PFilterAdapter;
typedef struct _FilterPacket FilterPacket, *PFilterPacket;
typedef struct _MappedMemory MappedMemory, *PMappedMemory;

/* Handles of the framework's own records; their contents are the framework's. */
typedef struct _FilterDriver FilterDriver, *PFilterDriver;
typedef struct _PacketFilter PacketFilter, *PPacketFilter;
typedef struct _EventHandler EventHandler, *PEventHandler;

/* Adapter events delivered to the adapter event handlers. */
#define FILTER_EVENT_ADAPTER_OPENED    0
#define FILTER_EVENT_MEDIA_CONNECT     1
#define FILTER_EVENT_MEDIA_DISCONNECT  2
#define FILTER_EVENT_ADAPTER_CLOSED    3
#define FILTER_EVENT_IPCONFIG_CHANGED  4

/* The IP configuration of an adapter. Addresses are IPv4 in network order. */
#define FILTER_MAX_IPCONFIG_ENTRIES 8

#pragma pack(push, 4)
typedef struct _IPAddressTriple {
    ULONG IpAddress;
    ULONG Netmask;
    ULONG Broadcast;
} IPAddressTriple;

typedef struct _IPConfig {
    PFilterAdapter hAdapter;
    ULONG m_dwReserved; /* carried and compared, not interpreted */
    ULONG m_nIP;
    IPAddressTriple m_IP[FILTER_MAX_IPCONFIG_ENTRIES];
    ULONG m_nGW;
    ULONG RouterAddr[FILTER_MAX_IPCONFIG_ENTRIES];
    ULONG m_nDHCP;
    ULONG DhcpServer[FILTER_MAX_IPCONFIG_ENTRIES];
    ULONG m_nDNS;
    ULONG DnsServer[FILTER_MAX_IPCONFIG_ENTRIES];
    ULONG WinsServer1;
    ULONG WinsServer2;
} IPConfig, *PIPConfig;
#pragma pack(pop)

NDISFILTER_LAYOUT(sizeof(IPConfig) == 228);
NDISFILTER_LAYOUT(FIELD_OFFSET(IPConfig, m_nGW) == 112);
NDISFILTER_LAYOUT(FIELD_OFFSET(IPConfig, WinsServer2) == 224);

/*
 * The hook driver's record of one adapter; an adapter handle is its address.
 * The hook driver allocates, fills and frees it (and may keep fields of its
 * own behind these); the framework stamps m_Tag and writes only the settable
 * fields.
 */
struct _FilterAdapter {
    ULONG m_Tag; /* FILTER_ADAPTER_TAG once the framework has seen the adapter */
    UCHAR m_CurrentAddress[6];
    UCHAR m_PermanentAddress[6];
    USHORT m_usMTU;
    ULONG m_nAdapterMedium;     /* NDIS_MEDIUM */
    ULONG m_nAdapterMediaState; /* as the hook driver keeps it */
    UCHAR m_HookReserved1;
    BOOLEAN m_bNdisWanAdapter;
    UCHAR m_PPPSrcMacAddress[6];
    UCHAR m_PPPDstMacAddress[6];
    UNICODE_STRING m_AdapterName;
    ULONG64 m_HookReserved2;
    PVOID m_pUpperEthrLog;  /* capture log of sent frames */
    PVOID m_pLowerEthrLog;  /* capture log of received frames */
    PVOID m_pInjectEthrLog; /* capture log of injected frames */
    BOOLEAN m_bPacketDump;
    ULONG_PTR m_pAdapterContext[16];
    IPConfig m_IPConfig;
    UCHAR m_HookReserved3[12];
    BOOLEAN m_bCongestionControl;
};

NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_nAdapterMedium) == 20);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_bNdisWanAdapter) == 29);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_AdapterName) == 48);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_pUpperEthrLog) == 72);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_bPacketDump) == 96);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_pAdapterContext) == 104);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_IPConfig) == 232);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterAdapter, m_bCongestionControl) == 472);

/* Called by Filter_EnumAdapter for each adapter; FALSE stops the walk. */
typedef BOOLEAN (NTAPI *PFILTER_ENUM_ADAPTER_PROC)(PVOID Context, PFilterAdapter Adapter);

/* An adapter event handler: runs at DISPATCH_LEVEL with the handler list locked. */
typedef VOID (NTAPI *PFILTER_EVENT_PROC)(PFilterDriver FilterDriver, PVOID DriverContext, ULONG Event,
                                         PVOID EventContext, PFilterAdapter Adapter);

NDISFILTER_API BOOLEAN NTAPI Filter_IsValidAdapter(PFilterAdapter Adapter);
NDISFILTER_API FILTER_STATUS NTAPI Filter_AdapterToId(PFilterAdapter Adapter, PULONG Id);
NDISFILTER_API FILTER_STATUS NTAPI Filter_IdToAdapter(ULONG Id, PFilterAdapter *Adapter);
NDISFILTER_API PFilterAdapter NTAPI Filter_GetFirstAdapter(VOID);
NDISFILTER_API FILTER_STATUS NTAPI Filter_EnumAdapter(PFilterDriver FilterDriver, PFILTER_ENUM_ADAPTER_PROC EnumProc,
                                                      PVOID Context);
NDISFILTER_API FILTER_STATUS NTAPI Filter_FindAdapterByMacAddress(const UCHAR *MacAddress, PFilterAdapter *Adapter);
NDISFILTER_API FILTER_STATUS NTAPI Filter_FindAdapterByNetCfgInstanceId(PCSTR InstanceId, PFilterAdapter *Adapter);
NDISFILTER_API VOID NTAPI Filter_EnumOpenedAdapter(VOID);

/* ------------------------------------------------------------------------
 * Filter drivers and packet filters.
 * ------------------------------------------------------------------------ */

#define FILTER_API_MAJOR_VERSION 1
#define FILTER_API_MINOR_VERSION 0

/* A packet filter's verdict on one packet (see FILTER_RESULT). */
typedef FILTER_RESULT (NTAPI *PFILTER_PROC)(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                                            PVOID FilterContext, PFilterPacket Packet);
/* Called by Filter_EnumFilter for each matching filter; the result is ignored. */
typedef BOOLEAN (NTAPI *PFILTER_ENUM_FILTER_PROC)(PVOID Context, PPacketFilter Filter);

NDISFILTER_API FILTER_STATUS NTAPI Filter_GetAPIVersion(PULONG Major, PULONG Minor);
/*
 * Registers a client driver under a unique (case-sensitive) name. When memory
 * is short it answers success without writing *FilterDriver: set it to NULL
 * before the call and test it afterwards.
 */
NDISFILTER_API FILTER_STATUS NTAPI Filter_RegisterDriver(PSTRING DriverName, PVOID DriverContext, ULONG Major,
                                                         ULONG Minor, PFilterDriver *FilterDriver);
NDISFILTER_API BOOLEAN NTAPI Filter_IsValidDriver(PFilterDriver FilterDriver);
/* A copy of the name in a block the caller frees with Filter_FreeMemory. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetDriverName(PFilterDriver FilterDriver, PSTRING *DriverName);
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetDriverContext(PFilterDriver FilterDriver, PVOID *DriverContext);
/* Removes the driver with its timers, event handler, packet filters, interfaces and IOCTL handler. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_DeregisterDriver(PFilterDriver FilterDriver);

/*
 * Places a filter in the chain of its type, sorted by Order taken as an
 * unsigned number (FIRST 0 < fixed positions < NEXT < LAST); among equal
 * orders the newest comes first. Names are unique within one chain. When
 * memory is short it answers success without writing *Filter.
 */
NDISFILTER_API FILTER_STATUS NTAPI Filter_RegisterFilter(PFilterDriver FilterDriver, PSTRING FilterName,
                                                         PFILTER_PROC FilterProc, PVOID FilterContext,
                                                         FILTER_TYPE Type, FILTER_ORDER Order, PPacketFilter *Filter);
NDISFILTER_API BOOLEAN NTAPI Filter_IsValidFilter(PPacketFilter Filter);
NDISFILTER_API FILTER_STATUS NTAPI Filter_DeregisterFilter(PFilterDriver FilterDriver, PPacketFilter Filter);
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetFilterName(PPacketFilter Filter, PSTRING *FilterName);
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetFilterContext(PPacketFilter Filter, PVOID *FilterContext);
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetFilterType(PPacketFilter Filter, FILTER_TYPE *Type);
NDISFILTER_API FILTER_STATUS NTAPI Filter_GetFilterOrder(PPacketFilter Filter, FILTER_ORDER *Order);
/* Calls EnumProc for the driver's filters in chain `Type` whose type has a bit in common with `Type`. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_EnumFilter(PFilterDriver FilterDriver, PFILTER_ENUM_FILTER_PROC EnumProc,
                                                     PVOID Context, FILTER_TYPE Type);
NDISFILTER_API FILTER_STATUS NTAPI Filter_DumpFilter(FILTER_TYPE Type);
NDISFILTER_API FILTER_STATUS NTAPI Filter_ShowFilter(PPacketFilter Filter, LONG Position);


#define FILTER_PACKET_DATA_SIZE 1648

typedef VOID (NTAPI *PFILTER_PACKET_RELEASE)(PFilterPacket Packet, PVOID Context);

/*
 * The packet object: allocated and freed by the hook driver, which fills in
 * the NDIS packet the frame came in and as much of the frame as it has at
 * hand (m_nBytesRead bytes of m_Data). Fields marked as the hook driver's own
 * are never touched by the framework.
 */
struct _FilterPacket {
    UCHAR m_HookPrivate1[104];
    LIST_ENTRY m_InjectLink; /* link in an injected-packet queue */
    UCHAR m_HookPrivate2[52];
    UCHAR m_nProtocol; /* IP protocol number found by the last parse */
    PUCHAR m_pEthernet;
    PUCHAR m_pArp;
    PUCHAR m_pIp;
    PUCHAR m_pTcp;
    PUCHAR m_pUdp;
    PUCHAR m_pIcmp;
    PUCHAR m_pDhcp;
    PUCHAR m_pDns;
    ULONG_PTR m_InjectOrigin; /* 0 hook packet, 1 from the application, 0x80000000|method from a filter */
    ULONG_PTR m_InjectReserved;
    PPacketFilter m_hInjectFilter;
    PFILTER_PACKET_RELEASE m_pfReleaseCallback; /* called by the hook driver when it frees the packet */
    ULONG64 m_HookPrivate3;
    PVOID m_pReleaseContext;
    UCHAR m_HookPrivate4[336];
    struct _NDIS_PACKET *m_pOutgoingNdisPacket; /* handed down by a protocol */
    UCHAR m_HookPrivate5[16];
    ULONG64 m_HookPrivate6;
    struct _NDIS_PACKET *m_pIncomingNdisPacket; /* indicated by the adapter */
    ULONG64 m_HookPrivate7;
    BOOLEAN m_bDirty;    /* m_Data is the authoritative copy of the frame */
    ULONG m_nBytesRead;  /* frame bytes present in m_Data */
    PFilterAdapter m_hAdapter;
    ULONG m_nDirection;  /* FILTER_DIRECTION_* */
    ULONG m_nPacketSize; /* length of the whole frame */
    ULONG m_dwCarried[2]; /* carried to and from the shared block ring */
    ULONG m_nIndicateCode;
    ULONG64 m_nIndicateValue;
    UCHAR m_ApplicationData[128];
    UCHAR m_Data[FILTER_PACKET_DATA_SIZE];
};

NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_InjectLink) == 104);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_nProtocol) == 172);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pEthernet) == 176);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pDns) == 232);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_InjectOrigin) == 240);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_hInjectFilter) == 256);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pfReleaseCallback) == 264);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pReleaseContext) == 280);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pOutgoingNdisPacket) == 624);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_pIncomingNdisPacket) == 656);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_bDirty) == 672);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_nBytesRead) == 676);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_hAdapter) == 680);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_nDirection) == 688);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_nIndicateCode) == 704);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_nIndicateValue) == 712);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_ApplicationData) == 720);
NDISFILTER_LAYOUT(FIELD_OFFSET(FilterPacket, m_Data) == 848);
NDISFILTER_LAYOUT(sizeof(FilterPacket) == 2496);

#define NDIS_HOOK_MAJOR_VERSION 1
#define NDIS_HOOK_MINOR_VERSION 0
#define NDIS_HOOK_FLAG_BOUND 0x1

/* Callbacks the framework hands to the hook driver. */
typedef NTSTATUS (NTAPI *PFILTER_ADAPTER_OPENED)(PFilterAdapter Adapter);
typedef VOID (NTAPI *PFILTER_ADAPTER_STATUS_CHANGED)(PFilterAdapter Adapter, NDIS_STATUS Status);
typedef NTSTATUS (NTAPI *PFILTER_ADAPTER_CLOSED)(PFilterAdapter Adapter);
typedef VOID (NTAPI *PFILTER_PACKET_CALLBACK)(PFilterPacket Packet);

/* Functions the hook driver hands to the framework. */
typedef NTSTATUS (NTAPI *PHOOK_GET_OS_VERSION)(PULONG, PULONG, PULONG, PULONG);
typedef NTSTATUS (NTAPI *PHOOK_HANDLE_IO_CONTROL)(ULONG IoControlCode, PVOID InputBuffer,
                                                  ULONG InputLength, PVOID OutputBuffer,
                                                  ULONG OutputLength, PULONG BytesReturned);
typedef PFilterPacket (NTAPI *PHOOK_ALLOCATE_PACKET)(PFilterAdapter Adapter, PCSTR File, ULONG Line);
typedef VOID (NTAPI *PHOOK_FREE_PACKET)(PFilterPacket Packet, PCSTR File, ULONG Line);
typedef NDIS_STATUS (NTAPI *PHOOK_INJECT_PACKET)(PFilterAdapter Adapter, PFilterPacket Packet);
typedef PVOID (NTAPI *PHOOK_ALLOCATE_REQUEST)(VOID);
typedef NDIS_STATUS (NTAPI *PHOOK_MAKE_NDIS_REQUEST)(PFilterAdapter Adapter, PVOID Request, PVOID Argument);
typedef VOID (NTAPI *PHOOK_FREE_REQUEST)(PVOID Request);
typedef NTSTATUS (NTAPI *PHOOK_SET_ADAPTER_STATUS)(PUCHAR AdapterKey, ULONG State);
typedef NTSTATUS (NTAPI *PHOOK_GET_ADAPTER_STATUS)(PUCHAR AdapterKey, PULONG State);
typedef VOID (NTAPI *PHOOK_GET_TCPIP_BOUND_ADAPTERS)(PVOID AdapterList);
typedef PVOID (NTAPI *PHOOK_MM_MAP_LOCKED_PAGES)(PMDL Mdl, ULONG ShareValue, PMappedMemory Memory);
typedef VOID (NTAPI *PHOOK_MM_UNMAP_LOCKED_PAGES)(PMDL Mdl, PVOID UserAddress);

/* The binding record exchanged through IOCTL_NDIS_FILTER_INTERNAL_(UN)BIND_NDIS_HOOK. */
typedef struct _NdisHookAPI {
    ULONG m_Size;          /* sizeof(NdisHookAPI), 168 */
    ULONG m_Flags;         /* NDIS_HOOK_FLAG_BOUND while bound */
    USHORT m_MajorVersion; /* NDIS_HOOK_MAJOR_VERSION */
    USHORT m_MinorVersion; /* NDIS_HOOK_MINOR_VERSION */
    /* filled by the framework */
    PFILTER_ADAPTER_OPENED Filter_AdapterOpened;
    PFILTER_ADAPTER_STATUS_CHANGED Filter_AdapterStatusChanged;
    PFILTER_ADAPTER_CLOSED Filter_AdapterClosed;
    PFILTER_PACKET_CALLBACK Filter_FilterReceivedPacket;
    PFILTER_PACKET_CALLBACK Filter_FilterSendPacket;
    /* filled by the hook driver */
    PHOOK_GET_OS_VERSION Hook_GetOsVersion;
    PHOOK_HANDLE_IO_CONTROL Hook_HandleIoControl;
    PHOOK_ALLOCATE_PACKET Hook_AllocatePacket;
    PHOOK_FREE_PACKET Hook_FreePacket;
    PHOOK_INJECT_PACKET Hook_InjectPacketToAdapter;
    PHOOK_INJECT_PACKET Hook_InjectPacketToProtocol;
    PHOOK_ALLOCATE_REQUEST Hook_AllocateRequest;
    PHOOK_MAKE_NDIS_REQUEST Hook_MakeNdisRequest;
    PHOOK_FREE_REQUEST Hook_FreeRequest;
    PHOOK_SET_ADAPTER_STATUS Hook_SetAdapterStatus;
    PHOOK_GET_ADAPTER_STATUS Hook_GetAdapterStatus;
    PHOOK_GET_TCPIP_BOUND_ADAPTERS Hook_GetTcpIpBoundAdapters;
    PHOOK_MM_MAP_LOCKED_PAGES Hook_MmMapLockedPages;
    PHOOK_MM_UNMAP_LOCKED_PAGES Hook_MmUnmapLockedPages;
} NdisHookAPI, *PNdisHookAPI;

NDISFILTER_LAYOUT(sizeof(NdisHookAPI) == 168);

/* One entry of the adapter table, written by the hook driver and copied out whole. */
#pragma pack(push, 1)
typedef struct _AdapterInfo {
    PFilterAdapter m_hAdapter;
    ULONG m_nAdapterMedium;
    USHORT m_usMTU;
    ULONG m_dwAdapterState;
    UCHAR m_PermanentAddress[6];
    UCHAR m_CurrentAddress[6];
    CHAR m_szAdapterName[256]; /* begins with the network-configuration instance id */
} AdapterInfo, *PAdapterInfo;
#pragma pack(pop)

NDISFILTER_LAYOUT(sizeof(AdapterInfo) == 286);

#define FILTER_MAX_ADAPTERS 32

/* ------------------------------------------------------------------------
 * Packets: allocation and release through the hook driver, lazy reads,
 * modification, header parsing, dumps, checksums and clones.
 * ------------------------------------------------------------------------ */

/* The caller's source file and line go to the hook driver's bookkeeping. */
NDISFILTER_API PFilterPacket NTAPI Filter_AllocatePacketp(PFilterAdapter Adapter, PCSTR File, ULONG Line);
NDISFILTER_API FILTER_STATUS NTAPI Filter_ReleasePacketp(PFilterPacket Packet, PCSTR File, ULONG Line);
#define Filter_AllocatePacket(Adapter) Filter_AllocatePacketp((Adapter), __FILE__, __LINE__)
#define Filter_ReleasePacket(Packet) Filter_ReleasePacketp((Packet), __FILE__, __LINE__)

/* Pulls the whole frame into m_Data from the packet's NDIS buffer chain. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_TransferPacketData(PFilterPacket Packet);
/* Marks m_Data as the frame to deliver, reading the whole frame in first. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_ModifyPacket(PFilterPacket Packet);
/* The callback runs when the hook driver frees the packet. */
NDISFILTER_API VOID NTAPI Filter_SetPacketReleaseCallback(PFilterPacket Packet, PFILTER_PACKET_RELEASE Callback,
                                                          PVOID Context);
NDISFILTER_API VOID NTAPI Filter_ClearPacketReleaseCallback(PFilterPacket Packet);
/* Locates the headers of the frame at Frame (NULL: the packet's own m_Data). */
NDISFILTER_API FILTER_STATUS NTAPI Filter_InitPacketHeader(PFilterPacket Packet, PUCHAR Frame);
/* Prints the frame when its adapter's dump flag is on. */
NDISFILTER_API VOID NTAPI Filter_DumpPacket(PCSTR Title, PFilterPacket Packet);

#define FILTER_CHECKSUM_IP   0
#define FILTER_CHECKSUM_ICMP 1
#define FILTER_CHECKSUM_TCP  6
#define FILTER_CHECKSUM_UDP  17
/* Recomputes one checksum in place: the IP header's, or the ICMP, TCP or UDP one behind it. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_CalculatePacketCheckSum(PUCHAR IpHeader, ULONG Protocol);
/* TRUE when the IP header checksum was right; either way it is right afterwards. */
NDISFILTER_API BOOLEAN NTAPI Filter_VerifyPacketCheckSum(PFilterPacket Packet);
/* A new packet of the same adapter holding the whole frame, with no NDIS packets of its own. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_ClonePacket(PFilterPacket Packet, PFilterPacket *Clone);

/* ------------------------------------------------------------------------
 * Filter invocation, injection and indication. Every operation that takes a
 * packet takes it over, also on failure, except
 * Filter_IndicatePacketToApplication, which copies it.
 * ------------------------------------------------------------------------ */

/* Runs the whole chain of `Type`; a packet every filter bypasses is delivered. */
NDISFILTER_API VOID NTAPI Filter_InvokeFilters(FILTER_TYPE Type, PFilterPacket Packet);
/* Runs the part of the chain holding `Filter` that `Method` selects, then delivers. */
NDISFILTER_API VOID NTAPI Filter_InvokeFiltersEx(FILTER_METHOD Method, PPacketFilter Filter, PFilterPacket Packet);

/* Final deliveries: to the hook driver, for the adapter or the protocols. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_InjectPacketToAdapterEx(PFilterAdapter Adapter, PFilterPacket Packet);
NDISFILTER_API FILTER_STATUS NTAPI Filter_IndicatePacketToProtocolEx(PFilterAdapter Adapter, PFilterPacket Packet);
/* Immediate: the inject chain of the direction runs in the caller's context. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_InjectPacketToAdapter(PFilterAdapter Adapter, PFilterPacket Packet);
NDISFILTER_API FILTER_STATUS NTAPI Filter_IndicatePacketToProtocol(PFilterAdapter Adapter, PFilterPacket Packet);
/* Deferred: queued for an injected-packet worker thread. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_IndicatePacketFromAdapter(PFilterAdapter Adapter, PFilterPacket Packet);
NDISFILTER_API FILTER_STATUS NTAPI Filter_InjectPacketFromProtocol(PFilterAdapter Adapter, PFilterPacket Packet);
NDISFILTER_API FILTER_STATUS NTAPI Filter_InjectPacketFromApplication(PFilterAdapter Adapter, PFilterPacket Packet,
                                                                      ULONG Direction);
/* A consumed packet handed back into its chain at `Filter`, as `Method` says. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_InjectPacketFromFilter(FILTER_METHOD Method, PPacketFilter Filter,
                                                                 PFilterPacket Packet);
/* Copies the packet, with a code and a value, into the user program's output ring. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_IndicatePacketToApplication(PFilterPacket Packet, ULONG Code,
                                                                      ULONG64 Value);
/* Copies a FILTER_SIGNAL_SIZE-byte signal record into the output ring. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_IndicateSignalToApplication(PVOID Signal);
NDISFILTER_API LONG NTAPI Filter_GetInjectPacketCount(VOID);
NDISFILTER_API VOID NTAPI Filter_SetPendingPacketLimit(ULONG Limit);

#include "ndisfilter-shared.h"

/* Natural alignment: the allocation ends 4 bytes behind m_SharedMemory. */
struct _MappedMemory {
    PVOID m_pUserModeVirtualAddress;
    PMDL m_pMdl;
    ULONG m_nSize;
    SharedMemory m_SharedMemory;
};

NDISFILTER_LAYOUT(sizeof(MappedMemory) == MAPPED_MEMORY_SIZE);
NDISFILTER_LAYOUT(FIELD_OFFSET(MappedMemory, m_SharedMemory) == SHARED_MEMORY_OFFSET);

/* ------------------------------------------------------------------------
 * Diagnostics. A client driver's IOCTL handler that is asked a diagnostic
 * command (IOCTL_NDIS_FILTER_DIAG) whose first word is its own name takes the
 * prepared reply with Filter_BeginDiag and appends text with Filter_DiagPrint.
 * ------------------------------------------------------------------------ */

NDISFILTER_API FILTER_STATUS NTAPI Filter_BeginDiag(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer,
                                                    ULONG OutputLength, PDiag *Diag);
NDISFILTER_API FILTER_STATUS __cdecl Filter_DiagPrint(PDiag Diag, PCSTR Format, ...);
/* Appends the packet filters of one chain, field by field. */
NDISFILTER_API FILTER_STATUS NTAPI Filter_DiagFilter(PDiag Diag, FILTER_TYPE Type);

#ifdef __cplusplus
}
#endif

#endif /* NDISFILTER_H */
