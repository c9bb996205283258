/*
 * ndisfilter-events.cpp - the event queue that client drivers report into and
 * the user program reads one record at a time.
 *
 * Records come from a non-paged lookaside list and wait on m_FilterLogList
 * (first in, first out) under m_FilterLogLock. At most
 * FILTER_MAX_EVENT_RECORDS records exist at once, queued or held; events
 * beyond that are dropped, never overwritten.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

/* Sets up the lookaside list, lock and list at start-up. IRQL = PASSIVE_LEVEL. */
VOID NdisFilter_InitializeEventQueue(VOID)
{
    ExInitializeNPagedLookasideList(&g_pGlobal->m_LogLookasideList, NULL, NULL, 0, sizeof(FilterLogRecord),
                                    FILTER_LOG_LOOKASIDE_TAG, 0);
    NdisInitializeReadWriteLock(&g_pGlobal->m_FilterLogLock);
    InitializeListHead(&g_pGlobal->m_FilterLogList);
    g_pGlobal->m_CurrentLogSize = 0;
}

/* Deletes the lookaside list and frees every queued record. Unload only. */
VOID NdisFilter_DeleteEventQueue(VOID)
{
    ExDeleteNPagedLookasideList(&g_pGlobal->m_LogLookasideList);
    while (!IsListEmpty(&g_pGlobal->m_FilterLogList)) {
        PLIST_ENTRY entry = RemoveHeadList(&g_pGlobal->m_FilterLogList);
        ExFreePool(CONTAINING_RECORD(entry, FilterLogRecord, m_Link));
    }
    g_pGlobal->m_CurrentLogSize = 0;
}

/*
 * A record from the lookaside list, counted in m_CurrentLogSize, or NULL when
 * the limit is reached or memory is short. IRQL <= DISPATCH_LEVEL.
 */
PFilterLogRecord NdisFilter_AllocateLogRecord(VOID)
{
    LONG count = InterlockedIncrement(&g_pGlobal->m_CurrentLogSize);
    if (count > FILTER_MAX_EVENT_RECORDS) {
        InterlockedDecrement(&g_pGlobal->m_CurrentLogSize);
        NF_TRACE(NF_DBG_EVENT_QUEUE, "pGlobal->m_CurrentLogSize = %d, >= MAX_LOG_SIZE\n", (int)(count - 1));
        return NULL;
    }
    PFilterLogRecord record = (PFilterLogRecord)ExAllocateFromNPagedLookasideList(&g_pGlobal->m_LogLookasideList);
    if (record == NULL)
        InterlockedDecrement(&g_pGlobal->m_CurrentLogSize);
    return record;
}

/* Gives a record back to the lookaside list. IRQL <= DISPATCH_LEVEL. */
VOID NdisFilter_FreeLogRecord(PFilterLogRecord Record)
{
    ExFreeToNPagedLookasideList(&g_pGlobal->m_LogLookasideList, Record);
    InterlockedDecrement(&g_pGlobal->m_CurrentLogSize);
}

namespace {

VOID QueueLogRecord(PFilterLogRecord record)
{
    NfWriteLock lock(&g_pGlobal->m_FilterLogLock);
    InsertTailList(&g_pGlobal->m_FilterLogList, &record->m_Link);
}

} // namespace

/*
 * Filter_ReportEvent - queues an event with two values and a formatted text.
 * A text of FILTER_EVENT_TEXT_SIZE characters or more is stored cut, without
 * a terminator, with length -1. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS __cdecl Filter_ReportEvent(ULONG Value1, ULONG Value2, PCSTR Format, ...)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_ReportEvent", status);

    PFilterLogRecord record = NdisFilter_AllocateLogRecord();
    if (record == NULL) {
        status = FILTER_ERROR_OUT_OF_MEMORY;
        return status;
    }

    record->m_dwEvent1 = Value1;
    record->m_dwEvent2 = Value2;
    record->m_Text[0] = '\0';
    if (Format == NULL) {
        record->m_nLength = 0;
    } else {
        va_list args;
        va_start(args, Format);
        record->m_nLength = _vsnprintf(record->m_Text, FILTER_EVENT_TEXT_SIZE, Format, args);
        va_end(args);
        /* The precision keeps the print inside the record when the text has no terminator. */
        NF_TRACE(NF_DBG_COMMON, "Filter_ReportEvent: %.1024s\n", record->m_Text);
    }

    QueueLogRecord(record);
    return status;
}

/*
 * Filter_ReportEventEx - queues an event with two values and up to
 * FILTER_EVENT_TEXT_SIZE bytes of (possibly binary) data. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ReportEventEx(ULONG Value1, ULONG Value2, ULONG Length, PVOID Data)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_ReportEventEx", status);

    PFilterLogRecord record = NdisFilter_AllocateLogRecord();
    if (record == NULL) {
        status = FILTER_ERROR_OUT_OF_MEMORY;
        return status;
    }

    ULONG copied = Data == NULL ? 0 : (Length < FILTER_EVENT_TEXT_SIZE ? Length : FILTER_EVENT_TEXT_SIZE);
    record->m_dwEvent1 = Value1;
    record->m_dwEvent2 = Value2;
    if (copied != 0)
        RtlCopyMemory(record->m_Text, Data, copied);
    if (copied < FILTER_EVENT_TEXT_SIZE)
        record->m_Text[copied] = '\0';
    record->m_nLength = (LONG)copied;

    QueueLogRecord(record);
    return status;
}

/*
 * Takes the oldest queued event and copies its body (two values, length and
 * text: FILTER_EVENT_RECORD_SIZE bytes) to `Body`. FALSE when none is queued.
 * IRQL <= DISPATCH_LEVEL.
 */
BOOLEAN NdisFilter_TakeEvent(PVOID Body)
{
    PFilterLogRecord record = NULL;
    {
        NfWriteLock lock(&g_pGlobal->m_FilterLogLock);
        if (IsListEmpty(&g_pGlobal->m_FilterLogList))
            return FALSE;
        record = CONTAINING_RECORD(RemoveHeadList(&g_pGlobal->m_FilterLogList), FilterLogRecord, m_Link);
    }
    RtlCopyMemory(Body, &record->m_dwEvent1, FILTER_EVENT_RECORD_SIZE);
    NdisFilter_FreeLogRecord(record);
    return TRUE;
}

/* Discards every queued event. IRQL <= DISPATCH_LEVEL. */
VOID NdisFilter_ClearEvents(VOID)
{
    NfWriteLock lock(&g_pGlobal->m_FilterLogLock);
    while (!IsListEmpty(&g_pGlobal->m_FilterLogList))
        NdisFilter_FreeLogRecord(
            CONTAINING_RECORD(RemoveHeadList(&g_pGlobal->m_FilterLogList), FilterLogRecord, m_Link));
}
