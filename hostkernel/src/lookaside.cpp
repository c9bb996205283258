/*
 * Non-paged lookaside lists: a cache of up to Depth fixed-size blocks in front
 * of an allocate and a free routine.
 *
 * The cache is the S-list in L.ListHead, so it is safe at DISPATCH_LEVEL from
 * any number of threads. The depth stays at 4 (the Windows minimum; Windows
 * tunes it at run time, the host does not). Counters are updated atomically
 * so tests can rely on them.
 */
#include "core_internal.h"

namespace {

constexpr USHORT kDepth = 4;
constexpr USHORT kMaximumDepth = 256;

/* Adds one to a lookaside counter (exact even when threads race). */
void Count(ULONG *counter)
{
    __atomic_add_fetch(counter, 1, __ATOMIC_RELAXED);
}

/* The default free routine: ExFreePool through the calling convention of PFREE_FUNCTION. */
VOID NTAPI DefaultFree(PVOID Buffer)
{
    ExFreePool(Buffer);
}

} // namespace

/* Sets up an empty list (see hk/pool.h). IRQL <= DISPATCH_LEVEL. */
VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside,
                                           PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free,
                                           ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth)
{
    UNREFERENCED_PARAMETER(Depth);
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "ExInitializeNPagedLookasideList");
    if (Size < sizeof(SLIST_ENTRY) || Size > 0xFFFFFFFFu)
        hk::VerifierError("ExInitializeNPagedLookasideList: block size %zu is not between %zu "
                          "and 4 GB", static_cast<size_t>(Size), sizeof(SLIST_ENTRY));
    GENERAL_LOOKASIDE &l = Lookaside->L;
    InitializeSListHead(&l.ListHead);
    l.Depth = kDepth;
    l.MaximumDepth = kMaximumDepth;
    l.TotalAllocates = 0;
    l.AllocateMisses = 0;
    l.TotalFrees = 0;
    l.FreeMisses = 0;
    l.Type = static_cast<POOL_TYPE>(NonPagedPool | Flags);
    l.Tag = Tag;
    l.Size = static_cast<ULONG>(Size);
    l.Allocate = Allocate != nullptr ? Allocate : ExAllocatePoolWithTag;
    l.Free = Free != nullptr ? Free : DefaultFree;
    InitializeListHead(&l.ListEntry);
    l.LastTotalAllocates = 0;
    l.LastAllocateMisses = 0;
    l.Future[0] = l.Future[1] = 0;
}

/* Frees the cached blocks with the Free routine. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "ExDeleteNPagedLookasideList");
    PSLIST_ENTRY entry = InterlockedFlushSList(&Lookaside->L.ListHead);
    while (entry != nullptr) {
        PSLIST_ENTRY next = entry->Next;
        Lookaside->L.Free(entry);
        entry = next;
    }
}

/* A cached block, or one from the Allocate routine (NULL if it fails). IRQL <=
 * DISPATCH_LEVEL. */
PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "ExAllocateFromNPagedLookasideList");
    GENERAL_LOOKASIDE &l = Lookaside->L;
    Count(&l.TotalAllocates);
    PSLIST_ENTRY entry = InterlockedPopEntrySList(&l.ListHead);
    if (entry != nullptr)
        return entry;
    Count(&l.AllocateMisses);
    return l.Allocate(l.Type, l.Size, l.Tag);
}

/* Caches Entry while fewer than Depth blocks are cached, else gives it to the Free
 * routine. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "ExFreeToNPagedLookasideList");
    GENERAL_LOOKASIDE &l = Lookaside->L;
    Count(&l.TotalFrees);
    if (QueryDepthSList(&l.ListHead) >= l.Depth) {
        Count(&l.FreeMisses);
        l.Free(Entry);
        return;
    }
    InterlockedPushEntrySList(&l.ListHead, static_cast<PSLIST_ENTRY>(Entry));
}
