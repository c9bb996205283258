/*
 * Host kernel runtime: the transport driver interface shared by transports and
 * their clients (stands in for the DDK's tdi.h): transport addresses,
 * connection information, provider records, request flags and the TDI status
 * codes. Names, values and layouts are the Windows x64 ones. Valid C11 and C++17.
 */
#ifndef HK_TDI_H
#define HK_TDI_H
#include "ntddk.h"

HK_EXTERN_C_BEGIN

/* ---- status codes of transports ---- */
#define STATUS_ADDRESS_ALREADY_EXISTS    ((NTSTATUS)0xC000020A)
#define STATUS_CONNECTION_DISCONNECTED   ((NTSTATUS)0xC000020C)
#define STATUS_CONNECTION_RESET          ((NTSTATUS)0xC000020D)
#define STATUS_DATA_NOT_ACCEPTED         ((NTSTATUS)0xC000021B)
#define STATUS_INVALID_CONNECTION        ((NTSTATUS)0xC0000140)
#define STATUS_INVALID_ADDRESS           ((NTSTATUS)0xC0000141)
#define STATUS_INVALID_ADDRESS_COMPONENT ((NTSTATUS)0xC0000207)
#define STATUS_CONNECTION_REFUSED        ((NTSTATUS)0xC0000236)
#define STATUS_ADDRESS_ALREADY_ASSOCIATED ((NTSTATUS)0xC0000238)
#define STATUS_CONNECTION_INVALID        ((NTSTATUS)0xC000023A)
#define STATUS_CONNECTION_ACTIVE         ((NTSTATUS)0xC000023B)
#define STATUS_NETWORK_UNREACHABLE       ((NTSTATUS)0xC000023C)
#define STATUS_HOST_UNREACHABLE          ((NTSTATUS)0xC000023D)
#define STATUS_PROTOCOL_UNREACHABLE      ((NTSTATUS)0xC000023E)
#define STATUS_PORT_UNREACHABLE          ((NTSTATUS)0xC000023F)
#define STATUS_REQUEST_ABORTED           ((NTSTATUS)0xC0000240)
#define STATUS_CONNECTION_ABORTED        ((NTSTATUS)0xC0000241)

typedef PVOID CONNECTION_CONTEXT;

/* ---- extended-attribute names of a create request ---- */
#define TdiTransportAddress "TransportAddress"
#define TdiConnectionContext "ConnectionContext"
#define TDI_TRANSPORT_ADDRESS_LENGTH (sizeof(TdiTransportAddress) - 1)
#define TDI_CONNECTION_CONTEXT_LENGTH (sizeof(TdiConnectionContext) - 1)

/* ---- addresses (byte-packed, as on the wire of the interface) ---- */
#define TDI_ADDRESS_TYPE_UNSPEC 0
#define TDI_ADDRESS_TYPE_UNIX   1
#define TDI_ADDRESS_TYPE_IP     2
#define TDI_ADDRESS_TYPE_IP6    23
#define TDI_ADDRESS_LENGTH_IP   14

#pragma pack(push, 1)
typedef struct _TA_ADDRESS {
    USHORT AddressLength; /* bytes of Address */
    USHORT AddressType;
    UCHAR Address[1];
} TA_ADDRESS, *PTA_ADDRESS;

typedef struct _TRANSPORT_ADDRESS {
    LONG TAAddressCount;
    TA_ADDRESS Address[1]; /* variable-length entries follow each other */
} TRANSPORT_ADDRESS, *PTRANSPORT_ADDRESS;

/* Port and address in network byte order. */
typedef struct _TDI_ADDRESS_IP {
    USHORT sin_port;
    ULONG in_addr;
    UCHAR sin_zero[8];
} TDI_ADDRESS_IP, *PTDI_ADDRESS_IP;

typedef struct _TA_ADDRESS_IP {
    LONG TAAddressCount;
    struct _AddrIp {
        USHORT AddressLength;
        USHORT AddressType;
        TDI_ADDRESS_IP Address[1];
    } Address[1];
} TA_IP_ADDRESS, *PTA_IP_ADDRESS;
#pragma pack(pop)

/* ---- request information ---- */
typedef struct _TDI_CONNECTION_INFORMATION {
    LONG UserDataLength;
    PVOID UserData;
    LONG OptionsLength;
    PVOID Options;
    LONG RemoteAddressLength;
    PVOID RemoteAddress;
} TDI_CONNECTION_INFORMATION, *PTDI_CONNECTION_INFORMATION;

/* Send flags. */
#define TDI_SEND_EXPEDITED            0x0020
#define TDI_SEND_PARTIAL              0x0040
#define TDI_SEND_NO_RESPONSE_EXPECTED 0x0080
#define TDI_SEND_NON_BLOCKING         0x0100
#define TDI_SEND_AND_DISCONNECT       0x0200

/* Receive flags (requests and indications). */
#define TDI_RECEIVE_TRUNCATED         0x00000001
#define TDI_RECEIVE_FRAGMENT          0x00000002
#define TDI_RECEIVE_BROADCAST         0x00000004
#define TDI_RECEIVE_MULTICAST         0x00000008
#define TDI_RECEIVE_PARTIAL           0x00000010
#define TDI_RECEIVE_NORMAL            0x00000020
#define TDI_RECEIVE_EXPEDITED         0x00000040
#define TDI_RECEIVE_PEEK              0x00000080
#define TDI_RECEIVE_NO_RESPONSE_EXP   0x00000100
#define TDI_RECEIVE_COPY_LOOKAHEAD    0x00000200
#define TDI_RECEIVE_ENTIRE_MESSAGE    0x00000400
#define TDI_RECEIVE_AT_DISPATCH_LEVEL 0x00000800
#define TDI_RECEIVE_CONTROL_INFO      0x00001000

/* Disconnect flags. */
#define TDI_DISCONNECT_WAIT    0x0001
#define TDI_DISCONNECT_ABORT   0x0002
#define TDI_DISCONNECT_RELEASE 0x0004

/* ---- query and set information ---- */
#define TDI_QUERY_BROADCAST_ADDRESS    0x00000001
#define TDI_QUERY_PROVIDER_INFO        0x00000002
#define TDI_QUERY_ADDRESS_INFO         0x00000003
#define TDI_QUERY_CONNECTION_INFO      0x00000004
#define TDI_QUERY_PROVIDER_STATISTICS  0x00000005
#define TDI_QUERY_DATAGRAM_INFO        0x00000006
#define TDI_QUERY_DATA_LINK_ADDRESS    0x00000007
#define TDI_QUERY_NETWORK_ADDRESS      0x00000008
#define TDI_QUERY_MAX_DATAGRAM_INFO    0x00000009

#define TDI_SERVICE_CONNECTION_MODE     0x00000001
#define TDI_SERVICE_ORDERLY_RELEASE     0x00000002
#define TDI_SERVICE_CONNECTIONLESS_MODE 0x00000004
#define TDI_SERVICE_ERROR_FREE_DELIVERY 0x00000008
#define TDI_SERVICE_SECURITY_LEVEL      0x00000010
#define TDI_SERVICE_BROADCAST_SUPPORTED 0x00000020
#define TDI_SERVICE_MULTICAST_SUPPORTED 0x00000040
#define TDI_SERVICE_DELAYED_ACCEPTANCE  0x00000080
#define TDI_SERVICE_EXPEDITED_DATA      0x00000100
#define TDI_SERVICE_INTERNAL_BUFFERING  0x00000200
#define TDI_SERVICE_ROUTE_DIRECTED      0x00000400
#define TDI_SERVICE_NO_ZERO_LENGTH      0x00000800
#define TDI_SERVICE_POINT_TO_POINT      0x00001000
#define TDI_SERVICE_MESSAGE_MODE        0x00002000
#define TDI_SERVICE_HALF_DUPLEX         0x00004000

typedef struct _TDI_PROVIDER_INFO {
    ULONG Version;
    ULONG MaxSendSize;
    ULONG MaxConnectionUserData;
    ULONG MaxDatagramSize;
    ULONG ServiceFlags;
    ULONG MinimumLookaheadData;
    ULONG MaximumLookaheadData;
    ULONG NumberOfResources;
    LARGE_INTEGER StartTime;
} TDI_PROVIDER_INFO, *PTDI_PROVIDER_INFO;

typedef struct _TDI_PROVIDER_RESOURCE_STATS {
    ULONG ResourceId;
    ULONG MaximumResourceUsed;
    ULONG AverageResourceUsed;
    ULONG ResourceExhausted;
} TDI_PROVIDER_RESOURCE_STATS, *PTDI_PROVIDER_RESOURCE_STATS;

typedef struct _TDI_PROVIDER_STATISTICS {
    ULONG Version;
    ULONG OpenConnections;
    ULONG ConnectionsAfterNoRetry;
    ULONG ConnectionsAfterRetry;
    ULONG LocalDisconnects;
    ULONG RemoteDisconnects;
    ULONG LinkFailures;
    ULONG AdapterFailures;
    ULONG SessionTimeouts;
    ULONG CancelledConnections;
    ULONG RemoteResourceFailures;
    ULONG LocalResourceFailures;
    ULONG NotFoundFailures;
    ULONG NoListenFailures;
    ULONG DatagramsSent;
    LARGE_INTEGER DatagramBytesSent;
    ULONG DatagramsReceived;
    LARGE_INTEGER DatagramBytesReceived;
    ULONG PacketsSent;
    ULONG PacketsReceived;
    ULONG DataFramesSent;
    LARGE_INTEGER DataFrameBytesSent;
    ULONG DataFramesReceived;
    LARGE_INTEGER DataFrameBytesReceived;
    ULONG DataFramesResent;
    LARGE_INTEGER DataFrameBytesResent;
    ULONG DataFramesRejected;
    LARGE_INTEGER DataFrameBytesRejected;
    ULONG ResponseTimerExpirations;
    ULONG AckTimerExpirations;
    ULONG MaximumSendWindow;
    ULONG AverageSendWindow;
    ULONG PiggybackAckQueued;
    ULONG PiggybackAckTimeouts;
    LARGE_INTEGER WastedPacketSpace;
    ULONG WastedSpacePackets;
    ULONG NumberOfResources;
    TDI_PROVIDER_RESOURCE_STATS ResourceStats[1];
} TDI_PROVIDER_STATISTICS, *PTDI_PROVIDER_STATISTICS;

typedef struct _TDI_CONNECTION_INFO {
    ULONG State;
    ULONG Event;
    ULONG TransmittedTsdus;
    ULONG ReceivedTsdus;
    ULONG TransmissionErrors;
    ULONG ReceiveErrors;
    LARGE_INTEGER Throughput;
    LARGE_INTEGER Delay;
    ULONG SendBufferSize;
    ULONG ReceiveBufferSize;
    BOOLEAN Unreliable;
} TDI_CONNECTION_INFO, *PTDI_CONNECTION_INFO;

#ifdef __cplusplus
static_assert(sizeof(TA_IP_ADDRESS) == 22, "one IP transport address is 22 bytes");
static_assert(sizeof(TDI_PROVIDER_INFO) == 40, "provider information is 40 bytes");
static_assert(sizeof(TDI_PROVIDER_STATISTICS) == 216, "provider statistics are 216 bytes");
static_assert(sizeof(TDI_CONNECTION_INFO) == 56, "connection information is 56 bytes");
#endif

HK_EXTERN_C_END

#endif /* HK_TDI_H */
