/*
 * firewall - an example client driver: discards IPv4 packets by protocol,
 * address or port, first in line in the incoming and the outgoing chain,
 * and counts what each rule discarded. The rules are read from the service
 * key at load (example-firewall.h); the counters are read through the
 * exported ExampleFirewall_GetCounters.
 */
#include "firewall-rules.h"
#include "example-registration.h"

namespace {

struct Firewall {
    PFilterDriver Driver;
    firewall::RuleSet Rules;
    volatile LONG Inspected[EXAMPLE_CHAIN_COUNT];
    volatile LONG Discarded[EXAMPLE_CHAIN_COUNT];
};

Firewall State;

/*
 * Inspect - the filter of both chains (FilterContext is the chain index):
 * DISCARD for the first matching rule, BYPASS otherwise. IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Inspect(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    Firewall *firewall = (Firewall *)DriverContext;
    ULONG chain = (ULONG)(ULONG_PTR)FilterContext;
    InterlockedIncrement(&firewall->Inspected[chain]);

    EXAMPLE_IP_FIELDS fields;
    if (!example::ReadIpFields(Packet, &fields))
        return FILTER_RESULT_BYPASS;
    for (ULONG i = 0; i < firewall->Rules.Count; i++) {
        firewall::Rule &rule = firewall->Rules.Rules[i];
        if (firewall::Matches(rule, fields, chain)) {
            InterlockedIncrement(&rule.Matches[chain]);
            InterlockedIncrement(&firewall->Discarded[chain]);
            return FILTER_RESULT_DISCARD;
        }
    }
    return FILTER_RESULT_BYPASS;
}

/*
 * LoadRules - the "Rules" value of the service key, or the default set when
 * there is none. FALSE (with the reason printed) when the rules are bad.
 * IRQL = PASSIVE_LEVEL.
 */
BOOLEAN LoadRules(PUNICODE_STRING RegistryPath)
{
    UNICODE_STRING value;
    WCHAR defaults[sizeof(EXAMPLE_FIREWALL_DEFAULT_RULES)];
    BOOLEAN fromRegistry = FALSE;
    example::TextCursor text;
    if (!example::SettingText(RegistryPath, L"" EXAMPLE_FIREWALL_RULES_VALUE, EXAMPLE_FIREWALL_DEFAULT_RULES,
                              defaults, RTL_NUMBER_OF(defaults), &value, &fromRegistry, &text)) {
        DbgPrint("ExampleFirewall: the value " EXAMPLE_FIREWALL_RULES_VALUE " is not text\n");
        return FALSE;
    }
    ULONG badRule = 0;
    BOOLEAN parsed = firewall::ParseRules(text, &State.Rules, &badRule);
    if (fromRegistry)
        RtlFreeUnicodeString(&value);
    if (!parsed)
        DbgPrint("ExampleFirewall: rule %u cannot be used (at most %u rules)\n", (unsigned)badRule,
                 (unsigned)EXAMPLE_FIREWALL_MAX_RULES);
    return parsed;
}

/* FirewallUnload - deregistering the driver takes its filters out of the chains. IRQL = PASSIVE_LEVEL. */
VOID NTAPI FirewallUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(State.Driver);
    State.Driver = NULL;
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleFirewallIn", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST, EXAMPLE_CHAIN_INCOMING},
    {"ExampleFirewallOut", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST, EXAMPLE_CHAIN_OUTGOING},
};

} // namespace

/* ExampleFirewall_GetCounters - a snapshot of the rules and their counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleFirewall_GetCounters(PEXAMPLE_FIREWALL_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->RuleCount = State.Rules.Count;
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++) {
        Counters->Inspected[chain] = (ULONG)State.Inspected[chain];
        Counters->Discarded[chain] = (ULONG)State.Discarded[chain];
    }
    for (ULONG i = 0; i < State.Rules.Count; i++) {
        const firewall::Rule &rule = State.Rules.Rules[i];
        RtlCopyMemory(Counters->Rules[i].Text, rule.Text, sizeof(rule.Text));
        for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++)
            Counters->Rules[i].Matches[chain] = (ULONG)rule.Matches[chain];
    }
}

/*
 * DriverEntry - reads the rules, registers the driver and its two filters
 * (FILTER_ORDER_FIRST: nothing runs before the firewall). Fails the load
 * when the rules are bad or registration fails. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    if (!LoadRules(RegistryPath))
        return STATUS_INVALID_PARAMETER;

    NTSTATUS status =
        ExampleRegister(EXAMPLE_FIREWALL_SERVICE_NAME, &State, Inspect, Placements, RTL_NUMBER_OF(Placements), &State.Driver);
    if (!NT_SUCCESS(status))
        return status;
    DriverObject->DriverUnload = FirewallUnload;
    return STATUS_SUCCESS;
}
