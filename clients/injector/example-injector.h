/*
 * example-injector.h - the example injector driver's settings and counters.
 *
 * The injector consumes every IPv4 packet of one IP protocol in the incoming
 * and the outgoing chain and hands it straight back with
 * Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER), so
 * the framework's injected-packet queue and its worker carry it on through
 * the rest of the chain. The protocol is the REG_DWORD value "Protocol" of
 * the driver's service key (default 1, ICMP; fragments included).
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_INJECTOR_H
#define EXAMPLE_INJECTOR_H

#include "example-export.h"

#define EXAMPLE_INJECTOR_SERVICE_NAME "ExampleInjector"
#define EXAMPLE_INJECTOR_PROTOCOL_VALUE "Protocol"
#define EXAMPLE_INJECTOR_DEFAULT_PROTOCOL 1

typedef struct _EXAMPLE_INJECTOR_COUNTERS {
    ULONG Protocol;
    ULONG Inspected[EXAMPLE_CHAIN_COUNT];    /* packets that reached the injector, per chain */
    ULONG Consumed[EXAMPLE_CHAIN_COUNT];     /* taken out of the chain */
    ULONG Reinjected[EXAMPLE_CHAIN_COUNT];   /* handed back successfully */
    ULONG InjectFailed[EXAMPLE_CHAIN_COUNT]; /* handed back, refused (the framework freed them) */
} EXAMPLE_INJECTOR_COUNTERS, *PEXAMPLE_INJECTOR_COUNTERS;

/* Exported by the image: a snapshot of the counters. Any IRQL. */
#define EXAMPLE_INJECTOR_GET_COUNTERS "ExampleInjector_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_INJECTOR_GET_COUNTERS)(PEXAMPLE_INJECTOR_COUNTERS Counters);

#endif /* EXAMPLE_INJECTOR_H */
