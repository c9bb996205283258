/*
 * example-collector.h - the example collector driver's settings, record
 * format and counters.
 *
 * The collector copies the start of every frame its filters see (incoming and
 * outgoing chains) to a collector program over the network, with the kernel
 * sockets of ksocket.h: one record per frame as a UDP datagram, and the same
 * records back to back over one TCP connection. Frames to or from the
 * collector's own address and port are left out. It also answers every
 * datagram that reaches its own UDP port with a line of its counters.
 *
 * Settings (the driver's service key):
 *   "CollectorAddress"  REG_SZ, dotted IPv4 address of the collector (required)
 *   "CollectorPort"     REG_DWORD, the collector's UDP and TCP port (default 5140)
 *   "UseTcp"            REG_DWORD, 0 to send over UDP only (default 1)
 *   "AnswerPort"        REG_DWORD, the driver's own UDP port (default 0: any)
 * A missing address, a bad setting, or a collector whose TCP port refuses the
 * connection fail the load.
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_COLLECTOR_H
#define EXAMPLE_COLLECTOR_H

#include "example-export.h"

#define EXAMPLE_COLLECTOR_SERVICE_NAME "ExampleCollector"
#define EXAMPLE_COLLECTOR_ADDRESS_VALUE "CollectorAddress"
#define EXAMPLE_COLLECTOR_PORT_VALUE "CollectorPort"
#define EXAMPLE_COLLECTOR_TCP_VALUE "UseTcp"
#define EXAMPLE_COLLECTOR_ANSWER_PORT_VALUE "AnswerPort"
#define EXAMPLE_COLLECTOR_DEFAULT_PORT 5140

/* Bytes of a frame a record carries at most. */
#define EXAMPLE_COLLECTOR_SNAP_LENGTH 128
/* Records on their way per transport; more are dropped (counted). */
#define EXAMPLE_COLLECTOR_MAX_IN_FLIGHT 256

/* One record: this header, then CapturedLength bytes of the frame. Numbers in network order. */
typedef struct _EXAMPLE_COLLECTOR_RECORD {
    USHORT CapturedLength;
    USHORT FrameLength;  /* the whole frame's length (at most 65535) */
    UCHAR Chain;         /* EXAMPLE_CHAIN_INCOMING or EXAMPLE_CHAIN_OUTGOING */
    UCHAR Version;       /* 1 */
    USHORT Reserved;
} EXAMPLE_COLLECTOR_RECORD;

typedef struct _EXAMPLE_COLLECTOR_COUNTERS {
    ULONG Captured;     /* frames the filters saw and sent records for */
    ULONG SentUdp;      /* datagrams the transport took */
    ULONG SentTcp;      /* records the transport took on the connection */
    ULONG Dropped;      /* records left out: too many on their way, or no memory */
    ULONG Failed;       /* sends the transport failed */
    ULONG Answered;     /* datagrams answered on the driver's own port */
    ULONG TcpConnected; /* 1 while the connection is up */
    USHORT AnswerPort;  /* the driver's own UDP port (host order) */
} EXAMPLE_COLLECTOR_COUNTERS, *PEXAMPLE_COLLECTOR_COUNTERS;

/* Exported by the image: a snapshot of the counters. Any IRQL. */
#define EXAMPLE_COLLECTOR_GET_COUNTERS "ExampleCollector_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_COLLECTOR_GET_COUNTERS)(PEXAMPLE_COLLECTOR_COUNTERS Counters);

#endif /* EXAMPLE_COLLECTOR_H */
