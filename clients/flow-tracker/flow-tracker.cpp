/*
 * flow-tracker - an example client driver that keeps a table of the IPv4
 * flows it sees (see example-flow-tracker.h), ages idle flows with a
 * repeating timer, publishes the table to other drivers as a named
 * interface and lists it to the user program through a control request of
 * its own. Counters through ExampleFlowTracker_GetCounters.
 */
#include "flow-table.h"
#include "example-diag.h"
#include "example-registration.h"

namespace {

struct Tracker {
    PFilterDriver Driver;
    flows::FlowTable Table;
    PFilterTimer AgingTimer;
    PFilterInterface Interface;
    PIoCtrlHandler IoCtrlHandler;
    ULONG IdleSeconds;
    ULONG AgingPeriodMs;
    volatile LONG Inspected[EXAMPLE_CHAIN_COUNT];
    volatile LONG AgingRuns;
    volatile LONG Listings;
};

Tracker State;

/* Behind the firewall (first) and the injector, ahead of the tap. */
const FILTER_ORDER TrackerOrder = 100;

/*
 * Inspect - the filter of both chains (FilterContext is the chain index):
 * counts the packet in its flow. Always BYPASS. IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Inspect(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    Tracker *tracker = (Tracker *)DriverContext;
    ULONG chain = (ULONG)(ULONG_PTR)FilterContext;
    InterlockedIncrement(&tracker->Inspected[chain]);
    EXAMPLE_IP_FIELDS fields;
    if (example::ReadIpFields(Packet, &fields))
        tracker->Table.Account(flows::KeyOf(fields, chain), chain, Packet->m_nPacketSize);
    return FILTER_RESULT_BYPASS;
}

/* AgeFlows - the aging timer's callback, at PASSIVE_LEVEL. */
BOOLEAN NTAPI AgeFlows(PFilterDriver FilterDriver, PVOID DriverContext, PFilterTimer Timer, PVOID TimerContext)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Timer);
    UNREFERENCED_PARAMETER(TimerContext);
    Tracker *tracker = (Tracker *)DriverContext;
    tracker->Table.Age(tracker->IdleSeconds);
    InterlockedIncrement(&tracker->AgingRuns);
    return TRUE;
}

/* IsReply - the interface's routine: an incoming packet of a flow the host opened. IRQL <= DISPATCH_LEVEL. */
BOOLEAN NTAPI IsReply(UCHAR Protocol, ULONG Source, USHORT SourcePort, ULONG Destination, USHORT DestinationPort)
{
    flows::FlowKey key;
    RtlZeroMemory(&key, sizeof(key));
    key.HostAddress = Destination;
    key.PeerAddress = Source;
    key.HostPort = DestinationPort;
    key.PeerPort = SourcePort;
    key.Protocol = Protocol;
    return State.Table.OpenedByHost(key);
}

/*
 * ListFlows - the tracker's control request: the flow count and as many
 * flows as the output holds; other codes are declined. IRQL = PASSIVE_LEVEL.
 */
/* "ExampleFlowTracker show": the table's counters and its first flows. */
VOID ShowFlows(PDiag Diag)
{
    EXAMPLE_FLOW flows[8];
    ULONG listed = State.Table.List(flows, RTL_NUMBER_OF(flows));
    Filter_DiagPrint(Diag, "flows: %lu, created %lu, aged %lu, untracked %lu, aging runs %ld\n",
                     (ULONG)State.Table.Count(), (ULONG)State.Table.Stats.Created, (ULONG)State.Table.Stats.Aged,
                     (ULONG)State.Table.Stats.Untracked, (LONG)State.AgingRuns);
    for (ULONG i = 0; i < listed; i++) {
        CHAR host[16], peer[16];
        Filter_DiagPrint(Diag, "proto %u %s:%u - %s:%u, %lu packets\n", (unsigned)flows[i].Protocol,
                         inet_ntoa(flows[i].HostAddress, host, sizeof(host)), (unsigned)flows[i].HostPort,
                         inet_ntoa(flows[i].PeerAddress, peer, sizeof(peer)), (unsigned)flows[i].PeerPort,
                         (ULONG)(flows[i].Packets[0] + flows[i].Packets[1]));
    }
}

NTSTATUS NTAPI ListFlows(PVOID Context, PIRP Irp, ULONG IoControlCode, PVOID InputBuffer, ULONG InputLength,
                         PVOID OutputBuffer, ULONG OutputLength, PULONG_PTR BytesReturned)
{
    if (IoControlCode == IOCTL_NDIS_FILTER_DIAG)
        return ExampleAnswerDiag(EXAMPLE_FLOW_TRACKER_SERVICE_NAME, "Example flow tracker", IoControlCode, InputBuffer,
                                 InputLength, OutputBuffer, OutputLength, ShowFlows);
    if (IoControlCode != IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS)
        return Filter_DefaultIoCtrlHandler(Context, Irp, IoControlCode, InputBuffer, InputLength, OutputBuffer,
                                           OutputLength, BytesReturned);
    Tracker *tracker = (Tracker *)Context;
    if (OutputBuffer == NULL || OutputLength < EXAMPLE_FLOW_LIST_HEADER)
        return STATUS_BUFFER_TOO_SMALL;
    PEXAMPLE_FLOW_LIST list = (PEXAMPLE_FLOW_LIST)OutputBuffer;
    ULONG room = (OutputLength - EXAMPLE_FLOW_LIST_HEADER) / sizeof(EXAMPLE_FLOW);
    list->Listed = tracker->Table.List(list->Flows, room);
    list->FlowCount = tracker->Table.Count();
    *BytesReturned = EXAMPLE_FLOW_LIST_HEADER + list->Listed * sizeof(EXAMPLE_FLOW);
    InterlockedIncrement(&tracker->Listings);
    return STATUS_SUCCESS;
}

const EXAMPLE_FLOW_INTERFACE Interface = {sizeof(EXAMPLE_FLOW_INTERFACE), EXAMPLE_FLOW_INTERFACE_VERSION, IsReply};

/*
 * Withdraw - takes back what the driver set up, in the reverse order: the
 * interface (its users let go when told), the timer (waiting for a callback
 * in flight), the control handler, the driver with its filters, and only
 * then the table nothing reaches any more. IRQL = PASSIVE_LEVEL.
 */
VOID Withdraw(Tracker *tracker)
{
    if (tracker->Interface != NULL) {
        if (Filter_DeregisterInterface(tracker->Driver, tracker->Interface) != FILTER_STATUS_SUCCESS)
            DbgPrint("ExampleFlowTracker: the flow interface is still referenced\n");
        tracker->Interface = NULL;
    }
    if (tracker->AgingTimer != NULL)
        Filter_FreeTimer(tracker->Driver, tracker->AgingTimer);
    if (tracker->IoCtrlHandler != NULL)
        Filter_DeregisterIoControl(tracker->Driver, tracker->IoCtrlHandler);
    if (tracker->Driver != NULL)
        Filter_DeregisterDriver(tracker->Driver);
    tracker->Table.Destroy();
    tracker->AgingTimer = NULL;
    tracker->IoCtrlHandler = NULL;
    tracker->Driver = NULL;
}

VOID NTAPI TrackerUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Withdraw(&State);
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleFlowTrackerIn", FILTER_TYPE_INCOMING_PACKET, TrackerOrder, EXAMPLE_CHAIN_INCOMING},
    {"ExampleFlowTrackerOut", FILTER_TYPE_OUTGOING_PACKET, TrackerOrder, EXAMPLE_CHAIN_OUTGOING},
};

/* Everything but the filters, which ExampleRegister placed. FALSE at the first failure. */
BOOLEAN SetUp(Tracker *tracker)
{
    /* Registration answers success without a handle when memory is short: the handles are tested. */
    if (Filter_InitializeTimer(tracker->Driver, AgeFlows, NULL, TRUE, &tracker->AgingTimer) != FILTER_STATUS_SUCCESS ||
        tracker->AgingTimer == NULL)
        return FALSE;
    if (Filter_StartTimer(tracker->AgingTimer, tracker->AgingPeriodMs) != FILTER_STATUS_SUCCESS)
        return FALSE;
    if (Filter_RegisterIoControl(tracker->Driver, ListFlows, tracker, &tracker->IoCtrlHandler) !=
            FILTER_STATUS_SUCCESS ||
        tracker->IoCtrlHandler == NULL)
        return FALSE;
    STRING name;
    RtlInitAnsiString(&name, EXAMPLE_FLOW_TRACKER_INTERFACE);
    return Filter_RegisterInterface(tracker->Driver, &name, (PVOID)&Interface, &tracker->Interface) ==
               FILTER_STATUS_SUCCESS &&
           tracker->Interface != NULL;
}

} // namespace

/* ExampleFlowTracker_GetCounters - a snapshot of the counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleFlowTracker_GetCounters(PEXAMPLE_FLOW_TRACKER_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++)
        Counters->Inspected[chain] = (ULONG)State.Inspected[chain];
    Counters->Flows = State.Table.Count();
    Counters->Created = (ULONG)State.Table.Stats.Created;
    Counters->Aged = (ULONG)State.Table.Stats.Aged;
    Counters->Untracked = (ULONG)State.Table.Stats.Untracked;
    Counters->AgingRuns = (ULONG)State.AgingRuns;
    Counters->Listings = (ULONG)State.Listings;
}

/*
 * DriverEntry - reads the settings, makes the table, registers the driver
 * and its filters, starts the aging timer and publishes the control handler
 * and the interface. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    State.IdleSeconds = Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_FLOW_TRACKER_IDLE_VALUE,
                                                EXAMPLE_FLOW_TRACKER_DEFAULT_IDLE);
    State.AgingPeriodMs = Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_FLOW_TRACKER_PERIOD_VALUE,
                                                  EXAMPLE_FLOW_TRACKER_DEFAULT_PERIOD);
    if (!State.Table.Create())
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = ExampleRegister(EXAMPLE_FLOW_TRACKER_SERVICE_NAME, &State, Inspect, Placements,
                                      RTL_NUMBER_OF(Placements), &State.Driver);
    if (NT_SUCCESS(status) && !SetUp(&State))
        status = STATUS_UNSUCCESSFUL;
    if (!NT_SUCCESS(status)) {
        Withdraw(&State);
        return status;
    }
    DriverObject->DriverUnload = TrackerUnload;
    return STATUS_SUCCESS;
}
