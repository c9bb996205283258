/*
 * ndishook-request.cpp - NDIS request blocks and the answers to them, the
 * OS version, control codes the hook driver claims, and user-mode mapping of
 * the framework's shared memory.
 */
#include "ndishook-internal.h"
#include "include/ndishook.h"

C_ASSERT(NH_MULTICAST_LIST_SIZE == NDIS_HOOK_MULTICAST_LIST_SIZE);

namespace {

/*
 * A request block. The framework writes its tag at offset 16 and hands its
 * client the FilterNdisRequest at offset 24; everything else is the hook
 * driver's.
 */
typedef struct _NhRequest {
    ULONG m_Magic;
    ULONG m_nMade;             /* Hook_MakeNdisRequest calls */
    PVOID m_pArgument;         /* of the last request made: the completion's context */
    ULONG m_FrameworkTag;      /* written by the framework */
    ULONG m_Reserved;
    FilterNdisRequest m_Client;
    LIST_ENTRY m_Link;         /* in g_Hook.m_Requests */
    LIST_ENTRY m_PendingLink;  /* in g_Hook.m_PendingRequests while pending */
    BOOLEAN m_bPending;
    PFilterAdapter m_hAdapter; /* of the last request made */
} NhRequest, *PNhRequest;

C_ASSERT(FIELD_OFFSET(NhRequest, m_FrameworkTag) == NDIS_HOOK_REQUEST_TAG_OFFSET);
C_ASSERT(FIELD_OFFSET(NhRequest, m_Client) == NDIS_HOOK_REQUEST_RECORD_OFFSET);

/* The live block at Block, or NULL. Caller holds the lock. */
PNhRequest FindRequestLocked(PVOID Block)
{
    for (PLIST_ENTRY link = g_Hook.m_Requests.Flink; link != &g_Hook.m_Requests; link = link->Flink) {
        PNhRequest request = CONTAINING_RECORD(link, NhRequest, m_Link);
        if (request == Block)
            return request;
    }
    return NULL;
}

/* Answers a query with Size bytes of Data, or asks for a larger buffer. */
NDIS_STATUS Answer(PNDIS_REQUEST Request, const VOID *Data, ULONG Size)
{
    Request->DATA.QUERY_INFORMATION.BytesWritten = 0;
    Request->DATA.QUERY_INFORMATION.BytesNeeded = Size;
    if (Request->DATA.QUERY_INFORMATION.InformationBufferLength < Size ||
        Request->DATA.QUERY_INFORMATION.InformationBuffer == NULL)
        return NDIS_STATUS_BUFFER_TOO_SHORT;
    if (Size != 0)
        RtlCopyMemory(Request->DATA.QUERY_INFORMATION.InformationBuffer, Data, Size);
    Request->DATA.QUERY_INFORMATION.BytesWritten = Size;
    Request->DATA.QUERY_INFORMATION.BytesNeeded = 0;
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS AnswerUlong(PNDIS_REQUEST Request, ULONG Value)
{
    return Answer(Request, &Value, sizeof(Value));
}

/* A counter: 64 bits when the buffer holds them, else its low 32 bits (as miniports answer). */
NDIS_STATUS AnswerCounter(PNDIS_REQUEST Request, ULONG64 Value)
{
    if (Request->DATA.QUERY_INFORMATION.InformationBufferLength >= sizeof(ULONG64))
        return Answer(Request, &Value, sizeof(Value));
    NDIS_STATUS status = AnswerUlong(Request, (ULONG)Value);
    if (status != NDIS_STATUS_SUCCESS)
        Request->DATA.QUERY_INFORMATION.BytesNeeded = sizeof(ULONG64);
    return status;
}

/* TRUE for the requests the adapter completes later: statistics and the sets it supports. */
BOOLEAN Pends(const NDIS_REQUEST *Request)
{
    NDIS_OID oid = Request->DATA.QUERY_INFORMATION.Oid;
    if (Request->RequestType == NdisRequestSetInformation)
        return oid == OID_GEN_CURRENT_PACKET_FILTER || oid == OID_GEN_CURRENT_LOOKAHEAD ||
               oid == OID_802_3_MULTICAST_LIST;
    return oid == OID_GEN_XMIT_OK || oid == OID_GEN_RCV_OK;
}

/* The adapter's answer to a query; NDIS_STATUS_NOT_SUPPORTED for other OIDs. Caller holds the lock. */
NDIS_STATUS Query(PNhAdapter Adapter, PNDIS_REQUEST Request)
{
    const FilterAdapter *filter = &Adapter->m_Filter;
    switch (Request->DATA.QUERY_INFORMATION.Oid) {
    case OID_GEN_MEDIA_CONNECT_STATUS:
        return AnswerUlong(Request, filter->m_nAdapterMediaState);
    case OID_GEN_MEDIA_SUPPORTED:
    case OID_GEN_MEDIA_IN_USE:
        return AnswerUlong(Request, filter->m_nAdapterMedium);
    case OID_GEN_MAXIMUM_FRAME_SIZE:
        return AnswerUlong(Request, filter->m_usMTU);
    case OID_GEN_MAXIMUM_TOTAL_SIZE:
        return AnswerUlong(Request, (ULONG)filter->m_usMTU + NH_ETHERNET_HEADER);
    case OID_GEN_LINK_SPEED:
        return AnswerUlong(Request, Adapter->m_nLinkSpeed);
    case OID_GEN_MAXIMUM_LOOKAHEAD:
        return AnswerUlong(Request, FILTER_PACKET_DATA_SIZE);
    case OID_GEN_CURRENT_LOOKAHEAD:
        return AnswerUlong(Request, Adapter->m_nLookahead);
    case OID_GEN_CURRENT_PACKET_FILTER:
        return AnswerUlong(Request, Adapter->m_nPacketFilter);
    case OID_GEN_XMIT_OK:
        return AnswerCounter(Request, NhFramesOk(Adapter, NH_TO_ADAPTER));
    case OID_GEN_RCV_OK:
        return AnswerCounter(Request, NhFramesOk(Adapter, NH_TO_PROTOCOL));
    case OID_802_3_CURRENT_ADDRESS:
        return Answer(Request, filter->m_CurrentAddress, 6);
    case OID_802_3_PERMANENT_ADDRESS:
        return Answer(Request, filter->m_PermanentAddress, 6);
    case OID_802_3_MULTICAST_LIST:
        return Answer(Request, Adapter->m_Multicast, Adapter->m_nMulticast * 6);
    case OID_802_3_MAXIMUM_LIST_SIZE:
        return AnswerUlong(Request, NH_MULTICAST_LIST_SIZE);
    default:
        Request->DATA.QUERY_INFORMATION.BytesWritten = 0;
        Request->DATA.QUERY_INFORMATION.BytesNeeded = 0;
        return NDIS_STATUS_NOT_SUPPORTED;
    }
}

/* The adapter takes a setting; NDIS_STATUS_NOT_SUPPORTED for other OIDs. Caller holds the lock. */
NDIS_STATUS Set(PNhAdapter Adapter, PNDIS_REQUEST Request)
{
    auto *set = &Request->DATA.SET_INFORMATION;
    const UCHAR *data = (const UCHAR *)set->InformationBuffer;
    UINT length = data != NULL ? set->InformationBufferLength : 0;
    set->BytesRead = 0;
    set->BytesNeeded = 0;
    switch (set->Oid) {
    case OID_GEN_CURRENT_PACKET_FILTER:
    case OID_GEN_CURRENT_LOOKAHEAD: {
        if (length < sizeof(ULONG)) {
            set->BytesNeeded = sizeof(ULONG);
            return NDIS_STATUS_INVALID_LENGTH;
        }
        ULONG value;
        RtlCopyMemory(&value, data, sizeof(value));
        if (set->Oid == OID_GEN_CURRENT_PACKET_FILTER)
            Adapter->m_nPacketFilter = value;
        else if (value > FILTER_PACKET_DATA_SIZE)
            return NDIS_STATUS_INVALID_DATA;
        else
            Adapter->m_nLookahead = value;
        set->BytesRead = sizeof(ULONG);
        return NDIS_STATUS_SUCCESS;
    }
    case OID_802_3_MULTICAST_LIST:
        if (length % 6 != 0) {
            set->BytesNeeded = (length / 6 + 1) * 6;
            return NDIS_STATUS_INVALID_LENGTH;
        }
        if (length / 6 > NH_MULTICAST_LIST_SIZE)
            return NDIS_STATUS_MULTICAST_FULL;
        if (length != 0)
            RtlCopyMemory(Adapter->m_Multicast, data, length);
        Adapter->m_nMulticast = length / 6;
        set->BytesRead = length;
        return NDIS_STATUS_SUCCESS;
    default:
        return NDIS_STATUS_NOT_SUPPORTED;
    }
}

/* Carries out a request on its adapter now. Caller holds the lock. */
NDIS_STATUS CarryOut(PNhRequest Request)
{
    PNhAdapter adapter = NhFindOpenAdapterLocked(Request->m_hAdapter);
    if (adapter == NULL)
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    PNDIS_REQUEST ndis = &Request->m_Client.m_Request;
    switch (ndis->RequestType) {
    case NdisRequestQueryInformation:
    case NdisRequestQueryStatistics:
        return Query(adapter, ndis);
    case NdisRequestSetInformation:
        return Set(adapter, ndis);
    default:
        return NDIS_STATUS_NOT_SUPPORTED;
    }
}

/* What a completion needs once the lock is let go. */
struct Completion {
    PFilterNdisRequest m_pRequest;
    PFILTER_NDIS_REQUEST_COMPLETE m_pfComplete;
    PVOID m_pContext;
    NDIS_STATUS m_Status;
};

/* Records the outcome in the block and takes what its completion needs. Caller holds the lock. */
Completion CompleteLocked(PNhRequest Request, NDIS_STATUS Status)
{
    Request->m_bPending = FALSE;
    Request->m_Client.m_Status = Status;
    Completion completion = {&Request->m_Client, Request->m_Client.m_pfComplete, Request->m_pArgument, Status};
    return completion;
}

/* Calls the client's completion routine, without the lock. */
VOID Deliver(const Completion &Done)
{
    if (Done.m_pfComplete != NULL)
        Done.m_pfComplete(Done.m_pRequest, Done.m_Status, Done.m_pContext);
}

/*
 * The pending requests' completion, as the miniport's DPC: each is carried
 * out now (or aborted when the driver is unloading) and completed, oldest
 * first. IRQL == DISPATCH_LEVEL.
 */
VOID NTAPI CompletePendingRequests(PVOID, PVOID, PVOID, PVOID)
{
    {
        NhLock lock;
        g_Hook.m_bRequestTimerSet = FALSE;
        InterlockedIncrement(&g_Hook.m_nRequestTimerRuns);
    }
    for (;;) {
        Completion done;
        {
            NhLock lock;
            if (IsListEmpty(&g_Hook.m_PendingRequests) || (g_Hook.m_bHoldRequests && !g_Hook.m_bStopRequests))
                break;
            PNhRequest request = CONTAINING_RECORD(RemoveHeadList(&g_Hook.m_PendingRequests), NhRequest,
                                                   m_PendingLink);
            done = CompleteLocked(request, g_Hook.m_bStopRequests ? NDIS_STATUS_REQUEST_ABORTED : CarryOut(request));
        }
        Deliver(done);
    }
    InterlockedDecrement(&g_Hook.m_nRequestTimerRuns);
}

} // namespace

/* NhInitializeRequests - the timer that completes pending requests. IRQL == PASSIVE_LEVEL. */
VOID NhInitializeRequests(VOID)
{
    InitializeListHead(&g_Hook.m_PendingRequests);
    NdisInitializeTimer(&g_Hook.m_RequestTimer, CompletePendingRequests, NULL);
}

/* NhPendingRequestCount - requests made and not completed yet. */
ULONG NhPendingRequestCount(VOID)
{
    NhLock lock;
    ULONG count = 0;
    for (PLIST_ENTRY link = g_Hook.m_PendingRequests.Flink; link != &g_Hook.m_PendingRequests; link = link->Flink)
        count++;
    return count;
}

/* NhHoldPendingRequests - while held, pending requests stay pending; released, they complete. */
VOID NhHoldPendingRequests(BOOLEAN Hold)
{
    NhLock lock;
    g_Hook.m_bHoldRequests = Hold;
    if (!Hold && !g_Hook.m_bStopRequests && !g_Hook.m_bRequestTimerSet &&
        !IsListEmpty(&g_Hook.m_PendingRequests)) {
        g_Hook.m_bRequestTimerSet = TRUE;
        NdisSetTimer(&g_Hook.m_RequestTimer, 1);
    }
}

/*
 * Hook_AllocateRequest - a zeroed request block (see NDIS_HOOK_REQUEST_*_OFFSET);
 * NULL without memory. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PVOID NTAPI NhAllocateRequest(VOID)
{
    PNhRequest request = (PNhRequest)ExAllocatePoolWithTag(NonPagedPool, sizeof(NhRequest), NH_REQUEST_TAG);
    if (request == NULL)
        return NULL;
    RtlZeroMemory(request, sizeof(*request));
    request->m_Magic = NH_REQUEST_MAGIC;
    NhLock lock;
    InsertTailList(&g_Hook.m_Requests, &request->m_Link);
    return request;
}

/*
 * Hook_MakeNdisRequest - carries out the request inside the block on an open
 * adapter as its miniport would: at once, or later for statistics and sets
 * (NDIS_STATUS_PENDING). See ndishook.h for the OIDs. A block that is not
 * allocated, or still pending, is reported. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NDIS_STATUS NTAPI NhMakeNdisRequest(PFilterAdapter Adapter, PVOID Request, PVOID Argument)
{
    Completion done;
    {
        NhLock lock;
        PNhRequest request = FindRequestLocked(Request);
        if (request == NULL || request->m_bPending) {
            NhReportFinding("NdisHook: Hook_MakeNdisRequest(%p): %s", Request,
                            request == NULL ? "not an allocated request block" : "the request is still pending");
            return NDIS_STATUS_FAILURE;
        }
        request->m_nMade++;
        request->m_hAdapter = Adapter;
        request->m_pArgument = Argument;
        request->m_Client.m_Status = NDIS_STATUS_PENDING;
        if (!g_Hook.m_bStopRequests && NhFindOpenAdapterLocked(Adapter) != NULL &&
            Pends(&request->m_Client.m_Request)) {
            request->m_bPending = TRUE;
            InsertTailList(&g_Hook.m_PendingRequests, &request->m_PendingLink);
            if (!g_Hook.m_bRequestTimerSet) {
                g_Hook.m_bRequestTimerSet = TRUE;
                NdisSetTimer(&g_Hook.m_RequestTimer, 1);
            }
            return NDIS_STATUS_PENDING;
        }
        done = CompleteLocked(request, CarryOut(request));
    }
    Deliver(done);
    return done.m_Status;
}

/*
 * Hook_FreeRequest - frees a block from Hook_AllocateRequest; others are
 * reported, and so is one still pending (it is taken off the pending list
 * and never completed). IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NhFreeRequest(PVOID Request)
{
    PNhRequest request;
    BOOLEAN pending = FALSE;
    {
        NhLock lock;
        request = FindRequestLocked(Request);
        if (request != NULL) {
            RemoveEntryList(&request->m_Link);
            pending = request->m_bPending;
            if (pending)
                RemoveEntryList(&request->m_PendingLink);
        }
    }
    if (request == NULL) {
        NhReportFinding("NdisHook: Hook_FreeRequest(%p): not an allocated request block (freed twice?)", Request);
        return;
    }
    if (pending)
        NhReportFinding("NdisHook: Hook_FreeRequest(%p): the request is still pending", Request);
    request->m_Magic = 0;
    ExFreePoolWithTag(request, NH_REQUEST_TAG);
}

/*
 * NhReclaimRequests - at unload: pending requests complete as aborted, the
 * timer is stopped (and a run of it waited for), blocks still allocated are
 * reported and freed, and claims are dropped. IRQL == PASSIVE_LEVEL.
 */
VOID NhReclaimRequests(VOID)
{
    {
        NhLock lock;
        g_Hook.m_bStopRequests = TRUE;
    }
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&g_Hook.m_RequestTimer, &cancelled);
    if (cancelled) {
        NhLock lock;
        g_Hook.m_bRequestTimerSet = FALSE;
    }
    /* A run that fired before the cancel is let finish. */
    for (;;) {
        {
            NhLock lock;
            if (!g_Hook.m_bRequestTimerSet && g_Hook.m_nRequestTimerRuns == 0)
                break;
        }
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    /* What is still pending is aborted, as the miniport halts. */
    KIRQL irql;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    CompletePendingRequests(NULL, NULL, NULL, NULL);
    KeLowerIrql(irql);

    for (;;) {
        PNhRequest request;
        {
            NhLock lock;
            if (IsListEmpty(&g_Hook.m_Requests))
                break;
            request = CONTAINING_RECORD(RemoveHeadList(&g_Hook.m_Requests), NhRequest, m_Link);
        }
        NhReportFinding("NdisHook: request block %p was still allocated at unload", (PVOID)request);
        ExFreePoolWithTag(request, NH_REQUEST_TAG);
    }
    NhReleaseIoControls();
}

/*
 * Hook_GetOsVersion - the version the hook driver reports (each output
 * optional): NDIS_HOOK_OS_MAJOR, _MINOR, _BUILD, _SERVICE_PACK. Any IRQL.
 */
EXTERN_C NTSTATUS NTAPI NhGetOsVersion(PULONG Value1, PULONG Value2, PULONG Value3, PULONG Value4)
{
    if (Value1 != NULL)
        *Value1 = NDIS_HOOK_OS_MAJOR;
    if (Value2 != NULL)
        *Value2 = NDIS_HOOK_OS_MINOR;
    if (Value3 != NULL)
        *Value3 = NDIS_HOOK_OS_BUILD;
    if (Value4 != NULL)
        *Value4 = NDIS_HOOK_OS_SERVICE_PACK;
    return STATUS_SUCCESS;
}

/* ---- control codes ---- */

/*
 * Hook_HandleIoControl - STATUS_NOT_SUPPORTED unless the code was claimed:
 * then the claim's bytes go to OutputBuffer (STATUS_BUFFER_TOO_SMALL when
 * they do not fit) and its status is returned. IRQL == PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NhHandleIoControl(ULONG IoControlCode, PVOID InputBuffer, ULONG InputLength,
                                          PVOID OutputBuffer, ULONG OutputLength, PULONG BytesReturned)
{
    UNREFERENCED_PARAMETER(InputBuffer);
    UNREFERENCED_PARAMETER(InputLength);
    if (BytesReturned != NULL)
        *BytesReturned = 0;
    NhLock lock;
    for (ULONG i = 0; i < NH_MAX_CLAIMS; i++) {
        NhClaim *claim = &g_Hook.m_Claims[i];
        if (!claim->m_bUsed || claim->m_Code != IoControlCode)
            continue;
        if (claim->m_nLength > OutputLength || (claim->m_nLength != 0 && OutputBuffer == NULL))
            return STATUS_BUFFER_TOO_SMALL;
        if (claim->m_nLength != 0)
            RtlCopyMemory(OutputBuffer, claim->m_pData, claim->m_nLength);
        if (BytesReturned != NULL)
            *BytesReturned = claim->m_nLength;
        return claim->m_Status;
    }
    return STATUS_NOT_SUPPORTED;
}

/* NhClaimIoControl - makes Hook_HandleIoControl answer Code (replacing an earlier claim of it). */
NTSTATUS NhClaimIoControl(ULONG Code, NTSTATUS Status, const VOID *Data, ULONG Length)
{
    PUCHAR copy = NULL;
    if (Length != 0) {
        copy = (PUCHAR)ExAllocatePoolWithTag(NonPagedPool, Length, NH_CLAIM_TAG);
        if (copy == NULL)
            return STATUS_INSUFFICIENT_RESOURCES;
        RtlCopyMemory(copy, Data, Length);
    }
    PUCHAR old = NULL;
    NTSTATUS result = STATUS_INSUFFICIENT_RESOURCES;
    {
        NhLock lock;
        NhClaim *slot = NULL;
        for (ULONG i = 0; i < NH_MAX_CLAIMS; i++) {
            NhClaim *claim = &g_Hook.m_Claims[i];
            if (claim->m_bUsed && claim->m_Code == Code) {
                slot = claim;
                break;
            }
            if (!claim->m_bUsed && slot == NULL)
                slot = claim;
        }
        if (slot != NULL) {
            old = slot->m_bUsed ? slot->m_pData : NULL;
            slot->m_bUsed = TRUE;
            slot->m_Code = Code;
            slot->m_Status = Status;
            slot->m_pData = copy;
            slot->m_nLength = Length;
            copy = NULL;
            result = STATUS_SUCCESS;
        }
    }
    if (old != NULL)
        ExFreePoolWithTag(old, NH_CLAIM_TAG);
    if (copy != NULL)
        ExFreePoolWithTag(copy, NH_CLAIM_TAG);
    return result;
}

/* NhReleaseIoControls - forgets every claim. */
VOID NhReleaseIoControls(VOID)
{
    for (ULONG i = 0; i < NH_MAX_CLAIMS; i++) {
        PUCHAR data;
        {
            NhLock lock;
            data = g_Hook.m_Claims[i].m_pData;
            RtlZeroMemory(&g_Hook.m_Claims[i], sizeof(g_Hook.m_Claims[i]));
        }
        if (data != NULL)
            ExFreePoolWithTag(data, NH_CLAIM_TAG);
    }
}

/* ---- user-mode mapping ---- */

/*
 * Hook_MmMapLockedPages - maps the MDL's pages into user mode (a second
 * mapping of the same memory), stores the address in
 * Memory->m_pUserModeVirtualAddress (when Memory is given) and returns it;
 * NULL when the pages cannot be mapped. ShareValue is not interpreted.
 * IRQL <= APC_LEVEL.
 */
EXTERN_C PVOID NTAPI NhMmMapLockedPages(PMDL Mdl, ULONG ShareValue, PMappedMemory Memory)
{
    UNREFERENCED_PARAMETER(ShareValue);
    PVOID address = MmMapLockedPagesSpecifyCache(Mdl, UserMode, MmCached, NULL, FALSE, NormalPagePriority);
    if (Memory != NULL)
        Memory->m_pUserModeVirtualAddress = address;
    return address;
}

/* Hook_MmUnmapLockedPages - undoes Hook_MmMapLockedPages. IRQL <= APC_LEVEL. */
EXTERN_C VOID NTAPI NhMmUnmapLockedPages(PMDL Mdl, PVOID UserAddress)
{
    MmUnmapLockedPages(UserAddress, Mdl);
}
