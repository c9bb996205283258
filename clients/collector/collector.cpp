/*
 * collector - an example client driver that sends the start of every frame
 * its filters see to a collector program over UDP and TCP, and answers
 * datagrams on a port of its own (see example-collector.h). Counters through
 * ExampleCollector_GetCounters.
 */
#include <ntddk.h>
#include <ndis.h>
#include <tdikrnl.h>
#include <ndisfilter.h>
#include <ksocket.h>

#include "collector-link.h"
#include "example-packet.h"
#include "example-registration.h"

namespace {

struct Collector {
    PFilterDriver Driver;
    CollectorLink Link;
    volatile LONG Captured;
};

Collector State;

/* Behind the other examples in both chains: it sees what they let pass. */
const FILTER_ORDER CollectorOrder = 300;

/* Whether the frame is the driver's own traffic to the collector (never sent on). */
BOOLEAN ToOrFromCollector(const Collector *collector, const EXAMPLE_IP_FIELDS &Fields)
{
    const CollectorLink &link = collector->Link;
    USHORT port = (USHORT)((link.Port >> 8) | ((link.Port & 0xFF) << 8));
    return Fields.HasPorts &&
           ((Fields.Destination == link.Address && Fields.DestinationPort == port) ||
            (Fields.Source == link.Address && Fields.SourcePort == port));
}

/*
 * Capture - the filter of both chains (FilterContext is the chain index):
 * a record of the frame's first bytes goes to the collector. Always BYPASS.
 * IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Capture(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    Collector *collector = (Collector *)DriverContext;
    EXAMPLE_IP_FIELDS fields;
    if (example::ReadIpFields(Packet, &fields) && ToOrFromCollector(collector, fields))
        return FILTER_RESULT_BYPASS;
    ULONG captured = Packet->m_nPacketSize < EXAMPLE_COLLECTOR_SNAP_LENGTH ? Packet->m_nPacketSize
                                                                           : EXAMPLE_COLLECTOR_SNAP_LENGTH;
    if (!example::EnsureBytes(Packet, captured))
        return FILTER_RESULT_BYPASS;
    ULONG frameLength = Packet->m_nPacketSize > 0xFFFF ? 0xFFFF : Packet->m_nPacketSize;
    EXAMPLE_COLLECTOR_RECORD header;
    header.CapturedLength = KS_htons((USHORT)captured);
    header.FrameLength = KS_htons((USHORT)frameLength);
    header.Chain = (UCHAR)(ULONG_PTR)FilterContext;
    header.Version = 1;
    header.Reserved = 0;
    InterlockedIncrement(&collector->Captured);
    CollectorLinkSend(&collector->Link, &header, Packet->m_Data, captured);
    return FILTER_RESULT_BYPASS;
}

/* The settings of the service key into the link. FALSE when one is unusable. IRQL = PASSIVE_LEVEL. */
BOOLEAN LoadSettings(PUNICODE_STRING RegistryPath, CollectorLink *Link)
{
    UNICODE_STRING value;
    if (!NT_SUCCESS(example::ReadSetting(RegistryPath, L"" EXAMPLE_COLLECTOR_ADDRESS_VALUE, &value))) {
        DbgPrint("ExampleCollector: no " EXAMPLE_COLLECTOR_ADDRESS_VALUE " in the service key\n");
        return FALSE;
    }
    example::TextCursor text = {value.Buffer, value.Buffer + value.Length / sizeof(WCHAR)};
    example::TextCursor word = example::NextWord(&text);
    BOOLEAN parsed = example::ParseAddress(word, &Link->Address);
    RtlFreeUnicodeString(&value);
    ULONG port = Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_COLLECTOR_PORT_VALUE,
                                         EXAMPLE_COLLECTOR_DEFAULT_PORT);
    ULONG answer = Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_COLLECTOR_ANSWER_PORT_VALUE, 0);
    Link->UseTcp = Filter_RegGetDwordValue(RegistryPath, L"" EXAMPLE_COLLECTOR_TCP_VALUE, 1) != 0;
    if (!parsed || port == 0 || port > 65535 || answer > 65535) {
        DbgPrint("ExampleCollector: the collector's address or a port is not usable\n");
        return FALSE;
    }
    Link->Port = KS_htons((USHORT)port);
    Link->AnswerPort = KS_htons((USHORT)answer);
    return TRUE;
}

/* CollectorUnload - the filters go first, then the sockets. IRQL = PASSIVE_LEVEL. */
VOID NTAPI CollectorUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(State.Driver);
    State.Driver = NULL;
    CollectorLinkClose(&State.Link);
}

const EXAMPLE_PLACEMENT Placements[] = {
    {"ExampleCollectorIn", FILTER_TYPE_INCOMING_PACKET, CollectorOrder, EXAMPLE_CHAIN_INCOMING},
    {"ExampleCollectorOut", FILTER_TYPE_OUTGOING_PACKET, CollectorOrder, EXAMPLE_CHAIN_OUTGOING},
};

} // namespace

/* ExampleCollector_GetCounters - a snapshot of the counters. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleCollector_GetCounters(PEXAMPLE_COLLECTOR_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    CollectorLinkCounters(&State.Link, Counters);
    Counters->Captured = (ULONG)State.Captured;
}

/*
 * DriverEntry - reads the settings, connects to the collector, then
 * registers the driver and its two filters. IRQL = PASSIVE_LEVEL, in the
 * system process.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    KS_InitProcessNameOffset();
    CHAR process[17];
    KS_GetCurrentProcessName(process);
    DbgPrint("ExampleCollector: loading in process %s\n", process);
    if (!LoadSettings(RegistryPath, &State.Link))
        return STATUS_INVALID_PARAMETER;

    NTSTATUS status = CollectorLinkOpen(&State.Link);
    if (NT_SUCCESS(status))
        status = ExampleRegister(EXAMPLE_COLLECTOR_SERVICE_NAME, &State, Capture, Placements,
                                 RTL_NUMBER_OF(Placements), &State.Driver);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ExampleCollector: cannot reach the collector, status 0x%08x\n", (unsigned)status);
        CollectorLinkClose(&State.Link);
        return status;
    }
    DriverObject->DriverUnload = CollectorUnload;
    return STATUS_SUCCESS;
}
