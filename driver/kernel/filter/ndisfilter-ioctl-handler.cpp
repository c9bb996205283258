/*
 * ndisfilter-ioctl-handler.cpp - control requests answered by client drivers.
 *
 * A client driver registers one handler; user-mode requests on the control
 * device whose code neither the framework nor the hook driver claims are
 * offered to the handlers in registration order, and the first answer other
 * than STATUS_NOT_SUPPORTED is the request's. The handler list is held
 * shared while handlers run, at PASSIVE_LEVEL, so a handler is never
 * removed (nor its driver unloaded) while it runs.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

#define NF_IOCTL_POOL_TAG 0x4349664E /* "NfIC" */

/*
 * Filter_RegisterIoControl - FilterDriver's one handler, at the tail of the
 * list. When memory is short it answers success without a handle.
 * IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_RegisterIoControl(PFilterDriver FilterDriver, PFILTER_IOCTL_PROC IoCtrlProc,
                                                      PVOID Context, PIoCtrlHandler *Handler)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_IOCTL_HANDLER, "Filter_RegisterIoControl", status);
    if (FilterDriver == NULL || IoCtrlProc == NULL || Handler == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }

    NfExclusivePassiveLock lock(&g_pGlobal->m_IoCtrlHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_IoCtrlHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        if (CONTAINING_RECORD(link, IoCtrlHandler, m_ListEntry)->m_hFilterDriver == FilterDriver) {
            status = FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED;
            return status;
        }
    }
    PIoCtrlHandler handler = (PIoCtrlHandler)NdisFilter_AllocateRecord(sizeof(IoCtrlHandler), NF_IOCTL_POOL_TAG);
    if (handler == NULL)
        return status; /* success with no handle: callers test the handle */
    RtlZeroMemory(handler, sizeof(*handler));
    handler->m_Tag = FILTER_IOCTL_HANDLER_TAG;
    handler->m_hFilterDriver = FilterDriver;
    handler->m_pfIoCtrlProc = IoCtrlProc;
    handler->m_pIoCtrlContext = Context;
    InsertTailList(head, &handler->m_ListEntry);
    *Handler = handler;
    return status;
}

EXTERN_C BOOLEAN NTAPI Filter_IsValidIoCtrlHandler(PIoCtrlHandler Handler)
{
    return NdisFilter_CheckHandle("Filter_IsValidIoCtrlHandler", Handler, FIELD_OFFSET(IoCtrlHandler, m_Tag),
                                  FILTER_IOCTL_HANDLER_TAG);
}

/*
 * Filter_DeregisterIoControl - removes FilterDriver's handler once no
 * request is being offered to the handlers. Never from inside a handler.
 * IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_DeregisterIoControl(PFilterDriver FilterDriver, PIoCtrlHandler Handler)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_TRACE(NF_DBG_IOCTL_HANDLER, "Enter Filter_DeregisterIoControlr\n");
    if (FilterDriver == NULL || Handler == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    } else if (!Filter_IsValidIoCtrlHandler(Handler)) {
        status = FILTER_ERROR_INVALID_IOCTL_HANDLER;
    } else {
        NfExclusivePassiveLock lock(&g_pGlobal->m_IoCtrlHandlerLock);
        status = FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND;
        PLIST_ENTRY head = &g_pGlobal->m_IoCtrlHandlerList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            if (link != &Handler->m_ListEntry)
                continue;
            if (Handler->m_hFilterDriver != FilterDriver) {
                status = FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER;
            } else {
                RemoveEntryList(link);
                status = FILTER_STATUS_SUCCESS;
            }
            break;
        }
    }
    if (status == FILTER_STATUS_SUCCESS) {
        Handler->m_Tag = 0;
        NdisFilter_FreeRecord(Handler);
    }
    NF_TRACE_ERROR(NF_DBG_IOCTL_HANDLER, status); /* success, too, goes through the error format */
    NF_LEAVE_STATUS(NF_DBG_IOCTL_HANDLER, "Filter_DeregisterIoControl", status);
    return status;
}

/* Filter_DefaultIoCtrlHandler - the answer of a handler to a code it does not own. */
EXTERN_C NTSTATUS NTAPI Filter_DefaultIoCtrlHandler(PVOID Context, PIRP Irp, ULONG IoControlCode, PVOID InputBuffer,
                                                    ULONG InputLength, PVOID OutputBuffer, ULONG OutputLength,
                                                    PULONG_PTR BytesReturned)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(IoControlCode);
    UNREFERENCED_PARAMETER(InputBuffer);
    UNREFERENCED_PARAMETER(InputLength);
    UNREFERENCED_PARAMETER(OutputBuffer);
    UNREFERENCED_PARAMETER(OutputLength);
    UNREFERENCED_PARAMETER(BytesReturned);
    return STATUS_NOT_SUPPORTED;
}

/*
 * The walk of the handlers for an unclaimed request, at PASSIVE_LEVEL. A
 * handler that faults ends the walk with the status the request had before
 * it; the bytes a handler reports never exceed the output it was given. A
 * handler that answers STATUS_PENDING owns the request from then on.
 */
VOID NdisFilter_OfferToIoCtrlHandlers(PIRP Irp, ULONG Code, PVOID Input, ULONG InputLength, PVOID Output,
                                      ULONG OutputLength, NTSTATUS *Status, ULONG *Information)
{
    NfSharedPassiveLock lock(&g_pGlobal->m_IoCtrlHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_IoCtrlHandlerList;
    PLIST_ENTRY link = head->Flink;
    while (link != head) {
        PLIST_ENTRY next = link->Flink;
        PIoCtrlHandler handler = CONTAINING_RECORD(link, IoCtrlHandler, m_ListEntry);
        ULONG_PTR returned = 0;
        NTSTATUS status = STATUS_NOT_SUPPORTED;
        LONG code = FilterGuard([&] {
            status = handler->m_pfIoCtrlProc(handler->m_pIoCtrlContext, Irp, Code, Input, InputLength, Output,
                                             OutputLength, &returned);
        });
        if (code != 0) {
            NF_PRINT("NdisFilterIoControl: exception in filter, code = %d\n", (int)code);
            return;
        }
        if (status != STATUS_NOT_SUPPORTED) {
            *Status = status;
            *Information = returned < OutputLength ? (ULONG)returned : OutputLength;
            return;
        }
        link = next;
    }
}
