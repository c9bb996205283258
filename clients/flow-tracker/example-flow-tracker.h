/*
 * example-flow-tracker.h - the example flow tracker driver's settings, its
 * named interface, its control request and its counters.
 *
 * The tracker keeps one record per IPv4 flow it sees in the incoming and
 * outgoing chains, named from the host's side: the host's address and port,
 * the peer's, the protocol. A flow whose first packet was sent by the host
 * was opened by the host. A repeating timer removes flows idle for longer
 * than the setting "IdleSeconds" (DWORD, default 60) every "AgingPeriodMs"
 * (DWORD, default 1000) milliseconds. At most EXAMPLE_FLOW_TRACKER_MAX_FLOWS
 * flows are kept; packets of flows beyond that are counted as untracked.
 *
 * Other client drivers query the interface EXAMPLE_FLOW_TRACKER_INTERFACE
 * (EXAMPLE_FLOW_INTERFACE) and must release it when told the interface is
 * being deregistered. The user program lists the flows through the control
 * device with IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS.
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_FLOW_TRACKER_H
#define EXAMPLE_FLOW_TRACKER_H

#include "example-export.h"

#define EXAMPLE_FLOW_TRACKER_SERVICE_NAME "ExampleFlowTracker"
#define EXAMPLE_FLOW_TRACKER_IDLE_VALUE "IdleSeconds"
#define EXAMPLE_FLOW_TRACKER_PERIOD_VALUE "AgingPeriodMs"
#define EXAMPLE_FLOW_TRACKER_DEFAULT_IDLE 60
#define EXAMPLE_FLOW_TRACKER_DEFAULT_PERIOD 1000
#define EXAMPLE_FLOW_TRACKER_MAX_FLOWS 4096

/* Device type 0x8000, function 0x920, buffered, any access. */
#define IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS 0x80002480

#define EXAMPLE_FLOW_IN 0  /* packets and bytes the host received */
#define EXAMPLE_FLOW_OUT 1 /* packets and bytes the host sent */

/* One flow as the control request lists it. Addresses in network order, ports in host order. */
typedef struct _EXAMPLE_FLOW {
    ULONG HostAddress;
    ULONG PeerAddress;
    USHORT HostPort;
    USHORT PeerPort;
    UCHAR Protocol;
    UCHAR OpenedByHost;
    USHORT Reserved;
    ULONG LastSeen; /* seconds since 1601 */
    ULONG64 Packets[2];
    ULONG64 Bytes[2];
} EXAMPLE_FLOW, *PEXAMPLE_FLOW;

/* The reply: the number of flows in the table, then as many as fit in the output. */
typedef struct _EXAMPLE_FLOW_LIST {
    ULONG FlowCount;
    ULONG Listed;
    EXAMPLE_FLOW Flows[1];
} EXAMPLE_FLOW_LIST, *PEXAMPLE_FLOW_LIST;

#define EXAMPLE_FLOW_LIST_HEADER 8

/* ---- the named interface (driver code only) ---- */

#define EXAMPLE_FLOW_TRACKER_INTERFACE "ExampleFlowTable"
#define EXAMPLE_FLOW_INTERFACE_VERSION 1

/*
 * TRUE when an incoming packet from Source:SourcePort to Destination:DestinationPort
 * (addresses in network order, ports in host order) belongs to a flow the
 * host opened. IRQL <= DISPATCH_LEVEL.
 */
typedef BOOLEAN (NTAPI *PEXAMPLE_FLOW_IS_REPLY)(UCHAR Protocol, ULONG Source, USHORT SourcePort, ULONG Destination,
                                                USHORT DestinationPort);

typedef struct _EXAMPLE_FLOW_INTERFACE {
    USHORT Length; /* sizeof(EXAMPLE_FLOW_INTERFACE) */
    USHORT Version;
    PEXAMPLE_FLOW_IS_REPLY IsReply;
} EXAMPLE_FLOW_INTERFACE, *PEXAMPLE_FLOW_INTERFACE;

/* ---- counters, read through the image's export ---- */

typedef struct _EXAMPLE_FLOW_TRACKER_COUNTERS {
    ULONG Inspected[EXAMPLE_CHAIN_COUNT];
    ULONG Flows;     /* in the table now */
    ULONG Created;
    ULONG Aged;      /* removed by the aging timer */
    ULONG Untracked; /* packets of flows beyond the limit */
    ULONG AgingRuns;
    ULONG Listings;  /* control requests answered */
} EXAMPLE_FLOW_TRACKER_COUNTERS, *PEXAMPLE_FLOW_TRACKER_COUNTERS;

#define EXAMPLE_FLOW_TRACKER_GET_COUNTERS "ExampleFlowTracker_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_FLOW_TRACKER_GET_COUNTERS)(PEXAMPLE_FLOW_TRACKER_COUNTERS Counters);

#endif /* EXAMPLE_FLOW_TRACKER_H */
