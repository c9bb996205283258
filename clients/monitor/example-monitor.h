/*
 * example-monitor.h - the example adapter monitor's view of the adapters.
 *
 * The monitor takes one adapter context slot and keeps, for every adapter it
 * sees, a record of its own there. Its adapter event handler counts each
 * event in that record and reports it to the event queue as a readable text
 * (value 1 the event code, value 2 the adapter identifier). When an adapter
 * opens it asks the adapter, through NDIS requests, for its link speed,
 * maximum frame size (the MTU) and frame counters, and for the counters again
 * whenever its medium connects; the answers arrive in the requests'
 * completion routines, some at once and some later.
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_MONITOR_H
#define EXAMPLE_MONITOR_H

#include "example-export.h"

#define EXAMPLE_MONITOR_SERVICE_NAME "ExampleMonitor"
#define EXAMPLE_MONITOR_MAX_ADAPTERS 32

/* The NDIS requests made when an adapter opens, as indexes of the answers below. */
#define EXAMPLE_MONITOR_LINK_SPEED 0 /* OID_GEN_LINK_SPEED, units of 100 bit/s */
#define EXAMPLE_MONITOR_MTU 1        /* OID_GEN_MAXIMUM_FRAME_SIZE */
#define EXAMPLE_MONITOR_XMIT_OK 2    /* OID_GEN_XMIT_OK */
#define EXAMPLE_MONITOR_RCV_OK 3     /* OID_GEN_RCV_OK */
#define EXAMPLE_MONITOR_QUERIES 4

typedef struct _EXAMPLE_MONITOR_ADAPTER {
    ULONG Id; /* the framework's adapter identifier */
    UCHAR Mac[6];
    ULONG Events[5]; /* by FILTER_EVENT_* code */
    ULONG64 Answers[EXAMPLE_MONITOR_QUERIES];
    ULONG Answered;  /* requests that completed with success */
    ULONG Pended;    /* requests that completed after Filter_MakeNdisRequest returned */
    ULONG Failed;    /* requests that completed with a failure, or could not be made */
} EXAMPLE_MONITOR_ADAPTER;

typedef struct _EXAMPLE_MONITOR_COUNTERS {
    ULONG Slot;      /* the adapter context slot it holds */
    ULONG Reported;  /* events put into the event queue */
    ULONG AdapterCount;
    EXAMPLE_MONITOR_ADAPTER Adapters[EXAMPLE_MONITOR_MAX_ADAPTERS];
} EXAMPLE_MONITOR_COUNTERS, *PEXAMPLE_MONITOR_COUNTERS;

/* Exported by the image: a snapshot of what it saw. Any IRQL. */
#define EXAMPLE_MONITOR_GET_COUNTERS "ExampleMonitor_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_MONITOR_GET_COUNTERS)(PEXAMPLE_MONITOR_COUNTERS Counters);

#endif /* EXAMPLE_MONITOR_H */
