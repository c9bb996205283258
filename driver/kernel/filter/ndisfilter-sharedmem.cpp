/*
 * ndisfilter-sharedmem.cpp - the memory shared with the user program: its
 * allocation and ring layout, mapping into the program, the share's owner,
 * the parked read request and the thread that serves the input ring.
 *
 * The layout of the shared area is drawn in ndisfilter.h.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

#define NF_MAPPED_MEMORY_POOL_TAG 0x4D70614D /* "MapM" */

/*
 * NdisFilter_AllocateMappedMemory - one non-paged allocation for the whole
 * shared area, zeroed, described by an MDL built for non-paged pool. Returns
 * NULL when either allocation fails. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C PMappedMemory NdisFilter_AllocateMappedMemory(VOID)
{
    NF_TRACE(NF_DBG_CORE, "Enter NdisFilter_AllocateMappedMemory\n");

    PMappedMemory memory =
        (PMappedMemory)ExAllocatePoolWithTag(NonPagedPool, MAPPED_MEMORY_SIZE, NF_MAPPED_MEMORY_POOL_TAG);
    if (memory == NULL) {
        NF_TRACE(NF_DBG_CORE, "  ExAllocatePoolWithTag fails\n");
    } else {
        NF_TRACE(NF_DBG_CORE, "  ExAllocatePoolWithTag(NonPagedPool, Size=%d) success\n", (int)MAPPED_MEMORY_SIZE);
        memory->m_pUserModeVirtualAddress = NULL;
        memory->m_pMdl = NULL;
        memory->m_nSize = SHARED_MEMORY_SIZE;
        RtlZeroMemory(&memory->m_SharedMemory, SHARED_MEMORY_SIZE);

        PMDL mdl = IoAllocateMdl(memory, MAPPED_MEMORY_SIZE, FALSE, FALSE, NULL);
        if (mdl == NULL) {
            ExFreePool(memory);
            memory = NULL;
            NF_TRACE(NF_DBG_CORE, "  IoAllocateMdl() fails\n");
        } else {
            NF_TRACE(NF_DBG_CORE, "  IoAllocateMdl() success\n");
            MmBuildMdlForNonPagedPool(mdl);
            memory->m_pMdl = mdl;
            NF_TRACE(NF_DBG_CORE, "  MmBuildMdlForNonPagedPool() complete\n");
        }
    }

    NF_TRACE(NF_DBG_CORE, "Leave NdisFilter_AllocateMappedMemory\n");
    return memory;
}

namespace {

VOID InitializeRing(PSharedBlockRing Ring, LONG BaseOffset, PSharedBlock FirstBlock)
{
    Ring->m_iBlockSize = SHARED_BLOCK_SIZE;
    Ring->m_iBlockCount = SHARED_BLOCK_COUNT;
    Ring->m_iBaseOffset = BaseOffset;
    Ring->m_puBlockBase = 0;
    Ring->m_pkBlockBase = (ULONG64)(ULONG_PTR)FirstBlock;
    Ring->m_iRead = 0;
    Ring->m_iWrite = 0;
    Ring->m_nCount = SHARED_BLOCK_COUNT;
}

} // namespace

/* Lays out the two ring headers in the shared area and makes it the global one. */
EXTERN_C VOID NdisFilter_InitializeSharedMemory(PMappedMemory Memory)
{
    PSharedMemory shared = &Memory->m_SharedMemory;
    InitializeRing(&shared->KernelModeOutput, 0, shared->m_OutputBlocks);
    InitializeRing(&shared->KernelModeInput, (LONG)(SHARED_BLOCK_COUNT * SHARED_BLOCK_SIZE), shared->m_InputBlocks);
    g_pGlobal->m_pSharedMemory = shared;
}

/*
 * NdisFilter_UnmapMemoryToUserSpace - removes the program's mapping, through
 * the hook driver when it supplied the function. A second call does nothing.
 */
EXTERN_C VOID NdisFilter_UnmapMemoryToUserSpace(PMappedMemory Memory)
{
    if (Memory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  pMappedMemory == NULL\n");
        return;
    }
    if (Memory->m_pUserModeVirtualAddress == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  pMappedMemory->m_pUserModeVirtualAddress == NULL\n");
        return;
    }
    PHOOK_MM_UNMAP_LOCKED_PAGES unmap = g_pGlobal->m_NdisHookAPI.Hook_MmUnmapLockedPages;
    if (unmap != NULL) {
        unmap(Memory->m_pMdl, Memory->m_pUserModeVirtualAddress);
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  Hook_MmUnmapLockedPages() complete\n");
    } else {
        MmUnmapLockedPages(Memory->m_pUserModeVirtualAddress, Memory->m_pMdl);
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  MmUnmapLockedPages() complete\n");
    }
    Memory->m_pUserModeVirtualAddress = NULL;
}

/*
 * NdisFilter_CompleteRead - completes the parked READ_SHARE request, if any,
 * with success and no bytes. Takes no lock. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NdisFilter_CompleteRead(VOID)
{
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_CompleteRead\n");
    PIRP irp = (PIRP)InterlockedExchangePointer((PVOID volatile *)&g_pGlobal->m_pPendingReadIrp, NULL);
    if (irp != NULL) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = 0;
        IoSetCancelRoutine(irp, NULL);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_CompleteRead\n");
}

/*
 * NdisFilter_StopShare - gives the share back when the request's file object
 * owns it: completes the parked read and unmaps the program's view. Called by
 * STOP_SHARE and by the cleanup of every handle. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C VOID NdisFilter_StopShare(PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (g_pGlobal->m_pMappedMemory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory is not allocated\n");
        return;
    }
    if (fileObject == NULL || fileObject != g_pGlobal->m_FileObject) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is not opened by FileObject 0x%p\n", fileObject);
        return;
    }
    NdisFilter_CompleteRead();
    NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is released by FileObject 0x%p\n", fileObject);
    NdisFilter_UnmapMemoryToUserSpace(g_pGlobal->m_pMappedMemory);
    g_pGlobal->m_FileObject = NULL;
}

/*
 * NdisFilter_TerminateShare - at unload: tells the worker threads to leave and
 * waits until the last one has, then completes the parked read and unmaps.
 * Without mapped memory there is nothing to stop and no wait is made.
 */
EXTERN_C VOID NdisFilter_TerminateShare(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_TerminateShare\n");
    if (global->m_pMappedMemory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory is not allocated\n");
    } else {
        global->m_bStopShare = TRUE;
        NdisSetEvent(&global->m_ShareMemoryEvent);
        if (global->m_nNdisHelperWorkThread != 0)
            NdisWaitEvent(&global->m_WorkThreadExitEvent, NF_WORKER_EXIT_WAIT_MS);
        NdisFilter_CompleteRead();
        NdisFilter_UnmapMemoryToUserSpace(global->m_pMappedMemory);
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_TerminateShare\n");
}

/* NdisFilter_FreeMappedMemory - at unload: unmaps, frees the MDL and the pool. */
EXTERN_C VOID NdisFilter_FreeMappedMemory(VOID)
{
    PMappedMemory memory = g_pGlobal->m_pMappedMemory;
    if (memory == NULL) {
        NF_TRACE(NF_DBG_CORE, "  pMappedMemory == NULL\n");
        return;
    }
    NdisFilter_UnmapMemoryToUserSpace(memory);
    IoFreeMdl(memory->m_pMdl);
    NF_TRACE(NF_DBG_CORE, "  IoFreeMdl() complete\n");
    g_pGlobal->m_pMappedMemory = NULL;
    g_pGlobal->m_pSharedMemory = NULL;
    ExFreePool(memory);
    NF_TRACE(NF_DBG_CORE, "  ExFreePool complete\n");
}

/*
 * ShareMemoryThread - serves the input ring: sleeps on m_ShareMemoryEvent
 * until the program announces blocks, and leaves once m_bStopShare is set.
 * IRQL = PASSIVE_LEVEL, priority 16.
 */
EXTERN_C VOID NTAPI ShareMemoryThread(PVOID StartContext)
{
    UNREFERENCED_PARAMETER(StartContext);
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter ShareMemoryThread\n");
    NdisFilter_WorkerThreadEnter();

    while (!global->m_bStopShare) {
        NdisWaitEvent(&global->m_ShareMemoryEvent, NF_WORKER_EXIT_WAIT_MS);
        NdisResetEvent(&global->m_ShareMemoryEvent);
    }

    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave ShareMemoryThread\n");
    NdisFilter_WorkerThreadLeave();
}
