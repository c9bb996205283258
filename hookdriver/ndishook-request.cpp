/*
 * ndishook-request.cpp - NDIS request blocks and the answers to them, the
 * OS version, control codes the hook driver claims, and user-mode mapping of
 * the framework's shared memory.
 */
#include "ndishook-internal.h"
#include "include/ndishook.h"

namespace {

/*
 * A request block. The framework writes its tag at offset 16 and works on
 * the NDIS_REQUEST at offset 24; everything else is the hook driver's.
 */
typedef struct _NhRequest {
    ULONG m_Magic;
    ULONG m_nMade;             /* Hook_MakeNdisRequest calls */
    PVOID m_pArgument;         /* of the last request made */
    ULONG m_FrameworkTag;      /* written by the framework */
    ULONG m_Reserved;
    NDIS_REQUEST m_Request;
    LIST_ENTRY m_Link;         /* in g_Hook.m_Requests */
    PFilterAdapter m_hAdapter; /* of the last request made */
} NhRequest, *PNhRequest;

C_ASSERT(FIELD_OFFSET(NhRequest, m_FrameworkTag) == NDIS_HOOK_REQUEST_TAG_OFFSET);
C_ASSERT(FIELD_OFFSET(NhRequest, m_Request) == NDIS_HOOK_REQUEST_RECORD_OFFSET);

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
    RtlCopyMemory(Request->DATA.QUERY_INFORMATION.InformationBuffer, Data, Size);
    Request->DATA.QUERY_INFORMATION.BytesWritten = Size;
    Request->DATA.QUERY_INFORMATION.BytesNeeded = 0;
    return NDIS_STATUS_SUCCESS;
}

/* The adapter's answer to a query; NDIS_STATUS_NOT_SUPPORTED for other OIDs. Caller holds the lock. */
NDIS_STATUS Query(PNhAdapter Adapter, PNDIS_REQUEST Request)
{
    ULONG value;
    switch (Request->DATA.QUERY_INFORMATION.Oid) {
    case OID_GEN_MEDIA_CONNECT_STATUS:
        value = Adapter->m_Filter.m_nAdapterMediaState;
        return Answer(Request, &value, sizeof(value));
    case OID_802_3_CURRENT_ADDRESS:
        return Answer(Request, Adapter->m_Filter.m_CurrentAddress, 6);
    case OID_802_3_PERMANENT_ADDRESS:
        return Answer(Request, Adapter->m_Filter.m_PermanentAddress, 6);
    case OID_GEN_MAXIMUM_FRAME_SIZE:
        value = Adapter->m_Filter.m_usMTU;
        return Answer(Request, &value, sizeof(value));
    case OID_GEN_LINK_SPEED:
        value = Adapter->m_nLinkSpeed;
        return Answer(Request, &value, sizeof(value));
    default:
        Request->DATA.QUERY_INFORMATION.BytesWritten = 0;
        Request->DATA.QUERY_INFORMATION.BytesNeeded = 0;
        return NDIS_STATUS_NOT_SUPPORTED;
    }
}

} // namespace

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
 * Hook_MakeNdisRequest - carries out the NDIS_REQUEST inside the block on an
 * open adapter, synchronously. Queries of the media connect status, current
 * and permanent address, maximum frame size (the MTU) and link speed are
 * answered; anything else is NDIS_STATUS_NOT_SUPPORTED. A block that is not
 * allocated is reported. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C NDIS_STATUS NTAPI NhMakeNdisRequest(PFilterAdapter Adapter, PVOID Request, PVOID Argument)
{
    NhLock lock;
    PNhRequest request = FindRequestLocked(Request);
    if (request == NULL) {
        NhReportFinding("NdisHook: Hook_MakeNdisRequest(%p): not an allocated request block", Request);
        return NDIS_STATUS_FAILURE;
    }
    request->m_nMade++;
    request->m_hAdapter = Adapter;
    request->m_pArgument = Argument;
    PNhAdapter adapter = NhFindOpenAdapterLocked(Adapter);
    if (adapter == NULL)
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    if (request->m_Request.RequestType != NdisRequestQueryInformation &&
        request->m_Request.RequestType != NdisRequestQueryStatistics)
        return NDIS_STATUS_NOT_SUPPORTED;
    return Query(adapter, &request->m_Request);
}

/* Hook_FreeRequest - frees a block from Hook_AllocateRequest; others are reported. IRQL <= DISPATCH_LEVEL. */
EXTERN_C VOID NTAPI NhFreeRequest(PVOID Request)
{
    PNhRequest request;
    {
        NhLock lock;
        request = FindRequestLocked(Request);
        if (request != NULL)
            RemoveEntryList(&request->m_Link);
    }
    if (request == NULL) {
        NhReportFinding("NdisHook: Hook_FreeRequest(%p): not an allocated request block (freed twice?)", Request);
        return;
    }
    request->m_Magic = 0;
    ExFreePoolWithTag(request, NH_REQUEST_TAG);
}

/* NhReclaimRequests - at unload: blocks still allocated are reported and freed; claims are dropped. */
VOID NhReclaimRequests(VOID)
{
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
