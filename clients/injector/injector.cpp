/*
 * injector - an example client driver that sends real traffic through the
 * framework's injected-packet queues: it consumes the packets of one IP
 * protocol and hands each straight back to start after itself (see
 * example-injector.h). Counters through ExampleInjector_GetCounters.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-injector.h"
#include "example-packet.h"
#include "example-registration.h"

namespace {

struct Injector {
    PFilterDriver Driver;
    ULONG Protocol;
    volatile LONG Inspected[EXAMPLE_CHAIN_COUNT];
    volatile LONG Consumed[EXAMPLE_CHAIN_COUNT];
    volatile LONG Reinjected[EXAMPLE_CHAIN_COUNT];
    volatile LONG InjectFailed[EXAMPLE_CHAIN_COUNT];
};

Injector State;

/* Where the injector sits in its chains: after the firewall, before the tap. */
const FILTER_ORDER InjectorOrder = 100;

/*
 * Inspect - the filter of both chains (FilterContext is the chain index):
 * a packet of the chosen protocol is queued back behind this filter and
 * CONSUME tells the framework it is no longer the chain's; anything else
 * passes. The packet belongs to the queue as soon as it is handed over, so
 * it is not looked at afterwards. IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Inspect(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    Injector *injector = (Injector *)DriverContext;
    ULONG chain = (ULONG)(ULONG_PTR)FilterContext;
    InterlockedIncrement(&injector->Inspected[chain]);

    EXAMPLE_IP_FIELDS fields;
    if (!example::ReadIpFields(Packet, &fields) || fields.Protocol != injector->Protocol)
        return FILTER_RESULT_BYPASS;

    InterlockedIncrement(&injector->Consumed[chain]);
    if (Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, Filter, Packet) == FILTER_STATUS_SUCCESS)
        InterlockedIncrement(&injector->Reinjected[chain]);
    else
        InterlockedIncrement(&injector->InjectFailed[chain]);
    return FILTER_RESULT_CONSUME;
}

/* InjectorUnload - deregistering the driver takes its filters out of the chains. IRQL = PASSIVE_LEVEL. */
VOID NTAPI InjectorUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(State.Driver);
    State.Driver = NULL;
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleInjectorIn", FILTER_TYPE_INCOMING_PACKET, InjectorOrder, EXAMPLE_CHAIN_INCOMING},
    {"ExampleInjectorOut", FILTER_TYPE_OUTGOING_PACKET, InjectorOrder, EXAMPLE_CHAIN_OUTGOING},
};

} // namespace

/* ExampleInjector_GetCounters - a snapshot of the counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleInjector_GetCounters(PEXAMPLE_INJECTOR_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->Protocol = State.Protocol;
    for (ULONG chain = 0; chain < EXAMPLE_CHAIN_COUNT; chain++) {
        Counters->Inspected[chain] = (ULONG)State.Inspected[chain];
        Counters->Consumed[chain] = (ULONG)State.Consumed[chain];
        Counters->Reinjected[chain] = (ULONG)State.Reinjected[chain];
        Counters->InjectFailed[chain] = (ULONG)State.InjectFailed[chain];
    }
}

/*
 * DriverEntry - reads the protocol, registers the driver and its two
 * filters. A protocol above 255 fails the load. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    State.Protocol =
        Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_INJECTOR_PROTOCOL_VALUE, EXAMPLE_INJECTOR_DEFAULT_PROTOCOL);
    if (State.Protocol > 255) {
        DbgPrint("ExampleInjector: protocol %u is not an IP protocol number\n", (unsigned)State.Protocol);
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status =
        ExampleRegister(EXAMPLE_INJECTOR_SERVICE_NAME, &State, Inspect, Placements, RTL_NUMBER_OF(Placements), &State.Driver);
    if (!NT_SUCCESS(status))
        return status;
    DriverObject->DriverUnload = InjectorUnload;
    return STATUS_SUCCESS;
}
