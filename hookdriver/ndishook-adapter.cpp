/*
 * ndishook-adapter.cpp - adapters: opening, closing and media state (each
 * reported to the framework while bound), the adapter table the framework
 * asks for, and the frames delivered on each adapter.
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
        if (RtlEqualMemory(adapter->m_Filter.m_CurrentAddress, Key, 6))
            return adapter;
    }
    return NULL;
}

/* Frees every recorded delivery of one direction. */
VOID FreeDeliveries(PLIST_ENTRY Head)
{
    while (!IsListEmpty(Head)) {
        PNhDelivery delivery = CONTAINING_RECORD(RemoveHeadList(Head), NhDelivery, m_Link);
        ExFreePoolWithTag(delivery, NH_DELIVERY_TAG);
    }
}

/* Takes an adapter out of the open list, reports the close and drops the list's reference. */
VOID Close(PNhAdapter Adapter)
{
    {
        NhFrameworkCall call;
        if (call.Api() != NULL && call.Api()->Filter_AdapterClosed != NULL)
            call.Api()->Filter_AdapterClosed(&Adapter->m_Filter);
    }
    NhDereferenceAdapter(Adapter);
}

} // namespace

/* NhReferenceAdapter / NhDereferenceAdapter - the record lives until the last reference. */
VOID NhReferenceAdapter(PNhAdapter Adapter)
{
    InterlockedIncrement(&Adapter->m_nReferences);
}

VOID NhDereferenceAdapter(PNhAdapter Adapter)
{
    if (InterlockedDecrement(&Adapter->m_nReferences) != 0)
        return;
    FreeDeliveries(&Adapter->m_Delivered[NH_TO_PROTOCOL]);
    FreeDeliveries(&Adapter->m_Delivered[NH_TO_ADAPTER]);
    Adapter->m_Magic = 0;
    ExFreePoolWithTag(Adapter, NH_ADAPTER_TAG);
}

/* NhFindOpenAdapterLocked - the open adapter at this handle; the caller holds the lock. */
PNhAdapter NhFindOpenAdapterLocked(PFilterAdapter Adapter)
{
    for (PLIST_ENTRY link = g_Hook.m_Adapters.Flink; link != &g_Hook.m_Adapters; link = link->Flink) {
        PNhAdapter adapter = CONTAINING_RECORD(link, NhAdapter, m_Link);
        if (&adapter->m_Filter == Adapter)
            return adapter;
    }
    return NULL;
}

/* NhReferenceOpenAdapter - the open adapter at this handle with a reference, or NULL. */
PNhAdapter NhReferenceOpenAdapter(PFilterAdapter Adapter)
{
    NhLock lock;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    if (adapter != NULL)
        NhReferenceAdapter(adapter);
    return adapter;
}

/*
 * NhOpenAdapter - a new open adapter, reported through Filter_AdapterOpened
 * when bound (the framework then finds it in the adapter table). NULL when
 * there is no memory. IRQL == PASSIVE_LEVEL.
 */
PNhAdapter NhOpenAdapter(const NhAdapterSetup *Setup)
{
    if (!g_Hook.m_bLoaded)
        return NULL;
    PNhAdapter adapter = (PNhAdapter)ExAllocatePoolWithTag(NonPagedPool, sizeof(NhAdapter), NH_ADAPTER_TAG);
    if (adapter == NULL)
        return NULL;
    RtlZeroMemory(adapter, sizeof(*adapter));
    FilterAdapter *filter = &adapter->m_Filter;
    RtlCopyMemory(filter->m_CurrentAddress, Setup->m_CurrentAddress, 6);
    RtlCopyMemory(filter->m_PermanentAddress, Setup->m_PermanentAddress, 6);
    filter->m_usMTU = Setup->m_usMTU;
    filter->m_nAdapterMedium = Setup->m_nMedium;
    filter->m_nAdapterMediaState = Setup->m_bConnected ? NdisMediaStateConnected : NdisMediaStateDisconnected;
    filter->m_bNdisWanAdapter = Setup->m_bNdisWan;

    ULONG chars = 0;
    while (Setup->m_pszDeviceName != NULL && Setup->m_pszDeviceName[chars] != 0 &&
           chars + 1 < NH_ADAPTER_NAME_CHARS) {
        adapter->m_wszDeviceName[chars] = Setup->m_pszDeviceName[chars];
        chars++;
    }
    adapter->m_wszDeviceName[chars] = 0;
    filter->m_AdapterName.Buffer = adapter->m_wszDeviceName;
    filter->m_AdapterName.Length = (USHORT)(chars * sizeof(WCHAR));
    filter->m_AdapterName.MaximumLength = (USHORT)sizeof(adapter->m_wszDeviceName);

    adapter->m_Magic = NH_ADAPTER_MAGIC;
    adapter->m_nReferences = 1; /* the open list's */
    adapter->m_bOpen = TRUE;
    adapter->m_nLinkSpeed = Setup->m_nLinkSpeed != 0 ? Setup->m_nLinkSpeed : NH_DEFAULT_LINK_SPEED;
    CopyName(adapter->m_szName, sizeof(adapter->m_szName), Setup->m_pszName);
    InitializeListHead(&adapter->m_Delivered[NH_TO_PROTOCOL]);
    InitializeListHead(&adapter->m_Delivered[NH_TO_ADAPTER]);
    {
        NhLock lock;
        InsertTailList(&g_Hook.m_Adapters, &adapter->m_Link);
    }

    NhFrameworkCall call;
    if (call.Api() != NULL && call.Api()->Filter_AdapterOpened != NULL)
        call.Api()->Filter_AdapterOpened(filter);
    return adapter;
}

/*
 * NhCloseAdapter - takes an open adapter out of the table, then reports the
 * close; the record (and its deliveries) goes once no packet for it is out.
 * IRQL == PASSIVE_LEVEL.
 */
NTSTATUS NhCloseAdapter(PFilterAdapter Adapter)
{
    PNhAdapter adapter;
    {
        NhLock lock;
        adapter = NhFindOpenAdapterLocked(Adapter);
        if (adapter == NULL)
            return STATUS_NOT_FOUND;
        RemoveEntryList(&adapter->m_Link);
        adapter->m_bOpen = FALSE;
    }
    Close(adapter);
    return STATUS_SUCCESS;
}

/* NhCloseAllAdapters - closes every open adapter, oldest first (at unload). */
VOID NhCloseAllAdapters(VOID)
{
    for (;;) {
        PNhAdapter adapter;
        {
            NhLock lock;
            if (IsListEmpty(&g_Hook.m_Adapters))
                return;
            adapter = CONTAINING_RECORD(RemoveHeadList(&g_Hook.m_Adapters), NhAdapter, m_Link);
            adapter->m_bOpen = FALSE;
        }
        Close(adapter);
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
    PNhAdapter adapter;
    {
        NhLock lock;
        adapter = NhFindOpenAdapterLocked(Adapter);
        if (adapter == NULL)
            return NDIS_STATUS_ADAPTER_NOT_FOUND;
        if (adapter->m_Filter.m_nAdapterMediaState == State)
            return STATUS_SUCCESS;
        adapter->m_Filter.m_nAdapterMediaState = State;
        NhReferenceAdapter(adapter);
    }
    {
        NhFrameworkCall call;
        if (call.Api() != NULL && call.Api()->Filter_AdapterStatusChanged != NULL) {
            KIRQL irql;
            KeRaiseIrql(DISPATCH_LEVEL, &irql);
            call.Api()->Filter_AdapterStatusChanged(Adapter, State == NdisMediaStateConnected
                                                                 ? NDIS_STATUS_MEDIA_CONNECT
                                                                 : NDIS_STATUS_MEDIA_DISCONNECT);
            KeLowerIrql(irql);
        }
    }
    NhDereferenceAdapter(adapter);
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

/* NhRecordDelivery - keeps a copy of a frame passed on by the adapter. IRQL <= DISPATCH_LEVEL. */
VOID NhRecordDelivery(PNhAdapter Adapter, ULONG Index, const UCHAR *Frame, ULONG Length)
{
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

/* NhDeliveredCount - frames recorded for an open adapter in one direction. */
ULONG NhDeliveredCount(PFilterAdapter Adapter, ULONG Index)
{
    NhLock lock;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    return adapter != NULL ? adapter->m_nDelivered[Index] : 0;
}

/* NhGetDelivered - copies the recorded frame at Position (0 = oldest). */
NTSTATUS NhGetDelivered(PFilterAdapter Adapter, ULONG Index, ULONG Position, PVOID Buffer,
                        ULONG BufferSize, PULONG Length)
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
    PNhDelivery delivery = CONTAINING_RECORD(link, NhDelivery, m_Link);
    *Length = delivery->m_nLength;
    if (delivery->m_nLength > BufferSize)
        return STATUS_BUFFER_TOO_SMALL;
    if (delivery->m_nLength != 0)
        RtlCopyMemory(Buffer, delivery->m_Frame, delivery->m_nLength);
    return STATUS_SUCCESS;
}

/* NhClearDelivered - forgets the recorded frames of an open adapter. */
VOID NhClearDelivered(PFilterAdapter Adapter)
{
    NhLock lock;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    if (adapter == NULL)
        return;
    FreeDeliveries(&adapter->m_Delivered[NH_TO_PROTOCOL]);
    FreeDeliveries(&adapter->m_Delivered[NH_TO_ADAPTER]);
    adapter->m_nDelivered[NH_TO_PROTOCOL] = 0;
    adapter->m_nDelivered[NH_TO_ADAPTER] = 0;
}
