/*
 * ksocket.h - kernel sockets over the transport driver interface, exported by
 * the framework's image for client drivers.
 *
 * Include <ntddk.h>, <ndis.h> and <tdikrnl.h> first. Valid C11 and C++.
 *
 * A client opens a transport address (KS_ADDRESS) on a transport device such as
 * L"\\Device\\Udp" or L"\\Device\\Tcp", sets its event handlers, and on a
 * stream transport opens connection endpoints (KS_ENDPOINT) associated with the
 * address. The records are the caller's memory; the library fills them. Every
 * function returns an NTSTATUS unless its declaration says otherwise, and runs
 * at PASSIVE_LEVEL unless its comment says otherwise.
 *
 * Data requests (datagram send and receive, stream send and receive,
 * disconnect) complete in one of three ways:
 *   - with a completion routine: the call returns at once (STATUS_PENDING
 *     usually) and the routine runs when the request is done, possibly at
 *     DISPATCH_LEVEL and in another thread;
 *   - else with the caller's event: the event is reset, the call returns at
 *     once and the event is signalled when the request is done;
 *   - else synchronously: the call waits and returns the final status.
 * The I/O status block, when given, receives the final status and the byte
 * count, and must stay valid until the request is done.
 *
 * The simple requests on one address (event handlers, associating an endpoint,
 * connecting) share one preallocated request: do not issue two of them on the
 * same address at once. Data requests may overlap freely.
 */
#ifndef KSOCKET_H
#define KSOCKET_H

#ifdef __cplusplus
extern "C" {
#endif

#ifndef NDISFILTER_API
#define NDISFILTER_API extern
#endif

/* A transport address: one address object of a transport, and the connection
 * endpoints associated with it. */
typedef struct _KS_ADDRESS {
    NTSTATUS Status;            /* STATUS_UNSUCCESSFUL until opened, then the open status */
    ULONG ReferenceCount;       /* 1 after open; in-flight requests and endpoints hold more */
    HANDLE AddressHandle;
    PFILE_OBJECT AddressFileObject;
    PIRP Irp;                   /* reused by the simple synchronous requests */
    LIST_ENTRY EndpointList;    /* KS_ENDPOINT.ListEntry */
} KS_ADDRESS, *PKS_ADDRESS;

/* A connection endpoint of a stream transport. */
typedef struct _KS_ENDPOINT {
    LIST_ENTRY ListEntry;       /* in the address's endpoint list */
    NTSTATUS AssociateStatus;
    ULONG ReferenceCount;       /* 1 after open; in-flight requests hold more */
    PKS_ADDRESS Address;        /* the associated address, NULL when not associated */
    NTSTATUS Status;            /* STATUS_UNSUCCESSFUL until opened, then the open status */
    HANDLE EndpointHandle;
    PFILE_OBJECT EndpointFileObject;
} KS_ENDPOINT, *PKS_ENDPOINT;

/* A control channel of a transport (provider queries). */
typedef struct _KS_CHANNEL {
    HANDLE ChannelHandle;
    PFILE_OBJECT ChannelFileObject;
} KS_CHANNEL, *PKS_CHANNEL;

/* Called when a data request is done, with the I/O status block the request
 * filled (the caller's, or one of the library's that lives until the routine
 * returns). Runs at IRQL <= DISPATCH_LEVEL. Extra is 0. */
typedef VOID (NTAPI *PKS_REQUEST_COMPLETION)(PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                             ULONG Extra);

/* ---- transport addresses ---- */

/* Opens the address on the transport device DeviceName (e.g. L"\\Device\\Udp"). */
NDISFILTER_API NTSTATUS NTAPI KS_OpenTransportAddress(PCWSTR DeviceName,
                                                      PTRANSPORT_ADDRESS TransportAddress,
                                                      PKS_ADDRESS Address);
/* Drops the opener's reference; the address closes when the last one goes.
 * Returns STATUS_SUCCESS. IRQL == PASSIVE_LEVEL for the last reference. */
NDISFILTER_API NTSTATUS NTAPI KS_CloseTransportAddress(PKS_ADDRESS Address);
/* Registers the six handlers (connect, disconnect, error, receive, receive
 * datagram, receive expedited; NULL clears one) with one event context, in
 * that order. The first failure is returned; the handlers after it stay unset. */
NDISFILTER_API NTSTATUS NTAPI KS_SetEventHandlers(PKS_ADDRESS Address, PVOID EventContext,
                                                  PTDI_IND_CONNECT ConnectHandler,
                                                  PTDI_IND_DISCONNECT DisconnectHandler,
                                                  PTDI_IND_ERROR ErrorHandler,
                                                  PTDI_IND_RECEIVE ReceiveHandler,
                                                  PTDI_IND_RECEIVE_DATAGRAM ReceiveDatagramHandler,
                                                  PTDI_IND_RECEIVE_EXPEDITED ReceiveExpeditedHandler);
/* Sends one datagram made of the whole MDL chain to the peer SendInfo names. */
NDISFILTER_API NTSTATUS NTAPI KS_SendDatagramOnAddress(PKS_ADDRESS Address, PKEVENT Event,
                                                       PKS_REQUEST_COMPLETION Completion,
                                                       PVOID CompletionContext,
                                                       PIO_STATUS_BLOCK IoStatus, PMDL SendMdl,
                                                       PTDI_CONNECTION_INFORMATION SendInfo);
/* Receives one datagram into the MDL chain; ReturnInfo (optional) receives the
 * sender's address. */
NDISFILTER_API NTSTATUS NTAPI KS_ReceiveDatagramOnAddress(PKS_ADDRESS Address, PKEVENT Event,
                                                          PKS_REQUEST_COMPLETION Completion,
                                                          PVOID CompletionContext,
                                                          PIO_STATUS_BLOCK IoStatus,
                                                          PMDL ReceiveMdl,
                                                          PTDI_CONNECTION_INFORMATION ReceiveInfo,
                                                          PTDI_CONNECTION_INFORMATION ReturnInfo,
                                                          ULONG Flags);

/* ---- connection endpoints ---- */

/* Opens an endpoint on DeviceName with ConnectionContext (what the event
 * handlers are given for it) and associates it with Address. Returns the
 * association's status. */
NDISFILTER_API NTSTATUS NTAPI KS_OpenConnectionEndpoint(PCWSTR DeviceName, PKS_ADDRESS Address,
                                                        PKS_ENDPOINT Endpoint,
                                                        PVOID ConnectionContext);
/* Drops the opener's reference; at the last one the endpoint releases its
 * address and closes. Returns STATUS_SUCCESS. */
NDISFILTER_API NTSTATUS NTAPI KS_CloseConnectionEndpoint(PKS_ENDPOINT Endpoint);
/* Connects to the peer, synchronously. */
NDISFILTER_API NTSTATUS NTAPI KS_Connect(PKS_ENDPOINT Endpoint, PTA_IP_ADDRESS Peer);
/* TDI_DISCONNECT_RELEASE (graceful) or TDI_DISCONNECT_ABORT in Flags. */
NDISFILTER_API NTSTATUS NTAPI KS_Disconnect(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                            PKS_REQUEST_COMPLETION Completion,
                                            PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                            ULONG Flags);
NDISFILTER_API NTSTATUS NTAPI KS_SendOnEndpoint(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                                PKS_REQUEST_COMPLETION Completion,
                                                PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                                PMDL SendMdl, ULONG Flags);
NDISFILTER_API NTSTATUS NTAPI KS_ReceiveOnEndpoint(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                                   PKS_REQUEST_COMPLETION Completion,
                                                   PVOID CompletionContext,
                                                   PIO_STATUS_BLOCK IoStatus, PMDL ReceiveMdl,
                                                   ULONG Flags);
/* Zeroes the 56-byte record and sets it as the endpoint's connection information. */
NDISFILTER_API NTSTATUS NTAPI KS_SetConnectionInfo(PKS_ENDPOINT Endpoint,
                                                   PTDI_CONNECTION_INFO ConnectionInfo);

/* ---- control channels and provider queries ---- */

NDISFILTER_API NTSTATUS NTAPI KS_OpenControlChannel(PCWSTR DeviceName, PKS_CHANNEL Channel);
NDISFILTER_API NTSTATUS NTAPI KS_CloseControlChannel(PKS_CHANNEL Channel);
NDISFILTER_API NTSTATUS NTAPI KS_QueryProviderInfo(PCWSTR DeviceName,
                                                   PTDI_PROVIDER_INFO ProviderInfo);
NDISFILTER_API NTSTATUS NTAPI KS_QueryProviderStatistics(PCWSTR DeviceName,
                                                         PTDI_PROVIDER_STATISTICS Statistics);
/* Sends a prepared IRP to the device and waits for it; the IRP stays the caller's. */
NDISFILTER_API NTSTATUS NTAPI KS_MakeSimpleTdiRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);

/* ---- helpers ---- */

/* An MDL over the buffer, its pages locked for modify access; NULL on failure. */
NDISFILTER_API PMDL NTAPI KS_AllocateAndProbeMdl(PVOID VirtualAddress, ULONG Length,
                                                 BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                                                 PIRP Irp);
NDISFILTER_API VOID NTAPI KS_UnlockAndFreeMdl(PMDL Mdl);
/* One extended attribute (name and value) in a new paged-pool buffer, which the
 * caller frees with ExFreePool. */
NDISFILTER_API NTSTATUS NTAPI KS_BuildEaBuffer(ULONG EaNameLength, PVOID EaName,
                                               ULONG EaValueLength, PVOID EaValue,
                                               PFILE_FULL_EA_INFORMATION *EaBuffer,
                                               PULONG EaBufferLength);
/* Byte length of a TRANSPORT_ADDRESS with all its entries (0 for NULL). Any IRQL. */
NDISFILTER_API ULONG NTAPI KS_TransportAddressLength(PTRANSPORT_ADDRESS TransportAddress);
/* One IP address; Address and Port in network byte order. Any IRQL. */
NDISFILTER_API VOID NTAPI KS_InitIPAddress(PTA_IP_ADDRESS TransportAddress, ULONG Address,
                                           USHORT Port);
/* Creates (or deletes) "\DosDevices\<name>" for the device "\Device\<name>". */
NDISFILTER_API NTSTATUS NTAPI KS_CreateSymbolicLink(PUNICODE_STRING DeviceName, BOOLEAN Create);
/* Frees each buffer descriptor of the packet and the packet. NULL is ignored. */
NDISFILTER_API VOID NTAPI KS_FreePacketAndBuffers(PNDIS_PACKET Packet);
NDISFILTER_API ULONG NTAPI KS_htonl(ULONG Value);
NDISFILTER_API ULONG NTAPI KS_ntohl(ULONG Value);
NDISFILTER_API USHORT NTAPI KS_htons(USHORT Value);
NDISFILTER_API USHORT NTAPI KS_ntohs(USHORT Value);
/* The Internet checksum of Length bytes; an odd last byte counts as the high
 * byte of a 16-bit word. Any IRQL. */
NDISFILTER_API USHORT NTAPI KS_in_cksum(PUCHAR Buffer, ULONG Length);
/* Call once in the system process (DriverEntry) before KS_GetCurrentProcessName. */
NDISFILTER_API VOID NTAPI KS_InitProcessNameOffset(VOID);
/* The current process's image name in Name[0..16] (17 bytes); "???" and FALSE
 * while the name's place is unknown. Any IRQL. */
NDISFILTER_API BOOLEAN NTAPI KS_GetCurrentProcessName(PCHAR Name);

#ifdef __cplusplus
}
#endif

#endif /* KSOCKET_H */
