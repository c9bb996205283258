/*
 * example-firewall.h - the example firewall driver's settings and counters.
 *
 * Rules come from the REG_SZ value "Rules" of the driver's service key,
 * read once at load. Rules are separated by ';'; each is a list of terms
 * that must all hold (case does not matter, ',' counts as a space):
 *
 *   in | out                  only in the incoming / outgoing chain (default: both)
 *   tcp | udp | icmp          the IP protocol; or: proto <0..255>
 *   [src|dst] port <0..65535> a TCP or UDP port (either side without src/dst)
 *   [src|dst] host <a.b.c.d>  an IPv4 address (either side without src/dst)
 *   unsolicited               only incoming packets that are not replies to a
 *                             flow the host opened, as the flow tracker's
 *                             interface tells (all of them while it is not loaded)
 *
 * Example: "udp dst port 9999; in icmp src host 10.0.0.2; tcp unsolicited". Only IPv4 packets
 * are discarded; a port term never matches a fragment without the transport
 * header. The first rule that matches discards the packet and counts it.
 * Without the value the default rule set EXAMPLE_FIREWALL_DEFAULT_RULES
 * applies; an empty value means no rules. A rule that cannot be parsed, or
 * more than EXAMPLE_FIREWALL_MAX_RULES rules, fail the driver's load.
 *
 * Basic Windows types only. Valid C11 and C++.
 */
#ifndef EXAMPLE_FIREWALL_H
#define EXAMPLE_FIREWALL_H

#include "example-export.h"

#define EXAMPLE_FIREWALL_SERVICE_NAME "ExampleFirewall"
#define EXAMPLE_FIREWALL_RULES_VALUE "Rules"
#define EXAMPLE_FIREWALL_DEFAULT_RULES "udp dst port 9999"

#define EXAMPLE_FIREWALL_MAX_RULES 16
#define EXAMPLE_FIREWALL_RULE_TEXT 64

typedef struct _EXAMPLE_FIREWALL_RULE_COUNTERS {
    CHAR Text[EXAMPLE_FIREWALL_RULE_TEXT]; /* the rule as written, cut to fit, zero-terminated */
    ULONG Matches[EXAMPLE_CHAIN_COUNT];    /* packets it discarded, per chain */
} EXAMPLE_FIREWALL_RULE_COUNTERS;

typedef struct _EXAMPLE_FIREWALL_COUNTERS {
    ULONG RuleCount;
    ULONG FlowInterface; /* 1 while it holds the flow tracker's interface */
    ULONG Replies;       /* packets the flow tracker called replies */
    ULONG Inspected[EXAMPLE_CHAIN_COUNT]; /* packets that reached the firewall, per chain */
    ULONG Discarded[EXAMPLE_CHAIN_COUNT];
    EXAMPLE_FIREWALL_RULE_COUNTERS Rules[EXAMPLE_FIREWALL_MAX_RULES];
} EXAMPLE_FIREWALL_COUNTERS, *PEXAMPLE_FIREWALL_COUNTERS;

/* Exported by the image: a snapshot of the counters. Any IRQL. */
#define EXAMPLE_FIREWALL_GET_COUNTERS "ExampleFirewall_GetCounters"
typedef VOID (NTAPI *PEXAMPLE_FIREWALL_GET_COUNTERS)(PEXAMPLE_FIREWALL_COUNTERS Counters);

#endif /* EXAMPLE_FIREWALL_H */
