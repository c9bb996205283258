/*
 * ndisfilter-memory.cpp - tagged memory blocks and the level-saving lock.
 *
 * Every record of the framework, and any block a client asks for, comes from
 * Filter_AllocateMemory: a FilterMemory header (size, tag) stands in front of
 * the caller's block so that Filter_FreeMemory can verify a pointer before it
 * gives the block back.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

/*
 * The header tag of the framework's own records (drivers, filters and the
 * other records behind handles). Their blocks have the layout of
 * Filter_AllocateMemory's, but Filter_FreeMemory refuses them, so a client
 * cannot free a record that is still on one of the framework's lists.
 */
#define NF_RECORD_MEMORY_TAG 0x52414737 /* "7GAR" */

namespace {

/* A block of Size bytes behind a FilterMemory header that carries `HeaderTag`, or NULL. */
PVOID AllocateBlock(ULONG Size, ULONG PoolTag, ULONG HeaderTag)
{
    NF_ENTER(NF_DBG_COMMON, "Filter_AllocateMemory");

    PVOID block = NULL;
    ULONG total = Size + FILTER_MEMORY_OVERHEAD;
    PFilterMemory header = NULL;

    /* A size so large that the header does not fit behind it fails like an allocation. */
    if (total < Size) {
        NF_TRACE(NF_DBG_COMMON, "  NdisAllocateMemory(size=%d) fails\n", (int)total);
    } else if (NdisAllocateMemoryWithTag((PVOID *)&header, total, PoolTag) == NDIS_STATUS_FAILURE ||
               header == NULL) {
        NF_TRACE(NF_DBG_COMMON, "  NdisAllocateMemory(size=%d) fails\n", (int)total);
    } else {
        header->m_Size = total;
        header->m_Tag = HeaderTag;
        block = header + 1;
    }

    NF_TRACE(NF_DBG_COMMON, "Leave Filter_AllocateMemory, 0x%p\n", block);
    return block;
}

/* Frees a block whose header carries `HeaderTag`; the header is read under the fault guard. */
FILTER_STATUS FreeBlock(PVOID Memory, ULONG HeaderTag)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_FreeMemory", status);

    LONG code = FilterGuard([&] {
        if (Memory == NULL) {
            NF_TRACE(NF_DBG_COMMON, "  ppVirtualAddress == NULL\n");
            status = FILTER_ERROR_INVALID_ARGUMENT;
            return;
        }
        PFilterMemory header = (PFilterMemory)Memory - 1;
        if (header->m_Tag != HeaderTag) {
            NF_TRACE(NF_DBG_COMMON, "  pFilterMemory->m_Tag != FILTER_MEMORY_TAG\n");
            status = FILTER_ERROR_INVALID_MEMORY_POINTER;
            return;
        }
        header->m_Tag = 0;
        NdisFreeMemory(header, header->m_Size, 0);
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_FreeMemory", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

} // namespace

/*
 * Filter_AllocateMemory - a non-paged block of Size bytes behind a FilterMemory
 * header, from the NDIS allocator with the caller's pool tag. Not zeroed.
 * Returns the caller's block or NULL. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PVOID NTAPI Filter_AllocateMemory(ULONG Size, ULONG PoolTag)
{
    return AllocateBlock(Size, PoolTag, FILTER_MEMORY_TAG);
}

/*
 * Filter_FreeMemory - gives back a block from Filter_AllocateMemory after
 * checking its header tag. A block freed once has tag 0, so a second free is
 * refused with FILTER_ERROR_INVALID_MEMORY_POINTER, and so is one of the
 * framework's own records; a header that cannot be read gives
 * FILTER_ERROR_EXCEPTION. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_FreeMemory(PVOID Memory)
{
    return FreeBlock(Memory, FILTER_MEMORY_TAG);
}

/* A block for one of the framework's own records; traced as Filter_AllocateMemory. */
PVOID NdisFilter_AllocateRecord(ULONG Size, ULONG PoolTag)
{
    return AllocateBlock(Size, PoolTag, NF_RECORD_MEMORY_TAG);
}

/* Frees a record from NdisFilter_AllocateRecord; traced as Filter_FreeMemory. */
VOID NdisFilter_FreeRecord(PVOID Record)
{
    FreeBlock(Record, NF_RECORD_MEMORY_TAG);
}

namespace {

/* The frame of the lock functions: a missing record is refused, otherwise `Action` runs on it. */
template <typename Action>
FILTER_STATUS OnLock(PCSTR Name, PFilterLock Lock, Action &&action)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, Name, status);
    if (Lock == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else
        action(Lock);
    return status;
}

} // namespace

/* Filter_InitializeLock - an unowned lock. Any IRQL. */
EXTERN_C FILTER_STATUS NTAPI Filter_InitializeLock(PFilterLock Lock)
{
    return OnLock("Filter_InitializeLock", Lock, [](PFilterLock lock) { KeInitializeSpinLock(&lock->m_SpinLock); });
}

/*
 * Filter_AcquireLock - raises to DISPATCH_LEVEL and takes the lock; the level
 * it raised from is kept in the record for Filter_ReleaseLock.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_AcquireLock(PFilterLock Lock)
{
    return OnLock("Filter_AcquireLock", Lock,
                  [](PFilterLock lock) { lock->m_OldIrql = KeAcquireSpinLockRaiseToDpc(&lock->m_SpinLock); });
}

/* Filter_ReleaseLock - releases the lock and returns to the saved level. */
EXTERN_C FILTER_STATUS NTAPI Filter_ReleaseLock(PFilterLock Lock)
{
    return OnLock("Filter_ReleaseLock", Lock,
                  [](PFilterLock lock) { KeReleaseSpinLock(&lock->m_SpinLock, lock->m_OldIrql); });
}

/* Filter_FreeLock - a spin lock holds nothing; only the argument is checked. */
EXTERN_C FILTER_STATUS NTAPI Filter_FreeLock(PFilterLock Lock)
{
    return OnLock("Filter_FreeLock", Lock, [](PFilterLock) {});
}
