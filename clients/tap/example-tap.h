/*
 * example-tap.h - the example tap driver's settings and counters.
 *
 * The tap copies every IPv4 packet with a matching TCP or UDP port (either
 * side) to the user program with Filter_IndicatePacketToApplication and lets
 * it pass, in the incoming and the outgoing chain. The indication carries
 * the matched port as its code and the tap's running number of indications
 * (1, 2, ...) as its value. The ports are the REG_SZ value "Ports" of the
 * driver's service key, numbers separated by spaces or commas (at most
 * EXAMPLE_TAP_MAX_PORTS; default "53", DNS). A bad list fails the load.
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_TAP_H
#define EXAMPLE_TAP_H

#include "example-export.h"

#define EXAMPLE_TAP_SERVICE_NAME "ExampleTap"
#define EXAMPLE_TAP_PORTS_VALUE "Ports"
#define EXAMPLE_TAP_DEFAULT_PORTS "53"
#define EXAMPLE_TAP_MAX_PORTS 8

typedef struct _EXAMPLE_TAP_COUNTERS {
    ULONG PortCount;
    USHORT Ports[EXAMPLE_TAP_MAX_PORTS];
    ULONG Inspected[EXAMPLE_CHAIN_COUNT]; /* packets that reached the tap, per chain */
    ULONG Indicated[EXAMPLE_CHAIN_COUNT]; /* copies handed to the user program */
    ULONG Incomplete[EXAMPLE_CHAIN_COUNT]; /* matches whose whole frame could not be read (not indicated) */
} EXAMPLE_TAP_COUNTERS, *PEXAMPLE_TAP_COUNTERS;

/* Exported by the image: a snapshot of the counters. Any IRQL. */
#define EXAMPLE_TAP_GET_COUNTERS "ExampleTap_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_TAP_GET_COUNTERS)(PEXAMPLE_TAP_COUNTERS Counters);

#endif /* EXAMPLE_TAP_H */
