/*
 * tap - an example client driver that copies the packets of chosen TCP or
 * UDP ports to the user program and lets them pass (see example-tap.h).
 * Counters through ExampleTap_GetCounters.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-diag.h"
#include "example-packet.h"
#include "example-registration.h"
#include "example-tap.h"

namespace {

struct Tap {
    PFilterDriver Driver;
    ULONG PortCount;
    USHORT Ports[EXAMPLE_TAP_MAX_PORTS];
    volatile LONG Sequence;
    volatile LONG Inspected[EXAMPLE_CHAIN_COUNT];
    volatile LONG Indicated[EXAMPLE_CHAIN_COUNT];
    volatile LONG Incomplete[EXAMPLE_CHAIN_COUNT];
};

Tap State;

/* Where the tap sits in its chains: behind the firewall and the injector. */
const FILTER_ORDER TapOrder = 200;

/* The first of the tap's ports the packet uses, or 0. */
USHORT MatchedPort(const Tap *tap, const EXAMPLE_IP_FIELDS &Fields)
{
    if (!Fields.HasPorts)
        return 0;
    for (ULONG i = 0; i < tap->PortCount; i++) {
        if (Fields.SourcePort == tap->Ports[i] || Fields.DestinationPort == tap->Ports[i])
            return tap->Ports[i];
    }
    return 0;
}

/*
 * Inspect - the filter of both chains (FilterContext is the chain index): a
 * matching packet is read whole and copied to the user program, code the
 * port, value the running number. Always BYPASS. IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Inspect(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    Tap *tap = (Tap *)DriverContext;
    ULONG chain = (ULONG)(ULONG_PTR)FilterContext;
    InterlockedIncrement(&tap->Inspected[chain]);

    EXAMPLE_IP_FIELDS fields;
    if (!example::ReadIpFields(Packet, &fields))
        return FILTER_RESULT_BYPASS;
    USHORT port = MatchedPort(tap, fields);
    if (port == 0)
        return FILTER_RESULT_BYPASS;
    if (!example::EnsureBytes(Packet, Packet->m_nPacketSize)) {
        InterlockedIncrement(&tap->Incomplete[chain]);
        return FILTER_RESULT_BYPASS;
    }
    LONG number = InterlockedIncrement(&tap->Sequence);
    if (Filter_IndicatePacketToApplication(Packet, port, (ULONG64)number) == FILTER_STATUS_SUCCESS)
        InterlockedIncrement(&tap->Indicated[chain]);
    return FILTER_RESULT_BYPASS;
}

/*
 * LoadPorts - the "Ports" value of the service key, or the default list.
 * FALSE when a port is not a number from 1 to 65535 or there are too many.
 * IRQL = PASSIVE_LEVEL.
 */
BOOLEAN LoadPorts(PUNICODE_STRING RegistryPath)
{
    UNICODE_STRING value;
    WCHAR defaults[sizeof(EXAMPLE_TAP_DEFAULT_PORTS)];
    BOOLEAN fromRegistry = FALSE;
    example::TextCursor cursor;
    if (!example::SettingText(RegistryPath, L"" EXAMPLE_TAP_PORTS_VALUE, EXAMPLE_TAP_DEFAULT_PORTS, defaults,
                              RTL_NUMBER_OF(defaults), &value, &fromRegistry, &cursor)) {
        DbgPrint("ExampleTap: the value " EXAMPLE_TAP_PORTS_VALUE " is not text\n");
        return FALSE;
    }
    BOOLEAN parsed = TRUE;
    for (;;) {
        example::TextCursor word = example::NextWord(&cursor);
        if (word.Next == word.End) {
            parsed = cursor.AtEnd(); /* what is left is a ';' */
            break;
        }
        ULONG port = 0;
        if (State.PortCount == EXAMPLE_TAP_MAX_PORTS || !example::ParseNumber(word, 65535, &port) || port == 0) {
            parsed = FALSE;
            break;
        }
        State.Ports[State.PortCount++] = (USHORT)port;
    }
    if (fromRegistry)
        RtlFreeUnicodeString(&value);
    if (!parsed)
        DbgPrint("ExampleTap: the port list is not usable (at most %u ports, 1..65535)\n",
                 (unsigned)EXAMPLE_TAP_MAX_PORTS);
    return parsed;
}

/* TapUnload - deregistering the driver takes its filters out of the chains. IRQL = PASSIVE_LEVEL. */
VOID NTAPI TapUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(State.Driver);
    State.Driver = NULL;
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleTapIn", FILTER_TYPE_INCOMING_PACKET, TapOrder, EXAMPLE_CHAIN_INCOMING},
    {"ExampleTapOut", FILTER_TYPE_OUTGOING_PACKET, TapOrder, EXAMPLE_CHAIN_OUTGOING},
};

/* "ExampleTap show": the ports it copies and its counters per chain. */
VOID ShowTap(PDiag Diag)
{
    Filter_DiagPrint(Diag, "ports:");
    for (ULONG i = 0; i < State.PortCount; i++)
        Filter_DiagPrint(Diag, " %u", (unsigned)State.Ports[i]);
    Filter_DiagPrint(Diag, "\n");
    static const char *const Chains[EXAMPLE_CHAIN_COUNT] = {"incoming", "outgoing"};
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++)
        Filter_DiagPrint(Diag, "%s: inspected %ld, copied to the application %ld, incomplete %ld\n", Chains[chain],
                         (LONG)State.Inspected[chain], (LONG)State.Indicated[chain], (LONG)State.Incomplete[chain]);
}

NTSTATUS NTAPI TapControl(PVOID Context, PIRP Irp, ULONG Code, PVOID Input, ULONG InputLength, PVOID Output,
                          ULONG OutputLength, PULONG_PTR BytesReturned)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(BytesReturned);
    return ExampleAnswerDiag(EXAMPLE_TAP_SERVICE_NAME, "Example tap", Code, Input, InputLength, Output, OutputLength,
                             ShowTap);
}

} // namespace

/* ExampleTap_GetCounters - a snapshot of the ports and counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleTap_GetCounters(PEXAMPLE_TAP_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->PortCount = State.PortCount;
    for (ULONG i = 0; i < State.PortCount; i++)
        Counters->Ports[i] = State.Ports[i];
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++) {
        Counters->Inspected[chain] = (ULONG)State.Inspected[chain];
        Counters->Indicated[chain] = (ULONG)State.Indicated[chain];
        Counters->Incomplete[chain] = (ULONG)State.Incomplete[chain];
    }
}

/*
 * DriverEntry - reads the ports, registers the driver and its two filters.
 * IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    if (!LoadPorts(RegistryPath))
        return STATUS_INVALID_PARAMETER;

    NTSTATUS status =
        ExampleRegister(EXAMPLE_TAP_SERVICE_NAME, &State, Inspect, Placements, RTL_NUMBER_OF(Placements), &State.Driver);
    if (!NT_SUCCESS(status))
        return status;
    /* Its diagnostics only: a tap that cannot answer them still taps. */
    PIoCtrlHandler handler = NULL;
    Filter_RegisterIoControl(State.Driver, TapControl, NULL, &handler);
    DriverObject->DriverUnload = TapUnload;
    return STATUS_SUCCESS;
}
