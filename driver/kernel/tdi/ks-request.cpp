/*
 * ks-request.cpp - the data requests of the kernel-socket library: datagrams on
 * an address, stream data and disconnects on an endpoint.
 *
 * Each request has a fresh IRP and a request context that lives until its
 * completion routine has run. The completion routine may run in the caller's
 * thread before IoCallDriver returns, or later in the transport's at
 * DISPATCH_LEVEL. It releases the request's reference on the address or
 * endpoint before it signals anyone, so a caller that wakes up and closes
 * drops the last reference itself, at PASSIVE_LEVEL.
 */
#include "ks-local.h"

namespace {

/* One request in flight (64 bytes). */
struct KsRequestContext {
    PVOID Owner;                   /* PKS_ADDRESS or PKS_ENDPOINT */
    PKEVENT Event;                 /* signalled on completion, when set */
    PKS_REQUEST_COMPLETION Completion;
    PVOID CompletionContext;
    PIO_STATUS_BLOCK IoStatus;     /* the caller's, a waiting caller's local one, or OwnIoStatus */
    IO_STATUS_BLOCK OwnIoStatus;
    ULONG CallerWaits;             /* synchronous mode: the caller waits on Event */
    ULONG Extra;                   /* passed to Completion */
};

#if defined(__cplusplus)
static_assert(sizeof(KsRequestContext) == 64, "a request context is 64 bytes");
#endif

enum KsOwnerKind { KsOnAddress, KsOnEndpoint };

/* What a request puts into its IRP beyond the common part. */
struct KsRequestShape {
    UCHAR Minor;
    ULONG Flags;
    PTDI_CONNECTION_INFORMATION Info;       /* datagram peer (send) or filter (receive) */
    PTDI_CONNECTION_INFORMATION ReturnInfo; /* datagram sender (receive) */
};

/* Finishes a request: status block, reference, event, callback, context, IRP. */
NTSTATUS KsComplete(PIRP Irp, PVOID Context, KsOwnerKind Kind)
{
    KsRequestContext *request = (KsRequestContext *)Context;
    PIO_STATUS_BLOCK ioStatus = request->IoStatus;
    ioStatus->Status = Irp->IoStatus.Status;
    ioStatus->Information = Irp->IoStatus.Information;
    const BOOLEAN callerWaits = request->CallerWaits != 0;
    PKEVENT event = request->Event;
    PKS_REQUEST_COMPLETION completion = request->Completion;
    PVOID completionContext = request->CompletionContext;
    ULONG extra = request->Extra;

    if (Kind == KsOnAddress)
        KS_CloseTransportAddress((PKS_ADDRESS)request->Owner);
    else
        KS_CloseConnectionEndpoint((PKS_ENDPOINT)request->Owner);
    /* A waiting caller owns an endpoint request's IRP from the moment it wakes. */
    if (!callerWaits || Kind == KsOnAddress) {
        Irp->MdlAddress = NULL; /* the MDL chain is the caller's */
    }
    if (event != NULL)
        KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    if (completion != NULL) {
        LONG code = FilterGuard([&] { completion(completionContext, ioStatus, extra); });
        if (code != 0)
            DbgPrint("KS: request completion routine %p faulted, code = %d\n",
                     (PVOID)completion, code);
    }
    NdisFreeMemory(request, sizeof(*request), 0);
    if (!callerWaits || Kind == KsOnAddress)
        IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI KsAddressRequestDone(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    return KsComplete(Irp, Context, KsOnAddress);
}

NTSTATUS NTAPI KsEndpointRequestDone(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    return KsComplete(Irp, Context, KsOnEndpoint);
}

ULONG KsChainLength(PMDL Mdl)
{
    ULONG length = 0;
    for (; Mdl != NULL; Mdl = Mdl->Next)
        length += MmGetMdlByteCount(Mdl);
    return length;
}

/* The pattern every data request follows; see the file comment. */
NTSTATUS KsDataRequest(KsOwnerKind Kind, PVOID Owner, PFILE_OBJECT FileObject, PKEVENT Event,
                       PKS_REQUEST_COMPLETION Completion, PVOID CompletionContext,
                       PIO_STATUS_BLOCK IoStatus, PMDL Mdl, const KsRequestShape &Shape)
{
    if (Owner == NULL || FileObject == NULL)
        return STATUS_INVALID_PARAMETER;
    KsRequestContext *request = NULL;
    if (NdisAllocateMemoryWithTag((PVOID *)&request, sizeof(*request), KS_REQUEST_TAG) !=
            NDIS_STATUS_SUCCESS ||
        request == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(request, sizeof(*request));
    request->Owner = Owner;
    request->IoStatus = IoStatus != NULL ? IoStatus : &request->OwnIoStatus;

    KEVENT done;
    IO_STATUS_BLOCK waitStatus;
    BOOLEAN synchronous = FALSE;
    if (Completion != NULL) {
        request->Completion = Completion;
        request->CompletionContext = CompletionContext;
    } else if (Event != NULL) {
        KeResetEvent(Event);
        request->Event = Event;
    } else {
        synchronous = TRUE;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        request->Event = &done;
        request->CallerWaits = 1;
        /* The context is gone when the caller wakes: its status block must outlive it. */
        if (IoStatus == NULL)
            request->IoStatus = &waitStatus;
    }
    PIO_STATUS_BLOCK finalStatus = request->IoStatus;

    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(FileObject);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp == NULL) {
        NdisFreeMemory(request, sizeof(*request), 0);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG length = KsChainLength(Mdl);
    PIO_COMPLETION_ROUTINE routine = Kind == KsOnAddress ? KsAddressRequestDone
                                                         : KsEndpointRequestDone;
    switch (Shape.Minor) {
    case TDI_SEND_DATAGRAM:
        TdiBuildSendDatagram(irp, device, FileObject, routine, request, Mdl, length, Shape.Info);
        break;
    case TDI_RECEIVE_DATAGRAM:
        TdiBuildReceiveDatagram(irp, device, FileObject, routine, request, Mdl, length, Shape.Info,
                                Shape.ReturnInfo, Shape.Flags);
        break;
    case TDI_SEND:
        TdiBuildSend(irp, device, FileObject, routine, request, Mdl, Shape.Flags, length);
        break;
    case TDI_RECEIVE:
        TdiBuildReceive(irp, device, FileObject, routine, request, Mdl, Shape.Flags, length);
        break;
    default: /* TDI_DISCONNECT: no time-out, no connection information */
        TdiBuildDisconnect(irp, device, FileObject, routine, request, NULL, Shape.Flags, NULL,
                           NULL);
        break;
    }

    if (Kind == KsOnAddress)
        KsReferenceAddress((PKS_ADDRESS)Owner);
    else
        KsReferenceEndpoint((PKS_ENDPOINT)Owner);
    request->IoStatus->Status = STATUS_UNSUCCESSFUL;
    request->IoStatus->Information = 0;
    NTSTATUS status = IoCallDriver(device, irp);
    if (synchronous) {
        /* Every request is completed, failed ones too: the wait never outlasts it. */
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
        if (status == STATUS_PENDING || NT_SUCCESS(status))
            status = finalStatus->Status;
        if (Kind == KsOnEndpoint) {
            irp->MdlAddress = NULL;
            IoFreeIrp(irp);
        }
    }
    return status;
}

} // namespace

EXTERN_C NTSTATUS NTAPI KS_SendDatagramOnAddress(PKS_ADDRESS Address, PKEVENT Event,
                                                 PKS_REQUEST_COMPLETION Completion,
                                                 PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                                 PMDL SendMdl, PTDI_CONNECTION_INFORMATION SendInfo)
{
    KsRequestShape shape = {TDI_SEND_DATAGRAM, 0, SendInfo, NULL};
    return KsDataRequest(KsOnAddress, Address, Address ? Address->AddressFileObject : NULL, Event,
                         Completion, CompletionContext, IoStatus, SendMdl, shape);
}

EXTERN_C NTSTATUS NTAPI KS_ReceiveDatagramOnAddress(PKS_ADDRESS Address, PKEVENT Event,
                                                    PKS_REQUEST_COMPLETION Completion,
                                                    PVOID CompletionContext,
                                                    PIO_STATUS_BLOCK IoStatus, PMDL ReceiveMdl,
                                                    PTDI_CONNECTION_INFORMATION ReceiveInfo,
                                                    PTDI_CONNECTION_INFORMATION ReturnInfo,
                                                    ULONG Flags)
{
    KsRequestShape shape = {TDI_RECEIVE_DATAGRAM, Flags, ReceiveInfo, ReturnInfo};
    return KsDataRequest(KsOnAddress, Address, Address ? Address->AddressFileObject : NULL, Event,
                         Completion, CompletionContext, IoStatus, ReceiveMdl, shape);
}

EXTERN_C NTSTATUS NTAPI KS_Disconnect(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                      PKS_REQUEST_COMPLETION Completion, PVOID CompletionContext,
                                      PIO_STATUS_BLOCK IoStatus, ULONG Flags)
{
    KsRequestShape shape = {TDI_DISCONNECT, Flags, NULL, NULL};
    return KsDataRequest(KsOnEndpoint, Endpoint, Endpoint ? Endpoint->EndpointFileObject : NULL,
                         Event, Completion, CompletionContext, IoStatus, NULL, shape);
}

EXTERN_C NTSTATUS NTAPI KS_SendOnEndpoint(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                          PKS_REQUEST_COMPLETION Completion,
                                          PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                          PMDL SendMdl, ULONG Flags)
{
    KsRequestShape shape = {TDI_SEND, Flags, NULL, NULL};
    return KsDataRequest(KsOnEndpoint, Endpoint, Endpoint ? Endpoint->EndpointFileObject : NULL,
                         Event, Completion, CompletionContext, IoStatus, SendMdl, shape);
}

EXTERN_C NTSTATUS NTAPI KS_ReceiveOnEndpoint(PKS_ENDPOINT Endpoint, PKEVENT Event,
                                             PKS_REQUEST_COMPLETION Completion,
                                             PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus,
                                             PMDL ReceiveMdl, ULONG Flags)
{
    KsRequestShape shape = {TDI_RECEIVE, Flags, NULL, NULL};
    return KsDataRequest(KsOnEndpoint, Endpoint, Endpoint ? Endpoint->EndpointFileObject : NULL,
                         Event, Completion, CompletionContext, IoStatus, ReceiveMdl, shape);
}
