/*
 * template-filter - a client filter driver to start from. It registers with
 * the framework, places one filter in the incoming and one in the outgoing
 * chain, and discards the frames of one EtherType (the service key's
 * DropEtherType), counting what it saw. The same source builds the Windows
 * image and the host image.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "template-filter.h"

#if defined(_WIN32)
#define TEMPLATE_EXPORT EXTERN_C __declspec(dllexport)
#else
#define TEMPLATE_EXPORT EXTERN_C __attribute__((visibility("default")))
#endif

namespace {

struct Template {
    PFilterDriver Driver;
    ULONG DropEtherType;
    volatile LONG Inspected[2];
    volatile LONG Discarded[2];
};

Template State;

/* Where the filters sit in their chains (lower orders run first). */
const FILTER_ORDER TemplateOrder = 500;

/*
 * Inspect - both chains' filter (FilterContext is the chain index). The
 * EtherType is bytes 12-13 of the frame; m_Data always holds at least the
 * first bytes the hook driver read (m_nBytesRead). IRQL <= DISPATCH_LEVEL.
 */
FILTER_RESULT NTAPI Inspect(PFilterDriver FilterDriver, PVOID DriverContext, PPacketFilter Filter,
                            PVOID FilterContext, PFilterPacket Packet)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(Filter);
    Template *state = (Template *)DriverContext;
    ULONG chain = (ULONG)(ULONG_PTR)FilterContext;
    InterlockedIncrement(&state->Inspected[chain]);
    if (state->DropEtherType == 0 || Packet->m_nBytesRead < 14)
        return FILTER_RESULT_BYPASS;
    ULONG etherType = ((ULONG)Packet->m_Data[12] << 8) | Packet->m_Data[13];
    if (etherType != state->DropEtherType)
        return FILTER_RESULT_BYPASS;
    InterlockedIncrement(&state->Discarded[chain]);
    UCHAR event[TEMPLATE_FILTER_EVENT_SIZE] = {0};
    RtlCopyMemory(event + 4, &Packet->m_hAdapter, sizeof(Packet->m_hAdapter));
    Filter_ReportEventEx(etherType, chain, sizeof(event), event);
    return FILTER_RESULT_DISCARD;
}

/* The REG_DWORD DropEtherType of the service key; 0 when it is missing. IRQL = PASSIVE_LEVEL. */
ULONG ReadDropEtherType(PUNICODE_STRING RegistryPath)
{
    ULONG value = 0;
    RTL_QUERY_REGISTRY_TABLE table[2];
    RtlZeroMemory(table, sizeof(table));
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_REQUIRED;
#ifdef RTL_QUERY_REGISTRY_TYPECHECK
    /* Only a REG_DWORD may be written into the ULONG. */
    table[0].Flags |= RTL_QUERY_REGISTRY_TYPECHECK;
    table[0].DefaultType = (ULONG)REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
#endif
    table[0].Name = (PWSTR)L"" TEMPLATE_FILTER_DROP_VALUE;
    table[0].EntryContext = &value;
    if (!NT_SUCCESS(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, RegistryPath->Buffer, table, NULL, NULL)))
        return 0;
    return value & 0xFFFF;
}

VOID NTAPI TemplateUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Filter_DeregisterDriver(State.Driver); /* its filters go with it */
    State.Driver = NULL;
}

} // namespace

/* TemplateFilter_GetCounters - a snapshot of the setting and the counters. Any IRQL. */
TEMPLATE_EXPORT VOID NTAPI TemplateFilter_GetCounters(PTEMPLATE_FILTER_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->DropEtherType = State.DropEtherType;
    for (ULONG chain = 0; chain < 2; chain++) {
        Counters->Inspected[chain] = (ULONG)State.Inspected[chain];
        Counters->Discarded[chain] = (ULONG)State.Discarded[chain];
    }
}

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&State, sizeof(State));
    State.DropEtherType = ReadDropEtherType(RegistryPath);

    STRING name;
    RtlInitAnsiString(&name, TEMPLATE_FILTER_SERVICE_NAME);
    if (Filter_RegisterDriver(&name, &State, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION, &State.Driver) !=
            FILTER_STATUS_SUCCESS ||
        State.Driver == NULL) {
        DbgPrint("TemplateFilter: the framework refused the registration\n");
        return STATUS_UNSUCCESSFUL;
    }
    const struct {
        PCSTR Name;
        FILTER_TYPE Type;
    } placements[2] = {{"TemplateFilterIn", FILTER_TYPE_INCOMING_PACKET},
                       {"TemplateFilterOut", FILTER_TYPE_OUTGOING_PACKET}};
    for (ULONG chain = 0; chain < 2; chain++) {
        STRING filterName;
        RtlInitAnsiString(&filterName, placements[chain].Name);
        PPacketFilter filter = NULL;
        if (Filter_RegisterFilter(State.Driver, &filterName, Inspect, (PVOID)(ULONG_PTR)chain,
                                  placements[chain].Type, TemplateOrder, &filter) != FILTER_STATUS_SUCCESS ||
            filter == NULL) {
            Filter_DeregisterDriver(State.Driver);
            State.Driver = NULL;
            return STATUS_UNSUCCESSFUL;
        }
    }
    DriverObject->DriverUnload = TemplateUnload;
    DbgPrint("TemplateFilter: loaded, discarding EtherType 0x%04x\n", (unsigned)State.DropEtherType);
    return STATUS_SUCCESS;
}
