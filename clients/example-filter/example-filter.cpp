/*
 * example-filter - a client driver of the packet filter framework.
 *
 * It registers itself, places a packet filter in each of the four chains
 * (incoming first in line, outgoing last, the two inject chains at a fixed
 * position) and counts what passes through them, letting every packet go
 * on. Unloading deregisters it, which removes its filters with it.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-registration.h"

namespace {

/* Packets seen, per chain. */
struct ExampleCounters {
    volatile LONG m_nPackets[FILTER_TYPE_COUNT];
};

ExampleCounters Counters;
PFilterDriver Driver;

/* Counts the packet in its chain's counter and lets it pass. Runs at up to DISPATCH_LEVEL. */
FILTER_RESULT NTAPI CountPacket(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                                PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    UNREFERENCED_PARAMETER(Packet);
    ExampleCounters *counters = (ExampleCounters *)DriverContext;
    InterlockedIncrement(&counters->m_nPackets[(ULONG_PTR)FilterContext]);
    return FILTER_RESULT_BYPASS;
}

/* Each filter's context is its chain, the index of its counter. */
const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleIncoming", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST, FILTER_TYPE_INCOMING_PACKET},
    {"ExampleOutgoing", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_LAST, FILTER_TYPE_OUTGOING_PACKET},
    {"ExampleToAdapter", FILTER_TYPE_INJECT_TO_ADAPTER, 100, FILTER_TYPE_INJECT_TO_ADAPTER},
    {"ExampleToProtocol", FILTER_TYPE_INJECT_TO_PROTOCOL, 100, FILTER_TYPE_INJECT_TO_PROTOCOL},
};

VOID NTAPI ExampleUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(Driver);
    Driver = NULL;
}

} // namespace

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(RegistryPath);
    NTSTATUS status = ExampleRegister("ExampleFilter", &Counters, CountPacket, Placements, RTL_NUMBER_OF(Placements),
                                      &Driver);
    if (!NT_SUCCESS(status))
        return status;

    DriverObject->DriverUnload = ExampleUnload;
    return STATUS_SUCCESS;
}
