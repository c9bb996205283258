/*
 * ndisfilter-ndis-request.cpp - NDIS requests of client drivers, carried out
 * by the hook driver, which alone holds the adapters' NDIS bindings.
 *
 * The hook driver allocates a request block; the framework stamps its tag at
 * byte 16 and hands the client the address of byte 24, where the request the
 * client fills begins (FilterNdisRequest). Every call turns the handle back
 * into the block address for the hook driver. How a request completes is the
 * hook driver's business: the client learns the outcome from the record and
 * its completion routine, never from the status of Filter_MakeNdisRequest.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

#define NF_REQUEST_TAG_OFFSET 16
#define NF_REQUEST_HANDLE_OFFSET 24

namespace {

/* The block address, computed on integers: a handle of 24 gives a NULL block, which is tested. */
PVOID BlockOf(PFilterNdisRequest Request)
{
    return (PVOID)((ULONG_PTR)Request - NF_REQUEST_HANDLE_OFFSET);
}

} // namespace

/*
 * Filter_AllocateNdisRequest - a request block from the hook driver, tagged,
 * whose handle goes to *Request. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_AllocateNdisRequest(PFilterNdisRequest *Request)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_AllocateNdisRequest", status);
    if (Request == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    NfHookReference hook;
    PHOOK_ALLOCATE_REQUEST allocate = hook.Get(&NdisHookAPI::Hook_AllocateRequest);
    PHOOK_FREE_REQUEST release = hook.Get(&NdisHookAPI::Hook_FreeRequest);
    if (allocate == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        return status;
    }
    PUCHAR block = NULL;
    LONG code = FilterGuard([&] { block = (PUCHAR)allocate(); });
    if (code == 0 && block == NULL) {
        status = FILTER_ERROR_OUT_OF_MEMORY;
        return status;
    }
    if (code == 0) {
        *(volatile ULONG *)(block + NF_REQUEST_TAG_OFFSET) = FILTER_NDIS_REQUEST_TAG;
        code = FilterGuard([&] { *Request = (PFilterNdisRequest)(block + NF_REQUEST_HANDLE_OFFSET); });
        /* A block the caller cannot receive goes straight back. */
        if (code != 0 && release != NULL)
            FilterGuard([&] { release(block); });
    }
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_AllocateNdisRequest", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_IsValidNdisRequest - TRUE when the tag lies 8 bytes before the
 * handle. Failures are printed whatever the mask, with the block address.
 * Any IRQL.
 */
EXTERN_C BOOLEAN NTAPI Filter_IsValidNdisRequest(PFilterNdisRequest Request)
{
    if (Request == NULL) {
        NF_PRINT("Filter_IsValidNdisRequest: Invalid Handle 0x%p, NULL pointer\n", (PVOID)Request);
        return FALSE;
    }
    ULONG_PTR block = (ULONG_PTR)BlockOf(Request);
    ULONG tag = 0xFFFFFFFF;
    if (block != 0) {
        LONG code = FilterGuard([&] { tag = *(const volatile ULONG *)(block + NF_REQUEST_TAG_OFFSET); });
        if (code != 0) {
            NF_PRINT("Filter_IsValidNdisRequest: exception, code = %d\n", (int)code);
            return FALSE;
        }
        if (tag == FILTER_NDIS_REQUEST_TAG)
            return TRUE;
    }
    NF_PRINT("Filter_IsValidNdisRequest: Invalid Handle 0x%p, bad tag 0x%x\n", (PVOID)block, (unsigned)tag);
    return FALSE;
}

/*
 * Filter_MakeNdisRequest - hands the request to the hook driver for the
 * adapter; Context goes to the request's completion routine. The answer is
 * success whatever the request's outcome. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_MakeNdisRequest(PFilterAdapter Adapter, PFilterNdisRequest Request,
                                                    PVOID Context)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_MakeNdisRequest", status);
    if (Adapter == NULL || Request == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidAdapter(Adapter)) {
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        return status;
    }
    if (!Filter_IsValidNdisRequest(Request)) {
        status = FILTER_ERROR_INVALID_NDIS_REQUEST;
        return status;
    }
    NfHookReference hook;
    PHOOK_MAKE_NDIS_REQUEST make = hook.Get(&NdisHookAPI::Hook_MakeNdisRequest);
    if (make == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        return status;
    }
    LONG code = FilterGuard([&] { make(Adapter, BlockOf(Request), Context); });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_MakeNdisRequest", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/*
 * Filter_FreeNdisRequest - gives the block back to the hook driver. The tag
 * is left as it is: the block is the hook driver's from here on.
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_FreeNdisRequest(PFilterNdisRequest Request)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_FreeNdisRequest", status);
    if (Request == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidNdisRequest(Request)) {
        status = FILTER_ERROR_INVALID_NDIS_REQUEST;
        return status;
    }
    NfHookReference hook;
    PHOOK_FREE_REQUEST release = hook.Get(&NdisHookAPI::Hook_FreeRequest);
    if (release == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        return status;
    }
    LONG code = FilterGuard([&] { release(BlockOf(Request)); });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_FreeNdisRequest", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}
