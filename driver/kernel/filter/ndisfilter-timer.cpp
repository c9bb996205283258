/*
 * ndisfilter-timer.cpp - timers of client drivers.
 *
 * A client's timer is an NDIS timer whose routine (Filter_TimerProc, at
 * DISPATCH_LEVEL) queues the client's callback as a work item on the delayed
 * work queue, so the callback runs at PASSIVE_LEVEL and may block. A
 * repeating timer re-arms itself in that routine, before the callback is
 * queued, so its period runs from expiry to expiry and callbacks may overlap.
 *
 * Ending a timer (free, its owner's deregistration, teardown) disarms it
 * under m_StateLock and then flushes the queued DPCs: once that returns, no
 * expiry of it runs or can come. The record is reference-counted (the list
 * and every queued work item), so a work item still queued keeps it alive.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

#define NF_TIMER_POOL_TAG 0x4153664E /* "NfSA" */

/*
 * Callbacks of one timer queued and not yet finished, at most: an expiry
 * beyond it is dropped, as one whose work item cannot be allocated is, so a
 * fast repeating timer with a slow callback cannot fill the work queue.
 */
#define NF_TIMER_MAX_PENDING 64

namespace {

/* One queued callback: the work item and the timer it runs for. */
struct TimerWork {
    PIO_WORKITEM m_pWorkItem;
    PFilterTimer m_pTimer;
};

/* Drops one reference; the last frees the record. Any IRQL <= DISPATCH_LEVEL. */
VOID ReleaseTimer(PFilterTimer Timer)
{
    if (InterlockedDecrement(&Timer->m_nReferences) == 0)
        NdisFilter_FreeRecord(Timer);
}

/*
 * Disarms the timer for good: no expiry is wanted any more, a routine already
 * dequeued returns without effect, and the NDIS timer leaves the queue. The
 * caller flushes the queued DPCs afterwards. IRQL <= DISPATCH_LEVEL.
 */
VOID EndTimer(PFilterTimer Timer)
{
    KIRQL irql;
    KeAcquireSpinLock(&Timer->m_StateLock, &irql);
    Timer->m_bEnded = TRUE;
    Timer->m_nExpiries = 0;
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&Timer->m_NdisTimer, &cancelled);
    KeReleaseSpinLock(&Timer->m_StateLock, irql);
}

/*
 * Filter_TimerWorkRoutine - runs one callback at PASSIVE_LEVEL. A fault in
 * the client is reported and swallowed; the pending count falls either way.
 */
VOID NTAPI Filter_TimerWorkRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    TimerWork *work = (TimerWork *)Context;
    PFilterTimer timer = work->m_pTimer;
    IoFreeWorkItem(work->m_pWorkItem);
    ExFreePoolWithTag(work, NF_TIMER_POOL_TAG);

    if (!timer->m_bSilenced) {
        LONG code = FilterGuard([&] {
            timer->m_pfTimerProc(timer->m_hFilterDriver, timer->m_pDriverContext, timer, timer->m_pTimerContext);
        });
        if (code != 0)
            NF_PRINT_EXCEPTION("Filter_TimerWorkRoutine", code);
    }
    if (InterlockedDecrement(&timer->m_nPending) == 0)
        KeSetEvent(&timer->m_CompletionEvent, IO_NO_INCREMENT, FALSE);
    ReleaseTimer(timer);
    NdisFilter_WorkItemDone();
}

/*
 * Filter_TimerProc - the NDIS timer's routine, at DISPATCH_LEVEL: re-arms a
 * repeating timer, then queues the callback. An expiry that is no longer
 * wanted (the timer was stopped or ended after this routine was dequeued)
 * does nothing.
 */
VOID NTAPI Filter_TimerProc(PVOID SystemSpecific1, PVOID FunctionContext, PVOID SystemSpecific2,
                            PVOID SystemSpecific3)
{
    UNREFERENCED_PARAMETER(SystemSpecific1);
    UNREFERENCED_PARAMETER(SystemSpecific2);
    UNREFERENCED_PARAMETER(SystemSpecific3);
    PFilterTimer timer = (PFilterTimer)FunctionContext;
    if (timer == NULL) {
        NF_PRINT("Filter_TimerProc: pTimerObj is NULL\n");
        return;
    }

    KeAcquireSpinLockAtDpcLevel(&timer->m_StateLock);
    if (timer->m_nExpiries == 0) {
        KeReleaseSpinLockFromDpcLevel(&timer->m_StateLock);
        return;
    }
    if (timer->m_bRepeatTimer) {
        NdisSetTimer(&timer->m_NdisTimer, timer->m_MsToDelay);
        timer->m_nExpiries = 1;
    } else {
        timer->m_nExpiries--;
    }

    TimerWork *work = NULL;
    if (timer->m_nPending < NF_TIMER_MAX_PENDING)
        work = (TimerWork *)ExAllocatePoolWithTag(NonPagedPool, sizeof(TimerWork), NF_TIMER_POOL_TAG);
    if (work != NULL) {
        work->m_pTimer = timer;
        work->m_pWorkItem = IoAllocateWorkItem(g_pGlobal->m_pDeviceObject);
        if (work->m_pWorkItem == NULL) {
            ExFreePoolWithTag(work, NF_TIMER_POOL_TAG);
            work = NULL;
        }
    }
    if (work != NULL) { /* otherwise this tick is lost */
        InterlockedIncrement(&timer->m_nPending);
        KeClearEvent(&timer->m_CompletionEvent);
        InterlockedIncrement(&timer->m_nReferences);
        NdisFilter_WorkItemQueued();
        IoQueueWorkItem(work->m_pWorkItem, Filter_TimerWorkRoutine, DelayedWorkQueue, work);
    }
    KeReleaseSpinLockFromDpcLevel(&timer->m_StateLock);
}

/* The handle checks of Start and Stop: NULL, then the tag. */
FILTER_STATUS CheckTimer(PFilterTimer Timer)
{
    if (Timer == NULL)
        return FILTER_ERROR_INVALID_ARGUMENT;
    if (!Filter_IsValidTimer(Timer))
        return FILTER_ERROR_INVALID_TIMER_HANDLE;
    return FILTER_STATUS_SUCCESS;
}

/* Ends every timer unlinked onto `Ended` (callbacks silenced or not), then lets go of them. IRQL = PASSIVE_LEVEL. */
VOID FinishEndedTimers(PLIST_ENTRY Ended)
{
    if (IsListEmpty(Ended))
        return;
    KeFlushQueuedDpcs(); /* no routine of them is running or can come */
    while (!IsListEmpty(Ended)) {
        PFilterTimer timer = CONTAINING_RECORD(RemoveHeadList(Ended), FilterTimer, m_ListEntry);
        ReleaseTimer(timer);
    }
}

} // namespace

/*
 * Filter_InitializeTimer - a new timer of FilterDriver at the tail of the
 * timer list, not started. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_InitializeTimer(PFilterDriver FilterDriver, PFILTER_TIMER_PROC TimerProc,
                                                    PVOID TimerContext, BOOLEAN Repeat, PFilterTimer *Timer)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_InitializeTimer", status);
    if (FilterDriver == NULL || TimerProc == NULL || Timer == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (!Filter_IsValidDriver(FilterDriver)) {
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
        return status;
    }
    PFilterTimer timer = (PFilterTimer)NdisFilter_AllocateRecord(sizeof(FilterTimer), NF_TIMER_POOL_TAG);
    if (timer == NULL)
        return status; /* success with no handle: callers test the handle */
    RtlZeroMemory(timer, sizeof(*timer));
    timer->m_Tag = FILTER_TIMER_TAG;
    timer->m_hFilterDriver = FilterDriver;
    timer->m_pDriverContext = FilterDriver->m_pDriverContext;
    timer->m_pfTimerProc = TimerProc;
    timer->m_pTimerContext = TimerContext;
    timer->m_bRepeatTimer = Repeat != FALSE;
    timer->m_MsToDelay = 0;
    timer->m_nPending = 0;
    timer->m_nReferences = 1; /* the list's */
    KeInitializeEvent(&timer->m_CompletionEvent, NotificationEvent, FALSE);
    KeInitializeSpinLock(&timer->m_StateLock);
    NdisInitializeTimer(&timer->m_NdisTimer, Filter_TimerProc, timer);
    {
        NfWriteLock lock(&g_pGlobal->m_FilterTimerLock);
        InsertTailList(&g_pGlobal->m_FilterTimerList, &timer->m_ListEntry);
    }
    *Timer = timer;
    return status;
}

/* Filter_IsValidTimer - the tag check only; list membership is not looked at. */
EXTERN_C BOOLEAN NTAPI Filter_IsValidTimer(PFilterTimer Timer)
{
    return NdisFilter_CheckHandle("Filter_IsValidTimer", Timer, FIELD_OFFSET(FilterTimer, m_Tag), FILTER_TIMER_TAG);
}

/*
 * Filter_StartTimer - arms the timer to expire Milliseconds from now (a set
 * timer is moved); a repeating timer keeps that period. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_StartTimer(PFilterTimer Timer, ULONG Milliseconds)
{
    FILTER_STATUS status = CheckTimer(Timer);
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_StartTimer", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    KIRQL irql;
    KeAcquireSpinLock(&Timer->m_StateLock, &irql);
    if (Timer->m_bEnded) {
        status = FILTER_ERROR_INVALID_TIMER_HANDLE; /* being freed */
    } else {
        Timer->m_MsToDelay = Milliseconds;
        /* A timer that was not queued may have an expiry on its way: that one is still wanted too. */
        BOOLEAN wasQueued = FALSE;
        NdisCancelTimer(&Timer->m_NdisTimer, &wasQueued);
        if (!wasQueued || Timer->m_nExpiries == 0)
            Timer->m_nExpiries++;
        NdisSetTimer(&Timer->m_NdisTimer, Milliseconds);
    }
    KeReleaseSpinLock(&Timer->m_StateLock, irql);
    return status;
}

/*
 * Filter_StopTimer - disarms the timer; an expiry on its way is dropped, a
 * callback already queued still runs. The repeat flag stays. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_StopTimer(PFilterTimer Timer)
{
    FILTER_STATUS status = CheckTimer(Timer);
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_StopTimer", status);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    KIRQL irql;
    KeAcquireSpinLock(&Timer->m_StateLock, &irql);
    Timer->m_nExpiries = 0;
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&Timer->m_NdisTimer, &cancelled);
    KeReleaseSpinLock(&Timer->m_StateLock, irql);
    return status;
}

/*
 * Filter_FreeTimer - unlinks the timer if FilterDriver owns it, disarms it,
 * waits for the callbacks queued before, and frees it. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_FreeTimer(PFilterDriver FilterDriver, PFilterTimer Timer)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_ENTER(NF_DBG_COMMON, "Filter_FreeTimer");
    if (FilterDriver == NULL || Timer == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else if (!Filter_IsValidDriver(FilterDriver))
        status = FILTER_ERROR_INVALID_DRIVER_HANDLE;
    else if (!Filter_IsValidTimer(Timer))
        status = FILTER_ERROR_INVALID_TIMER_HANDLE;
    else {
        NfWriteLock lock(&g_pGlobal->m_FilterTimerLock);
        status = FILTER_ERROR_TIMER_HANDLER_NOT_FOUND;
        PLIST_ENTRY head = &g_pGlobal->m_FilterTimerList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            if (link != &Timer->m_ListEntry)
                continue;
            if (Timer->m_hFilterDriver != FilterDriver) {
                status = FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER;
            } else {
                RemoveEntryList(link);
                Timer->m_Tag = 0; /* a stale handle no longer passes the check */
                status = FILTER_STATUS_SUCCESS;
            }
            break;
        }
    }
    if (status != FILTER_STATUS_SUCCESS) {
        NF_TRACE_ERROR(NF_DBG_COMMON, status);
        NF_LEAVE_STATUS(NF_DBG_COMMON, "Filter_FreeTimer", status);
        return status;
    }

    EndTimer(Timer);
    KeFlushQueuedDpcs();
    LONG pending = Timer->m_nPending;
    if (pending > 0) {
        NF_PRINT("Filter_FreeTimer: wait %d pending timer callback to completed\n", (int)pending);
        KeWaitForSingleObject(&Timer->m_CompletionEvent, Executive, KernelMode, FALSE, NULL);
        NF_PRINT("Filter_FreeTimer: pending timer callback has completed\n");
    }
    ReleaseTimer(Timer);
    NF_TRACE_ERROR(NF_DBG_COMMON, status); /* the success line goes through the error format */
    NF_LEAVE_STATUS(NF_DBG_COMMON, "Filter_FreeTimer", status);
    return status;
}

/*
 * Ends and frees every timer a deregistering driver owns. Callbacks already
 * queued are dropped, a callback already running is not waited for (the
 * record stays until it returns). IRQL = PASSIVE_LEVEL.
 */
VOID NdisFilter_RemoveDriverTimers(PFilterDriver Driver)
{
    LIST_ENTRY ended;
    InitializeListHead(&ended);
    {
        NfWriteLock lock(&g_pGlobal->m_FilterTimerLock);
        PLIST_ENTRY head = &g_pGlobal->m_FilterTimerList;
        PLIST_ENTRY link = head->Flink;
        while (link != head) {
            PLIST_ENTRY next = link->Flink;
            PFilterTimer timer = CONTAINING_RECORD(link, FilterTimer, m_ListEntry);
            if (timer->m_hFilterDriver == Driver) {
                RemoveEntryList(link);
                timer->m_Tag = 0;
                InterlockedExchange(&timer->m_bSilenced, TRUE);
                EndTimer(timer);
                InsertTailList(&ended, link);
            }
            link = next;
        }
    }
    FinishEndedTimers(&ended);
}

/* At teardown: ends every timer; the queued work items free the last records. IRQL = PASSIVE_LEVEL. */
VOID NdisFilter_CancelTimers(VOID)
{
    LIST_ENTRY ended;
    InitializeListHead(&ended);
    PLIST_ENTRY head = &g_pGlobal->m_FilterTimerList;
    while (!IsListEmpty(head)) {
        PFilterTimer timer = CONTAINING_RECORD(RemoveHeadList(head), FilterTimer, m_ListEntry);
        timer->m_Tag = 0;
        InterlockedExchange(&timer->m_bSilenced, TRUE);
        EndTimer(timer);
        InsertTailList(&ended, &timer->m_ListEntry);
    }
    FinishEndedTimers(&ended);
}
