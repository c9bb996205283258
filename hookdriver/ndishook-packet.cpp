/*
 * ndishook-packet.cpp - packet records and the frames behind them.
 *
 * A received or sent frame becomes what NDIS would hand the hook: an NDIS
 * packet whose buffers (several MDLs) describe a copy of the frame. The hook
 * driver wraps it in a FilterPacket with a lookahead prefix in m_Data and
 * calls the framework's receive or send callback at DISPATCH_LEVEL.
 *
 * Every packet record handed out must come back exactly once: through
 * Hook_FreePacket or through one of the inject functions. Records live in
 * the driver's blocks of records and say in their state whether they are
 * out; one handed back twice, or a pointer that is not a record of a block,
 * is a verifier finding and is not touched. Free records are kept per
 * processor; a processor out of them takes a batch from the shared list (or
 * a new block), and one with too many gives a batch back.
 */
#include "ndishook-internal.h"

namespace {

#define NH_DEFAULT_HEADER_SPLIT 14
#define NH_DEFAULT_CHUNK_SIZE 256
#define NH_DEFAULT_LOOKAHEAD 128
#define NH_HEADER_SIZE 14

/* The private record starts the packet record, so a list link leads back to the packet. */
C_ASSERT(FIELD_OFFSET(FilterPacket, m_HookPrivate1) == 0);

/* Moves up to Count entries from the head of From to the tail of To; returns how many. */
ULONG MoveRecords(PLIST_ENTRY From, PLIST_ENTRY To, ULONG Count)
{
    ULONG moved = 0;
    for (; moved < Count && !IsListEmpty(From); moved++)
        InsertTailList(To, RemoveHeadList(From));
    return moved;
}

/* A new block of free records, linked into Free; FALSE without memory or room. */
BOOLEAN GrowRecords(PLIST_ENTRY Free)
{
    PFilterPacket block = (PFilterPacket)ExAllocatePoolWithTag(
        NonPagedPool, NH_RECORDS_PER_BLOCK * sizeof(FilterPacket), NH_PACKET_TAG);
    if (block == NULL)
        return FALSE;
    RtlZeroMemory(block, NH_RECORDS_PER_BLOCK * sizeof(FilterPacket));
    BOOLEAN registered = FALSE;
    {
        NhLock lock;
        if (g_Hook.m_nRecordBlocks < NH_MAX_RECORD_BLOCKS) {
            g_Hook.m_RecordBlocks[g_Hook.m_nRecordBlocks] = block;
            InterlockedIncrement(&g_Hook.m_nRecordBlocks); /* published after the entry */
            registered = TRUE;
        }
    }
    if (!registered) {
        ExFreePoolWithTag(block, NH_PACKET_TAG);
        return FALSE;
    }
    for (ULONG i = 0; i < NH_RECORDS_PER_BLOCK; i++)
        InsertTailList(Free, &NH_PRIVATE(&block[i])->m_Link);
    return TRUE;
}

/* A free record for the calling processor (its state still NH_RECORD_FREE), or NULL. */
PFilterPacket TakeRecord(NhProcessor *Processor)
{
    LIST_ENTRY batch;
    InitializeListHead(&batch);
    PLIST_ENTRY link = NULL;
    {
        KIRQL irql;
        KeAcquireSpinLock(&Processor->m_Lock, &irql);
        if (!IsListEmpty(&Processor->m_FreeRecords)) {
            link = RemoveHeadList(&Processor->m_FreeRecords);
            Processor->m_nFreeRecords--;
        }
        KeReleaseSpinLock(&Processor->m_Lock, irql);
    }
    if (link == NULL) {
        {
            NhLock lock;
            MoveRecords(&g_Hook.m_FreeRecords, &batch, NH_RECORD_BATCH);
        }
        if (IsListEmpty(&batch) && !GrowRecords(&batch))
            return NULL;
        link = RemoveHeadList(&batch);
        KIRQL irql;
        KeAcquireSpinLock(&Processor->m_Lock, &irql);
        Processor->m_nFreeRecords += MoveRecords(&batch, &Processor->m_FreeRecords, NH_RECORDS_PER_BLOCK);
        KeReleaseSpinLock(&Processor->m_Lock, irql);
    }
    return (PFilterPacket)CONTAINING_RECORD(link, NhPacketPrivate, m_Link);
}

/* Gives a disposed record back to the calling processor's free list. */
VOID PutRecord(PFilterPacket Packet)
{
    NhProcessor *processor = NhThisProcessor();
    LIST_ENTRY batch;
    InitializeListHead(&batch);
    PNhPacketPrivate own = NH_PRIVATE(Packet);
    InterlockedExchange(&own->m_State, NH_RECORD_FREE);
    {
        KIRQL irql;
        KeAcquireSpinLock(&processor->m_Lock, &irql);
        InsertHeadList(&processor->m_FreeRecords, &own->m_Link);
        if (++processor->m_nFreeRecords > 4 * NH_RECORD_BATCH)
            processor->m_nFreeRecords -= MoveRecords(&processor->m_FreeRecords, &batch, 2 * NH_RECORD_BATCH);
        KeReleaseSpinLock(&processor->m_Lock, irql);
    }
    if (!IsListEmpty(&batch)) {
        NhLock lock;
        MoveRecords(&batch, &g_Hook.m_FreeRecords, 2 * NH_RECORD_BATCH);
    }
    InterlockedDecrement(&processor->m_nOutstanding);
}

/* Whether Packet is a record of one of the blocks (without reading it). */
BOOLEAN IsRecord(PFilterPacket Packet)
{
    LONG count = InterlockedCompareExchange(&g_Hook.m_nRecordBlocks, 0, 0);
    for (LONG i = 0; i < count; i++) {
        ULONG_PTR offset = (ULONG_PTR)Packet - (ULONG_PTR)g_Hook.m_RecordBlocks[i];
        if (offset < NH_RECORDS_PER_BLOCK * sizeof(FilterPacket))
            return offset % sizeof(FilterPacket) == 0;
    }
    return FALSE;
}

/* A new zeroed record for an adapter, counted as handed out. */
PFilterPacket NewRecord(PNhAdapter Adapter, ULONG Origin, PCSTR File, ULONG Line)
{
    NhProcessor *processor = NhThisProcessor();
    PFilterPacket packet = TakeRecord(processor);
    if (packet == NULL)
        return NULL;
    RtlZeroMemory(packet, sizeof(*packet));
    packet->m_hAdapter = &Adapter->m_Filter;
    PNhPacketPrivate own = NH_PRIVATE(packet);
    own->m_Magic = NH_PACKET_MAGIC;
    own->m_nOrigin = Origin;
    own->m_pAdapter = Adapter;
    own->m_pszFile = File;
    own->m_nLine = Line;
    InterlockedIncrement(&processor->m_nOutstanding);
    NhCount(&processor->m_Counters.m_nHandedOut);
    InterlockedExchange(&own->m_State, NH_RECORD_OUT);
    return packet;
}

/* Frees the NDIS packet, its buffers and the frame memory they describe. */
VOID FreeNdisPacket(PNDIS_PACKET NdisPacket, PUCHAR Frame)
{
    if (NdisPacket != NULL) {
        PNDIS_BUFFER buffer;
        for (NdisUnchainBufferAtFront(NdisPacket, &buffer); buffer != NULL;
             NdisUnchainBufferAtFront(NdisPacket, &buffer))
            NdisFreeBuffer(buffer);
        NdisFreePacket(NdisPacket);
    }
    if (Frame != NULL)
        ExFreePoolWithTag(Frame, NH_FRAME_TAG);
}

/*
 * Takes a record back from whoever had it. FALSE (with a finding naming
 * `How`) when it is not out: handed back before, or never a record.
 */
BOOLEAN TakeBack(PFilterPacket Packet, PCSTR How, PCSTR File, ULONG Line)
{
    if (Packet == NULL) {
        NhReportFinding("NdisHook: %s(NULL) from %s:%u", How, File != NULL ? File : "?", (unsigned)Line);
        return FALSE;
    }
    BOOLEAN record = IsRecord(Packet);
    if (record && InterlockedCompareExchange(&NH_PRIVATE(Packet)->m_State, NH_RECORD_RETURNING, NH_RECORD_OUT) ==
                      NH_RECORD_OUT)
        return TRUE;
    if (record)
        NhReportFinding("NdisHook: %s(%p) from %s:%u: the packet was already handed back (freed or "
                        "injected twice)", How, (PVOID)Packet, File != NULL ? File : "?", (unsigned)Line);
    else
        NhReportFinding("NdisHook: %s(%p) from %s:%u: not a packet of the hook driver", How, (PVOID)Packet,
                        File != NULL ? File : "?", (unsigned)Line);
    return FALSE;
}

/*
 * Disposes of a record taken back: its release callback first, then the NDIS
 * packet and buffers behind it. The record itself goes back with PutRecord.
 * IRQL <= DISPATCH_LEVEL.
 */
VOID Dispose(PFilterPacket Packet)
{
    if (Packet->m_pfReleaseCallback != NULL) {
        Packet->m_pfReleaseCallback(Packet, Packet->m_pReleaseContext);
        NhCount(&NhThisProcessor()->m_Counters.m_nReleaseCallbacks);
    }
    PNhPacketPrivate own = NH_PRIVATE(Packet);
    FreeNdisPacket(own->m_pNdisPacket, own->m_pFrame);
    own->m_Magic = 0;
}

/*
 * Copies up to Size bytes of an NDIS packet's data, from its start, walking
 * its buffers. Returns the bytes copied.
 */
ULONG CopyFromChain(PNDIS_PACKET NdisPacket, PUCHAR Destination, ULONG Size)
{
    ULONG copied = 0;
    PNDIS_BUFFER buffer;
    NdisQueryPacket(NdisPacket, NULL, NULL, &buffer, NULL);
    while (buffer != NULL && copied < Size) {
        PVOID address;
        UINT length;
        NdisQueryBufferSafe(buffer, &address, &length, NormalPagePriority);
        if (address == NULL)
            break;
        ULONG take = length < Size - copied ? length : Size - copied;
        RtlCopyMemory(Destination + copied, address, take);
        copied += take;
        NdisGetNextBuffer(buffer, &buffer);
    }
    return copied;
}

/*
 * An NDIS packet over a copy of the frame: the first buffer HeaderSplit bytes
 * long, then buffers of ChunkSize bytes. NULL without resources.
 */
PNDIS_PACKET BuildNdisPacket(const UCHAR *Frame, ULONG Length, ULONG HeaderSplit, ULONG ChunkSize,
                             PUCHAR *FrameCopy)
{
    PUCHAR copy = (PUCHAR)ExAllocatePoolWithTag(NonPagedPool, Length, NH_FRAME_TAG);
    if (copy == NULL)
        return NULL;
    RtlCopyMemory(copy, Frame, Length);
    NDIS_STATUS status;
    PNDIS_PACKET packet;
    NdisAllocatePacket(&status, &packet, g_Hook.m_hPacketPool);
    if (status != NDIS_STATUS_SUCCESS) {
        ExFreePoolWithTag(copy, NH_FRAME_TAG);
        return NULL;
    }
    ULONG offset = 0;
    ULONG piece = HeaderSplit;
    while (offset < Length) {
        ULONG take = piece < Length - offset ? piece : Length - offset;
        PNDIS_BUFFER buffer;
        NdisAllocateBuffer(&status, &buffer, g_Hook.m_hBufferPool, copy + offset, take);
        if (status != NDIS_STATUS_SUCCESS) {
            FreeNdisPacket(packet, copy);
            return NULL;
        }
        NdisChainBufferAtBack(packet, buffer);
        offset += take;
        piece = ChunkSize;
    }
    NDIS_SET_PACKET_HEADER_SIZE(packet, NH_HEADER_SIZE);
    *FrameCopy = copy;
    return packet;
}

/*
 * Passes a frame on without the framework: a received frame goes up to the
 * protocols, a sent one down to the wire.
 */
VOID PassThrough(PNhAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length)
{
    NhRecordDelivery(Adapter, Index, Frame, Length);
}

/*
 * The frame an injected record carries: m_Data when it is dirty or has no
 * NDIS packet behind it, else the NDIS packet's data copied into Scratch
 * (FILTER_PACKET_DATA_SIZE bytes, allocated here and freed by the caller).
 * Returns the frame's length, (ULONG)-1 when m_nPacketSize does not fit
 * m_Data, (ULONG)-2 without memory for the copy.
 */
ULONG ExtractFrame(PFilterPacket Packet, PUCHAR *Frame, PUCHAR *Scratch)
{
    PNDIS_PACKET ndis = Packet->m_pIncomingNdisPacket != NULL ? Packet->m_pIncomingNdisPacket
                                                               : Packet->m_pOutgoingNdisPacket;
    if (!Packet->m_bDirty && ndis != NULL) {
        /* Frames of the real driver never exceed m_Data: that much scratch is enough. */
        *Scratch = (PUCHAR)ExAllocatePoolWithTag(NonPagedPool, FILTER_PACKET_DATA_SIZE, NH_FRAME_TAG);
        if (*Scratch == NULL)
            return (ULONG)-2;
        UINT total = 0;
        NdisQueryPacketLength(ndis, &total);
        if (total > FILTER_PACKET_DATA_SIZE)
            total = FILTER_PACKET_DATA_SIZE;
        *Frame = *Scratch;
        return CopyFromChain(ndis, *Scratch, total);
    }
    if (Packet->m_nPacketSize > FILTER_PACKET_DATA_SIZE)
        return (ULONG)-1;
    *Frame = Packet->m_Data;
    return Packet->m_nPacketSize;
}

/* Hook_InjectPacketToAdapter / ToProtocol: the record is always the hook's again. */
NDIS_STATUS Inject(PFilterAdapter Adapter, PFilterPacket Packet, ULONG Index, PCSTR How)
{
    if (!TakeBack(Packet, How, NULL, 0))
        return NDIS_STATUS_INVALID_PACKET;
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    PNhAdapter adapter = NhFindOpenAdapter(Adapter);
    if (adapter == NULL) {
        status = NDIS_STATUS_ADAPTER_NOT_FOUND;
    } else {
        PUCHAR scratch = NULL;
        PUCHAR frame = NULL;
        ULONG length = ExtractFrame(Packet, &frame, &scratch);
        if (length == (ULONG)-2)
            status = NDIS_STATUS_RESOURCES;
        else if (length == (ULONG)-1)
            status = NDIS_STATUS_INVALID_LENGTH;
        else
            NhRecordDelivery(adapter, Index, frame, length);
        if (scratch != NULL)
            ExFreePoolWithTag(scratch, NH_FRAME_TAG);
    }
    Dispose(Packet);
    /* Back only now: whoever sees it back also sees its delivery. */
    NhCount(&NhThisProcessor()->m_Counters.m_nInjected);
    PutRecord(Packet);
    return status;
}

} // namespace

/* NhInitializePackets - the packet and buffer pools behind indicated frames. IRQL == PASSIVE_LEVEL. */
NTSTATUS NhInitializePackets(VOID)
{
    NDIS_STATUS status;
    NdisAllocatePacketPool(&status, &g_Hook.m_hPacketPool, 256, 16);
    if (status != NDIS_STATUS_SUCCESS)
        return STATUS_INSUFFICIENT_RESOURCES;
    NdisAllocateBufferPool(&status, &g_Hook.m_hBufferPool, 2048);
    if (status != NDIS_STATUS_SUCCESS) {
        NdisFreePacketPool(g_Hook.m_hPacketPool);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

/*
 * NhReclaimPackets - at unload: every record still out is a verifier finding
 * and is freed (without its release callback: its owner is gone), then the
 * pools go. IRQL == PASSIVE_LEVEL.
 */
VOID NhReclaimPackets(VOID)
{
    LONG blocks = InterlockedExchange(&g_Hook.m_nRecordBlocks, 0);
    for (LONG b = 0; b < blocks; b++) {
        PFilterPacket block = g_Hook.m_RecordBlocks[b];
        for (ULONG i = 0; i < NH_RECORDS_PER_BLOCK; i++) {
            PFilterPacket packet = &block[i];
            PNhPacketPrivate own = NH_PRIVATE(packet);
            if (own->m_State == NH_RECORD_FREE)
                continue;
            NhReportFinding("NdisHook: packet %p (%s, allocated at %s:%u) was still out at unload", (PVOID)packet,
                            own->m_nOrigin == NH_ORIGIN_RECEIVED ? "received frame"
                            : own->m_nOrigin == NH_ORIGIN_SENT   ? "sent frame"
                                                                 : "Hook_AllocatePacket",
                            own->m_pszFile != NULL ? own->m_pszFile : "?", (unsigned)own->m_nLine);
            packet->m_pfReleaseCallback = NULL;
            Dispose(packet);
        }
        ExFreePoolWithTag(block, NH_PACKET_TAG);
    }
    InitializeListHead(&g_Hook.m_FreeRecords);
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++) {
        InitializeListHead(&g_Hook.m_Processors[i].m_FreeRecords);
        g_Hook.m_Processors[i].m_nFreeRecords = 0;
        g_Hook.m_Processors[i].m_nOutstanding = 0;
    }
    NdisFreeBufferPool(g_Hook.m_hBufferPool);
    NdisFreePacketPool(g_Hook.m_hPacketPool);
}

/*
 * Hook_AllocatePacket - a zeroed record for an open adapter (m_hAdapter set),
 * with no NDIS packet behind it; NULL for an adapter that is not open or
 * without memory. File and Line name the caller in reports. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PFilterPacket NTAPI NhAllocatePacket(PFilterAdapter Adapter, PCSTR File, ULONG Line)
{
    PNhAdapter adapter = NhFindOpenAdapter(Adapter);
    if (adapter == NULL)
        return NULL;
    return NewRecord(adapter, NH_ORIGIN_ALLOCATED, File, Line);
}

/*
 * Hook_FreePacket - takes a record back: its release callback runs, then the
 * NDIS packet and buffers behind it and the record are freed. A record not
 * out is reported and left alone. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NhFreePacket(PFilterPacket Packet, PCSTR File, ULONG Line)
{
    if (!TakeBack(Packet, "Hook_FreePacket", File, Line))
        return;
    Dispose(Packet);
    NhCount(&NhThisProcessor()->m_Counters.m_nFreed);
    PutRecord(Packet);
}

/*
 * Hook_InjectPacketToAdapter / Hook_InjectPacketToProtocol - the frame goes
 * out on the wire / up to the protocols of Adapter (recorded), and the record
 * is the hook driver's again and is freed, whatever the status:
 * NDIS_STATUS_ADAPTER_NOT_FOUND when Adapter is not open,
 * NDIS_STATUS_INVALID_LENGTH when a dirty m_nPacketSize exceeds m_Data,
 * NDIS_STATUS_INVALID_PACKET for a record not out (reported, not touched).
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NDIS_STATUS NTAPI NhInjectPacketToAdapter(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return Inject(Adapter, Packet, NH_TO_ADAPTER, "Hook_InjectPacketToAdapter");
}

EXTERN_C NDIS_STATUS NTAPI NhInjectPacketToProtocol(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return Inject(Adapter, Packet, NH_TO_PROTOCOL, "Hook_InjectPacketToProtocol");
}

/*
 * NhIndicateFrame - a frame received on the adapter (NH_TO_PROTOCOL) or sent
 * by the protocols (NH_TO_ADAPTER), as NDIS hands it to the hook: while bound
 * it goes to the framework's receive / send callback at DISPATCH_LEVEL;
 * otherwise it passes straight through. IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhIndicateFrame(PFilterAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length,
                         ULONG HeaderSplit, ULONG ChunkSize, ULONG Lookahead)
{
    if (Frame == NULL || Length == 0)
        return STATUS_INVALID_PARAMETER;
    PNhAdapter adapter = NhFindOpenAdapter(Adapter);
    if (adapter == NULL)
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    NTSTATUS status = STATUS_SUCCESS;
    NhFrameworkCall call;
    if (call.Api() == NULL) {
        PassThrough(adapter, Index, Frame, Length);
        return STATUS_SUCCESS;
    }

    PUCHAR copy = NULL;
    PNDIS_PACKET ndis = BuildNdisPacket(Frame, Length, HeaderSplit != 0 ? HeaderSplit : NH_DEFAULT_HEADER_SPLIT,
                                        ChunkSize != 0 ? ChunkSize : NH_DEFAULT_CHUNK_SIZE, &copy);
    BOOLEAN received = Index == NH_TO_PROTOCOL;
    PFilterPacket packet = ndis != NULL ? NewRecord(adapter, received ? NH_ORIGIN_RECEIVED : NH_ORIGIN_SENT,
                                                    __FILE__, __LINE__)
                                        : NULL;
    if (packet == NULL) {
        FreeNdisPacket(ndis, copy);
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        PNhPacketPrivate own = NH_PRIVATE(packet);
        own->m_pNdisPacket = ndis;
        own->m_pFrame = copy;
        own->m_nFrameLength = Length;
        if (received)
            packet->m_pIncomingNdisPacket = ndis;
        else
            packet->m_pOutgoingNdisPacket = ndis;
        ULONG lookahead = Lookahead != 0 ? Lookahead : NH_DEFAULT_LOOKAHEAD;
        if (lookahead > FILTER_PACKET_DATA_SIZE)
            lookahead = FILTER_PACKET_DATA_SIZE;
        packet->m_nBytesRead = CopyFromChain(ndis, packet->m_Data, lookahead);
        packet->m_nPacketSize = Length;
        packet->m_nDirection = received ? FILTER_DIRECTION_TO_PROTOCOL : FILTER_DIRECTION_TO_ADAPTER;

        PNH_PACKET_OBSERVER observer = *(PNH_PACKET_OBSERVER volatile *)&g_Hook.m_pfObserver;
        PVOID context = NULL;
        if (observer != NULL) {
            NhLock lock;
            observer = g_Hook.m_pfObserver;
            context = g_Hook.m_pObserverContext;
        }
        NhProcessor *processor = NhThisProcessor();
        NhCount(received ? &processor->m_Counters.m_nReceivesIndicated : &processor->m_Counters.m_nSendsIndicated);
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        if (observer != NULL)
            observer(packet, context);
        if (received)
            call.Api()->Filter_FilterReceivedPacket(packet);
        else
            call.Api()->Filter_FilterSendPacket(packet);
        KeLowerIrql(irql);
    }
    return status;
}

/* NhPacketsOutstanding - packet records handed out and not yet back (a record being taken back still counts). */
LONG NhPacketsOutstanding(VOID)
{
    LONG count = 0;
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++)
        count += g_Hook.m_Processors[i].m_nOutstanding; /* volatile: a plain read of each */
    return count;
}

/* NhQueryCounters - the running totals, summed over the processors. */
VOID NhQueryCounters(NhCounters *Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++) {
        const NhCounters *part = &g_Hook.m_Processors[i].m_Counters;
        Counters->m_nHandedOut += *(volatile const ULONG *)&part->m_nHandedOut;
        Counters->m_nFreed += *(volatile const ULONG *)&part->m_nFreed;
        Counters->m_nInjected += *(volatile const ULONG *)&part->m_nInjected;
        Counters->m_nReleaseCallbacks += *(volatile const ULONG *)&part->m_nReleaseCallbacks;
        Counters->m_nReceivesIndicated += *(volatile const ULONG *)&part->m_nReceivesIndicated;
        Counters->m_nSendsIndicated += *(volatile const ULONG *)&part->m_nSendsIndicated;
    }
}

/* NhSetPacketObserver - a routine shown every indicated packet first (NULL: none). */
VOID NhSetPacketObserver(PNH_PACKET_OBSERVER Observer, PVOID Context)
{
    NhLock lock;
    g_Hook.m_pfObserver = Observer;
    g_Hook.m_pObserverContext = Context;
}
