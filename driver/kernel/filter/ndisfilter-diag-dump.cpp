/*
 * ndisfilter-diag-dump.cpp - the full dump of the global state to the
 * debugger, field by field in declaration order, whatever the mask says.
 * Lists are walked under their own locks; the adapter table is read as it
 * stands.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-records.h"

namespace {

PCSTR TrueFalse(BOOLEAN value)
{
    return value ? "TRUE" : "FALSE";
}

VOID DumpPointer(PCSTR name, const volatile VOID *value)
{
    NF_PRINT("- %s = 0x%p\n", name, (PVOID)value);
}

VOID DumpLinks(PCSTR name, const LIST_ENTRY *head)
{
    NF_PRINT("- %s = 0x%p\n", name, (PVOID)head);
    NF_PRINT("  +-Blink = 0x%p\n", (PVOID)head->Blink);
    NF_PRINT("  +-Flink = 0x%p\n", (PVOID)head->Flink);
}

/* The entries of a list whose records begin with their link. The caller holds the list's lock. */
VOID DumpEntries(const LIST_ENTRY *head)
{
    int position = 0;
    for (const LIST_ENTRY *link = head->Flink; link != head; link = link->Flink)
        NF_PRINT("  - Entry[%d] = 0x%p\n", position++, (PVOID)link);
}

VOID DumpRwListEntries(PCSTR name, NDIS_RW_LOCK *lock, LIST_ENTRY *head)
{
    DumpLinks(name, head);
    NfReadLock guard(lock);
    DumpEntries(head);
}

/* The debugger as a printer of the shared listings. */
VOID __cdecl DebugLine(PCSTR format, ...)
{
    va_list args;
    va_start(args, format);
    vDbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, format, args);
    va_end(args);
}

VOID DumpRing(PCSTR name, const SharedBlockRing *ring)
{
    NF_PRINT("- %s\n", name);
    NdisFilter_PrintRing(DebugLine, ring);
}

VOID DumpHookApi(const NdisHookAPI &api)
{
    NF_PRINT("- m_NdisHookAPI\n");
    NF_PRINT("  - m_Size = %d\n", (int)api.m_Size);
    NF_PRINT("  - m_Flags = 0x%x\n", (unsigned)api.m_Flags);
    NdisFilter_PrintHookApi(DebugLine, api);
}

VOID DumpEventHandlers(NdisFilterDeviceExtension *global)
{
    DumpLinks("m_EventHandlerList", &global->m_EventHandlerList);
    KIRQL irql;
    KeAcquireSpinLock(&global->m_EventHandlerLock, &irql);
    PLIST_ENTRY head = &global->m_EventHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PEventHandler handler = CONTAINING_RECORD(link, EventHandler, m_ListEntry);
        NF_PRINT("  - pEventHandler = 0x%p\n", (PVOID)handler);
        NF_PRINT("    - m_hFilterDriver = 0x%p\n", (PVOID)handler->m_hFilterDriver);
        NF_PRINT("    - m_pfEventProc = 0x%p\n", (PVOID)handler->m_pfEventProc);
        NF_PRINT("    - m_pEventContext = 0x%p\n", handler->m_pEventContext);
    }
    KeReleaseSpinLock(&global->m_EventHandlerLock, irql);
}

VOID DumpPacketFilters(NdisFilterDeviceExtension *global)
{
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        NF_PRINT("- m_PacketFilterList[%d] - %s\n", (int)type, Filter_TypeString(type));
        NfReadLock lock(&global->m_PacketFilterLock[type]);
        PLIST_ENTRY head = &global->m_PacketFilterList[type];
        LONG position = 0;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink)
            Filter_ShowFilter(CONTAINING_RECORD(link, PacketFilter, m_ListEntry), position++);
    }
}

VOID DumpInjectionQueues(NdisFilterDeviceExtension *global)
{
    for (int i = 0; i < NF_INJECT_QUEUE_COUNT; i++) {
        NF_PRINT("- m_hInjectPacketThread[%d] = 0x%p\n", i, (PVOID)global->m_hInjectPacketThread[i]);
        NF_PRINT("- m_InjectedPacketList[%d]\n", i);
        DumpRwListEntries("  m_InjectedPacketList", &global->m_InjectedPacketLock[i], &global->m_InjectedPacketList[i]);
        NF_PRINT("- m_InjectPacketEvent[%d] = 0x%p\n", i, (PVOID)&global->m_InjectPacketEvent[i]);
    }
    NF_PRINT("- m_nInjectPacketCount = %d\n", (int)global->m_nInjectPacketCount);
    NF_PRINT("- m_nInjectPacketMax = %d\n", (int)global->m_nInjectPacketMax);
}

VOID DumpLookaside(const NPAGED_LOOKASIDE_LIST *list)
{
    const GENERAL_LOOKASIDE &l = list->L;
    NF_PRINT("- m_LogLookasideList = 0x%p\n", (PVOID)list);
    NF_PRINT("  - Depth = %d\n", (int)l.Depth);
    NF_PRINT("  - MaximumDepth = %d\n", (int)l.MaximumDepth);
    NF_PRINT("  - TotalAllocates = %d\n", (int)l.TotalAllocates);
    NF_PRINT("  - AllocateMisses = %d\n", (int)l.AllocateMisses);
    NF_PRINT("  - TotalFrees = %d\n", (int)l.TotalFrees);
    NF_PRINT("  - FreeMisses = %d\n", (int)l.FreeMisses);
    NF_PRINT("  - Type = %d\n", (int)l.Type);
    NF_PRINT("  - Tag = 0x%x\n", (unsigned)l.Tag);
    NF_PRINT("  - Size = %d\n", (int)l.Size);
    NF_PRINT("  - LastTotalAllocates = %d\n", (int)l.LastTotalAllocates);
    NF_PRINT("  - LastAllocateMisses = %d\n", (int)l.LastAllocateMisses);
}

} // namespace

/* The ring header's eight fields, as the program may have left them: they are only printed. */
VOID NdisFilter_PrintRing(NfPrinter Print, const SharedBlockRing *Ring)
{
    Print("  - m_iBlockSize = %d\n", (int)Ring->m_iBlockSize);
    Print("  - m_iBlockCount = %d\n", (int)Ring->m_iBlockCount);
    Print("  - m_iBaseOffset = %d\n", (int)Ring->m_iBaseOffset);
    Print("  - m_puBlockBase = 0x%p\n", (PVOID)(ULONG_PTR)Ring->m_puBlockBase);
    Print("  - m_pkBlockBase = 0x%p\n", (PVOID)(ULONG_PTR)Ring->m_pkBlockBase);
    Print("  - m_iRead = %d\n", (int)Ring->m_iRead);
    Print("  - m_iWrite = %d\n", (int)Ring->m_iWrite);
    Print("  - m_nCount = %d\n", (int)Ring->m_nCount);
}

/* The version and the nineteen functions of a hook record, in record order. */
VOID NdisFilter_PrintHookApi(NfPrinter Print, const NdisHookAPI &Api)
{
    Print(" - m_MajorVersion = 0x%p\n", (PVOID)(ULONG_PTR)Api.m_MajorVersion);
    Print(" - m_MinorVersion = 0x%p\n", (PVOID)(ULONG_PTR)Api.m_MinorVersion);
#define NF_PRINT_HOOK_FIELD(field) Print(" - " #field " = 0x%p\n", (PVOID)Api.field);
    NF_HOOK_API_FUNCTIONS(NF_PRINT_HOOK_FIELD)
#undef NF_PRINT_HOOK_FIELD
}

/* The adapter table entry by entry, read as it stands (without its lock). */
VOID NdisFilter_PrintAdapterTable(NfPrinter Print)
{
    const AdapterList &list = g_pGlobal->m_AdapterList;
    ULONG count = list.m_nAdapterCount < FILTER_MAX_ADAPTERS ? list.m_nAdapterCount : FILTER_MAX_ADAPTERS;
    Print("- m_nAdapterCount = %d\n", (int)list.m_nAdapterCount);
    for (ULONG i = 0; i < count; i++) {
        const AdapterInfo *info = &list.m_Adapters[i];
        const UCHAR *p = info->m_PermanentAddress;
        const UCHAR *c = info->m_CurrentAddress;
        Print("- m_AdapterList[%d] = 0x%p\n", (int)i, (PVOID)info);
        Print("  - m_hAdapter = 0x%p\n", (PVOID)info->m_hAdapter);
        Print("  - m_nAdapterMedium = %d\n", (int)info->m_nAdapterMedium);
        Print("  - m_usMTU = %d\n", (int)info->m_usMTU);
        Print("  - m_dwAdapterState = %d\n", (int)info->m_dwAdapterState);
        Print("  - m_PermanentAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n", p[0], p[1], p[2], p[3], p[4], p[5]);
        Print("  - m_CurrentAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n", c[0], c[1], c[2], c[3], c[4], c[5]);
        Print("  - m_szAdapterName = %.*s\n", (int)sizeof(info->m_szAdapterName), info->m_szAdapterName);
    }
}

/* The registered drivers, under their list's lock. */
VOID NdisFilter_PrintDrivers(NfPrinter Print)
{
    NfReadLock lock(&g_pGlobal->m_FilterDriverLock);
    PLIST_ENTRY head = &g_pGlobal->m_FilterDriverList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        PFilterDriver driver = CONTAINING_RECORD(link, FilterDriver, m_ListEntry);
        int length = driver->m_DriverName.Length;
        Print("- pFilterDriver = 0x%p\n", (PVOID)driver);
        Print("- m_pDriverContext = 0x%p\n", driver->m_pDriverContext);
        Print("- m_DriverName = %*.*s\n", length, length, driver->m_DriverName.Buffer);
    }
}

/* The drivers' timers, under their list's lock. */
VOID NdisFilter_PrintTimers(NfPrinter Print)
{
    NfReadLock lock(&g_pGlobal->m_FilterTimerLock);
    PLIST_ENTRY head = &g_pGlobal->m_FilterTimerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        const FilterTimer *timer = CONTAINING_RECORD(link, FilterTimer, m_ListEntry);
        Print("- pFilterTimer = 0x%p\n", (PVOID)timer);
        Print("  - m_hFilterDriver = 0x%p\n", (PVOID)timer->m_hFilterDriver);
        Print("  - m_pDriverContext = 0x%p\n", timer->m_pDriverContext);
        Print("  - m_pfTimerProc = 0x%p\n", (PVOID)timer->m_pfTimerProc);
        Print("  - m_pTimerContext = 0x%p\n", timer->m_pTimerContext);
        Print("  - m_bRepeatTimer = %s\n", timer->m_bRepeatTimer ? "TRUE" : "FALSE");
        Print("  - m_MsToDelay = %d\n", (int)timer->m_MsToDelay);
    }
}

/* The control-request handlers, under their list's lock (held at PASSIVE_LEVEL). */
VOID NdisFilter_PrintIoControlHandlers(NfPrinter Print)
{
    NfSharedPassiveLock lock(&g_pGlobal->m_IoCtrlHandlerLock);
    PLIST_ENTRY head = &g_pGlobal->m_IoCtrlHandlerList;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        IoCtrlHandler *handler = CONTAINING_RECORD(link, IoCtrlHandler, m_ListEntry);
        Print("- pIoCtrlHandler = 0x%p\n", (PVOID)handler);
        Print("  - m_hFilterDriver = 0x%p\n", (PVOID)handler->m_hFilterDriver);
        Print("  - m_pfIoCtrlProc = 0x%p\n", (PVOID)handler->m_pfIoCtrlProc);
        Print("  - m_pIoCtrlContext = 0x%p\n", handler->m_pIoCtrlContext);
    }
}

/*
 * NdisFilter_DumpDeviceExtension - the whole global state, one line per
 * field. IRQL = PASSIVE_LEVEL.
 */
VOID NdisFilter_DumpDeviceExtension(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_PRINT("====> Dump NdisFilter Device Extension ====\n");
    NF_PRINT("- BuildTime = %s %s\n", __DATE__, __TIME__);
    NF_PRINT("- Type = NdisFilterDeviceExtension\n");
    NF_PRINT("- Size = %d\n", (int)sizeof(*global));
    NF_PRINT("- Address = 0x%p\n", (PVOID)global);

    DumpPointer("m_pDeviceObject", global->m_pDeviceObject);
    NF_PRINT("- m_DeviceSymbolicLink = %ws\n", global->m_DeviceSymbolicLink.Buffer);
    NF_PRINT("- m_bSymbolicLinkCreated = %s\n", TrueFalse(global->m_bSymbolicLinkCreated));
    DumpPointer("m_HookAPILock", &global->m_HookAPILock);
    {
        NdisHookAPI api;
        {
            NfReadLock lock(&global->m_HookAPILock);
            api = global->m_NdisHookAPI;
        }
        DumpHookApi(api);
    }

    DumpPointer("m_pMappedMemory", global->m_pMappedMemory);
    DumpPointer("m_pMappedMemoryMdl", global->m_pMappedMemoryMdl);
    DumpPointer("m_pUserMapping", global->m_pUserMapping);
    DumpPointer("m_FileObject", global->m_FileObject);
    DumpPointer("m_pSharedMemory", global->m_pSharedMemory);
    if (global->m_pSharedMemory != NULL) {
        DumpRing("m_SharedMemory.KernelModeInput", &global->m_pSharedMemory->KernelModeInput);
        DumpRing("m_SharedMemory.KernelModeOutput", &global->m_pSharedMemory->KernelModeOutput);
    }
    NF_PRINT("- m_bStopShare = %s\n", TrueFalse(global->m_bStopShare));
    DumpPointer("m_MappedMemoryLock", &global->m_MappedMemoryLock);
    NF_PRINT("- m_hShareMemoryThread[%d] = 0x%p\n", 0, (PVOID)global->m_hShareMemoryThread[0]);
    NF_PRINT("- m_nNdisHelperWorkThread = %d\n", (int)global->m_nNdisHelperWorkThread);
    DumpPointer("m_pPendingReadIrp", global->m_pPendingReadIrp);
    DumpPointer("m_PendingReadLock", &global->m_PendingReadLock);
    DumpPointer("m_InputBlockLock", &global->m_InputBlockLock);
    DumpPointer("m_OutputBlockLock", &global->m_OutputBlockLock);
    DumpPointer("m_ShareMemoryEvent", &global->m_ShareMemoryEvent);
    DumpPointer("m_WorkThreadExitEvent", &global->m_WorkThreadExitEvent);

    DumpPointer("m_AdapterListLock", &global->m_AdapterListLock);
    NdisFilter_PrintAdapterTable(DebugLine);
    DumpPointer("m_pContextLock", &global->m_pContextLock);
    for (int i = 0; i < NF_CONTEXT_SLOTS; i++)
        NF_PRINT("- m_pContextDriver[%d] = 0x%p\n", i, (PVOID)global->m_pContextDriver[i]);
    DumpEventHandlers(global);

    DumpLinks("m_FilterDriverList", &global->m_FilterDriverList);
    NdisFilter_PrintDrivers(DebugLine);
    DumpPacketFilters(global);
    DumpInjectionQueues(global);

    DumpRwListEntries("m_InterfaceList", &global->m_InterfaceLock, &global->m_InterfaceList);
    DumpRwListEntries("m_IfEventHandlerList", &global->m_IfEventHandlerLock, &global->m_IfEventHandlerList);

    DumpLookaside(&global->m_LogLookasideList);
    DumpRwListEntries("m_FilterLogList", &global->m_FilterLogLock, &global->m_FilterLogList);
    /* The address's low half, as this line has always printed. */
    NF_PRINT("- m_CurrentLogSize = %d\n", (int)(ULONG)(ULONG_PTR)&global->m_CurrentLogSize);

    DumpLinks("m_FilterTimerList", &global->m_FilterTimerList);
    NdisFilter_PrintTimers(DebugLine);
    NF_PRINT("- m_dwTickIncrement = %d\n", (int)(ULONG)(ULONG_PTR)&global->m_dwTickIncrement);
    NF_PRINT("- m_nPendingWorkItems = %d\n", (int)global->m_nPendingWorkItems);

    DumpLinks("m_IoCtrlHandlerList", &global->m_IoCtrlHandlerList);
    NdisFilter_PrintIoControlHandlers(DebugLine);
    NF_PRINT("- m_bDiagInProgress = %d\n", (int)global->m_bDiagInProgress);
    DumpPointer("m_pAppToDriverEthrLog", global->m_pAppToDriverEthrLog);
    DumpPointer("m_pDriverToAppEthrLog", global->m_pDriverToAppEthrLog);
}
