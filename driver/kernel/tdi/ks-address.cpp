/*
 * ks-address.cpp - transport addresses, connection endpoints and control
 * channels of the kernel-socket library, and the requests that run through an
 * address's preallocated IRP (event handlers, association, connect) or a fresh
 * one waited for in place (connection information, provider queries).
 *
 * Reference counts change with interlocked operations only. The address's IRP
 * serves one simple request at a time (see ksocket.h).
 */
#include "ks-local.h"

NTSTATUS KsOpenDevice(PCWSTR DeviceName, ACCESS_MASK Access, PFILE_FULL_EA_INFORMATION Ea,
                      ULONG EaLength, PHANDLE Handle, PFILE_OBJECT *FileObject)
{
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK ioStatus;
    *Handle = NULL;
    *FileObject = NULL;
    RtlInitUnicodeString(&name, DeviceName);
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    NTSTATUS status = ZwCreateFile(Handle, Access, &attributes, &ioStatus, NULL,
                                   FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN_IF, 0, Ea,
                                   EaLength);
    if (!NT_SUCCESS(status)) {
        *Handle = NULL;
        return status;
    }
    status = ObReferenceObjectByHandle(*Handle, 0, *IoFileObjectType, KernelMode,
                                       (PVOID *)FileObject, NULL);
    if (!NT_SUCCESS(status)) {
        ZwClose(*Handle);
        *Handle = NULL;
        *FileObject = NULL;
    }
    return status;
}

/* Decrements a count that is above zero; returns the new count, or -1 when it was zero. */
static LONG KsDropReference(ULONG *Count)
{
    for (;;) {
        LONG current = *(volatile LONG *)Count;
        if (current == 0)
            return -1;
        if (InterlockedCompareExchange((LONG volatile *)Count, current - 1, current) == current)
            return current - 1;
    }
}

VOID KsReferenceAddress(PKS_ADDRESS Address)
{
    InterlockedIncrement((LONG volatile *)&Address->ReferenceCount);
}

VOID KsReferenceEndpoint(PKS_ENDPOINT Endpoint)
{
    InterlockedIncrement((LONG volatile *)&Endpoint->ReferenceCount);
}

/* Completion of a request waited for in KS_MakeSimpleTdiRequest: the IRP stays the caller's. */
static NTSTATUS NTAPI KsSimpleRequestDone(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

EXTERN_C NTSTATUS NTAPI KS_MakeSimpleTdiRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(Irp, KsSimpleRequestDone, &done, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(DeviceObject, Irp);
    if (status == STATUS_PENDING || NT_SUCCESS(status)) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
        status = Irp->IoStatus.Status;
    }
    return status;
}

/* The address's own IRP, ready for the next simple request. */
static PIRP KsAddressIrp(PKS_ADDRESS Address)
{
    IoReuseIrp(Address->Irp, STATUS_UNSUCCESSFUL);
    return Address->Irp;
}

EXTERN_C NTSTATUS NTAPI KS_OpenTransportAddress(PCWSTR DeviceName,
                                                PTRANSPORT_ADDRESS TransportAddress,
                                                PKS_ADDRESS Address)
{
    RtlZeroMemory(Address, sizeof(*Address));
    Address->Status = STATUS_UNSUCCESSFUL;
    InitializeListHead(&Address->EndpointList);

    PFILE_FULL_EA_INFORMATION ea = NULL;
    ULONG eaLength = 0;
    NTSTATUS status = KS_BuildEaBuffer(TDI_TRANSPORT_ADDRESS_LENGTH, (PVOID)TdiTransportAddress,
                                       KS_TransportAddressLength(TransportAddress),
                                       TransportAddress, &ea, &eaLength);
    if (NT_SUCCESS(status)) {
        status = KsOpenDevice(DeviceName, KS_OPEN_ACCESS, ea, eaLength, &Address->AddressHandle,
                              &Address->AddressFileObject);
        ExFreePoolWithTag(ea, KS_EA_TAG);
    }
    if (NT_SUCCESS(status)) {
        PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Address->AddressFileObject);
        Address->Irp = IoAllocateIrp(device->StackSize, FALSE);
        if (Address->Irp == NULL) {
            ObDereferenceObject(Address->AddressFileObject);
            ZwClose(Address->AddressHandle);
            Address->AddressFileObject = NULL;
            Address->AddressHandle = NULL;
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            Address->ReferenceCount = 1;
        }
    }
    Address->Status = status;
    return status;
}

EXTERN_C NTSTATUS NTAPI KS_CloseTransportAddress(PKS_ADDRESS Address)
{
    if (KsDropReference(&Address->ReferenceCount) == 0) {
        IoFreeIrp(Address->Irp);
        Address->Irp = NULL;
        ObDereferenceObject(Address->AddressFileObject);
        Address->AddressFileObject = NULL;
        ZwClose(Address->AddressHandle);
        Address->AddressHandle = NULL;
    }
    return STATUS_SUCCESS;
}

EXTERN_C NTSTATUS NTAPI KS_SetEventHandlers(PKS_ADDRESS Address, PVOID EventContext,
                                            PTDI_IND_CONNECT ConnectHandler,
                                            PTDI_IND_DISCONNECT DisconnectHandler,
                                            PTDI_IND_ERROR ErrorHandler,
                                            PTDI_IND_RECEIVE ReceiveHandler,
                                            PTDI_IND_RECEIVE_DATAGRAM ReceiveDatagramHandler,
                                            PTDI_IND_RECEIVE_EXPEDITED ReceiveExpeditedHandler)
{
    PVOID handlers[6] = {(PVOID)ConnectHandler, (PVOID)DisconnectHandler, (PVOID)ErrorHandler,
                         (PVOID)ReceiveHandler, (PVOID)ReceiveDatagramHandler,
                         (PVOID)ReceiveExpeditedHandler};
    static const LONG types[6] = {TDI_EVENT_CONNECT, TDI_EVENT_DISCONNECT, TDI_EVENT_ERROR,
                                  TDI_EVENT_RECEIVE, TDI_EVENT_RECEIVE_DATAGRAM,
                                  TDI_EVENT_RECEIVE_EXPEDITED};
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Address->AddressFileObject);
    NTSTATUS status = STATUS_SUCCESS;
    for (int i = 0; i < 6 && NT_SUCCESS(status); ++i) {
        PIRP irp = KsAddressIrp(Address);
        TdiBuildSetEventHandler(irp, device, Address->AddressFileObject, NULL, NULL, types[i],
                                handlers[i], EventContext);
        status = KS_MakeSimpleTdiRequest(device, irp);
    }
    return status;
}

EXTERN_C NTSTATUS NTAPI KS_OpenConnectionEndpoint(PCWSTR DeviceName, PKS_ADDRESS Address,
                                                  PKS_ENDPOINT Endpoint, PVOID ConnectionContext)
{
    RtlZeroMemory(Endpoint, sizeof(*Endpoint));
    Endpoint->Status = STATUS_UNSUCCESSFUL;
    Endpoint->AssociateStatus = STATUS_UNSUCCESSFUL;
    InitializeListHead(&Endpoint->ListEntry);

    PFILE_FULL_EA_INFORMATION ea = NULL;
    ULONG eaLength = 0;
    NTSTATUS status = KS_BuildEaBuffer(TDI_CONNECTION_CONTEXT_LENGTH, (PVOID)TdiConnectionContext,
                                       sizeof(PVOID), &ConnectionContext, &ea, &eaLength);
    if (NT_SUCCESS(status)) {
        status = KsOpenDevice(DeviceName, KS_OPEN_ACCESS, ea, eaLength, &Endpoint->EndpointHandle,
                              &Endpoint->EndpointFileObject);
        ExFreePoolWithTag(ea, KS_EA_TAG);
    }
    Endpoint->Status = status;
    if (!NT_SUCCESS(status))
        return status;
    Endpoint->ReferenceCount = 1;

    if (Address == NULL || Address->Irp == NULL) {
        Endpoint->AssociateStatus = STATUS_INVALID_PARAMETER;
        return STATUS_INVALID_PARAMETER;
    }
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Endpoint->EndpointFileObject);
    PIRP irp = KsAddressIrp(Address);
    TdiBuildAssociateAddress(irp, device, Endpoint->EndpointFileObject, NULL, NULL,
                             Address->AddressHandle);
    status = KS_MakeSimpleTdiRequest(device, irp);
    if (NT_SUCCESS(status)) {
        KsReferenceAddress(Address);
        Endpoint->Address = Address;
        InsertTailList(&Address->EndpointList, &Endpoint->ListEntry);
    }
    Endpoint->AssociateStatus = status;
    return status;
}

EXTERN_C NTSTATUS NTAPI KS_CloseConnectionEndpoint(PKS_ENDPOINT Endpoint)
{
    if (KsDropReference(&Endpoint->ReferenceCount) == 0) {
        PKS_ADDRESS address = Endpoint->Address;
        if (address != NULL) {
            RemoveEntryList(&Endpoint->ListEntry);
            InitializeListHead(&Endpoint->ListEntry);
            Endpoint->Address = NULL;
            KS_CloseTransportAddress(address);
        }
        ObDereferenceObject(Endpoint->EndpointFileObject);
        Endpoint->EndpointFileObject = NULL;
        ZwClose(Endpoint->EndpointHandle);
        Endpoint->EndpointHandle = NULL;
    }
    return STATUS_SUCCESS;
}

EXTERN_C NTSTATUS NTAPI KS_Connect(PKS_ENDPOINT Endpoint, PTA_IP_ADDRESS Peer)
{
    if (Endpoint->Address == NULL || Endpoint->EndpointFileObject == NULL)
        return STATUS_INVALID_CONNECTION;
    TDI_CONNECTION_INFORMATION request;
    RtlZeroMemory(&request, sizeof(request));
    request.RemoteAddressLength = sizeof(TA_IP_ADDRESS);
    request.RemoteAddress = Peer;
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Endpoint->EndpointFileObject);
    PIRP irp = KsAddressIrp(Endpoint->Address);
    TdiBuildConnect(irp, device, Endpoint->EndpointFileObject, NULL, NULL, NULL, &request, NULL);
    return KS_MakeSimpleTdiRequest(device, irp);
}

EXTERN_C NTSTATUS NTAPI KS_SetConnectionInfo(PKS_ENDPOINT Endpoint,
                                             PTDI_CONNECTION_INFO ConnectionInfo)
{
    RtlZeroMemory(ConnectionInfo, sizeof(*ConnectionInfo));
    PMDL mdl = KS_AllocateAndProbeMdl(ConnectionInfo, sizeof(*ConnectionInfo), FALSE, FALSE, NULL);
    if (mdl == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Endpoint->EndpointFileObject);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp == NULL) {
        KS_UnlockAndFreeMdl(mdl);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    TdiBuildSetInformation(irp, device, Endpoint->EndpointFileObject, NULL, NULL,
                           TDI_QUERY_CONNECTION_INFO, mdl);
    NTSTATUS status = KS_MakeSimpleTdiRequest(device, irp);
    irp->MdlAddress = NULL;
    KS_UnlockAndFreeMdl(mdl);
    IoFreeIrp(irp);
    return status;
}

EXTERN_C NTSTATUS NTAPI KS_OpenControlChannel(PCWSTR DeviceName, PKS_CHANNEL Channel)
{
    return KsOpenDevice(DeviceName, KS_CHANNEL_ACCESS, NULL, 0, &Channel->ChannelHandle,
                        &Channel->ChannelFileObject);
}

EXTERN_C NTSTATUS NTAPI KS_CloseControlChannel(PKS_CHANNEL Channel)
{
    if (Channel->ChannelFileObject != NULL)
        ObDereferenceObject(Channel->ChannelFileObject);
    if (Channel->ChannelHandle != NULL)
        ZwClose(Channel->ChannelHandle);
    Channel->ChannelFileObject = NULL;
    Channel->ChannelHandle = NULL;
    return STATUS_SUCCESS;
}

/* One query of the provider through a control channel into the caller's buffer. */
static NTSTATUS KsQueryProvider(PCWSTR DeviceName, LONG QueryType, PVOID Buffer, ULONG Length)
{
    KS_CHANNEL channel;
    NTSTATUS status = KS_OpenControlChannel(DeviceName, &channel);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Unable To Open TDI Control Channel\n");
        return status;
    }
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(channel.ChannelFileObject);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    PMDL mdl = irp != NULL ? KS_AllocateAndProbeMdl(Buffer, Length, FALSE, FALSE, NULL) : NULL;
    if (mdl == NULL) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        TdiBuildQueryInformation(irp, device, channel.ChannelFileObject, NULL, NULL, QueryType,
                                 mdl);
        status = KS_MakeSimpleTdiRequest(device, irp);
        irp->MdlAddress = NULL;
        KS_UnlockAndFreeMdl(mdl);
    }
    if (irp != NULL)
        IoFreeIrp(irp);
    KS_CloseControlChannel(&channel);
    return status;
}

EXTERN_C NTSTATUS NTAPI KS_QueryProviderInfo(PCWSTR DeviceName, PTDI_PROVIDER_INFO ProviderInfo)
{
    return KsQueryProvider(DeviceName, TDI_QUERY_PROVIDER_INFO, ProviderInfo,
                           sizeof(TDI_PROVIDER_INFO));
}

EXTERN_C NTSTATUS NTAPI KS_QueryProviderStatistics(PCWSTR DeviceName,
                                                   PTDI_PROVIDER_STATISTICS Statistics)
{
    return KsQueryProvider(DeviceName, TDI_QUERY_PROVIDER_STATISTICS, Statistics,
                           sizeof(TDI_PROVIDER_STATISTICS));
}
