/*
 * collector-link.cpp - the collector driver's kernel sockets (see
 * collector-link.h): records go out as datagrams and on one connection, each
 * send with its own block of non-paged memory that its completion routine
 * frees; datagrams that reach the driver's own port are answered from the
 * receive-datagram handler.
 */
#include <ntddk.h>
#include <ndis.h>
#include <tdikrnl.h>
#include <ksocket.h>

#include "collector-link.h"

namespace {

const ULONG SendTag = 0x6E53634Bu; /* "KcSn" */
const ULONG AnswerLength = 96;

/* One send on its way: what the request needs until it completes. */
struct SendBlock {
    CollectorLink *Link;
    ULONG Transport; /* 0 UDP, 1 TCP */
    PMDL Mdl;
    TA_IP_ADDRESS Peer;
    TDI_CONNECTION_INFORMATION Info;
    IO_STATUS_BLOCK IoStatus;
    ULONG Length;
    UCHAR Data[1];
};

VOID NTAPI SendDone(PVOID Context, PIO_STATUS_BLOCK IoStatus, ULONG Extra)
{
    UNREFERENCED_PARAMETER(Extra);
    SendBlock *block = (SendBlock *)Context;
    CollectorLink *link = block->Link;
    if (NT_SUCCESS(IoStatus->Status))
        InterlockedIncrement(block->Transport == 0 ? &link->SentUdp : &link->SentTcp);
    else
        InterlockedIncrement(&link->Failed);
    if (!NT_SUCCESS(IoStatus->Status) && block->Transport == 1)
        InterlockedExchange(&link->TcpUp, 0);
    KS_UnlockAndFreeMdl(block->Mdl);
    InterlockedDecrement(&link->InFlight[block->Transport]);
    ExFreePoolWithTag(block, SendTag);
}

/* A block for `Length` bytes of data with its MDL, or NULL when too many are on their way. */
SendBlock *NewBlock(CollectorLink *Link, ULONG Transport, ULONG Length)
{
    if (InterlockedIncrement(&Link->InFlight[Transport]) > EXAMPLE_COLLECTOR_MAX_IN_FLIGHT) {
        InterlockedDecrement(&Link->InFlight[Transport]);
        return NULL;
    }
    SendBlock *block = (SendBlock *)ExAllocatePoolWithTag(
        NonPagedPool, FIELD_OFFSET(SendBlock, Data) + Length, SendTag);
    if (block != NULL) {
        RtlZeroMemory(block, FIELD_OFFSET(SendBlock, Data));
        block->Mdl = KS_AllocateAndProbeMdl(block->Data, Length, FALSE, FALSE, NULL);
        if (block->Mdl == NULL) {
            ExFreePoolWithTag(block, SendTag);
            block = NULL;
        }
    }
    if (block == NULL) {
        InterlockedDecrement(&Link->InFlight[Transport]);
        return NULL;
    }
    block->Link = Link;
    block->Transport = Transport;
    block->Length = Length;
    return block;
}

/* Sends a datagram of the block to `Peer`; the completion routine disposes of the block. */
VOID SendDatagram(CollectorLink *Link, SendBlock *Block, const TA_IP_ADDRESS *Peer)
{
    Block->Peer = *Peer;
    Block->Info.RemoteAddressLength = sizeof(TA_IP_ADDRESS);
    Block->Info.RemoteAddress = &Block->Peer;
    KS_SendDatagramOnAddress(&Link->Udp, NULL, SendDone, Block, &Block->IoStatus, Block->Mdl,
                             &Block->Info);
}

/* Writes `Value` in decimal at `Out`; returns the position behind it. */
PCHAR WriteNumber(PCHAR Out, ULONG Value)
{
    CHAR digits[10];
    int n = 0;
    do {
        digits[n++] = (CHAR)('0' + Value % 10);
        Value /= 10;
    } while (Value != 0);
    while (n > 0)
        *Out++ = digits[--n];
    return Out;
}

PCHAR WriteText(PCHAR Out, const char *Text)
{
    while (*Text != '\0')
        *Out++ = *Text++;
    return Out;
}

/* A datagram reached the driver's own port: answer the sender with the counters. */
NTSTATUS NTAPI OnDatagram(PVOID Context, LONG SourceLength, PVOID Source, LONG OptionsLength,
                          PVOID Options, ULONG Flags, ULONG Indicated, ULONG Available, ULONG *Taken,
                          PVOID Data, PIRP *Irp)
{
    UNREFERENCED_PARAMETER(OptionsLength);
    UNREFERENCED_PARAMETER(Options);
    UNREFERENCED_PARAMETER(Flags);
    UNREFERENCED_PARAMETER(Indicated);
    UNREFERENCED_PARAMETER(Data);
    CollectorLink *link = (CollectorLink *)Context;
    *Taken = Available;
    *Irp = NULL;
    InterlockedIncrement(&link->InHandlers);
    if (link->Stopping == 0 && SourceLength >= (LONG)sizeof(TA_IP_ADDRESS)) {
        TA_IP_ADDRESS peer;
        RtlCopyMemory(&peer, Source, sizeof(peer));
        CHAR text[AnswerLength];
        PCHAR p = text;
        p = WriteText(p, "ExampleCollector udp ");
        p = WriteNumber(p, (ULONG)link->SentUdp);
        p = WriteText(p, " tcp ");
        p = WriteNumber(p, (ULONG)link->SentTcp);
        p = WriteText(p, " dropped ");
        p = WriteNumber(p, (ULONG)link->Dropped);
        p = WriteText(p, "\n");
        const ULONG length = (ULONG)(p - text);
        SendBlock *block = NewBlock(link, 0, length);
        if (block != NULL) {
            RtlCopyMemory(block->Data, text, length);
            InterlockedIncrement(&link->Answered);
            SendDatagram(link, block, &peer);
        } else {
            InterlockedIncrement(&link->Dropped);
        }
    }
    InterlockedDecrement(&link->InHandlers);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDisconnect(PVOID Context, CONNECTION_CONTEXT Connection, LONG DataLength, PVOID Data,
                            LONG InformationLength, PVOID Information, ULONG Flags)
{
    UNREFERENCED_PARAMETER(Connection);
    UNREFERENCED_PARAMETER(DataLength);
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(InformationLength);
    UNREFERENCED_PARAMETER(Information);
    DbgPrint("ExampleCollector: the collector closed the connection (flags 0x%x)\n", (unsigned)Flags);
    InterlockedExchange(&((CollectorLink *)Context)->TcpUp, 0);
    return STATUS_SUCCESS;
}

/* The port the UDP address got (network order), asked of the transport. */
USHORT BoundPort(CollectorLink *Link)
{
    struct {
        ULONG ActivityCount;
        TA_IP_ADDRESS Address;
    } info;
    RtlZeroMemory(&info, sizeof(info));
    PMDL mdl = KS_AllocateAndProbeMdl(&info, sizeof(info), FALSE, FALSE, NULL);
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(Link->Udp.AddressFileObject);
    PIRP irp = mdl != NULL ? IoAllocateIrp(device->StackSize, FALSE) : NULL;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (irp != NULL) {
        TdiBuildQueryInformation(irp, device, Link->Udp.AddressFileObject, NULL, NULL,
                                 TDI_QUERY_ADDRESS_INFO, mdl);
        status = KS_MakeSimpleTdiRequest(device, irp);
        irp->MdlAddress = NULL;
        IoFreeIrp(irp);
    }
    if (mdl != NULL)
        KS_UnlockAndFreeMdl(mdl);
    return NT_SUCCESS(status) ? info.Address.Address[0].Address[0].sin_port : 0;
}

} // namespace

NTSTATUS CollectorLinkOpen(CollectorLink *Link)
{
    KS_InitIPAddress(&Link->Collector, Link->Address, Link->Port);
    TA_IP_ADDRESS local;
    KS_InitIPAddress(&local, 0, Link->AnswerPort);
    NTSTATUS status = KS_OpenTransportAddress(L"\\Device\\Udp", (PTRANSPORT_ADDRESS)&local, &Link->Udp);
    if (!NT_SUCCESS(status))
        return status;
    Link->UdpOpen = TRUE;
    if (Link->AnswerPort == 0)
        Link->AnswerPort = BoundPort(Link);
    status = KS_SetEventHandlers(&Link->Udp, Link, NULL, NULL, NULL, NULL, OnDatagram, NULL);
    if (!NT_SUCCESS(status) || !Link->UseTcp)
        return status;

    KS_InitIPAddress(&local, 0, 0);
    status = KS_OpenTransportAddress(L"\\Device\\Tcp", (PTRANSPORT_ADDRESS)&local, &Link->Tcp);
    if (!NT_SUCCESS(status))
        return status;
    Link->TcpOpen = TRUE;
    status = KS_SetEventHandlers(&Link->Tcp, Link, NULL, OnDisconnect, NULL, NULL, NULL, NULL);
    if (!NT_SUCCESS(status))
        return status;
    status = KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &Link->Tcp, &Link->Connection, Link);
    if (Link->Connection.ReferenceCount != 0)
        Link->ConnectionOpen = TRUE;
    if (!NT_SUCCESS(status))
        return status;
    status = KS_Connect(&Link->Connection, &Link->Collector);
    if (NT_SUCCESS(status))
        InterlockedExchange(&Link->TcpUp, 1);
    return status;
}

VOID CollectorLinkSend(CollectorLink *Link, const EXAMPLE_COLLECTOR_RECORD *Header, const UCHAR *Data,
                       ULONG Length)
{
    if (Link->Stopping != 0)
        return;
    const ULONG total = sizeof(*Header) + Length;
    for (ULONG transport = 0; transport < 2; transport++) {
        if (transport == 1 && Link->TcpUp == 0)
            break;
        SendBlock *block = NewBlock(Link, transport, total);
        if (block == NULL) {
            InterlockedIncrement(&Link->Dropped);
            continue;
        }
        RtlCopyMemory(block->Data, Header, sizeof(*Header));
        RtlCopyMemory(block->Data + sizeof(*Header), Data, Length);
        if (transport == 0)
            SendDatagram(Link, block, &Link->Collector);
        else
            KS_SendOnEndpoint(&Link->Connection, NULL, SendDone, block, &block->IoStatus, block->Mdl, 0);
    }
}

VOID CollectorLinkClose(CollectorLink *Link)
{
    InterlockedExchange(&Link->Stopping, 1);
    if (Link->UdpOpen)
        KS_SetEventHandlers(&Link->Udp, NULL, NULL, NULL, NULL, NULL, NULL, NULL);
    /* Handlers that started before, and sends on their way, finish first (a few seconds at most). */
    LARGE_INTEGER pause;
    pause.QuadPart = -10 * 1000 * 10; /* 10 ms */
    for (int i = 0; i < 500 && (Link->InHandlers != 0 || Link->InFlight[0] != 0 || Link->InFlight[1] != 0);
         i++)
        KeDelayExecutionThread(KernelMode, FALSE, &pause);
    if (Link->TcpUp != 0)
        KS_Disconnect(&Link->Connection, NULL, NULL, NULL, NULL, TDI_DISCONNECT_RELEASE);
    InterlockedExchange(&Link->TcpUp, 0);
    if (Link->TcpOpen)
        KS_SetEventHandlers(&Link->Tcp, NULL, NULL, NULL, NULL, NULL, NULL, NULL);
    if (Link->ConnectionOpen)
        KS_CloseConnectionEndpoint(&Link->Connection);
    if (Link->TcpOpen)
        KS_CloseTransportAddress(&Link->Tcp);
    if (Link->UdpOpen)
        KS_CloseTransportAddress(&Link->Udp);
    Link->ConnectionOpen = Link->TcpOpen = Link->UdpOpen = FALSE;
}

VOID CollectorLinkCounters(CollectorLink *Link, PEXAMPLE_COLLECTOR_COUNTERS Counters)
{
    Counters->SentUdp = (ULONG)Link->SentUdp;
    Counters->SentTcp = (ULONG)Link->SentTcp;
    Counters->Dropped = (ULONG)Link->Dropped;
    Counters->Failed = (ULONG)Link->Failed;
    Counters->Answered = (ULONG)Link->Answered;
    Counters->TcpConnected = Link->TcpUp != 0 ? 1 : 0;
    Counters->AnswerPort = (USHORT)((Link->AnswerPort >> 8) | ((Link->AnswerPort & 0xFF) << 8));
}
