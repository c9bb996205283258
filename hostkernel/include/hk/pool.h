/*
 * Host kernel runtime: pool memory and lookaside lists.
 *
 * Every pool block is tracked by the runtime (address, size, tag, pool type):
 * a double free, a free of memory that did not come from the pool and a tag
 * mismatch are verifier errors that never reach the host allocator. A freed
 * block stays readable for a while (as on Windows) before it is released.
 * Blocks of a page or more are page aligned. Valid C11 and C++17.
 */
#ifndef HK_POOL_H
#define HK_POOL_H

#include "hk/base.h"
#include "hk/sync.h"

#ifndef PAGE_SIZE
#define PAGE_SIZE 0x1000
#endif
#ifndef PAGE_SHIFT
#define PAGE_SHIFT 12
#endif
#ifndef ROUND_TO_PAGES
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~((ULONG_PTR)PAGE_SIZE - 1))
#endif
#ifndef BYTES_TO_PAGES
#define BYTES_TO_PAGES(Size) (((Size) >> PAGE_SHIFT) + (((Size) & (PAGE_SIZE - 1)) != 0))
#endif

/* Flags that may be ORed into a lookaside list's pool type. */
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16
/* Marks a tag that only ExFreePoolWithTag with the same tag may free. */
#define PROTECTED_POOL 0x80000000

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Pool blocks
 * ====================================================================== */

/* A block of NumberOfBytes (contents undefined) or NULL. Non-paged pool at IRQL <=
 * DISPATCH_LEVEL, paged pool at IRQL <= APC_LEVEL. */
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
/* Same with the tag "None". */
NTKERNELAPI PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
/* Frees a block (IRQL <= DISPATCH_LEVEL; paged pool <= APC_LEVEL). */
NTKERNELAPI VOID NTAPI ExFreePool(PVOID P);
/* Same, and Tag must be the tag the block was allocated with. */
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

/* ======================================================================
 * Lookaside lists: caches of fixed-size blocks
 * ====================================================================== */

typedef PVOID(NTAPI *PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID(NTAPI *PFREE_FUNCTION)(PVOID Buffer);

typedef struct _GENERAL_LOOKASIDE {
    union {
        SLIST_HEADER ListHead; /* the cached blocks */
        SINGLE_LIST_ENTRY SingleListHead;
    };
    USHORT Depth;        /* most blocks kept in the cache */
    USHORT MaximumDepth; /* most the depth may grow to */
    ULONG TotalAllocates;
    union {
        ULONG AllocateMisses; /* allocations the cache could not serve */
        ULONG AllocateHits;
    };
    ULONG TotalFrees;
    union {
        ULONG FreeMisses; /* frees handed to the Free routine */
        ULONG FreeHits;
    };
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size; /* bytes per block */
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    union {
        ULONG LastAllocateMisses;
        ULONG LastAllocateHits;
    };
    ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

/* Sets up a list of Size-byte blocks from non-paged pool. Allocate / Free default to
 * ExAllocatePoolWithTag / ExFreePool when NULL; Flags are ORed into the pool type; Depth
 * is ignored (the cache keeps 4 blocks, the Windows minimum). IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside,
                                                       PALLOCATE_FUNCTION Allocate,
                                                       PFREE_FUNCTION Free, ULONG Flags,
                                                       SIZE_T Size, ULONG Tag, USHORT Depth);
/* Frees the cached blocks; the list must not be used afterwards. IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
/* A cached block, or a new one from the Allocate routine (NULL when that fails). */
NTKERNELAPI PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
/* Caches Entry unless the cache is full, in which case the Free routine gets it. */
NTKERNELAPI VOID NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

HK_EXTERN_C_END

#endif /* HK_POOL_H */
