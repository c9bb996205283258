/*
 * flow-table.h - the flow tracker's table: one reference-counted record per
 * flow in a framework hash table, found by the flow's key.
 */
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-flow-tracker.h"
#include "example-packet.h"

namespace flows {

/* A flow named from the host's side. Addresses in network order, ports in host order. */
struct FlowKey {
    ULONG HostAddress;
    ULONG PeerAddress;
    USHORT HostPort;
    USHORT PeerPort;
    UCHAR Protocol;
};

/* The key of a packet's flow; `Chain` tells which side is the host. */
FlowKey KeyOf(const EXAMPLE_IP_FIELDS &Fields, ULONG Chain);

struct Counters {
    volatile LONG Created;
    volatile LONG Aged;
    volatile LONG Untracked;
};

class FlowTable {
public:
    /* FALSE when the framework cannot make the table. */
    BOOLEAN Create();
    /* Removes every flow; the table goes with the last reference. */
    VOID Destroy();

    /* Counts one packet of `Bytes` bytes in `Chain`, creating its flow if need be. IRQL <= DISPATCH_LEVEL. */
    VOID Account(const FlowKey &Key, ULONG Chain, ULONG Bytes);
    /* Whether the flow of `Key` exists and the host opened it. IRQL <= DISPATCH_LEVEL. */
    BOOLEAN OpenedByHost(const FlowKey &Key);
    /* Removes flows idle for more than IdleSeconds. IRQL <= DISPATCH_LEVEL. */
    VOID Age(ULONG IdleSeconds);
    /* Copies up to `Room` flows into `Flows`; returns how many. IRQL <= DISPATCH_LEVEL. */
    ULONG List(PEXAMPLE_FLOW Flows, ULONG Room);
    ULONG Count() const { return m_table != NULL ? Filter_GetHashItemCount(m_table) : 0; }

    Counters Stats;

private:
    PHashTable m_table;
};

} // namespace flows
