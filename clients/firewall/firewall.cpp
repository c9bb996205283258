/*
 * firewall - an example client driver: discards IPv4 packets by protocol,
 * address or port, first in line in the incoming and the outgoing chain,
 * and counts what each rule discarded. The rules are read from the service
 * key at load (example-firewall.h); the counters are read through the
 * exported ExampleFirewall_GetCounters. Rules with the term "unsolicited"
 * ask the flow tracker's named interface whether a packet is a reply: the
 * firewall queries it when it is published and lets it go when told it is
 * being withdrawn.
 */
#include "firewall-rules.h"
#include "example-flow-tracker.h"
#include "example-diag.h"
#include "example-registration.h"

namespace {

struct Firewall {
    PFilterDriver Driver;
    firewall::RuleSet Rules;
    volatile LONG Inspected[EXAMPLE_CHAIN_COUNT];
    volatile LONG Discarded[EXAMPLE_CHAIN_COUNT];
    volatile LONG Replies;
    PIfEventHandler InterfaceEvents;
    NDIS_RW_LOCK FlowLock;              /* guards Flows: the packet path reads, events write */
    PEXAMPLE_FLOW_INTERFACE Flows;      /* our copy of the tracker's interface, or NULL */
};

Firewall State;

/* Whether an incoming packet is a reply to a flow the host opened, as the flow tracker says. */
BOOLEAN IsReply(Firewall *firewall, const EXAMPLE_IP_FIELDS &Fields)
{
    LOCK_STATE state;
    NdisAcquireReadWriteLock(&firewall->FlowLock, FALSE, &state);
    BOOLEAN reply = firewall->Flows != NULL &&
                    firewall->Flows->IsReply(Fields.Protocol, Fields.Source, Fields.SourcePort, Fields.Destination,
                                             Fields.DestinationPort);
    NdisReleaseReadWriteLock(&firewall->FlowLock, &state);
    if (reply)
        InterlockedIncrement(&firewall->Replies);
    return reply;
}

/* Takes a reference to the flow tracker's interface if it is published and none is held. IRQL <= DISPATCH_LEVEL. */
VOID QueryFlows(Firewall *firewall)
{
    STRING name;
    RtlInitAnsiString(&name, EXAMPLE_FLOW_TRACKER_INTERFACE);
    PVOID block = NULL;
    if (Filter_QueryInterface(firewall->Driver, &name, &block) != FILTER_STATUS_SUCCESS || block == NULL)
        return;
    PEXAMPLE_FLOW_INTERFACE flows = (PEXAMPLE_FLOW_INTERFACE)block;
    BOOLEAN usable = flows->Length >= sizeof(EXAMPLE_FLOW_INTERFACE) &&
                     flows->Version == EXAMPLE_FLOW_INTERFACE_VERSION && flows->IsReply != NULL;
    LOCK_STATE state;
    NdisAcquireReadWriteLock(&firewall->FlowLock, TRUE, &state);
    if (usable && firewall->Flows == NULL) {
        firewall->Flows = flows;
        block = NULL;
    }
    NdisReleaseReadWriteLock(&firewall->FlowLock, &state);
    if (block != NULL)
        Filter_ReleaseInterface(firewall->Driver, block);
}

/* Gives the interface back; no packet uses it afterwards. IRQL <= DISPATCH_LEVEL. */
VOID ReleaseFlows(Firewall *firewall)
{
    LOCK_STATE state;
    NdisAcquireReadWriteLock(&firewall->FlowLock, TRUE, &state);
    PEXAMPLE_FLOW_INTERFACE flows = firewall->Flows;
    firewall->Flows = NULL;
    NdisReleaseReadWriteLock(&firewall->FlowLock, &state);
    if (flows != NULL)
        Filter_ReleaseInterface(firewall->Driver, flows);
}

/* OnInterfaceEvent - the flow tracker's interface comes and goes. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI OnInterfaceEvent(PFilterDriver FilterDriver, PVOID DriverContext, ULONG Event, PVOID EventContext,
                            PSTRING InterfaceName)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(EventContext);
    STRING flowName;
    RtlInitAnsiString(&flowName, EXAMPLE_FLOW_TRACKER_INTERFACE);
    if (Filter_CompareString(InterfaceName, &flowName) != 0)
        return;
    Firewall *firewall = (Firewall *)DriverContext;
    if (Event == FILTER_INTERFACE_REGISTERED)
        QueryFlows(firewall);
    else if (Event == FILTER_INTERFACE_DEREGISTERING)
        ReleaseFlows(firewall);
}

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
    BOOLEAN reply = chain == EXAMPLE_CHAIN_INCOMING && firewall->Rules.AsksFlows && IsReply(firewall, fields);
    for (ULONG i = 0; i < firewall->Rules.Count; i++) {
        firewall::Rule &rule = firewall->Rules.Rules[i];
        if (firewall::Matches(rule, fields, chain, reply)) {
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

/*
 * Withdraw - the interface event handler and the interface reference go
 * first; deregistering the driver takes its filters out of the chains.
 * IRQL = PASSIVE_LEVEL.
 */
VOID Withdraw(Firewall *firewall)
{
    if (firewall->InterfaceEvents != NULL)
        Filter_DeregisterIfEventHandler(firewall->Driver, firewall->InterfaceEvents);
    firewall->InterfaceEvents = NULL;
    ReleaseFlows(firewall);
    Filter_DeregisterDriver(firewall->Driver);
    firewall->Driver = NULL;
}

VOID NTAPI FirewallUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Withdraw(&State);
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleFirewallIn", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST, EXAMPLE_CHAIN_INCOMING},
    {"ExampleFirewallOut", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST, EXAMPLE_CHAIN_OUTGOING},
};

/* "ExampleFirewall show": each rule with its matches, and the counters per chain. */
VOID ShowFirewall(PDiag Diag)
{
    static const char *const Chains[EXAMPLE_CHAIN_COUNT] = {"incoming", "outgoing"};
    Filter_DiagPrint(Diag, "rules: %lu, flow tracker %s, replies let in %ld\n", (ULONG)State.Rules.Count,
                     State.Flows != NULL ? "present" : "absent", (LONG)State.Replies);
    for (ULONG i = 0; i < State.Rules.Count; i++) {
        const firewall::Rule &rule = State.Rules.Rules[i];
        Filter_DiagPrint(Diag, "rule %lu: %.*s - matched %ld incoming, %ld outgoing\n", i + 1,
                         (int)sizeof(rule.Text), rule.Text, (LONG)rule.Matches[EXAMPLE_CHAIN_INCOMING],
                         (LONG)rule.Matches[EXAMPLE_CHAIN_OUTGOING]);
    }
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++)
        Filter_DiagPrint(Diag, "%s: inspected %ld, discarded %ld\n", Chains[chain], (LONG)State.Inspected[chain],
                         (LONG)State.Discarded[chain]);
}

NTSTATUS NTAPI FirewallControl(PVOID Context, PIRP Irp, ULONG Code, PVOID Input, ULONG InputLength, PVOID Output,
                               ULONG OutputLength, PULONG_PTR BytesReturned)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(BytesReturned);
    return ExampleAnswerDiag(EXAMPLE_FIREWALL_SERVICE_NAME, "Example firewall", Code, Input, InputLength, Output,
                             OutputLength, ShowFirewall);
}

} // namespace

/* ExampleFirewall_GetCounters - a snapshot of the rules and their counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleFirewall_GetCounters(PEXAMPLE_FIREWALL_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->RuleCount = State.Rules.Count;
    Counters->FlowInterface = State.Flows != NULL ? 1 : 0;
    Counters->Replies = (ULONG)State.Replies;
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
    NdisInitializeReadWriteLock(&State.FlowLock);
    if (!LoadRules(RegistryPath))
        return STATUS_INVALID_PARAMETER;

    NTSTATUS status =
        ExampleRegister(EXAMPLE_FIREWALL_SERVICE_NAME, &State, Inspect, Placements, RTL_NUMBER_OF(Placements), &State.Driver);
    if (!NT_SUCCESS(status))
        return status;
    /* Told when the flow tracker comes (or goes); it may also be there already. */
    if (Filter_RegisterIfEventHandler(State.Driver, OnInterfaceEvent, NULL, &State.InterfaceEvents) !=
            FILTER_STATUS_SUCCESS ||
        State.InterfaceEvents == NULL) {
        Withdraw(&State);
        return STATUS_UNSUCCESSFUL;
    }
    QueryFlows(&State);
    /* Its diagnostics only: a firewall that cannot answer them still filters. */
    PIoCtrlHandler handler = NULL;
    Filter_RegisterIoControl(State.Driver, FirewallControl, NULL, &handler);
    DriverObject->DriverUnload = FirewallUnload;
    return STATUS_SUCCESS;
}
