/*
 * ndisfilter-sharedmem.cpp - the memory shared with the user program: its
 * allocation and ring layout, mapping into the program, the share's owner,
 * the parked read request and the thread that serves the input ring.
 *
 * The layout of the shared area is drawn in ndisfilter.h.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-ethrlog.h"

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
            memory->m_pMdl = mdl; /* for the program's view; the framework keeps its own copy */
            g_pGlobal->m_pMappedMemoryMdl = mdl;
            NF_TRACE(NF_DBG_CORE, "  MmBuildMdlForNonPagedPool() complete\n");
        }
    }

    NF_TRACE(NF_DBG_CORE, "Leave NdisFilter_AllocateMappedMemory\n");
    return memory;
}

namespace {

VOID InitializeRing(NfSharedRing *Ring, PSharedBlockRing Header, LONG BaseOffset, PSharedBlock FirstBlock)
{
    Header->m_iBlockSize = SHARED_BLOCK_SIZE;
    Header->m_iBlockCount = SHARED_BLOCK_COUNT;
    Header->m_iBaseOffset = BaseOffset;
    Header->m_puBlockBase = 0;
    Header->m_pkBlockBase = (ULONG64)(ULONG_PTR)FirstBlock;
    Header->m_iRead = 0;
    Header->m_iWrite = 0;
    Header->m_nCount = SHARED_BLOCK_COUNT;
    Ring->m_pHeader = Header;
    Ring->m_pBlocks = FirstBlock;
    Ring->m_iOwnIndex = 0;
}

} // namespace

/* Lays out the two ring headers in the shared area and makes it the global one. */
EXTERN_C VOID NdisFilter_InitializeSharedMemory(PMappedMemory Memory)
{
    PSharedMemory shared = &Memory->m_SharedMemory;
    InitializeRing(&g_pGlobal->m_OutputRing, &shared->KernelModeOutput, 0, shared->m_OutputBlocks);
    InitializeRing(&g_pGlobal->m_InputRing, &shared->KernelModeInput, (LONG)(SHARED_BLOCK_COUNT * SHARED_BLOCK_SIZE),
                   shared->m_InputBlocks);
    g_pGlobal->m_pSharedMemory = shared;
}

/*
 * NdisFilter_UnmapMemoryToUserSpace - removes the program's mapping, through
 * the hook driver when it supplied the function. The address and the MDL are
 * the framework's own copies; the ones in the shared header are only for the
 * program to read. A second call does nothing. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C VOID NdisFilter_UnmapMemoryToUserSpace(PMappedMemory Memory)
{
    if (Memory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  pMappedMemory == NULL\n");
        return;
    }
    PVOID address = g_pGlobal->m_pUserMapping;
    if (address == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  pMappedMemory->m_pUserModeVirtualAddress == NULL\n");
        return;
    }
    PMDL mdl = g_pGlobal->m_pMappedMemoryMdl;
    PHOOK_MM_UNMAP_LOCKED_PAGES unmap = g_pGlobal->m_NdisHookAPI.Hook_MmUnmapLockedPages;
    if (unmap != NULL) {
        LONG code = FilterGuard([&] { unmap(mdl, address); });
        if (code != 0)
            NF_PRINT("Hook_MmUnmapLockedPages: exception, code = %d\n", (int)code);
        else
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  Hook_MmUnmapLockedPages() complete\n");
    } else {
        MmUnmapLockedPages(address, mdl);
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  MmUnmapLockedPages() complete\n");
    }
    g_pGlobal->m_pUserMapping = NULL;
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
    /* A request whose cancel routine is already running is completed by that routine. */
    if (irp != NULL && IoSetCancelRoutine(irp, NULL) != NULL) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_CompleteRead\n");
}

namespace {

/*
 * Holds the share's owner lock for as long as it lives: taking and giving
 * back the share, with its mapping, happen one at a time. PASSIVE_LEVEL.
 */
class ShareOwnerGuard {
public:
    ShareOwnerGuard()
    {
        KeWaitForSingleObject(&g_pGlobal->m_ShareOwnerLock, Executive, KernelMode, FALSE, NULL);
    }
    ~ShareOwnerGuard() { KeSetEvent(&g_pGlobal->m_ShareOwnerLock, IO_NO_INCREMENT, FALSE); }
    ShareOwnerGuard(const ShareOwnerGuard &) = delete;
    ShareOwnerGuard &operator=(const ShareOwnerGuard &) = delete;
};

} // namespace

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
    ShareOwnerGuard owner;
    if (fileObject == NULL || fileObject != g_pGlobal->m_FileObject) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is not opened by FileObject 0x%p\n", fileObject);
        return;
    }
    /* No longer the owner first, so a read parked from now on is answered at once. */
    g_pGlobal->m_FileObject = NULL;
    NdisFilter_CompleteRead();
    NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is released by FileObject 0x%p\n", fileObject);
    NdisFilter_UnmapMemoryToUserSpace(g_pGlobal->m_pMappedMemory);
}

/*
 * NdisFilter_TerminateShare - at unload: tells the worker threads to leave and
 * waits until the last one has, then completes the parked read and unmaps.
 */
EXTERN_C VOID NdisFilter_TerminateShare(VOID)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_TerminateShare\n");
    global->m_bStopShare = TRUE;
    NdisSetEvent(&global->m_ShareMemoryEvent);
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++)
        NdisSetEvent(&global->m_InjectPacketEvent[queue]);
    NdisFilter_WaitForWorkerThreads();
    if (global->m_pMappedMemory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory is not allocated\n");
    } else {
        ShareOwnerGuard owner;
        global->m_FileObject = NULL;
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
    IoFreeMdl(g_pGlobal->m_pMappedMemoryMdl);
    NF_TRACE(NF_DBG_CORE, "  IoFreeMdl() complete\n");
    g_pGlobal->m_pMappedMemoryMdl = NULL;
    g_pGlobal->m_pMappedMemory = NULL;
    g_pGlobal->m_pSharedMemory = NULL;
    ExFreePool(memory);
    NF_TRACE(NF_DBG_CORE, "  ExFreePool complete\n");
}

/* ---- mapping and the share's owner ---- */

/*
 * NdisFilter_MapMemoryToUserSpace - maps the whole shared allocation into the
 * calling process, through the hook driver when it supplied the function.
 * The framework keeps the address it was given (the hook driver also stores
 * it in the shared header for the program). Returns it, or NULL.
 * IRQL = PASSIVE_LEVEL.
 */
EXTERN_C PVOID NdisFilter_MapMemoryToUserSpace(PMappedMemory Memory)
{
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_MapMemoryToUserSpace\n");
    PHOOK_MM_MAP_LOCKED_PAGES map = g_pGlobal->m_NdisHookAPI.Hook_MmMapLockedPages;
    PMDL mdl = g_pGlobal->m_pMappedMemoryMdl;
    PVOID address = NULL;
    LONG code = FilterGuard([&] {
        if (map != NULL) {
            address = map(mdl, g_dwShareValue, Memory);
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  Hook_MmMapLockedPages() return 0x%p\n", address);
        } else {
            address = MmMapLockedPages(mdl, UserMode);
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  MmMapLockedPages() return 0x%p\n", address);
        }
    });
    if (code != 0)
        address = NULL;
    if (address == NULL)
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  MmMapLockedPages fails\n");
    g_pGlobal->m_pUserMapping = address;
    Memory->m_pUserModeVirtualAddress = address;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_MapMemoryToUserSpace\n");
    return address;
}

/*
 * NdisFilter_StartShare - maps the shared area into the caller's process and
 * makes the request's file object its owner, unless someone owns it already.
 * Returns the user address of SharedMemory: the mapping plus 20, so a
 * refusal or a failed mapping returns 20. The rings keep their indexes.
 */
EXTERN_C ULONG_PTR NdisFilter_StartShare(PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    PMappedMemory memory = g_pGlobal->m_pMappedMemory;
    ULONG_PTR address = 0;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_StartShare\n");
    if (memory == NULL) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory is not allocated\n");
    } else {
        ShareOwnerGuard owner;
        if (g_pGlobal->m_FileObject != NULL) {
            NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is opened by another FileObject 0x%X\n",
                     (unsigned)(ULONG_PTR)g_pGlobal->m_FileObject);
        } else if (g_pGlobal->m_bStopShare) {
            NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory is not allocated\n");
        } else {
            address = (ULONG_PTR)NdisFilter_MapMemoryToUserSpace(memory);
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  UserMode SharedMemory = 0x%p\n", (PVOID)address);
            if (address != 0) {
                NF_TRACE(NF_DBG_SHARED_MEMORY, "MappedMemory mapped to FileObject 0x%p as 0x%p\n",
                         (PVOID)fileObject, (PVOID)address);
                g_pGlobal->m_FileObject = fileObject;
            }
        }
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_StartShare\n");
    return address + SHARED_MEMORY_OFFSET;
}

/* ---- the rings ---- */

namespace {

LONG NextIndex(LONG Index)
{
    return (Index + 1) % SHARED_BLOCK_COUNT;
}

/*
 * The program's index of a ring, read once from the shared header: a value
 * outside 0..SHARED_BLOCK_COUNT-1 is refused (-1), since the program may
 * write anything there at any moment.
 */
LONG ProgramIndex(const volatile LONG *Field)
{
    LONG index = *Field;
    return index >= 0 && index < SHARED_BLOCK_COUNT ? index : -1;
}

/* The input ring's write index as the program left it, or -1. */
LONG InputWriteIndex(const NfSharedRing *Ring)
{
    return ProgramIndex(&Ring->m_pHeader->m_iWrite);
}

/* The output ring's read index as the program left it, or -1. */
LONG OutputReadIndex(const NfSharedRing *Ring)
{
    return ProgramIndex(&Ring->m_pHeader->m_iRead);
}

/* The framework advances its own index and shows it to the program. */
VOID AdvanceOwnIndex(NfSharedRing *Ring, volatile LONG *Shown)
{
    Ring->m_iOwnIndex = NextIndex(Ring->m_iOwnIndex);
    *Shown = Ring->m_iOwnIndex;
}

PSharedBlock BlockAt(const NfSharedRing *Ring, LONG Index)
{
    return Ring->m_pBlocks + Index;
}

BOOLEAN SharingStopped(VOID)
{
    return g_pGlobal->m_pSharedMemory == NULL || g_pGlobal->m_bStopShare;
}

/* TRUE when the input ring holds a block the framework has not taken yet. */
BOOLEAN InputPending(VOID)
{
    if (SharingStopped())
        return FALSE;
    NfReadLock lock(&g_pGlobal->m_InputBlockLock);
    LONG write = InputWriteIndex(&g_pGlobal->m_InputRing);
    return write >= 0 && write != g_pGlobal->m_InputRing.m_iOwnIndex;
}

/* TRUE when the program has read every block of the output ring (an index out of range: not empty). */
BOOLEAN OutputRingEmpty(VOID)
{
    const NfSharedRing *ring = &g_pGlobal->m_OutputRing;
    return OutputReadIndex(ring) == ring->m_iOwnIndex;
}

} // namespace

/*
 * NdisFilter_ReadShareMemory - a new packet made from the input block at the
 * framework's read index, or NULL. A block whose adapter id is unknown, whose
 * length does not fit its block, or for which no packet can be had stays in
 * the ring and is met again at the next call. A write index out of range
 * reads as an empty ring. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PFilterPacket NdisFilter_ReadShareMemory(VOID)
{
    KIRQL irql = KeGetCurrentIrql();
    PFilterPacket packet = NULL;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_ReadShareMemory, IRQL=%d\n", irql);
    if (SharingStopped()) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, I/O shared memory is not initialized\n", irql);
    } else {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, I/O shared memory is initialized\n", irql);
        NfWriteLock lock(&g_pGlobal->m_InputBlockLock);
        NfSharedRing *ring = &g_pGlobal->m_InputRing;
        LONG index = ring->m_iOwnIndex;
        LONG write = InputWriteIndex(ring);
        PFilterAdapter adapter = NULL;
        if (write < 0 || write == index) {
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, input shared blocks are empty\n", irql);
        } else {
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, input shared blocks are not empty\n", irql);
            /* The program owns the block too: read each field once. */
            const volatile SharedBlock *block = BlockAt(ring, index);
            ULONG size = block->m_nPacketSize;
            if (Filter_IdToAdapter(block->m_nAdapterId, &adapter) != FILTER_STATUS_SUCCESS) {
                NF_TRACE(NF_DBG_SHARED_MEMORY,
                         "  IRQL=%d, packet buffer adapter error, func Filter_IdToAdapter ret fails\n", irql);
            } else if (size > SHARED_BLOCK_FRAME_SIZE) {
                NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, packet size %u exceeds the block\n", irql, (unsigned)size);
            } else if ((packet = Filter_AllocatePacket(adapter)) == NULL) {
                NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, allocate packet buffer fails\n", irql);
            } else {
                NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, copy packets from I/O shared memory\n", irql);
                packet->m_hAdapter = adapter;
                packet->m_nDirection = block->m_nDirection;
                packet->m_nPacketSize = size;
                packet->m_dwCarried[0] = block->m_dwCarried[0];
                packet->m_dwCarried[1] = block->m_dwCarried[1];
                packet->m_nIndicateCode = block->m_nIndicateCode;
                packet->m_nIndicateValue = block->m_nIndicateValue;
                RtlCopyMemory(packet->m_ApplicationData, (const VOID *)block->m_ApplicationData,
                              sizeof(packet->m_ApplicationData));
                RtlCopyMemory(packet->m_Data, (const VOID *)block->m_Frame, size);
                packet->m_nBytesRead = size;
                NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, update read pointer to next block\n", irql);
                AdvanceOwnIndex(ring, &ring->m_pHeader->m_iRead);
            }
        }
    }
    if (packet != NULL)
        NdisFilter_RecordChannelFrame(FALSE, packet);
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_ReadShareMemory(), IRQL=%d, return 0x%p\n", irql, (PVOID)packet);
    return packet;
}

namespace {

/* What an output-ring writer did with the block it was offered. */
enum BlockWrite {
    BlockWritten,
    BlockSkipped, /* left as it was, like a full ring */
    WriteRefused  /* the writer gives up at once: no wake-up, no leave line */
};

/*
 * The common frame of the two output-ring writers: `Write` fills the block at
 * the framework's write index. A read index out of range reads as a full
 * ring. Unless the writer refused, the parked read is completed after the
 * attempt, full ring or not, so the program wakes and drains.
 */
template <typename Writer>
BlockWrite WriteOutputBlock(Writer &&Write)
{
    KIRQL irql = KeGetCurrentIrql();
    if (SharingStopped()) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, I/O shared memory is not initialized\n", irql);
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_WriteShareMemory(), fails, IRQL=%d\n", irql);
        return WriteRefused;
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, I/O shared memory is initialized\n", irql);
    BlockWrite result = BlockSkipped;
    {
        NfWriteLock lock(&g_pGlobal->m_OutputBlockLock);
        NfSharedRing *ring = &g_pGlobal->m_OutputRing;
        LONG read = OutputReadIndex(ring);
        if (read >= 0 && NextIndex(ring->m_iOwnIndex) != read) {
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, output shared blocks are not full\n", irql);
            NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, copy packets to I/O shared memory\n", irql);
            /*
             * The writer reads a caller's packet or signal: a fault in it must
             * not end the guard of whoever called us with this lock still held.
             */
            PSharedBlock block = BlockAt(ring, ring->m_iOwnIndex);
            LONG code = FilterGuard([&] { result = Write(block); });
            if (code != 0) {
                NF_PRINT("NdisFilter_WriteShareMemory: exception, code = %d\n", (int)code);
                result = WriteRefused;
            }
            if (result == WriteRefused)
                return result;
            if (result == BlockWritten) {
                NF_TRACE(NF_DBG_SHARED_MEMORY, "  IRQL=%d, update write pointer to next block\n", irql);
                InterlockedIncrement(&ring->m_pHeader->m_nCount);
                AdvanceOwnIndex(ring, &ring->m_pHeader->m_iWrite);
            }
        }
    }
    NdisFilter_CompleteRead();
    return result;
}

} // namespace

/*
 * NdisFilter_WriteShareMemory - copies a packet into the output ring for the
 * program. FALSE when sharing is stopped, the ring is full, the adapter has no
 * identifier, or the frame does not fit a block. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C BOOLEAN NdisFilter_WriteShareMemory(PFilterPacket Packet)
{
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_WriteShareMemory (pBlock=0x%p,Complete=%s), IRQL=%d\n",
             (PVOID)Packet, "TRUE", KeGetCurrentIrql());
    BlockWrite result = WriteOutputBlock([&](PSharedBlock Block) -> BlockWrite {
        ULONG id = 0;
        if (Filter_AdapterToId(Packet->m_hAdapter, &id) != FILTER_STATUS_SUCCESS) {
            NF_PRINT("Err: Filter_AdapterToId return failure.\n");
            return WriteRefused;
        }
        /* A frame longer than a block's frame area is refused like a full ring. */
        if (Packet->m_nPacketSize > SHARED_BLOCK_FRAME_SIZE)
            return BlockSkipped;
        Block->m_nAdapterId = id;
        Block->m_nDirection = Packet->m_nDirection;
        Block->m_nPacketSize = Packet->m_nPacketSize;
        Block->m_dwCarried[0] = Packet->m_dwCarried[0];
        Block->m_dwCarried[1] = Packet->m_dwCarried[1];
        Block->m_nIndicateCode = Packet->m_nIndicateCode;
        Block->m_nIndicateValue = Packet->m_nIndicateValue;
        RtlCopyMemory(Block->m_ApplicationData, Packet->m_ApplicationData, sizeof(Block->m_ApplicationData));
        RtlCopyMemory(Block->m_Frame, Packet->m_Data, Packet->m_nPacketSize);
        return BlockWritten;
    });
    if (result == BlockWritten)
        NdisFilter_RecordChannelFrame(TRUE, Packet);
    if (result != WriteRefused)
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_WriteShareMemory(), success, IRQL=%d\n", KeGetCurrentIrql());
    return result == BlockWritten;
}

/*
 * NdisFilter_WriteSignalPacket - copies a FILTER_SIGNAL_SIZE-byte signal
 * record into the output ring; its last 132 bytes spill into the next block
 * (behind the last output block, into the first input block).
 */
EXTERN_C BOOLEAN NdisFilter_WriteSignalPacket(PVOID Signal)
{
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_WriteSignalPacket(pSignal=0x%p), IRQL=%d\n", Signal,
             KeGetCurrentIrql());
    BlockWrite result = WriteOutputBlock([&](PSharedBlock Block) -> BlockWrite {
        RtlCopyMemory(Block, Signal, FILTER_SIGNAL_SIZE);
        return BlockWritten;
    });
    if (result != WriteRefused)
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_WriteSignalPacket(), success, IRQL=%d\n", KeGetCurrentIrql());
    return result == BlockWritten;
}

/* ---- the read and write requests ---- */

/*
 * CancelPendingReadShare - the cancel routine of the parked read. Called with
 * the cancel spin lock held, which it releases first. It takes the park lock
 * so that a read still being parked is in its place before it is taken out.
 */
EXTERN_C VOID NTAPI CancelPendingReadShare(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter CancelPendingReadShare\n");
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    {
        NfWriteLock lock(&g_pGlobal->m_PendingReadLock);
        InterlockedCompareExchangePointer((PVOID volatile *)&g_pGlobal->m_pPendingReadIrp, NULL, Irp);
    }
    Irp->IoStatus.Status = STATUS_CANCELLED;
    Irp->IoStatus.Information = 0;
    IoSetCancelRoutine(Irp, NULL);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave CancelPendingReadShare\n");
}

namespace {

/*
 * Parks a read under the park lock. The cancel routine is installed before
 * the request is published: a completion that takes it from the slot always
 * finds a routine to clear (so it completes it), and a cancellation that comes
 * meanwhile waits for the lock and then takes it out. A request cancelled
 * before its routine was installed is not parked: STATUS_CANCELLED.
 */
NTSTATUS ParkRead(PIRP Irp)
{
    NfWriteLock lock(&g_pGlobal->m_PendingReadLock);
    if (g_pGlobal->m_pSharedMemory == NULL || !OutputRingEmpty())
        return STATUS_SUCCESS;
    if (g_pGlobal->m_pPendingReadIrp != NULL)
        return STATUS_UNSUCCESSFUL;
    IoSetCancelRoutine(Irp, CancelPendingReadShare);
    if (Irp->Cancel && IoSetCancelRoutine(Irp, NULL) != NULL)
        return STATUS_CANCELLED;
    IoMarkIrpPending(Irp);
    Irp->IoStatus.Status = STATUS_PENDING;
    InterlockedExchangePointer((PVOID volatile *)&g_pGlobal->m_pPendingReadIrp, Irp);
    return STATUS_PENDING;
}

} // namespace

/*
 * NdisFilter_IOCtrlReadShare - READ_SHARE: parks the request while the output
 * ring is empty (one at a time), answers at once when blocks are waiting.
 * Only the share's owner may read. A block written, or the share given back,
 * while the read was being parked completes it at once, so no wake-up is
 * lost. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NdisFilter_IOCtrlReadShare(PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_IOCtrlReadShare\n");
    if (fileObject == NULL || fileObject != g_pGlobal->m_FileObject) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is not opened by FileObject 0x%p\n", (PVOID)fileObject);
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlReadShare, STATUS_UNSUCCESSFUL\n");
        return STATUS_UNSUCCESSFUL;
    }

    NTSTATUS status = ParkRead(Irp);
    if (status == STATUS_PENDING) {
        if (!OutputRingEmpty() || fileObject != g_pGlobal->m_FileObject)
            NdisFilter_CompleteRead();
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlReadShare, STATUS_PENDING\n");
    } else if (status == STATUS_SUCCESS) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlReadShare, STATUS_SUCCESS\n");
    } else if (status == STATUS_CANCELLED) {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlReadShare, STATUS_CANCELLED\n");
    } else {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlReadShare, STATUS_UNSUCCESSFUL\n");
    }
    return status;
}

/* NdisFilter_IOCtrlWriteShare - WRITE_SHARE: wakes the share thread for the owner's new input blocks. */
EXTERN_C NTSTATUS NdisFilter_IOCtrlWriteShare(PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    NTSTATUS status = STATUS_SUCCESS;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter NdisFilter_IOCtrlWriteShare\n");
    if (fileObject == g_pGlobal->m_FileObject && fileObject != NULL) {
        NdisSetEvent(&g_pGlobal->m_ShareMemoryEvent);
    } else {
        NF_TRACE(NF_DBG_SHARED_MEMORY, "SharedMemory is not opened by FileObject 0x%p\n", (PVOID)fileObject);
        status = STATUS_UNSUCCESSFUL;
    }
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave NdisFilter_IOCtrlWriteShare\n");
    return status;
}

/*
 * ShareMemoryThread - serves the input ring: turns each block into a packet
 * and sends it through the inject chain of its direction (3: straight back to
 * the output ring); when the ring is empty it polls it briefly, then sleeps
 * on m_ShareMemoryEvent, and leaves once m_bStopShare is set. A block that
 * stays in the ring (see NdisFilter_ReadShareMemory) ends the polling.
 * IRQL = PASSIVE_LEVEL, priority 16.
 */
EXTERN_C VOID NTAPI ShareMemoryThread(PVOID StartContext)
{
    UNREFERENCED_PARAMETER(StartContext);
    PNdisFilterDeviceExtension global = g_pGlobal;
    NF_TRACE(NF_DBG_SHARED_MEMORY, "Enter ShareMemoryThread\n");
    NdisFilter_WorkerThreadEnter();

    BOOLEAN polled = FALSE;
    while (!global->m_bStopShare) {
        PFilterPacket packet = NdisFilter_ReadShareMemory();
        if (packet == NULL) {
            if (!polled && NdisFilter_PollBriefly([&] { return InputPending() || global->m_bStopShare; })) {
                polled = TRUE;
                continue;
            }
            polled = FALSE;
            NdisWaitEvent(&global->m_ShareMemoryEvent, NF_WORKER_EXIT_WAIT_MS);
            NdisResetEvent(&global->m_ShareMemoryEvent);
            continue;
        }
        polled = FALSE;
        switch (packet->m_nDirection) {
        case FILTER_DIRECTION_TO_PROTOCOL:
        case FILTER_DIRECTION_TO_ADAPTER:
            if (packet->m_hAdapter == NULL) {
                Filter_ReleasePacket(packet);
                break;
            }
            Filter_InitPacketHeader(packet, NULL);
            Filter_DumpPacket(">> Injected Packet", packet);
            Filter_InvokeFilters(packet->m_nDirection == FILTER_DIRECTION_TO_PROTOCOL ? FILTER_TYPE_INJECT_TO_PROTOCOL
                                                                                   : FILTER_TYPE_INJECT_TO_ADAPTER,
                                 packet);
            break;
        case FILTER_DIRECTION_TO_APPLICATION:
            NdisFilter_WriteShareMemory(packet);
            Filter_ReleasePacket(packet);
            break;
        default:
            Filter_ReleasePacket(packet);
            break;
        }
    }

    NF_TRACE(NF_DBG_SHARED_MEMORY, "Leave ShareMemoryThread\n");
    NdisFilter_WorkerThreadLeave();
}
