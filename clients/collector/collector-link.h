/*
 * collector-link.h - the collector driver's network side: one UDP address
 * (records out, answers in) and one TCP connection to the collector.
 * Driver code (after <ntddk.h>, <ndis.h>, <tdikrnl.h>, <ksocket.h>).
 */
#pragma once

#include "example-collector.h"

struct CollectorLink {
    ULONG Address;      /* network order */
    USHORT Port;        /* network order */
    USHORT AnswerPort;  /* network order; 0: any */
    BOOLEAN UseTcp;

    KS_ADDRESS Udp;
    KS_ADDRESS Tcp;
    KS_ENDPOINT Connection;
    BOOLEAN UdpOpen, TcpOpen, ConnectionOpen;
    volatile LONG TcpUp;
    volatile LONG Stopping;
    volatile LONG InFlight[2];   /* 0 UDP, 1 TCP */
    volatile LONG InHandlers;    /* event handlers running */
    TA_IP_ADDRESS Collector;

    volatile LONG SentUdp, SentTcp, Dropped, Failed, Answered;
};

/* Opens the addresses and the connection. IRQL = PASSIVE_LEVEL. */
NTSTATUS CollectorLinkOpen(CollectorLink *Link);
/* Sends one record over UDP and, when connected, over TCP. IRQL <= DISPATCH_LEVEL. */
VOID CollectorLinkSend(CollectorLink *Link, const EXAMPLE_COLLECTOR_RECORD *Header, const UCHAR *Data,
                       ULONG Length);
/* Stops answering, waits for what is on its way, closes everything. IRQL = PASSIVE_LEVEL. */
VOID CollectorLinkClose(CollectorLink *Link);
/* The counters the link keeps; Captured is filled by the caller. */
VOID CollectorLinkCounters(CollectorLink *Link, PEXAMPLE_COLLECTOR_COUNTERS Counters);
