/*
 * monitor - an example client driver that watches the adapters: per-adapter
 * records in an adapter context slot, every adapter event reported to the
 * event queue, and NDIS requests for each adapter's link speed, MTU and
 * frame counters when it opens (see example-monitor.h). What it saw through
 * ExampleMonitor_GetCounters.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "example-diag.h"
#include "example-event.h"
#include "example-monitor.h"

namespace {

struct AdapterRecord;

/* One NDIS request of an adapter's record; at most one in flight at a time. */
struct Query {
    AdapterRecord *Owner;
    ULONG Index;
    volatile LONG Busy;
    PKTHREAD MakingThread; /* a completion on another thread came later */
    ULONG64 Value;         /* the request's information buffer */
};

/* What the monitor keeps for one adapter; its address is the adapter's value in the slot. */
struct AdapterRecord {
    PFilterAdapter Adapter;
    ULONG Id;
    UCHAR Mac[6];
    volatile LONG Events[5];
    volatile LONG Answered;
    volatile LONG Pended;
    volatile LONG Failed;
    ULONG64 Answers[EXAMPLE_MONITOR_QUERIES];
    Query Queries[EXAMPLE_MONITOR_QUERIES];
};

struct Monitor {
    PFilterDriver Driver;
    PEventHandler Handler;
    ULONG Slot;
    BOOLEAN HaveSlot;
    KSPIN_LOCK Lock; /* guards AdapterCount and the records' creation */
    ULONG AdapterCount;
    AdapterRecord Adapters[EXAMPLE_MONITOR_MAX_ADAPTERS];
    volatile LONG Outstanding; /* requests made and not completed */
    volatile LONG Reported;
};

Monitor State;

const NDIS_OID QueryOids[EXAMPLE_MONITOR_QUERIES] = {OID_GEN_LINK_SPEED, OID_GEN_MAXIMUM_FRAME_SIZE, OID_GEN_XMIT_OK,
                                                     OID_GEN_RCV_OK};
const ULONG QueryLengths[EXAMPLE_MONITOR_QUERIES] = {sizeof(ULONG), sizeof(ULONG), sizeof(ULONG64), sizeof(ULONG64)};

/*
 * The monitor's record of an adapter, created the first time it is seen;
 * NULL when all records are taken. The slot may still hold a value of its
 * previous owner, so a value counts only when it is one of our records for
 * this adapter. IRQL <= DISPATCH_LEVEL.
 */
AdapterRecord *RecordOf(PFilterAdapter Adapter)
{
    PVOID value = NULL;
    if (Filter_GetAdapterContext(Adapter, State.Slot, &value) == FILTER_STATUS_SUCCESS) {
        AdapterRecord *record = (AdapterRecord *)value;
        if (record >= &State.Adapters[0] && record < &State.Adapters[EXAMPLE_MONITOR_MAX_ADAPTERS] &&
            record->Adapter == Adapter)
            return record;
    }
    AdapterRecord *record = NULL;
    KIRQL irql;
    KeAcquireSpinLock(&State.Lock, &irql);
    for (ULONG i = 0; i < State.AdapterCount && record == NULL; i++)
        if (State.Adapters[i].Adapter == Adapter)
            record = &State.Adapters[i];
    if (record == NULL && State.AdapterCount < EXAMPLE_MONITOR_MAX_ADAPTERS) {
        record = &State.Adapters[State.AdapterCount];
        record->Adapter = Adapter;
        for (ULONG q = 0; q < EXAMPLE_MONITOR_QUERIES; q++) {
            record->Queries[q].Owner = record;
            record->Queries[q].Index = q;
        }
        Filter_AdapterToId(Adapter, &record->Id);
        Filter_GetAdapterCurrentAddress(Adapter, record->Mac);
        State.AdapterCount++;
    }
    KeReleaseSpinLock(&State.Lock, irql);
    if (record != NULL)
        Filter_SetAdapterContext(State.Driver, Adapter, State.Slot, record);
    return record;
}

/* A request completed: its answer goes into the record and the request back to the hook driver. */
VOID NTAPI QueryDone(PFilterNdisRequest Request, NDIS_STATUS Status, PVOID Context)
{
    Query *query = (Query *)Context;
    AdapterRecord *record = query->Owner;
    if (KeGetCurrentThread() != query->MakingThread)
        InterlockedIncrement(&record->Pended);
    if (Status == NDIS_STATUS_SUCCESS) {
        record->Answers[query->Index] = QueryLengths[query->Index] == sizeof(ULONG) ? (ULONG)query->Value : query->Value;
        InterlockedIncrement(&record->Answered);
    } else {
        InterlockedIncrement(&record->Failed);
    }
    Filter_FreeNdisRequest(Request);
    InterlockedExchange(&query->Busy, 0);
    InterlockedDecrement(&State.Outstanding);
}

/* Asks the adapter one of the monitor's questions, unless that request is still out. */
VOID Ask(AdapterRecord *Record, ULONG Index)
{
    Query *query = &Record->Queries[Index];
    if (InterlockedCompareExchange(&query->Busy, 1, 0) != 0)
        return;
    PFilterNdisRequest request = NULL;
    if (Filter_AllocateNdisRequest(&request) != FILTER_STATUS_SUCCESS || request == NULL) {
        InterlockedIncrement(&Record->Failed);
        InterlockedExchange(&query->Busy, 0);
        return;
    }
    query->Value = 0;
    query->MakingThread = KeGetCurrentThread();
    request->m_Request.RequestType = NdisRequestQueryInformation;
    request->m_Request.DATA.QUERY_INFORMATION.Oid = QueryOids[Index];
    request->m_Request.DATA.QUERY_INFORMATION.InformationBuffer = &query->Value;
    request->m_Request.DATA.QUERY_INFORMATION.InformationBufferLength = QueryLengths[Index];
    request->m_pfComplete = QueryDone;
    InterlockedIncrement(&State.Outstanding);
    if (Filter_MakeNdisRequest(Record->Adapter, request, query) != FILTER_STATUS_SUCCESS) {
        Filter_FreeNdisRequest(request);
        InterlockedIncrement(&Record->Failed);
        InterlockedExchange(&query->Busy, 0);
        InterlockedDecrement(&State.Outstanding);
    }
}

const char *const EventTexts[5] = {"opened", "media connected", "media disconnected", "closed",
                                   "has a new IP configuration"};

/*
 * OnAdapterEvent - the adapter event handler: counts the event in the
 * adapter's record, reports it as text and, when the adapter opens, asks it
 * for its link speed, MTU and counters (the counters again when its medium
 * connects). IRQL = DISPATCH_LEVEL, under the
 * framework's handler lock.
 */
VOID NTAPI OnAdapterEvent(PFilterDriver FilterDriver, PVOID DriverContext, ULONG Event, PVOID EventContext,
                          PFilterAdapter Adapter)
{
    UNREFERENCED_PARAMETER(FilterDriver);
    UNREFERENCED_PARAMETER(DriverContext);
    UNREFERENCED_PARAMETER(EventContext);
    if (Event > FILTER_EVENT_IPCONFIG_CHANGED)
        return;
    AdapterRecord *record = RecordOf(Adapter);
    if (record == NULL)
        return;
    InterlockedIncrement(&record->Events[Event]);

    CHAR mac[18];
    inet_mtoa(record->Mac, mac, sizeof(mac));
    FILTER_STATUS reported;
    if (Event == FILTER_EVENT_IPCONFIG_CHANGED) {
        IPConfig config;
        CHAR address[16], mask[16];
        if (Filter_GetIPConfig(Adapter, &config) == NULL)
            RtlZeroMemory(&config, sizeof(config));
        reported = ExampleReportAdapterEvent(Event, record->Id, Event, Adapter,
                                             "ExampleMonitor: adapter %u (%s) %s: %u addresses, first %s/%s",
                                      (unsigned)record->Id, mac, EventTexts[Event], (unsigned)config.m_nIP,
                                      inet_ntoa(config.m_IP[0].IpAddress, address, sizeof(address)),
                                      inet_ntoa(config.m_IP[0].Netmask, mask, sizeof(mask)));
    } else {
        reported = ExampleReportAdapterEvent(Event, record->Id, Event, Adapter, "ExampleMonitor: adapter %u (%s) %s",
                                             (unsigned)record->Id, mac, EventTexts[Event]);
    }
    if (reported == FILTER_STATUS_SUCCESS)
        InterlockedIncrement(&State.Reported);

    if (Event == FILTER_EVENT_ADAPTER_OPENED) {
        for (ULONG i = 0; i < EXAMPLE_MONITOR_QUERIES; i++)
            Ask(record, i);
    } else if (Event == FILTER_EVENT_MEDIA_CONNECT) {
        Ask(record, EXAMPLE_MONITOR_XMIT_OK);
        Ask(record, EXAMPLE_MONITOR_RCV_OK);
    }
}

/* Adapters open before the monitor loaded count as opened now. */
BOOLEAN NTAPI SeeOpenAdapter(PVOID Context, PFilterAdapter Adapter)
{
    UNREFERENCED_PARAMETER(Context);
    OnAdapterEvent(State.Driver, NULL, FILTER_EVENT_ADAPTER_OPENED, NULL, Adapter);
    return TRUE;
}

/*
 * Leave - no more events, the requests still out completed, the adapters'
 * values cleared, the slot released, then the driver. IRQL = PASSIVE_LEVEL.
 */
VOID Leave(VOID)
{
    if (State.Driver == NULL)
        return;
    if (State.Handler != NULL)
        Filter_DeregisterEventHandler(State.Driver, State.Handler);
    State.Handler = NULL;
    for (int waited = 0; State.Outstanding != 0 && waited < 10000; waited++) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    if (State.HaveSlot) {
        for (ULONG i = 0; i < State.AdapterCount; i++)
            Filter_SetAdapterContext(State.Driver, State.Adapters[i].Adapter, State.Slot, NULL);
        Filter_ReleaseAdapterContext(State.Driver, State.Slot);
        State.HaveSlot = FALSE;
    }
    Filter_DeregisterDriver(State.Driver);
    State.Driver = NULL;
}

VOID NTAPI MonitorUnload(PDRIVER_OBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    Leave();
}

/* "ExampleMonitor show": per adapter its events and the last answers of its NDIS requests. */
VOID ShowAdapters(PDiag Diag)
{
    Filter_DiagPrint(Diag, "adapters: %lu, events reported %ld, requests outstanding %ld\n", State.AdapterCount,
                     (LONG)State.Reported, (LONG)State.Outstanding);
    for (ULONG i = 0; i < State.AdapterCount && i < EXAMPLE_MONITOR_MAX_ADAPTERS; i++) {
        const AdapterRecord &a = State.Adapters[i];
        Filter_DiagPrint(Diag,
                         "adapter %lu %02x-%02x-%02x-%02x-%02x-%02x: link %llu00 bit/s, frame %llu, sent %llu, "
                         "received %llu; opened %ld, disconnected %ld, connected %ld\n",
                         a.Id, a.Mac[0], a.Mac[1], a.Mac[2], a.Mac[3], a.Mac[4], a.Mac[5],
                         (unsigned long long)a.Answers[EXAMPLE_MONITOR_LINK_SPEED],
                         (unsigned long long)a.Answers[EXAMPLE_MONITOR_MTU],
                         (unsigned long long)a.Answers[EXAMPLE_MONITOR_XMIT_OK],
                         (unsigned long long)a.Answers[EXAMPLE_MONITOR_RCV_OK], (LONG)a.Events[FILTER_EVENT_ADAPTER_OPENED],
                         (LONG)a.Events[FILTER_EVENT_MEDIA_DISCONNECT], (LONG)a.Events[FILTER_EVENT_MEDIA_CONNECT]);
    }
}

NTSTATUS NTAPI MonitorControl(PVOID Context, PIRP Irp, ULONG Code, PVOID Input, ULONG InputLength, PVOID Output,
                              ULONG OutputLength, PULONG_PTR BytesReturned)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(BytesReturned);
    return ExampleAnswerDiag(EXAMPLE_MONITOR_SERVICE_NAME, "Example adapter monitor", Code, Input, InputLength, Output,
                             OutputLength, ShowAdapters);
}

} // namespace

/* ExampleMonitor_GetCounters - a snapshot of what the monitor saw. Any IRQL. */
EXAMPLE_EXPORT VOID NTAPI ExampleMonitor_GetCounters(PEXAMPLE_MONITOR_COUNTERS Counters)
{
    RtlZeroMemory(Counters, sizeof(*Counters));
    Counters->Slot = State.Slot;
    Counters->Reported = (ULONG)State.Reported;
    Counters->AdapterCount = State.AdapterCount;
    for (ULONG i = 0; i < State.AdapterCount && i < EXAMPLE_MONITOR_MAX_ADAPTERS; i++) {
        const AdapterRecord *record = &State.Adapters[i];
        EXAMPLE_MONITOR_ADAPTER *out = &Counters->Adapters[i];
        out->Id = record->Id;
        RtlCopyMemory(out->Mac, record->Mac, sizeof(out->Mac));
        for (ULONG e = 0; e < 5; e++)
            out->Events[e] = (ULONG)record->Events[e];
        for (ULONG q = 0; q < EXAMPLE_MONITOR_QUERIES; q++)
            out->Answers[q] = record->Answers[q];
        out->Answered = (ULONG)record->Answered;
        out->Pended = (ULONG)record->Pended;
        out->Failed = (ULONG)record->Failed;
    }
}

/*
 * DriverEntry - registers the monitor, takes a context slot, looks at the
 * adapters already open and registers its event handler. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(RegistryPath);
    RtlZeroMemory(&State, sizeof(State));
    KeInitializeSpinLock(&State.Lock);

    STRING name;
    RtlInitAnsiString(&name, EXAMPLE_MONITOR_SERVICE_NAME);
    if (Filter_RegisterDriver(&name, &State, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION, &State.Driver) !=
            FILTER_STATUS_SUCCESS ||
        State.Driver == NULL) {
        State.Driver = NULL;
        return STATUS_UNSUCCESSFUL;
    }
    if (Filter_AcquireAdapterContext(State.Driver, &State.Slot) != FILTER_STATUS_SUCCESS) {
        Leave();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    State.HaveSlot = TRUE;
    if (Filter_RegisterEventHandler(State.Driver, OnAdapterEvent, &State, &State.Handler) != FILTER_STATUS_SUCCESS ||
        State.Handler == NULL) {
        Leave();
        return STATUS_UNSUCCESSFUL;
    }
    Filter_EnumAdapter(State.Driver, SeeOpenAdapter, NULL);
    /* Its diagnostics only: a monitor that cannot answer them still monitors. */
    PIoCtrlHandler control = NULL;
    Filter_RegisterIoControl(State.Driver, MonitorControl, NULL, &control);
    DriverObject->DriverUnload = MonitorUnload;
    return STATUS_SUCCESS;
}
