/*
 * flow-table.cpp - the flow tracker's records in a framework hash table.
 *
 * The packet path finds a flow with the shared lock of the table; only a
 * flow's first packet takes the table alone to insert it (looking again
 * first, so two processors never insert one flow twice). Counters of a
 * flow are updated with interlocked operations.
 */
#include "flow-table.h"

namespace flows {

namespace {

const ULONG TableSize = 256;
const ULONG FlowPoolTag = 0x776C4645; /* "EFlw" */

struct Flow {
    HashItem Item; /* first: the table links it */
    FlowKey Key;
    BOOLEAN OpenedByHost;
    volatile LONG LastSeen;
    volatile LONG64 Packets[2];
    volatile LONG64 Bytes[2];
};

ULONG HashOf(const FlowKey &Key)
{
    ULONG hash = Key.HostAddress * 2654435761u;
    hash ^= Key.PeerAddress + 0x9E3779B9u + (hash << 6) + (hash >> 2);
    hash ^= ((ULONG)Key.HostPort << 16 | Key.PeerPort) + 0x9E3779B9u + (hash << 6) + (hash >> 2);
    return hash ^ Key.Protocol;
}

BOOLEAN SameKey(const FlowKey &A, const FlowKey &B)
{
    return A.HostAddress == B.HostAddress && A.PeerAddress == B.PeerAddress && A.HostPort == B.HostPort &&
           A.PeerPort == B.PeerPort && A.Protocol == B.Protocol;
}

BOOLEAN NTAPI CompareFlow(PHashItem Item, PVOID Key)
{
    return SameKey(CONTAINING_RECORD(Item, Flow, Item)->Key, *(const FlowKey *)Key);
}

LONG Now()
{
    return (LONG)Filter_GetSystemTime();
}

struct AgeContext {
    FlowTable *Table;
    LONG Oldest; /* flows last seen before this go */
};

/* Runs inside the enumeration: the plain delete does not take the lock it holds. */
BOOLEAN NTAPI AgeFlow(PVOID Context, PHashItem Item)
{
    AgeContext *age = (AgeContext *)Context;
    if (CONTAINING_RECORD(Item, Flow, Item)->LastSeen < age->Oldest) {
        Filter_DeleteHashItem(Item); /* uses up the enumeration's reference */
        InterlockedIncrement(&age->Table->Stats.Aged);
    }
    return TRUE;
}

struct ListContext {
    PEXAMPLE_FLOW Flows;
    ULONG Room;
    ULONG Listed;
};

BOOLEAN NTAPI ListFlow(PVOID Context, PHashItem Item)
{
    ListContext *list = (ListContext *)Context;
    if (list->Listed == list->Room)
        return FALSE;
    const Flow *flow = CONTAINING_RECORD(Item, Flow, Item);
    EXAMPLE_FLOW *out = &list->Flows[list->Listed++];
    RtlZeroMemory(out, sizeof(*out));
    out->HostAddress = flow->Key.HostAddress;
    out->PeerAddress = flow->Key.PeerAddress;
    out->HostPort = flow->Key.HostPort;
    out->PeerPort = flow->Key.PeerPort;
    out->Protocol = flow->Key.Protocol;
    out->OpenedByHost = flow->OpenedByHost;
    out->LastSeen = (ULONG)flow->LastSeen;
    for (int side = 0; side < 2; side++) {
        out->Packets[side] = (ULONG64)flow->Packets[side];
        out->Bytes[side] = (ULONG64)flow->Bytes[side];
    }
    return TRUE;
}

VOID CountPacket(Flow *F, ULONG Chain, ULONG Bytes)
{
    InterlockedIncrement64(&F->Packets[Chain]);
    InterlockedAdd64(&F->Bytes[Chain], Bytes);
    InterlockedExchange(&F->LastSeen, Now());
}

} // namespace

FlowKey KeyOf(const EXAMPLE_IP_FIELDS &Fields, ULONG Chain)
{
    FlowKey key;
    RtlZeroMemory(&key, sizeof(key));
    BOOLEAN hostSent = Chain == EXAMPLE_CHAIN_OUTGOING;
    key.HostAddress = hostSent ? Fields.Source : Fields.Destination;
    key.PeerAddress = hostSent ? Fields.Destination : Fields.Source;
    key.HostPort = hostSent ? Fields.SourcePort : Fields.DestinationPort;
    key.PeerPort = hostSent ? Fields.DestinationPort : Fields.SourcePort;
    key.Protocol = Fields.Protocol;
    return key;
}

BOOLEAN FlowTable::Create()
{
    RtlZeroMemory(&Stats, sizeof(Stats));
    /* No free routine: the flows come from Filter_AllocateMemory, which the table frees them with. */
    m_table = Filter_CreateHashTable("flow", TableSize, NULL, CompareFlow);
    return m_table != NULL;
}

VOID FlowTable::Destroy()
{
    if (m_table != NULL)
        Filter_DestroyHashTable(m_table);
    m_table = NULL;
}

VOID FlowTable::Account(const FlowKey &Key, ULONG Chain, ULONG Bytes)
{
    ULONG hash = HashOf(Key);
    PHashItem item = Filter_FindHashItem(m_table, hash, (PVOID)&Key);
    if (item == NULL) {
        LOCK_STATE state;
        Filter_LockHashTable(m_table, &state);
        item = Filter_FindHashItemEx(m_table, hash, (PVOID)&Key);
        if (item == NULL && Filter_GetHashItemCount(m_table) < EXAMPLE_FLOW_TRACKER_MAX_FLOWS) {
            Flow *flow = (Flow *)Filter_AllocateMemory(sizeof(Flow), FlowPoolTag);
            if (flow != NULL) {
                RtlZeroMemory(flow, sizeof(*flow));
                flow->Key = Key;
                flow->OpenedByHost = Chain == EXAMPLE_CHAIN_OUTGOING;
                flow->Item.m_HashValue = hash;
                item = Filter_InsertHashItemEx(m_table, &flow->Item);
                InterlockedIncrement(&Stats.Created);
            }
        }
        Filter_UnLockHashTable(m_table, &state);
    }
    if (item == NULL) {
        InterlockedIncrement(&Stats.Untracked);
        return;
    }
    CountPacket(CONTAINING_RECORD(item, Flow, Item), Chain, Bytes);
    Filter_ReleaseHashItem(item);
}

BOOLEAN FlowTable::OpenedByHost(const FlowKey &Key)
{
    PHashItem item = Filter_FindHashItem(m_table, HashOf(Key), (PVOID)&Key);
    if (item == NULL)
        return FALSE;
    BOOLEAN opened = CONTAINING_RECORD(item, Flow, Item)->OpenedByHost;
    Filter_ReleaseHashItem(item);
    return opened;
}

VOID FlowTable::Age(ULONG IdleSeconds)
{
    AgeContext age = {this, Now() - (LONG)IdleSeconds};
    Filter_EnumHashTable(m_table, AgeFlow, &age);
}

ULONG FlowTable::List(PEXAMPLE_FLOW Flows, ULONG Room)
{
    ListContext list = {Flows, Room, 0};
    Filter_EnumHashTable(m_table, ListFlow, &list);
    return list.Listed;
}

} // namespace flows
