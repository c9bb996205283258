/*
 * ndisfilter-ethrlog.cpp - the Ethernet capture logs (see ndisfilter-ethrlog.h).
 *
 * Life of a log: created (slot set, open queued, frames ignored) -> live
 * (file open, writer thread running) -> closed by its size limit (file
 * closed, frames ignored, slot kept until the next stop) or by a close request
 * (slot cleared, close queued, object freed). Opening and closing run as
 * delayed work items at PASSIVE_LEVEL; a close waits for the open of its log,
 * so a log whose open has not run yet is never freed under it. The writer
 * thread writes every record queued before it was told to stop, so a stopped
 * log is complete when its close finishes.
 *
 * Every message of the capture logs is under debug bit 0x2.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-ethrlog.h"

namespace {

/* The slots' lock, the live logs and the count of clones held by queued records. */
struct EthrLogState {
    NDIS_RW_LOCK m_SlotLock;
    BOOLEAN m_bHalted;          /* no frame is recorded (unbound, or tearing down); under m_SlotLock */
    LIST_ENTRY m_LiveLogs;      /* under m_SlotLock */
    volatile LONG m_nOutstanding; /* records between their clone and its release */
};

EthrLogState EthrLogs;

const UCHAR LogSignature[4] = {'E', 'T', 'H', 'R'};

VOID NoWork(PVOID Unit)
{
    UNREFERENCED_PARAMETER(Unit);
}

BOOLEAN IsLog(const NfEthrLog *Log)
{
    return Log != NULL && RtlEqualMemory(Log->m_Signature, LogSignature, sizeof(LogSignature));
}

/* The bytes in `Text` widened one by one into `Buffer` from `Length` on; returns the new length in characters. */
ULONG Widen(PWCHAR Buffer, ULONG Length, ULONG Capacity, PCSTR Text)
{
    for (; *Text != '\0' && Length < Capacity; Text++)
        Buffer[Length++] = (WCHAR)(UCHAR)*Text;
    return Length;
}

/* Frees a record and drops its count; the clone, if any, has been dealt with. */
VOID FreeRecord(PNfEthrRecord Record)
{
    NdisFilter_FreeRecord(Record);
    InterlockedDecrement(&EthrLogs.m_nOutstanding);
}

/* Closes the file of a log once: under the queue lock the handle is taken and the thread told to stop. */
VOID CloseLogFile(PNfEthrLog Log)
{
    KeAcquireSpinLock(&Log->m_QueueLock, &Log->m_QueueIrql);
    HANDLE file = Log->m_hFile;
    Log->m_hFile = NULL;
    Log->m_bStop = 1;
    KeReleaseSpinLock(&Log->m_QueueLock, Log->m_QueueIrql);
    if (file != NULL)
        ZwClose(file);
}

/* Writes `Length` bytes at the end of what was written; FALSE on a failed write. */
BOOLEAN WriteBytes(PNfEthrLog Log, HANDLE File, const VOID *Bytes, ULONG Length)
{
    IO_STATUS_BLOCK io;
    io.Status = STATUS_SUCCESS;
    io.Information = 0;
    NTSTATUS status = ZwWriteFile(File, NULL, NULL, NULL, &io, (PVOID)Bytes, Length, NULL, NULL);
    if (!NT_SUCCESS(status))
        return FALSE;
    Log->m_nCurrentSize += (ULONG)io.Information;
    return TRUE;
}

/*
 * The record writer: one frame into the file (16-byte record header, the 14
 * header bytes, the rest), then the size rule. In every case the clone goes
 * back to the hook driver and the record is freed. Runs on the log's thread.
 */
VOID NTAPI WriteRecord(PVOID Parameter)
{
    PNfEthrRecord record = (PNfEthrRecord)Parameter;
    PNfEthrLog log = record->m_pLog;
    HANDLE file = log->m_hFile; /* only this thread and the close (after this thread ended) clear it */
    if (file != NULL) {
        LONGLONG microseconds = (record->m_CaptureTime.QuadPart - NF_UNIX_EPOCH_AS_SYSTEM_TIME) / 10;
        NfPcapRecordHeader header;
        header.m_Seconds = (ULONG)(microseconds / 1000000);
        header.m_Microseconds = (ULONG)(microseconds % 1000000);
        header.m_CapturedLength = record->m_nHeaderLength + record->m_nDataLength;
        header.m_WireLength = header.m_CapturedLength;
        if (WriteBytes(log, file, &header, sizeof(header)) &&
            WriteBytes(log, file, record->m_pHeader, record->m_nHeaderLength))
            WriteBytes(log, file, record->m_pData, record->m_nDataLength);
        if (log->m_nMaxSize != 0 && log->m_nCurrentSize >= log->m_nMaxSize) {
            NF_TRACE(NF_DBG_HOOK_PACKET, "Ethrlog reached its size limit, %u bytes\n", (unsigned)log->m_nCurrentSize);
            CloseLogFile(log);
        }
    }
    Filter_ReleasePacket(record->m_pClone);
    log->m_pfRelease(record);
    FreeRecord(record);
}

/*
 * The writer thread of one log: takes the records in order and writes them;
 * sleeps while the queue is empty; once told to stop it still writes what is
 * queued, then ends.
 */
VOID NTAPI WriterThread(PVOID StartContext)
{
    PNfEthrLog log = (PNfEthrLog)StartContext;
    for (;;) {
        KeAcquireSpinLock(&log->m_QueueLock, &log->m_QueueIrql);
        PLIST_ENTRY link = IsListEmpty(&log->m_RecordQueue) ? NULL : RemoveHeadList(&log->m_RecordQueue);
        BOOLEAN stop = log->m_bStop != 0;
        KeReleaseSpinLock(&log->m_QueueLock, log->m_QueueIrql);
        if (link != NULL) {
            PNfEthrRecord record = CONTAINING_RECORD(link, NfEthrRecord, m_Link);
            record->m_WorkItem.WorkerRoutine(record->m_WorkItem.Parameter);
        } else if (stop) {
            break;
        } else {
            KeWaitForSingleObject(&log->m_WorkEvent, Executive, KernelMode, FALSE, NULL);
        }
    }
    KeSetEvent(&log->m_ThreadEndedEvent, IO_NO_INCREMENT, FALSE);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

/*
 * The open routine (delayed work item): supersedes the file, writes the
 * global header, starts the writer thread and only then shows the handle,
 * which makes the log live. Any failure leaves the log silent.
 */
VOID NTAPI OpenLog(PVOID Parameter)
{
    PNfEthrLog log = ((NfEthrLogWork *)Parameter)->m_pLog;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &log->m_FileName, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK io;
    HANDLE file = NULL;
    NTSTATUS status = ZwCreateFile(&file, FILE_WRITE_DATA | DELETE | SYNCHRONIZE, &attributes, &io, NULL,
                                   FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_SUPERSEDE,
                                   FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
    if (!NT_SUCCESS(status)) {
        NF_TRACE(NF_DBG_HOOK_PACKET, "Ethrlog: ZwCreateFile fails, status = 0x%x\n", (unsigned)status);
        file = NULL;
    } else {
        NfPcapFileHeader header;
        header.m_Magic = NF_PCAP_MAGIC;
        header.m_MajorVersion = 2;
        header.m_MinorVersion = 4;
        header.m_ThisZone = 0;
        header.m_SigFigs = 0;
        header.m_SnapLength = NF_PCAP_SNAPLEN;
        header.m_LinkType = NF_PCAP_LINKTYPE_ETHERNET;
        if (!WriteBytes(log, file, &header.m_Magic, sizeof(header.m_Magic)) ||
            !WriteBytes(log, file, &header.m_MajorVersion, sizeof(header) - sizeof(header.m_Magic))) {
            ZwClose(file);
            file = NULL;
        }
    }
    if (file != NULL) {
        log->m_bStop = 0;
        HANDLE thread = NULL;
        if (!NT_SUCCESS(PsCreateSystemThread(&thread, 0, NULL, NULL, NULL, WriterThread, log))) {
            ZwClose(file);
        } else {
            log->m_bThreadStarted = 1;
            log->m_hThread = thread;
            KeAcquireSpinLock(&log->m_QueueLock, &log->m_QueueIrql);
            log->m_hFile = file;
            KeReleaseSpinLock(&log->m_QueueLock, log->m_QueueIrql);
        }
    }
    KeSetEvent(&log->m_OpenDoneEvent, IO_NO_INCREMENT, FALSE);
    log->m_pfRelease(Parameter);
    NdisFilter_WorkItemDone();
}

/* Waits until the writer thread has left the image's code, then closes its handle. */
VOID WaitForWriterThread(PNfEthrLog Log)
{
    KeWaitForSingleObject(&Log->m_ThreadEndedEvent, Executive, KernelMode, FALSE, NULL);
    PVOID thread = NULL;
    if (NT_SUCCESS(ObReferenceObjectByHandle(Log->m_hThread, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, NULL))) {
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, NULL);
        ObDereferenceObject(thread);
    }
    ZwClose(Log->m_hThread);
    Log->m_hThread = NULL;
}

/*
 * The close routine (delayed work item): waits for the open, stops the
 * writer thread (which first writes what is queued), closes the file and
 * frees the log. Records still queued then (none, unless the thread never
 * started) give their clones back.
 */
VOID NTAPI CloseLog(PVOID Parameter)
{
    PNfEthrLog log = ((NfEthrLogWork *)Parameter)->m_pLog;
    KeWaitForSingleObject(&log->m_OpenDoneEvent, Executive, KernelMode, FALSE, NULL);
    KeAcquireSpinLock(&log->m_QueueLock, &log->m_QueueIrql);
    log->m_bStop = 1;
    KeReleaseSpinLock(&log->m_QueueLock, log->m_QueueIrql);
    if (log->m_bThreadStarted) {
        KeSetEvent(&log->m_WorkEvent, IO_NO_INCREMENT, FALSE);
        WaitForWriterThread(log);
    }
    CloseLogFile(log);

    LIST_ENTRY left;
    InitializeListHead(&left);
    KeAcquireSpinLock(&log->m_QueueLock, &log->m_QueueIrql);
    while (!IsListEmpty(&log->m_RecordQueue))
        InsertTailList(&left, RemoveHeadList(&log->m_RecordQueue));
    KeReleaseSpinLock(&log->m_QueueLock, log->m_QueueIrql);
    while (!IsListEmpty(&left)) {
        PNfEthrRecord record = CONTAINING_RECORD(RemoveHeadList(&left), NfEthrRecord, m_Link);
        Filter_ReleasePacket(record->m_pClone);
        log->m_pfRelease(record);
        FreeRecord(record);
    }

    PNF_ETHRLOG_HOOK release = log->m_pfRelease;
    RtlZeroMemory(log->m_Signature, sizeof(log->m_Signature));
    if (log->m_FileName.Buffer != NULL)
        NdisFilter_FreeRecord(log->m_FileName.Buffer);
    NdisFilter_FreeRecord(log);
    release(Parameter);
    NdisFilter_WorkItemDone();
}

/*
 * Creates a log for `Name` and stores it in *Slot at once; the open is queued.
 * An allocation failure leaves the slot empty, and the caller is told success
 * either way. The caller holds the slot lock for writing.
 */
NTSTATUS CreateLog(PCUNICODE_STRING Name, PVOID volatile *Slot)
{
    if (Name == NULL || Slot == NULL)
        return STATUS_INVALID_PARAMETER;
    PNfEthrLog log = (PNfEthrLog)NdisFilter_AllocateRecord(sizeof(NfEthrLog), NF_ETHRLOG_POOL_TAG);
    if (log == NULL)
        return STATUS_SUCCESS;
    RtlZeroMemory(log, sizeof(*log));
    PWCHAR name = (PWCHAR)NdisFilter_AllocateRecord(Name->Length, NF_ETHRLOG_POOL_TAG);
    if (name == NULL) {
        NdisFilter_FreeRecord(log);
        return STATUS_SUCCESS;
    }
    RtlCopyMemory(log->m_Signature, LogSignature, sizeof(LogSignature));
    RtlCopyMemory(name, Name->Buffer, Name->Length);
    log->m_FileName.Buffer = name;
    log->m_FileName.Length = log->m_FileName.MaximumLength = Name->Length;
    log->m_nMaxSize = 0;
    log->m_nCurrentSize = 0;
    log->m_hFile = NULL;
    log->m_bThreadStarted = 0;
    log->m_bStop = 0;
    log->m_pfAcquire = NoWork;
    log->m_pfRelease = NoWork;
    KeInitializeSpinLock(&log->m_QueueLock);
    InitializeListHead(&log->m_RecordQueue);
    KeInitializeEvent(&log->m_WorkEvent, SynchronizationEvent, FALSE);
    KeInitializeEvent(&log->m_ThreadEndedEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&log->m_OpenDoneEvent, NotificationEvent, FALSE);
    InsertTailList(&EthrLogs.m_LiveLogs, &log->m_LiveLink);

    log->m_OpenWork.m_pLog = log;
    ExInitializeWorkItem(&log->m_OpenWork.m_Item, OpenLog, &log->m_OpenWork);
    log->m_pfAcquire(&log->m_OpenWork);
    NdisFilter_WorkItemQueued();
    ExQueueWorkItem(&log->m_OpenWork.m_Item, DelayedWorkQueue);
    *Slot = log;
    return STATUS_SUCCESS;
}

/* Queues the close of a log (NULL, or a pointer that is no log, is ignored). The caller holds the slot lock for writing. */
VOID QueueClose(PVOID Log)
{
    PNfEthrLog log = (PNfEthrLog)Log;
    if (!IsLog(log))
        return;
    RemoveEntryList(&log->m_LiveLink);
    log->m_CloseWork.m_pLog = log;
    ExInitializeWorkItem(&log->m_CloseWork.m_Item, CloseLog, &log->m_CloseWork);
    log->m_pfAcquire(&log->m_CloseWork);
    NdisFilter_WorkItemQueued();
    ExQueueWorkItem(&log->m_CloseWork.m_Item, DelayedWorkQueue);
}

/* Takes a slot's log out (NULL when empty) and queues its close. The caller holds the slot lock for writing. */
VOID CloseSlot(PVOID volatile *Slot)
{
    PVOID log = *Slot;
    *Slot = NULL;
    QueueClose(log);
}

/* Closes an adapter's three logs in the order upper, lower, inject; the record is read under a guard. */
VOID CloseAdapterSlots(PCSTR CallerName, PFilterAdapter Adapter)
{
    PVOID logs[3] = {NULL, NULL, NULL};
    LONG code = FilterGuard([&] {
        logs[0] = Adapter->m_pUpperEthrLog;
        logs[1] = Adapter->m_pLowerEthrLog;
        logs[2] = Adapter->m_pInjectEthrLog;
        Adapter->m_pUpperEthrLog = NULL;
        Adapter->m_pLowerEthrLog = NULL;
        Adapter->m_pInjectEthrLog = NULL;
    });
    if (code != 0) {
        NF_PRINT("%s: exception, code = %d\n", CallerName, (int)code);
        return;
    }
    for (ULONG i = 0; i < 3; i++)
        QueueClose(logs[i]);
}

/* The number of valid adapter-table entries, never more than the table holds. */
ULONG TableCount(VOID)
{
    ULONG count = g_pGlobal->m_AdapterList.m_nAdapterCount;
    return count < FILTER_MAX_ADAPTERS ? count : FILTER_MAX_ADAPTERS;
}

/* "AdapterName=<name>" from a table entry, its name bounded by the entry. */
VOID TraceEntryName(const AdapterInfo *Entry)
{
    if (!NF_TRACE_ON(NF_DBG_HOOK_PACKET))
        return;
    CHAR name[sizeof(Entry->m_szAdapterName)];
    RtlCopyMemory(name, Entry->m_szAdapterName, sizeof(name));
    name[sizeof(name) - 1] = '\0';
    NF_TRACE(NF_DBG_HOOK_PACKET, "AdapterName=%s\n", name);
}

/* "\??\C:\Adapter(<MAC>)<Suffix>" into `Name` over `Buffer`. */
VOID AdapterLogName(PUNICODE_STRING Name, PWCHAR Buffer, ULONG Capacity, PCSTR Mac, PCSTR Suffix)
{
    ULONG length = Widen(Buffer, 0, Capacity, "\\??\\C:\\Adapter(");
    length = Widen(Buffer, length, Capacity, Mac);
    length = Widen(Buffer, length, Capacity, ")");
    length = Widen(Buffer, length, Capacity, Suffix);
    Name->Buffer = Buffer;
    Name->Length = Name->MaximumLength = (USHORT)(length * sizeof(WCHAR));
}

VOID GlobalLogName(PUNICODE_STRING Name, PWCHAR Buffer, ULONG Capacity, PCSTR File)
{
    ULONG length = Widen(Buffer, 0, Capacity, "\\??\\C:\\");
    length = Widen(Buffer, length, Capacity, File);
    Name->Buffer = Buffer;
    Name->Length = Name->MaximumLength = (USHORT)(length * sizeof(WCHAR));
}

#define NF_LOG_NAME_CHARS 64

/*
 * NdisFilter_StopAdapterEthrLog - closes the logs of one table entry and the
 * two global logs. FALSE for an entry without adapter.
 */
BOOLEAN NdisFilter_StopAdapterEthrLog(const AdapterInfo *Entry)
{
    BOOLEAN result = FALSE;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_StopAdapterEthrLog\n");
    PFilterAdapter adapter = Entry->m_hAdapter;
    if (adapter == NULL) {
        NF_TRACE(NF_DBG_HOOK_PACKET, "Invalid adapter handle\n");
    } else {
        TraceEntryName(Entry);
        NfWriteLock lock(&EthrLogs.m_SlotLock);
        CloseAdapterSlots("NdisFilter_StopAdapterEthrLog", adapter);
        CloseSlot(&g_pGlobal->m_pAppToDriverEthrLog);
        CloseSlot(&g_pGlobal->m_pDriverToAppEthrLog);
        result = TRUE;
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_StopAdapterEthrLog, %s\n", result ? "TRUE" : "FALSE");
    return result;
}

} // namespace

/* ---- start-up, teardown, binding ---- */

VOID NdisFilter_InitializeEthrLogs(VOID)
{
    NdisInitializeReadWriteLock(&EthrLogs.m_SlotLock);
    EthrLogs.m_bHalted = FALSE;
    InitializeListHead(&EthrLogs.m_LiveLogs);
    EthrLogs.m_nOutstanding = 0;
    g_pGlobal->m_pAppToDriverEthrLog = NULL;
    g_pGlobal->m_pDriverToAppEthrLog = NULL;
}

/*
 * At teardown (PASSIVE_LEVEL, callbacks closed, worker threads gone): stops
 * recording, clears the slots of the adapters still in the table (their
 * records are the hook driver's and still there), and queues the close of
 * every live log; teardown then waits for the queued work items.
 */
VOID NdisFilter_CloseAllEthrLogs(VOID)
{
    NfWriteLock lock(&EthrLogs.m_SlotLock);
    EthrLogs.m_bHalted = TRUE;
    ULONG count = TableCount();
    for (ULONG i = 0; i < count; i++) {
        PFilterAdapter adapter = g_pGlobal->m_AdapterList.m_Adapters[i].m_hAdapter;
        if (adapter != NULL)
            CloseAdapterSlots("NdisFilter_CloseAllEthrLogs", adapter);
    }
    CloseSlot(&g_pGlobal->m_pAppToDriverEthrLog);
    CloseSlot(&g_pGlobal->m_pDriverToAppEthrLog);
    while (!IsListEmpty(&EthrLogs.m_LiveLogs))
        QueueClose(CONTAINING_RECORD(EthrLogs.m_LiveLogs.Flink, NfEthrLog, m_LiveLink));
}

VOID NdisFilter_SuspendEthrLogs(VOID)
{
    {
        NfWriteLock lock(&EthrLogs.m_SlotLock);
        EthrLogs.m_bHalted = TRUE;
    }
    /* The writer threads (or the closes) give back what is queued. */
    while (InterlockedCompareExchange(&EthrLogs.m_nOutstanding, 0, 0) != 0) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

VOID NdisFilter_ResumeEthrLogs(VOID)
{
    NfWriteLock lock(&EthrLogs.m_SlotLock);
    EthrLogs.m_bHalted = FALSE;
}

/* ---- start and stop ---- */

/*
 * NdisFilter_StartAdapterEthrLog - creates the upper, lower and inject logs
 * of a table entry, then each global log that is not running. FALSE for an
 * entry without an open adapter, or one whose logs exist already (they stay).
 * IRQL = PASSIVE_LEVEL.
 */
BOOLEAN NdisFilter_StartAdapterEthrLog(const AdapterInfo *Entry)
{
    BOOLEAN result = FALSE;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_StartAdapterEthrLog\n");
    PFilterAdapter adapter = Entry->m_hAdapter;
    if (adapter == NULL || !NdisFilter_IsOpenAdapter(adapter)) {
        NF_TRACE(NF_DBG_HOOK_PACKET, "Invalid adapter handle\n");
    } else {
        TraceEntryName(Entry);
        CHAR mac[18];
        inet_mtoa(Entry->m_CurrentAddress, mac, sizeof(mac));
        WCHAR upper[NF_LOG_NAME_CHARS], lower[NF_LOG_NAME_CHARS], inject[NF_LOG_NAME_CHARS];
        WCHAR toDriver[NF_LOG_NAME_CHARS], toApplication[NF_LOG_NAME_CHARS];
        UNICODE_STRING upperName, lowerName, injectName, toDriverName, toApplicationName;
        AdapterLogName(&upperName, upper, NF_LOG_NAME_CHARS, mac, "NdisUpper.eth");
        AdapterLogName(&lowerName, lower, NF_LOG_NAME_CHARS, mac, "NdisLower.eth");
        AdapterLogName(&injectName, inject, NF_LOG_NAME_CHARS, mac, "NdisInject.eth");
        GlobalLogName(&toDriverName, toDriver, NF_LOG_NAME_CHARS, "Application-to-Driver-Io.eth");
        GlobalLogName(&toApplicationName, toApplication, NF_LOG_NAME_CHARS, "Driver-to-Application-Io.eth");

        NfWriteLock lock(&EthrLogs.m_SlotLock);
        if (adapter->m_pUpperEthrLog != NULL || adapter->m_pLowerEthrLog != NULL || adapter->m_pInjectEthrLog != NULL) {
            NF_TRACE(NF_DBG_HOOK_PACKET, "Ethrlog is opened already!");
        } else {
            CreateLog(&upperName, (PVOID volatile *)&adapter->m_pUpperEthrLog);
            CreateLog(&lowerName, (PVOID volatile *)&adapter->m_pLowerEthrLog);
            CreateLog(&injectName, (PVOID volatile *)&adapter->m_pInjectEthrLog);
            if (g_pGlobal->m_pAppToDriverEthrLog == NULL)
                CreateLog(&toDriverName, &g_pGlobal->m_pAppToDriverEthrLog);
            if (g_pGlobal->m_pDriverToAppEthrLog == NULL)
                CreateLog(&toApplicationName, &g_pGlobal->m_pDriverToAppEthrLog);
            result = TRUE;
        }
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_StartAdapterEthrLog, %s\n", result ? "TRUE" : "FALSE");
    return result;
}

/*
 * NdisFilter_StartEthrLog - starts the logs of every entry of the adapter
 * table, in table order. The table is read without its lock. IRQL = PASSIVE_LEVEL.
 */
VOID NdisFilter_StartEthrLog(VOID)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_StartEthrLog\n");
    ULONG count = TableCount();
    for (ULONG i = 0; i < count; i++) {
        AdapterInfo entry = g_pGlobal->m_AdapterList.m_Adapters[i];
        NdisFilter_StartAdapterEthrLog(&entry);
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_StartEthrLog\n");
}

/*
 * NdisFilter_StopEthrLog - closes the logs of every entry of the adapter
 * table and the global logs. FALSE when the table is empty (nothing is
 * closed then, not even the global logs). IRQL = PASSIVE_LEVEL.
 */
BOOLEAN NdisFilter_StopEthrLog(VOID)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_StopEthrLog\n");
    ULONG count = TableCount();
    for (ULONG i = 0; i < count; i++) {
        AdapterInfo entry = g_pGlobal->m_AdapterList.m_Adapters[i];
        NdisFilter_StopAdapterEthrLog(&entry);
    }
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_StopEthrLog\n");
    return count != 0;
}

/* An adapter closed (IRQL <= DISPATCH_LEVEL): its logs close with it. */
VOID NdisFilter_CloseAdapterEthrLogs(PFilterAdapter Adapter)
{
    if (Adapter == NULL)
        return;
    NfWriteLock lock(&EthrLogs.m_SlotLock);
    CloseAdapterSlots("NdisFilter_AdapterClosed", Adapter);
}

/* ---- recording ---- */

/*
 * Records one frame into the log of `Slot` when that log is live: clones the
 * packet (the clone belongs to no adapter), takes the capture time and
 * queues the record for the log's thread; the caller keeps its packet.
 * Frames shorter than an Ethernet header, and frames the clone does not hold
 * whole, are not recorded. IRQL <= DISPATCH_LEVEL.
 */
VOID NdisFilter_RecordEthrFrame(PVOID volatile *Slot, PFilterPacket Packet)
{
    if (Packet == NULL)
        return;
    NfReadLock lock(&EthrLogs.m_SlotLock);
    if (EthrLogs.m_bHalted)
        return;
    PNfEthrLog log = (PNfEthrLog)*Slot;
    if (!IsLog(log) || log->m_hFile == NULL)
        return;

    InterlockedIncrement(&EthrLogs.m_nOutstanding);
    PNfEthrRecord record = (PNfEthrRecord)NdisFilter_AllocateRecord(sizeof(NfEthrRecord), NF_ETHRLOG_POOL_TAG);
    if (record == NULL) {
        InterlockedDecrement(&EthrLogs.m_nOutstanding);
        return;
    }
    RtlZeroMemory(record, sizeof(*record));
    PFilterPacket clone = NULL;
    FILTER_STATUS status = FILTER_ERROR_EXCEPTION;
    LONG code = FilterGuard([&] { status = Filter_ClonePacket(Packet, &clone); });
    if (code != 0)
        NF_PRINT("NdisFilter_RecordEthrFrame: exception, code = %d\n", (int)code);
    if (code != 0 || status != FILTER_STATUS_SUCCESS) {
        if (clone != NULL)
            Filter_ReleasePacket(clone);
        FreeRecord(record);
        return;
    }
    clone->m_hAdapter = NULL;

    /* The frame must lie whole in the clone's data: from its Ethernet header to m_nBytesRead. */
    PUCHAR frame = clone->m_pEthernet != NULL ? clone->m_pEthernet : clone->m_Data;
    ULONG held = clone->m_nBytesRead < FILTER_PACKET_DATA_SIZE ? clone->m_nBytesRead : FILTER_PACKET_DATA_SIZE;
    ULONG length = clone->m_nPacketSize;
    if (frame < clone->m_Data || frame > clone->m_Data + held || length < NF_ETHERNET_HEADER_LENGTH ||
        length > (ULONG)(clone->m_Data + held - frame)) {
        Filter_ReleasePacket(clone);
        FreeRecord(record);
        return;
    }
    ExInitializeWorkItem(&record->m_WorkItem, WriteRecord, record);
    record->m_pLog = log;
    record->m_pHeader = frame;
    record->m_nHeaderLength = NF_ETHERNET_HEADER_LENGTH;
    record->m_pData = frame + NF_ETHERNET_HEADER_LENGTH;
    record->m_nDataLength = length - NF_ETHERNET_HEADER_LENGTH;
    record->m_pClone = clone;
    log->m_pfAcquire(record);

    /* The time is taken under the queue lock, so a file's frames are in the order of their times. */
    KIRQL irql;
    KeAcquireSpinLock(&log->m_QueueLock, &irql);
    BOOLEAN queued = log->m_hFile != NULL && !log->m_bStop;
    if (queued) {
        KeQuerySystemTime(&record->m_CaptureTime);
        InsertTailList(&log->m_RecordQueue, &record->m_Link);
    }
    KeReleaseSpinLock(&log->m_QueueLock, irql);
    if (!queued) { /* its size limit closed it meanwhile */
        Filter_ReleasePacket(clone);
        log->m_pfRelease(record);
        FreeRecord(record);
        return;
    }
    KeSetEvent(&log->m_WorkEvent, IO_NO_INCREMENT, FALSE);
}
