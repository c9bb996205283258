/*
 * ndisfilter-diag.cpp - the diagnostic channel: one line of words from the
 * user program, answered in text by the framework ("filter ...") or by the
 * driver the first word names.
 *
 * The command is split into one global command buffer and one global vector
 * of words, so one diagnostic runs at a time (m_bDiagInProgress). The reply
 * record lies in the request's output buffer; the framework keeps its own
 * copy of where that buffer is, how long it is and how much text it holds,
 * and only the prepared record is ever written to.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

namespace {

CHAR DiagCommand[FILTER_DIAG_COMMAND_SIZE];
PCHAR DiagArgv[FILTER_DIAG_MAX_ARGS];

/* The diagnostic in progress: its record, its word count, the output's length and the text written. */
PDiag DiagRecord;
LONG DiagArgc;
ULONG DiagSize;
ULONG DiagUsed;

const CHAR DiagHelp[] = "show info - print driver info\n"
                        "show hookapi - print NDIS Hook API\n"
                        "show shmem - print share memory info\n"
                        "show adaptert - print adapter list\n"
                        "show driver - print filter driver list\n"
                        "show filter - print packet filter\n"
                        "show timer - print timer info\n"
                        "show ioctl - print IOCTL handler\n";

#define NF_DIAG_DRIVER_NAME "filter"
#define NF_DIAG_DRIVER_TITLE "NDIS Packet Filter Driver"

/* Text room of the record: what may be returned behind its 40-byte header. */
ULONG DiagCapacity()
{
    return DiagSize - FILTER_DIAG_HEADER_SIZE;
}

CHAR LowerCase(CHAR c)
{
    return (c >= 'A' && c <= 'Z') ? (CHAR)(c - 'A' + 'a') : c;
}

/* Two words equal but for the case of their ASCII letters. */
BOOLEAN SameWord(PCSTR word, PCSTR expected)
{
    for (;; word++, expected++) {
        if (LowerCase(*word) != LowerCase(*expected))
            return FALSE;
        if (*word == '\0')
            return TRUE;
    }
}

/*
 * The checks Filter_PrepareDiag and Filter_BeginDiag share: buffers present,
 * lengths nonzero, the text shorter than the command buffer and the output
 * long enough for the record's header.
 */
FILTER_STATUS CheckDiagBuffers(PVOID input, ULONG inputLength, PVOID output, ULONG outputLength, BOOLEAN outPresent)
{
    if (input == NULL || output == NULL || !outPresent) {
        NF_PRINT("Invalid arguments: buffer are NULL\n");
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    if (inputLength == 0 || outputLength == 0) {
        NF_PRINT("Invalid arguments: length is 0 or argv buffer size is 0\n");
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    if (inputLength >= FILTER_DIAG_COMMAND_SIZE) {
        NF_PRINT("Buffer too small, copy buffer size is less than input buffer\n");
        return FILTER_ERROR_BUFFER_TOO_SMALL;
    }
    if (outputLength < FILTER_DIAG_HEADER_SIZE)
        return FILTER_ERROR_BUFFER_TOO_SMALL;
    return FILTER_STATUS_SUCCESS;
}

/* Ends the word at `p` (a blank becomes its terminator); returns where the next may begin, or NULL at the end. */
PCHAR EndWord(PCHAR p)
{
    while (*p != '\0' && *p != ' ')
        p++;
    if (*p != ' ')
        return NULL;
    *p = '\0';
    return p + 1;
}

/* Splits the command buffer into the driver name and up to 16 words. */
LONG SplitCommand()
{
    LONG argc = 0;
    PCHAR p = EndWord(DiagCommand);
    while (p != NULL && argc < FILTER_DIAG_MAX_ARGS) {
        while (*p == ' ')
            p++;
        UCHAR first = (UCHAR)*p;
        if (first == 0 || first >= 128)
            break;
        DiagArgv[argc++] = p;
        p = EndWord(p);
    }
    return argc;
}

VOID PrintWords(LONG argc)
{
    NF_PRINT(" - driver = %s\n", DiagCommand);
    NF_PRINT(" - argc = %d\n", (int)argc);
    for (LONG i = 0; i < argc; i++)
        NF_PRINT(" - argv[%d] = %s\n", (int)i, DiagArgv[i]);
}

/* The text of the reply under way, appended at the framework's own count. */
FILTER_STATUS AppendDiagText(PCSTR format, va_list args)
{
    ULONG capacity = DiagCapacity();
    ULONG used = DiagUsed < capacity ? DiagUsed : capacity;
    int written = _vsnprintf(&DiagRecord->m_Text[0] + used, capacity - used, format, args);
    /* Text that did not fit fills the room, and the count falls back by one. */
    if (written < 0)
        used = used != 0 ? used - 1 : 0;
    else
        used += (ULONG)written;
    DiagUsed = used;
    DiagRecord->m_BufferUsed = used;
    return FILTER_STATUS_SUCCESS;
}

/* Filter_DiagPrint without its trace frame, for the framework's own replies. */
VOID __cdecl Reply(PCSTR format, ...)
{
    va_list args;
    va_start(args, format);
    AppendDiagText(format, args);
    va_end(args);
}

PCSTR TrueFalse(BOOLEAN value)
{
    return value ? "TRUE" : "FALSE";
}

VOID ReplyInfo()
{
    Reply("- m_pDeviceObject = 0x%p\n", (PVOID)g_pGlobal->m_pDeviceObject);
    Reply("- m_DeviceSymbolicLink = %ws\n", g_pGlobal->m_DeviceSymbolicLink.Buffer);
    Reply("- m_bSymbolicLinkCreated = %s\n", TrueFalse(g_pGlobal->m_bSymbolicLinkCreated));
}

VOID ReplyHookApi()
{
    NdisHookAPI api;
    {
        NfReadLock lock(&g_pGlobal->m_HookAPILock);
        api = g_pGlobal->m_NdisHookAPI;
    }
    NdisFilter_PrintHookApi(Reply, api);
}

VOID ReplySharedMemory()
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    Reply("- m_pMappedMemory = 0x%p\n", (PVOID)global->m_pMappedMemory);
    Reply("- m_bStopShare = %s\n", TrueFalse(global->m_bStopShare));
    Reply("- m_pPendingReadIrp = 0x%p\n", (PVOID)global->m_pPendingReadIrp);
    if (global->m_pSharedMemory != NULL) {
        Reply("- m_SharedMemory.KernelModeInput\n");
        NdisFilter_PrintRing(Reply, &global->m_pSharedMemory->KernelModeInput);
        Reply("- m_pSharedMemory.KernelModeOutput\n");
        NdisFilter_PrintRing(Reply, &global->m_pSharedMemory->KernelModeOutput);
    }
    Reply("- m_nNdisHelperWorkThread = %d\n", (int)global->m_nNdisHelperWorkThread);
    Reply("- m_hShareMemoryThread[%d] = 0x%p\n", 0, (PVOID)global->m_hShareMemoryThread[0]);
}

/* The framework's own commands, "filter <words>" with at least one word. Always answered. */
VOID AnswerFilterCommand(LONG argc)
{
    if (argc == 1 || SameWord(DiagArgv[0], "help")) {
        Reply("help - print this messages\n");
        Reply("%s", DiagHelp);
        return;
    }
    if (SameWord(DiagArgv[0], "show")) {
        PCSTR what = DiagArgv[1];
        if (SameWord(what, "info")) {
            ReplyInfo();
            return;
        }
        if (SameWord(what, "hookapi")) {
            ReplyHookApi();
            return;
        }
        if (SameWord(what, "shmem")) {
            ReplySharedMemory();
            return;
        }
        if (SameWord(what, "adapter")) {
            NdisFilter_PrintAdapterTable(Reply);
            return;
        }
        if (SameWord(what, "driver")) {
            NdisFilter_PrintDrivers(Reply);
            return;
        }
        if (SameWord(what, "filter")) {
            for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++)
                Filter_DiagFilter(DiagRecord, type);
            return;
        }
        if (SameWord(what, "timer")) {
            NdisFilter_PrintTimers(Reply);
            return;
        }
        if (SameWord(what, "ioctl")) {
            NdisFilter_PrintIoControlHandlers(Reply);
            return;
        }
    }
    Reply("unsupport command %s\n", DiagArgv[0]);
}

} // namespace

/*
 * Filter_PrepareDiag - takes the diagnostic channel, copies and splits the
 * command and prepares the reply record at the start of the output. Refused
 * while another diagnostic runs. IRQL = PASSIVE_LEVEL.
 */
FILTER_STATUS Filter_PrepareDiag(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer, ULONG OutputLength)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_PrepareDiag", status);

    status = CheckDiagBuffers(InputBuffer, InputLength, OutputBuffer, OutputLength, TRUE);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    if (InterlockedCompareExchange(&g_pGlobal->m_bDiagInProgress, 1, 0) != 0) {
        NF_PRINT("driver diagnostic are in progress\n");
        status = FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS;
        return status;
    }

    NF_PRINT(" - InputBufferLength = %d\n", (int)InputLength);
    NF_PRINT(" - pInputBuffer = %*.*s\n", (int)InputLength, (int)InputLength, (PCSTR)InputBuffer);
    NF_PRINT(" - OutputBufferLength = %d\n", (int)OutputLength);
    NF_PRINT(" - pOutputBuffer = 0x%p\n", OutputBuffer);

    /* The input shares its buffer with the record: it is copied out first. */
    RtlZeroMemory(DiagCommand, sizeof(DiagCommand));
    RtlCopyMemory(DiagCommand, InputBuffer, InputLength);
    DiagCommand[InputLength] = '\0';

    PDiag diag = (PDiag)OutputBuffer;
    DiagRecord = diag;
    DiagSize = OutputLength;
    DiagUsed = 0;
    diag->m_BufferSize = OutputLength;
    diag->m_BufferUsed = 0;
    diag->m_bInitialized = 1;
    RtlZeroMemory(&diag->m_Text[0], DiagCapacity());
    RtlZeroMemory(DiagArgv, sizeof(DiagArgv));
    DiagArgc = SplitCommand();
    diag->m_nArgc = DiagArgc;
    diag->m_pDriverName = DiagCommand;
    diag->m_pArgv = DiagArgv;

    PrintWords(DiagArgc);
    return status;
}

/*
 * Filter_EndDiag - gives the channel back after a prepared diagnostic and
 * answers the bytes the request returns: the header and the text.
 */
ULONG Filter_EndDiag(VOID)
{
    if (DiagRecord == NULL)
        return 0;
    ULONG returned = FILTER_DIAG_HEADER_SIZE + (DiagUsed < DiagCapacity() ? DiagUsed : DiagCapacity());
    DiagRecord->m_BufferUsed = returned - FILTER_DIAG_HEADER_SIZE;
    DiagRecord = NULL;
    InterlockedExchange(&g_pGlobal->m_bDiagInProgress, 0);
    return returned;
}

/*
 * Filter_BeginDiag - hands the prepared reply record of the diagnostic under
 * way to a driver asked to answer it. Only the output the framework prepared
 * is accepted. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_BeginDiag(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer,
                                              ULONG OutputLength, PDiag *Diag)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_BeginDiag", status);

    status = CheckDiagBuffers(InputBuffer, InputLength, OutputBuffer, OutputLength, Diag != NULL);
    if (status != FILTER_STATUS_SUCCESS)
        return status;
    if (DiagRecord == NULL || OutputBuffer != (PVOID)DiagRecord) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    *Diag = DiagRecord;
    PrintWords(DiagArgc);
    NF_PRINT("pDiag->m_BufferSize = %d\n", (int)DiagSize);
    NF_PRINT("pDiag->m_BufferUsed = %d\n", (int)DiagUsed);
    NF_PRINT("pDiag->m_bInitialized = %s\n", TrueFalse(DiagRecord->m_bInitialized != 0));
    return status;
}

/*
 * Filter_DiagPrint - appends formatted text to the reply. Text that does not
 * fit is cut at the end of the output. IRQL <= DISPATCH_LEVEL (no %ws above
 * PASSIVE_LEVEL).
 */
EXTERN_C FILTER_STATUS __cdecl Filter_DiagPrint(PDiag Diag, PCSTR Format, ...)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_DiagPrint", status);

    if (Diag == NULL || Format == NULL || Diag != DiagRecord) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    va_list args;
    va_start(args, Format);
    status = AppendDiagText(Format, args);
    va_end(args);
    return status;
}

/* Filter_DiagFilter - appends the packet filters of one chain, in chain order. */
EXTERN_C FILTER_STATUS NTAPI Filter_DiagFilter(PDiag Diag, FILTER_TYPE Type)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_CORE, "Filter_DumpFilter", status);

    if ((ULONG)Type >= FILTER_TYPE_COUNT) {
        status = FILTER_ERROR_INVALID_FILTER_TYPE;
        return status;
    }
    if (Diag == NULL || Diag != DiagRecord) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    Reply("Packet Filter(Type = %d - %s)\n", (int)Type, Filter_TypeString(Type));
    NfReadLock lock(&g_pGlobal->m_PacketFilterLock[Type]);
    PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[Type];
    int position = 0;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        const PacketFilter *filter = CONTAINING_RECORD(link, PacketFilter, m_ListEntry);
        NfFilterCounts counts;
        NdisFilter_SumFilterCounts(filter, &counts);
        int length = filter->m_FilterName.Length;
        Reply("- Filter[%d]\n", position++);
        Reply("  - m_FilterName      = %*.*s\n", length, length, filter->m_FilterName.Buffer);
        Reply("  - m_hFilterDriver   = 0x%p\n", (PVOID)filter->m_hFilterDriver);
        Reply("  - m_pDriverContext  = 0x%p\n", filter->m_pDriverContext);
        Reply("  - m_pfFilterProc    = 0x%p\n", (PVOID)filter->m_pfFilterProc);
        Reply("  - m_pFilterContext  = 0x%p\n", filter->m_pFilterContext);
        Reply("  - m_FilterType      = %ld - %s\n", (LONG)filter->m_FilterType, Filter_TypeString(filter->m_FilterType));
        Reply("  - m_FilterOrder     = %lu - %s\n", (ULONG)filter->m_FilterOrder,
              Filter_OrderString((FILTER_ORDER)filter->m_FilterOrder));
        Reply("  - m_PacketProcess   = %ld\n", (LONG)counts.m_PacketProcess);
        Reply("  - m_PacketBypass    = %ld\n", (LONG)counts.m_PacketBypass);
        Reply("  - m_PacketDiscard   = %ld\n", (LONG)counts.m_PacketDiscard);
        Reply("  - m_PacketConsume   = %ld\n", (LONG)counts.m_PacketConsume);
        Reply("  - m_PacketCapture   = %ld\n", (LONG)counts.m_PacketCapture);
    }
    return status;
}

/*
 * NdisFilter_DiagHandler - answers the framework's own commands. Returns 0
 * when it answered, STATUS_NOT_SUPPORTED when the command is for another
 * driver (or for every driver), STATUS_INVALID_PARAMETER when the record
 * could not be taken. IRQL = PASSIVE_LEVEL.
 */
NTSTATUS NdisFilter_DiagHandler(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer, ULONG OutputLength)
{
    NF_PRINT("Enter NdisFilter_DiagHandler\n");
    PDiag diag = NULL;
    if (Filter_BeginDiag(InputBuffer, InputLength, OutputBuffer, OutputLength, &diag) != FILTER_STATUS_SUCCESS)
        return STATUS_INVALID_PARAMETER;

    UNREFERENCED_PARAMETER(diag);
    LONG argc = DiagArgc;
    if (SameWord(DiagCommand, "driver")) {
        if (argc == 0) {
            Reply("%s - %s, Build at %s %s\n", NF_DIAG_DRIVER_NAME, NF_DIAG_DRIVER_TITLE, __DATE__, __TIME__);
            return STATUS_NOT_SUPPORTED;
        }
        if (argc == 1 && SameWord(DiagArgv[0], NF_DIAG_DRIVER_NAME)) {
            Reply("Select %s - %s\n", NF_DIAG_DRIVER_NAME, NF_DIAG_DRIVER_TITLE);
            return STATUS_SUCCESS;
        }
        return STATUS_NOT_SUPPORTED;
    }
    if (SameWord(DiagCommand, NF_DIAG_DRIVER_NAME) && argc > 0) {
        AnswerFilterCommand(argc);
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_SUPPORTED;
}
