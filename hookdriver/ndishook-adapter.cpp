/*
 * ndishook-adapter.cpp - adapters: opening, closing and media state (each
 * reported to the framework while bound), the adapter table the framework
 * asks for, and the frames delivered on each adapter.
 *
 * The hook driver keeps its bindings: an adapter's record is allocated when
 * the adapter first opens and stays, marked closed, after it closes; the
 * same adapter (by device name) opening again gets the same record back, so
 * the framework sees the same handle and keeps its identifier for it. The
 * records are freed when the hook driver unloads.
 */
#include "ndishook-internal.h"

namespace {

/* Copies at most Size - 1 characters of Source and terminates. */
VOID CopyName(PCHAR Destination, SIZE_T Size, PCSTR Source)
{
    SIZE_T i = 0;
    for (; Source != NULL && Source[i] != 0 && i + 1 < Size; i++)
        Destination[i] = Source[i];
    Destination[i] = 0;
}

/* The open adapter whose current address is Key, or NULL. Caller holds the lock. */
PNhAdapter FindByAddressLocked(const UCHAR *Key)
{
    for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
        PNhAdapter adapter = CONTAINING_RECORD(link, NhAdapter, m_Link);
        if (adapter->m_bOpen && RtlEqualMemory(adapter->m_Filter.m_CurrentAddress, Key, 6))
            return adapter;
    }
    return NULL;
}

/* The record of the adapter named Name (case-insensitive), open or closed, or NULL. Caller holds the lock. */
PNhAdapter FindByNameLocked(PCUNICODE_STRING Name)
{
    for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
        PNhAdapter adapter = CONTAINING_RECORD(link, NhAdapter, m_Link);
        if (RtlEqualUnicodeString(&adapter->m_Filter.m_AdapterName, Name, TRUE))
            return adapter;
    }
    return NULL;
}

/* Frees every recorded delivery of an adapter. Caller holds the lock or owns the record. */
VOID FreeDeliveries(PNhAdapter Adapter)
{
    for (ULONG index = NH_TO_PROTOCOL; index <= NH_TO_ADAPTER; index++) {
        PLIST_ENTRY head = &Adapter->m_Delivered[index];
        while (!IsListEmpty(head)) {
            PNhDelivery delivery = CONTAINING_RECORD(RemoveHeadList(head), NhDelivery, m_Link);
            ExFreePoolWithTag(delivery, NH_DELIVERY_TAG);
        }
        Adapter->m_nDelivered[index] = 0;
    }
}

/*
 * Writes what the adapter reports of itself into its record (a new one, or a
 * closed one opening again) and marks it open with no recorded deliveries.
 * The fields the framework writes (m_Tag, the capture logs, the contexts)
 * are left as they are. Caller holds the lock or owns the record.
 */
VOID OpenRecord(PNhAdapter Adapter, const NhAdapterSetup *Setup)
{
    FilterAdapter *filter = &Adapter->m_Filter;
    RtlCopyMemory(filter->m_CurrentAddress, Setup->m_CurrentAddress, 6);
    RtlCopyMemory(filter->m_PermanentAddress, Setup->m_PermanentAddress, 6);
    filter->m_usMTU = Setup->m_usMTU;
    filter->m_nAdapterMedium = Setup->m_nMedium;
    filter->m_nAdapterMediaState = Setup->m_bConnected ? NdisMediaStateConnected : NdisMediaStateDisconnected;
    filter->m_bNdisWanAdapter = Setup->m_bNdisWan;
    Adapter->m_nLinkSpeed = Setup->m_nLinkSpeed != 0 ? Setup->m_nLinkSpeed : NH_DEFAULT_LINK_SPEED;
    CopyName(Adapter->m_szName, sizeof(Adapter->m_szName), Setup->m_pszName);
    if (Setup->m_pIPConfig != NULL) {
        RtlCopyMemory(&filter->m_IPConfig, Setup->m_pIPConfig, sizeof(IPConfig));
        filter->m_IPConfig.hAdapter = filter;
    }
    FreeDeliveries(Adapter);
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++) /* sink calls of an earlier open may still be counted */
        RtlZeroMemory((PVOID)Adapter->m_PerProcessor[i].m_nFramesOk, sizeof(Adapter->m_PerProcessor[i].m_nFramesOk));
    Adapter->m_pfDeliverySink = NULL;
    Adapter->m_pDeliveryContext = NULL;
    Adapter->m_nPacketFilter = 0;
    Adapter->m_nLookahead = NH_DEFAULT_LOOKAHEAD;
    Adapter->m_nMulticast = 0;
    Adapter->m_bOpen = TRUE;
}

/* A new record named Name (not yet in the list, not open); NULL without memory. */
PNhAdapter AllocateRecord(PCUNICODE_STRING Name)
{
    PNhAdapter adapter = (PNhAdapter)ExAllocatePoolWithTag(NonPagedPool, sizeof(NhAdapter), NH_ADAPTER_TAG);
    if (adapter == NULL)
        return NULL;
    RtlZeroMemory(adapter, sizeof(*adapter));
    RtlCopyMemory(adapter->m_wszDeviceName, Name->Buffer, Name->Length);
    FilterAdapter *filter = &adapter->m_Filter;
    filter->m_AdapterName.Buffer = adapter->m_wszDeviceName;
    filter->m_AdapterName.Length = Name->Length;
    filter->m_AdapterName.MaximumLength = (USHORT)sizeof(adapter->m_wszDeviceName);
    adapter->m_Magic = NH_ADAPTER_MAGIC;
    InitializeListHead(&adapter->m_Delivered[NH_TO_PROTOCOL]);
    InitializeListHead(&adapter->m_Delivered[NH_TO_ADAPTER]);
    return adapter;
}

/* Reports the close of an adapter already marked closed. */
VOID ReportClose(PNhAdapter Adapter)
{
    NhFrameworkCall call;
    if (call.Api() != NULL && call.Api()->Filter_AdapterClosed != NULL)
        call.Api()->Filter_AdapterClosed(&Adapter->m_Filter);
}

} // namespace

/* NhFindOpenAdapterLocked - the open adapter at this handle; the caller holds the lock. */
PNhAdapter NhFindOpenAdapterLocked(PFilterAdapter Adapter)
{
    for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
        PNhAdapter adapter = CONTAINING_RECORD(link, NhAdapter, m_Link);
        if (&adapter->m_Filter == Adapter)
            return adapter->m_bOpen ? adapter : NULL;
    }
    return NULL;
}

/*
 * NhFindOpenAdapter - the open adapter at this handle, or NULL. Without the
 * lock: the table's entries below its count never change until unload.
 * IRQL <= DISPATCH_LEVEL.
 */
PNhAdapter NhFindOpenAdapter(PFilterAdapter Adapter)
{
    LONG count = InterlockedCompareExchange(&g_Hook.m_nAdapterRecords, 0, 0);
    for (LONG i = 0; i < count; i++) {
        PNhAdapter adapter = g_Hook.m_AdapterTable[i];
        if (&adapter->m_Filter == Adapter)
            return *(volatile BOOLEAN *)&adapter->m_bOpen ? adapter : NULL;
    }
    return NULL;
}

/*
 * NhOpenAdapter - opens an adapter, reported through Filter_AdapterOpened
 * when bound (the framework then finds it in the adapter table). An adapter
 * whose device name has a record already gets that record back; NULL when
 * that adapter is open now, or without memory. IRQL == PASSIVE_LEVEL.
 */
PNhAdapter NhOpenAdapter(const NhAdapterSetup *Setup)
{
    if (!g_Hook.m_bLoaded)
        return NULL;
    WCHAR buffer[NH_ADAPTER_NAME_CHARS];
    ULONG chars = 0;
    while (Setup->m_pszDeviceName != NULL && Setup->m_pszDeviceName[chars] != 0 && chars + 1 < NH_ADAPTER_NAME_CHARS) {
        buffer[chars] = Setup->m_pszDeviceName[chars];
        chars++;
    }
    UNICODE_STRING name;
    name.Buffer = buffer;
    name.Length = (USHORT)(chars * sizeof(WCHAR));
    name.MaximumLength = (USHORT)sizeof(buffer);

    /* Looked up first; a record is allocated (outside the lock) only for an adapter never seen,
     * and the lookup repeated in case the same adapter opened meanwhile. */
    PNhAdapter fresh = NULL;
    PNhAdapter adapter = NULL;
    for (;;) {
        {
            NhLock lock;
            adapter = FindByNameLocked(&name);
            if (adapter != NULL) {
                if (adapter->m_bOpen) {
                    adapter = NULL; /* open already */
                } else {
                    /* The list keeps the order in which the adapters last opened. */
                    RemoveEntryList(&adapter->m_Link);
                    InsertTailList(&g_Hook.m_Adapters, &adapter->m_Link);
                    OpenRecord(adapter, Setup);
                }
                break;
            }
            if (fresh != NULL) {
                if (g_Hook.m_nAdapterRecords == NH_MAX_ADAPTER_RECORDS)
                    break; /* no room in the table: fresh is freed below */
                adapter = fresh;
                fresh = NULL;
                g_Hook.m_AdapterTable[g_Hook.m_nAdapterRecords] = adapter;
                InterlockedIncrement(&g_Hook.m_nAdapterRecords); /* published after the entry */
                InsertTailList(&g_Hook.m_Adapters, &adapter->m_Link);
                OpenRecord(adapter, Setup);
                break;
            }
        }
        fresh = AllocateRecord(&name);
        if (fresh == NULL)
            return NULL;
    }
    if (fresh != NULL)
        ExFreePoolWithTag(fresh, NH_ADAPTER_TAG);
    if (adapter == NULL)
        return NULL;

    NhFrameworkCall call;
    if (call.Api() != NULL && call.Api()->Filter_AdapterOpened != NULL)
        call.Api()->Filter_AdapterOpened(&adapter->m_Filter);
    return adapter;
}

/*
 * NhCloseAdapter - marks an open adapter closed (out of the adapter table,
 * its recorded frames gone), then reports the close. The record stays for
 * the adapter's return. IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhCloseAdapter(PFilterAdapter Adapter)
{
    PNhAdapter adapter;
    {
        NhLock lock;
        adapter = NhFindOpenAdapterLocked(Adapter);
        if (adapter == NULL)
            return STATUS_NOT_FOUND;
        adapter->m_bOpen = FALSE;
        FreeDeliveries(adapter);
    }
    ReportClose(adapter);
    return STATUS_SUCCESS;
}

/* NhCloseAllAdapters - closes every open adapter, oldest first (at unload). */
VOID NhCloseAllAdapters(VOID)
{
    for (;;) {
        PNhAdapter adapter = NULL;
        {
            NhLock lock;
            for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
                PNhAdapter candidate = CONTAINING_RECORD(link, NhAdapter, m_Link);
                if (candidate->m_bOpen) {
                    adapter = candidate;
                    adapter->m_bOpen = FALSE;
                    FreeDeliveries(adapter);
                    break;
                }
            }
        }
        if (adapter == NULL)
            return;
        ReportClose(adapter);
    }
}

/* NhFreeAdapters - frees every record (at unload, once no packet is out). */
VOID NhFreeAdapters(VOID)
{
    {
        NhLock lock;
        InterlockedExchange(&g_Hook.m_nAdapterRecords, 0);
    }
    for (;;) {
        PNhAdapter adapter;
        {
            NhLock lock;
            if (IsListEmpty(&g_Hook.m_Adapters))
                return;
            adapter = CONTAINING_RECORD(RemoveHeadList(&g_Hook.m_Adapters), NhAdapter, m_Link);
        }
        FreeDeliveries(adapter);
        adapter->m_Magic = 0;
        ExFreePoolWithTag(adapter, NH_ADAPTER_TAG);
    }
}

/*
 * NhSetMediaState - records the media state and, when it changed and the hook
 * is bound, indicates NDIS_STATUS_MEDIA_CONNECT / DISCONNECT at DISPATCH_LEVEL
 * as a miniport's status indication arrives. STATUS_INVALID_PARAMETER for a
 * state other than NdisMediaStateConnected / Disconnected. IRQL <= DISPATCH_LEVEL.
 */
NTSTATUS NhSetMediaState(PFilterAdapter Adapter, ULONG State)
{
    if (State != NdisMediaStateConnected && State != NdisMediaStateDisconnected)
        return STATUS_INVALID_PARAMETER;
    {
        NhLock lock;
        PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
        if (adapter == NULL)
            return NDIS_STATUS_ADAPTER_NOT_FOUND;
        if (adapter->m_Filter.m_nAdapterMediaState == State)
            return STATUS_SUCCESS;
        adapter->m_Filter.m_nAdapterMediaState = State;
    }
    NhFrameworkCall call;
    if (call.Api() != NULL && call.Api()->Filter_AdapterStatusChanged != NULL) {
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        call.Api()->Filter_AdapterStatusChanged(Adapter, State == NdisMediaStateConnected ? NDIS_STATUS_MEDIA_CONNECT
                                                                                          : NDIS_STATUS_MEDIA_DISCONNECT);
        KeLowerIrql(irql);
    }
    return STATUS_SUCCESS;
}
/*
 * Hook_SetAdapterStatus - the media state of the open adapter whose current
 * address is AdapterKey (6 bytes); a change is indicated to the framework
 * before this returns. NDIS_STATUS_ADAPTER_NOT_FOUND for an unknown address.
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NhSetAdapterStatus(PUCHAR AdapterKey, ULONG State)
{
    if (AdapterKey == NULL)
        return STATUS_INVALID_PARAMETER;
    PFilterAdapter handle;
    {
        NhLock lock;
        PNhAdapter adapter = FindByAddressLocked(AdapterKey);
        if (adapter == NULL)
            return NDIS_STATUS_ADAPTER_NOT_FOUND;
        handle = &adapter->m_Filter;
    }
    return NhSetMediaState(handle, State);
}

/*
 * Hook_GetAdapterStatus - *State is the media state (NdisMediaStateConnected
 * or Disconnected) of the open adapter whose current address is AdapterKey.
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NhGetAdapterStatus(PUCHAR AdapterKey, PULONG State)
{
    if (AdapterKey == NULL || State == NULL)
        return STATUS_INVALID_PARAMETER;
    NhLock lock;
    PNhAdapter adapter = FindByAddressLocked(AdapterKey);
    if (adapter == NULL)
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    *State = adapter->m_Filter.m_nAdapterMediaState;
    return STATUS_SUCCESS;
}

/*
 * Hook_GetTcpIpBoundAdapters - writes a ULONG count and then one packed
 * AdapterInfo per open adapter (at most FILTER_MAX_ADAPTERS, in the order
 * they opened) into AdapterList. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NhGetTcpIpBoundAdapters(PVOID AdapterList)
{
    if (AdapterList == NULL)
        return;
    PUCHAR out = (PUCHAR)AdapterList;
    PAdapterInfo entries = (PAdapterInfo)(out + sizeof(ULONG));
    ULONG count = 0;
    {
        NhLock lock;
        for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink;
             link != &g_Hook.m_Adapters && count < FILTER_MAX_ADAPTERS; link = link->Flink) {
            PNhAdapter adapter = CONTAINING_RECORD(link, NhAdapter, m_Link);
            if (!adapter->m_bOpen)
                continue;
            AdapterInfo info;
            RtlZeroMemory(&info, sizeof(info));
            info.m_hAdapter = &adapter->m_Filter;
            info.m_nAdapterMedium = adapter->m_Filter.m_nAdapterMedium;
            info.m_usMTU = adapter->m_Filter.m_usMTU;
            info.m_dwAdapterState = adapter->m_Filter.m_nAdapterMediaState;
            RtlCopyMemory(info.m_PermanentAddress, adapter->m_Filter.m_PermanentAddress, 6);
            RtlCopyMemory(info.m_CurrentAddress, adapter->m_Filter.m_CurrentAddress, 6);
            CopyName(info.m_szAdapterName, sizeof(info.m_szAdapterName), adapter->m_szName);
            RtlCopyMemory(&entries[count], &info, sizeof(info));
            count++;
        }
    }
    RtlCopyMemory(out, &count, sizeof(count));
}

/* ---- delivered frames ---- */

/*
 * NhRecordDelivery - counts a frame passed on by the adapter and hands it to
 * the adapter's delivery sink, or keeps a copy of it. A sink call is counted
 * on its processor before the sink is read again, so clearing the sink can
 * wait for the calls that read it (NhSetDeliverySink). IRQL <= DISPATCH_LEVEL.
 */
VOID NhRecordDelivery(PNhAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length)
{
    auto &local = Adapter->m_PerProcessor[KeGetCurrentProcessorNumber() % NH_MAX_PROCESSORS];
    InterlockedIncrement64(&local.m_nFramesOk[Index]);
    if (*(PNH_DELIVERY_SINK volatile *)&Adapter->m_pfDeliverySink != NULL) {
        InterlockedIncrement(&local.m_nSinkCalls);
        PNH_DELIVERY_SINK sink = *(PNH_DELIVERY_SINK volatile *)&Adapter->m_pfDeliverySink;
        if (sink != NULL)
            sink(&Adapter->m_Filter, Index == NH_TO_PROTOCOL ? FILTER_DIRECTION_TO_PROTOCOL : FILTER_DIRECTION_TO_ADAPTER,
                 Frame, Length, Adapter->m_pDeliveryContext);
        InterlockedDecrement(&local.m_nSinkCalls);
        if (sink != NULL)
            return;
    }
    PNhDelivery delivery = (PNhDelivery)ExAllocatePoolWithTag(
        NonPagedPool, FIELD_OFFSET(NhDelivery, m_Frame) + (Length != 0 ? Length : 1), NH_DELIVERY_TAG);
    if (delivery == NULL) {
        DbgPrint("NdisHook: no memory to record a delivered frame\n");
        return;
    }
    delivery->m_nLength = Length;
    if (Length != 0)
        RtlCopyMemory(delivery->m_Frame, Frame, Length);
    NhLock lock;
    InsertTailList(&Adapter->m_Delivered[Index], &delivery->m_Link);
    Adapter->m_nDelivered[Index]++;
}

/* NhFramesOk - the sum of the adapter's per-processor counts in one direction. */
ULONG64 NhFramesOk(PNhAdapter Adapter, ULONG Index)
{
    ULONG64 total = 0;
    for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++)
        total += (ULONG64)Adapter->m_PerProcessor[i].m_nFramesOk[Index];
    return total;
}

/*
 * NhSetDeliverySink - the deliveries of an open adapter go to Sink from now
 * on; NULL records them again, and returns only once no sink call is running,
 * so the sink's resources may go then (the adapter need not be open for that).
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhSetDeliverySink(PFilterAdapter Adapter, PNH_DELIVERY_SINK Sink, PVOID Context)
{
    PNhAdapter adapter = NULL;
    {
        NhLock lock;
        for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
            PNhAdapter candidate = CONTAINING_RECORD(link, NhAdapter, m_Link);
            if (&candidate->m_Filter == Adapter)
                adapter = candidate;
        }
        if (adapter == NULL || (Sink != NULL && !adapter->m_bOpen))
            return NDIS_STATUS_ADAPTER_NOT_FOUND;
        if (Sink != NULL)
            adapter->m_pDeliveryContext = Context;
        InterlockedExchangePointer((PVOID volatile *)&adapter->m_pfDeliverySink, (PVOID)Sink);
    }
    if (Sink != NULL)
        return STATUS_SUCCESS;
    for (;;) {
        LONG running = 0;
        for (ULONG i = 0; i < NH_MAX_PROCESSORS; i++)
            running += InterlockedCompareExchange(&adapter->m_PerProcessor[i].m_nSinkCalls, 0, 0);
        if (running == 0)
            return STATUS_SUCCESS;
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

/* NhDeliveredCount - frames recorded for an open adapter in one direction. */
ULONG NhDeliveredCount(PFilterAdapter Adapter, ULONG Index)
{
    NhLock lock;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    return adapter != NULL ? adapter->m_nDelivered[Index] : 0;
}

/*
 * NhGetDelivered - copies the recorded frame at Position (0 = oldest); with
 * Remove, also forgets it once copied (Position 0 for the oldest).
 */
NTSTATUS NhGetDelivered(PFilterAdapter Adapter, ULONG Index, ULONG Position, PVOID Buffer,
                        ULONG BufferSize, PULONG Length, BOOLEAN Remove)
{
    PNhDelivery delivery;
    {
        NhLock lock;
        PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
        if (adapter == NULL)
            return NDIS_STATUS_ADAPTER_NOT_FOUND;
        PLIST_ENTRY head = &adapter->m_Delivered[Index];
        PLIST_ENTRY link = head->Flink;
        for (ULONG i = 0; i < Position && link != head; i++)
            link = link->Flink;
        if (link == head)
            return STATUS_NOT_FOUND;
        delivery = CONTAINING_RECORD(link, NhDelivery, m_Link);
        *Length = delivery->m_nLength;
        if (delivery->m_nLength > BufferSize)
            return STATUS_BUFFER_TOO_SMALL;
        if (delivery->m_nLength != 0)
            RtlCopyMemory(Buffer, delivery->m_Frame, delivery->m_nLength);
        if (!Remove)
            return STATUS_SUCCESS;
        RemoveEntryList(link);
        adapter->m_nDelivered[Index]--;
    }
    ExFreePoolWithTag(delivery, NH_DELIVERY_TAG);
    return STATUS_SUCCESS;
}

/* NhClearDelivered - forgets the recorded frames of an open adapter. */
VOID NhClearDelivered(PFilterAdapter Adapter)
{
    NhLock lock;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    if (adapter != NULL)
        FreeDeliveries(adapter);
}

