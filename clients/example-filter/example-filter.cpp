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

struct FilterPlacement {
    PCSTR Name;
    FILTER_TYPE Type;
    FILTER_ORDER Order;
};

const FilterPlacement Placements[] = {
    {"ExampleIncoming", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST},
    {"ExampleOutgoing", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_LAST},
    {"ExampleToAdapter", FILTER_TYPE_INJECT_TO_ADAPTER, 100},
    {"ExampleToProtocol", FILTER_TYPE_INJECT_TO_PROTOCOL, 100},
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
    STRING name;
    RtlInitAnsiString(&name, "ExampleFilter");

    /* Registration answers success without a handle when memory is short. */
    Driver = NULL;
    FILTER_STATUS status = Filter_RegisterDriver(&name, &Counters, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION,
                                                 &Driver);
    if (status != FILTER_STATUS_SUCCESS || Driver == NULL)
        return STATUS_UNSUCCESSFUL;

    for (ULONG i = 0; i < RTL_NUMBER_OF(Placements); i++) {
        STRING filterName;
        RtlInitAnsiString(&filterName, Placements[i].Name);
        PPacketFilter filter = NULL;
        status = Filter_RegisterFilter(Driver, &filterName, CountPacket, (PVOID)(ULONG_PTR)Placements[i].Type,
                                       Placements[i].Type, Placements[i].Order, &filter);
        if (status != FILTER_STATUS_SUCCESS || filter == NULL) {
            Filter_DeregisterDriver(Driver);
            Driver = NULL;
            return STATUS_UNSUCCESSFUL;
        }
    }

    DriverObject->DriverUnload = ExampleUnload;
    return STATUS_SUCCESS;
}
