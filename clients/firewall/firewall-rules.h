/*
 * firewall-rules.h - the example firewall's rules: parsed from the settings
 * text (see example-firewall.h for the syntax) and matched against a packet.
 */
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-firewall.h"
#include "example-packet.h"

namespace firewall {

/* Which side of a packet a port or host term looks at. */
enum Side : UCHAR {
    SideNone = 0,
    SideSource = 1,
    SideDestination = 2,
    SideEither = 3
};

#define FIREWALL_CHAIN_BIT(chain) ((UCHAR)(1u << (chain)))
#define FIREWALL_ALL_CHAINS ((UCHAR)((1u << EXAMPLE_CHAIN_COUNT) - 1))

struct Rule {
    UCHAR Chains; /* FIREWALL_CHAIN_BIT per chain it applies to */
    BOOLEAN HasProtocol;
    UCHAR Protocol;
    UCHAR PortSide;
    USHORT Port;
    UCHAR HostSide;
    ULONG Host; /* network order */
    BOOLEAN Unsolicited; /* only incoming packets that are not replies to a flow the host opened */
    volatile LONG Matches[EXAMPLE_CHAIN_COUNT];
    CHAR Text[EXAMPLE_FIREWALL_RULE_TEXT];
};

struct RuleSet {
    ULONG Count;
    BOOLEAN AsksFlows; /* a rule needs to know whether a packet is a reply */
    Rule Rules[EXAMPLE_FIREWALL_MAX_RULES];
};

/*
 * ParseRules - fills `Set` from the settings text. FALSE when a rule cannot
 * be parsed or there are too many; *BadRule then holds the 1-based number of
 * the rule at fault. Any IRQL.
 */
BOOLEAN ParseRules(example::TextCursor Text, RuleSet *Set, PULONG BadRule);

/*
 * Matches - whether every term of `R` holds for the packet in `Chain`;
 * `Reply` tells whether it belongs to a flow the host opened.
 */
BOOLEAN Matches(const Rule &R, const EXAMPLE_IP_FIELDS &Fields, ULONG Chain, BOOLEAN Reply);

} // namespace firewall
