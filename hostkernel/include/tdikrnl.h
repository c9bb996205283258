/*
 * Host kernel runtime: the kernel side of the transport driver interface
 * (stands in for the DDK's tdikrnl.h): the internal device-control requests a
 * client sends to a transport, their parameter records (which overlay the
 * stack location's Parameters), the event handlers a client registers, and
 * the TdiBuild* helpers that fill a request. Valid C11 and C++17.
 */
#ifndef HK_TDIKRNL_H
#define HK_TDIKRNL_H
#include "tdi.h"

HK_EXTERN_C_BEGIN

/* Minor functions of IRP_MJ_INTERNAL_DEVICE_CONTROL. */
#define TDI_ASSOCIATE_ADDRESS    0x01
#define TDI_DISASSOCIATE_ADDRESS 0x02
#define TDI_CONNECT              0x03
#define TDI_LISTEN               0x04
#define TDI_ACCEPT               0x05
#define TDI_DISCONNECT           0x06
#define TDI_SEND                 0x07
#define TDI_RECEIVE              0x08
#define TDI_SEND_DATAGRAM        0x09
#define TDI_RECEIVE_DATAGRAM     0x0A
#define TDI_SET_EVENT_HANDLER    0x0B
#define TDI_QUERY_INFORMATION    0x0C
#define TDI_SET_INFORMATION      0x0D
#define TDI_ACTION               0x0E

/* What a file object opened on a transport stands for (FsContext2). */
#define TDI_TRANSPORT_ADDRESS_FILE 1
#define TDI_CONNECTION_FILE        2
#define TDI_CONTROL_CHANNEL_FILE   3

/* ---- parameter records ---- */
typedef struct _TDI_REQUEST_KERNEL {
    ULONG_PTR RequestFlags;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
    PTDI_CONNECTION_INFORMATION ReturnConnectionInformation;
    PVOID RequestSpecific; /* a PLARGE_INTEGER time-out for connect and disconnect */
} TDI_REQUEST_KERNEL, *PTDI_REQUEST_KERNEL;

typedef TDI_REQUEST_KERNEL TDI_REQUEST_KERNEL_CONNECT, *PTDI_REQUEST_KERNEL_CONNECT;
typedef TDI_REQUEST_KERNEL TDI_REQUEST_KERNEL_DISCONNECT, *PTDI_REQUEST_KERNEL_DISCONNECT;
typedef TDI_REQUEST_KERNEL TDI_REQUEST_KERNEL_LISTEN, *PTDI_REQUEST_KERNEL_LISTEN;
typedef TDI_REQUEST_KERNEL TDI_REQUEST_KERNEL_DISASSOCIATE, *PTDI_REQUEST_KERNEL_DISASSOCIATE;

typedef struct _TDI_REQUEST_KERNEL_ASSOCIATE {
    HANDLE AddressHandle;
} TDI_REQUEST_KERNEL_ASSOCIATE, *PTDI_REQUEST_KERNEL_ASSOCIATE;

typedef struct _TDI_REQUEST_KERNEL_ACCEPT {
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
    PTDI_CONNECTION_INFORMATION ReturnConnectionInformation;
} TDI_REQUEST_KERNEL_ACCEPT, *PTDI_REQUEST_KERNEL_ACCEPT;

typedef struct _TDI_REQUEST_KERNEL_RECEIVE {
    ULONG ReceiveLength;
    ULONG ReceiveFlags;
} TDI_REQUEST_KERNEL_RECEIVE, *PTDI_REQUEST_KERNEL_RECEIVE;

typedef struct _TDI_REQUEST_KERNEL_RECEIVEDG {
    ULONG ReceiveLength;
    PTDI_CONNECTION_INFORMATION ReceiveDatagramInformation;
    PTDI_CONNECTION_INFORMATION ReturnDatagramInformation;
    ULONG ReceiveFlags;
} TDI_REQUEST_KERNEL_RECEIVEDG, *PTDI_REQUEST_KERNEL_RECEIVEDG;

typedef struct _TDI_REQUEST_KERNEL_SEND {
    ULONG SendLength;
    ULONG SendFlags;
} TDI_REQUEST_KERNEL_SEND, *PTDI_REQUEST_KERNEL_SEND;

typedef struct _TDI_REQUEST_KERNEL_SENDDG {
    ULONG SendLength;
    PTDI_CONNECTION_INFORMATION SendDatagramInformation;
} TDI_REQUEST_KERNEL_SENDDG, *PTDI_REQUEST_KERNEL_SENDDG;

typedef struct _TDI_REQUEST_KERNEL_SET_EVENT {
    LONG EventType;
    PVOID EventHandler;
    PVOID EventContext;
} TDI_REQUEST_KERNEL_SET_EVENT, *PTDI_REQUEST_KERNEL_SET_EVENT;

typedef struct _TDI_REQUEST_KERNEL_QUERY_INFO {
    LONG QueryType;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
} TDI_REQUEST_KERNEL_QUERY_INFORMATION, *PTDI_REQUEST_KERNEL_QUERY_INFORMATION;

typedef struct _TDI_REQUEST_KERNEL_SET_INFO {
    LONG SetType;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
} TDI_REQUEST_KERNEL_SET_INFORMATION, *PTDI_REQUEST_KERNEL_SET_INFORMATION;

/* ---- event handlers ---- */
#define TDI_EVENT_CONNECT                   0
#define TDI_EVENT_DISCONNECT                1
#define TDI_EVENT_ERROR                     2
#define TDI_EVENT_RECEIVE                   3
#define TDI_EVENT_RECEIVE_DATAGRAM          4
#define TDI_EVENT_RECEIVE_EXPEDITED         5
#define TDI_EVENT_SEND_POSSIBLE             6
#define TDI_EVENT_CHAINED_RECEIVE           7
#define TDI_EVENT_CHAINED_RECEIVE_DATAGRAM  8
#define TDI_EVENT_CHAINED_RECEIVE_EXPEDITED 9
#define TDI_EVENT_ERROR_EX                  10

typedef NTSTATUS (NTAPI *PTDI_IND_CONNECT)(PVOID TdiEventContext, LONG RemoteAddressLength,
                                           PVOID RemoteAddress, LONG UserDataLength,
                                           PVOID UserData, LONG OptionsLength, PVOID Options,
                                           CONNECTION_CONTEXT *ConnectionContext,
                                           PIRP *AcceptIrp);
typedef NTSTATUS (NTAPI *PTDI_IND_DISCONNECT)(PVOID TdiEventContext,
                                              CONNECTION_CONTEXT ConnectionContext,
                                              LONG DisconnectDataLength, PVOID DisconnectData,
                                              LONG DisconnectInformationLength,
                                              PVOID DisconnectInformation,
                                              ULONG DisconnectFlags);
typedef NTSTATUS (NTAPI *PTDI_IND_ERROR)(PVOID TdiEventContext, NTSTATUS Status);
typedef NTSTATUS (NTAPI *PTDI_IND_RECEIVE)(PVOID TdiEventContext,
                                           CONNECTION_CONTEXT ConnectionContext,
                                           ULONG ReceiveFlags, ULONG BytesIndicated,
                                           ULONG BytesAvailable, ULONG *BytesTaken, PVOID Tsdu,
                                           PIRP *IoRequestPacket);
typedef NTSTATUS (NTAPI *PTDI_IND_RECEIVE_DATAGRAM)(PVOID TdiEventContext,
                                                    LONG SourceAddressLength,
                                                    PVOID SourceAddress, LONG OptionsLength,
                                                    PVOID Options, ULONG ReceiveDatagramFlags,
                                                    ULONG BytesIndicated, ULONG BytesAvailable,
                                                    ULONG *BytesTaken, PVOID Tsdu,
                                                    PIRP *IoRequestPacket);
typedef NTSTATUS (NTAPI *PTDI_IND_RECEIVE_EXPEDITED)(PVOID TdiEventContext,
                                                     CONNECTION_CONTEXT ConnectionContext,
                                                     ULONG ReceiveFlags, ULONG BytesIndicated,
                                                     ULONG BytesAvailable, ULONG *BytesTaken,
                                                     PVOID Tsdu, PIRP *IoRequestPacket);
typedef NTSTATUS (NTAPI *PTDI_IND_SEND_POSSIBLE)(PVOID TdiEventContext, PVOID ConnectionContext,
                                                 ULONG BytesAvailable);

/* ---- building requests ---- */

/* An internal device-control IRP for the transport, as IoBuildDeviceIoControlRequest makes. */
#define TdiBuildInternalDeviceControlIrp(IrpSubFunction, DeviceObject, FileObject, Event, \
                                         IoStatusBlock)                                 \
    IoBuildDeviceIoControlRequest(0x00000003, DeviceObject, NULL, 0, NULL, 0, TRUE, Event, \
                                  IoStatusBlock)

/* Fills the next stack location with the common part of every request; the completion
 * routine, when given, runs on success, error and cancel. Returns that location. */
FORCEINLINE PIO_STACK_LOCATION HkTdiBuildBase(PIRP Irp, PDEVICE_OBJECT DeviceObject,
                                              PFILE_OBJECT FileObject,
                                              PIO_COMPLETION_ROUTINE CompletionRoutine,
                                              PVOID Context, UCHAR Minor)
{
    PIO_STACK_LOCATION next;
    if (CompletionRoutine != NULL) {
        IoSetCompletionRoutine(Irp, CompletionRoutine, Context, TRUE, TRUE, TRUE);
    } else {
        next = IoGetNextIrpStackLocation(Irp);
        next->CompletionRoutine = NULL;
        next->Context = NULL;
        next->Control = 0;
    }
    next = IoGetNextIrpStackLocation(Irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = Minor;
    next->DeviceObject = DeviceObject;
    next->FileObject = FileObject;
    return next;
}

/* The request's parameter record, which overlays the stack location's Parameters. */
#define HK_TDI_PARAMETERS(Type, Location) \
    ((Type)(PVOID)((PUCHAR)(Location) + FIELD_OFFSET(IO_STACK_LOCATION, Parameters)))

#define TdiBuildAssociateAddress(Irp, DevObj, FileObj, CompRoutine, Contxt, AddrHandle)      \
    do {                                                                                     \
        PIO_STACK_LOCATION hk_l_ = HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, \
                                                  TDI_ASSOCIATE_ADDRESS);                    \
        HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_ASSOCIATE, hk_l_)->AddressHandle =             \
            (HANDLE)(AddrHandle);                                                            \
    } while (0)

#define TdiBuildDisassociateAddress(Irp, DevObj, FileObj, CompRoutine, Contxt)           \
    do {                                                                                 \
        (void)HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt,                  \
                             TDI_DISASSOCIATE_ADDRESS);                                  \
    } while (0)

#define TdiBuildConnect(Irp, DevObj, FileObj, CompRoutine, Contxt, Time, RequestConnectionInfo, \
                        ReturnConnectionInfo)                                                   \
    do {                                                                                        \
        PIO_STACK_LOCATION hk_l_ =                                                              \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_CONNECT);             \
        PTDI_REQUEST_KERNEL hk_r_ = HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL, hk_l_);              \
        hk_r_->RequestConnectionInformation = (RequestConnectionInfo);                          \
        hk_r_->ReturnConnectionInformation = (ReturnConnectionInfo);                            \
        hk_r_->RequestSpecific = (PVOID)(Time);                                                 \
    } while (0)

#define TdiBuildAccept(Irp, DevObj, FileObj, CompRoutine, Contxt, RequestConnectionInfo, \
                       ReturnConnectionInfo)                                             \
    do {                                                                                 \
        PIO_STACK_LOCATION hk_l_ =                                                       \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_ACCEPT);       \
        PTDI_REQUEST_KERNEL_ACCEPT hk_r_ = HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_ACCEPT, hk_l_); \
        hk_r_->RequestConnectionInformation = (RequestConnectionInfo);                   \
        hk_r_->ReturnConnectionInformation = (ReturnConnectionInfo);                     \
    } while (0)

#define TdiBuildDisconnect(Irp, DevObj, FileObj, CompRoutine, Contxt, Time, Flags,        \
                           RequestConnectionInfo, ReturnConnectionInfo)                   \
    do {                                                                                  \
        PIO_STACK_LOCATION hk_l_ =                                                        \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_DISCONNECT);    \
        PTDI_REQUEST_KERNEL hk_r_ = HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL, hk_l_);        \
        hk_r_->RequestFlags = (ULONG_PTR)(Flags);                                         \
        hk_r_->RequestConnectionInformation = (RequestConnectionInfo);                    \
        hk_r_->ReturnConnectionInformation = (ReturnConnectionInfo);                      \
        hk_r_->RequestSpecific = (PVOID)(Time);                                           \
    } while (0)

#define TdiBuildSend(Irp, DevObj, FileObj, CompRoutine, Contxt, MdlAddr, InFlags, SendLen) \
    do {                                                                                   \
        PIO_STACK_LOCATION hk_l_ =                                                         \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_SEND);           \
        PTDI_REQUEST_KERNEL_SEND hk_r_ = HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_SEND, hk_l_); \
        hk_r_->SendFlags = (InFlags);                                                      \
        hk_r_->SendLength = (SendLen);                                                     \
        (Irp)->MdlAddress = (MdlAddr);                                                     \
    } while (0)

#define TdiBuildReceive(Irp, DevObj, FileObj, CompRoutine, Contxt, MdlAddr, InFlags,     \
                        ReceiveLen)                                                      \
    do {                                                                                 \
        PIO_STACK_LOCATION hk_l_ =                                                       \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_RECEIVE);      \
        PTDI_REQUEST_KERNEL_RECEIVE hk_r_ =                                              \
            HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_RECEIVE, hk_l_);                       \
        hk_r_->ReceiveFlags = (InFlags);                                                 \
        hk_r_->ReceiveLength = (ReceiveLen);                                             \
        (Irp)->MdlAddress = (MdlAddr);                                                   \
    } while (0)

#define TdiBuildSendDatagram(Irp, DevObj, FileObj, CompRoutine, Contxt, MdlAddr, SendLen,     \
                             SendDatagramInfo)                                                \
    do {                                                                                      \
        PIO_STACK_LOCATION hk_l_ =                                                            \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_SEND_DATAGRAM);     \
        PTDI_REQUEST_KERNEL_SENDDG hk_r_ = HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_SENDDG, hk_l_); \
        hk_r_->SendLength = (SendLen);                                                        \
        hk_r_->SendDatagramInformation = (SendDatagramInfo);                                  \
        (Irp)->MdlAddress = (MdlAddr);                                                        \
    } while (0)

#define TdiBuildReceiveDatagram(Irp, DevObj, FileObj, CompRoutine, Contxt, MdlAddr,          \
                                ReceiveLen, ReceiveDatagramInfo, ReturnInfo, InFlags)        \
    do {                                                                                     \
        PIO_STACK_LOCATION hk_l_ =                                                           \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_RECEIVE_DATAGRAM); \
        PTDI_REQUEST_KERNEL_RECEIVEDG hk_r_ =                                                \
            HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_RECEIVEDG, hk_l_);                         \
        hk_r_->ReceiveLength = (ReceiveLen);                                                 \
        hk_r_->ReceiveDatagramInformation = (ReceiveDatagramInfo);                           \
        hk_r_->ReturnDatagramInformation = (ReturnInfo);                                     \
        hk_r_->ReceiveFlags = (InFlags);                                                     \
        (Irp)->MdlAddress = (MdlAddr);                                                       \
    } while (0)

#define TdiBuildSetEventHandler(Irp, DevObj, FileObj, CompRoutine, Contxt, InEventType,       \
                                InEventHandler, InEventContext)                               \
    do {                                                                                      \
        PIO_STACK_LOCATION hk_l_ =                                                            \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_SET_EVENT_HANDLER); \
        PTDI_REQUEST_KERNEL_SET_EVENT hk_r_ =                                                 \
            HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_SET_EVENT, hk_l_);                          \
        hk_r_->EventType = (InEventType);                                                     \
        hk_r_->EventHandler = (PVOID)(InEventHandler);                                        \
        hk_r_->EventContext = (PVOID)(InEventContext);                                        \
    } while (0)

#define TdiBuildQueryInformation(Irp, DevObj, FileObj, CompRoutine, Contxt, QType, MdlAddr)   \
    do {                                                                                      \
        PIO_STACK_LOCATION hk_l_ =                                                            \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_QUERY_INFORMATION); \
        PTDI_REQUEST_KERNEL_QUERY_INFORMATION hk_r_ =                                         \
            HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_QUERY_INFORMATION, hk_l_);                  \
        hk_r_->QueryType = (LONG)(QType);                                                     \
        hk_r_->RequestConnectionInformation = NULL;                                           \
        (Irp)->MdlAddress = (MdlAddr);                                                        \
    } while (0)

#define TdiBuildSetInformation(Irp, DevObj, FileObj, CompRoutine, Contxt, SType, MdlAddr)   \
    do {                                                                                    \
        PIO_STACK_LOCATION hk_l_ =                                                          \
            HkTdiBuildBase(Irp, DevObj, FileObj, CompRoutine, Contxt, TDI_SET_INFORMATION); \
        PTDI_REQUEST_KERNEL_SET_INFORMATION hk_r_ =                                         \
            HK_TDI_PARAMETERS(PTDI_REQUEST_KERNEL_SET_INFORMATION, hk_l_);                  \
        hk_r_->SetType = (LONG)(SType);                                                     \
        hk_r_->RequestConnectionInformation = NULL;                                         \
        (Irp)->MdlAddress = (MdlAddr);                                                      \
    } while (0)

HK_EXTERN_C_END

#endif /* HK_TDIKRNL_H */
