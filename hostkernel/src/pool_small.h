/*
 * Host kernel runtime, pool area: the small blocks (under a page), which
 * pool.cpp hands to pool_small.cpp. Not seen outside the pool files.
 */
#pragma once
#include "core_internal.h"

#include <stdint.h>

#include <map>
#include <string>

namespace hk {
namespace core {

// Live small blocks and their bytes of one tag, summed over every thread.
struct PoolTagTotals {
    int64_t blocks = 0;
    int64_t bytes = 0;
};

// A small block of `size` (< PAGE_SIZE) bytes, 16-byte aligned, or nullptr without memory.
void *SmallPoolAllocate(POOL_TYPE type, size_t size, ULONG tag);

// Frees `p` when it lies in small-block memory (reporting a double free, a pointer
// inside a block, a tag mismatch or the IRQL as `api`) and returns true; false when
// `p` is not small-block memory at all.
bool SmallPoolFree(void *p, bool checkTag, ULONG tag, const char *api);

// -1 when `p` is not small-block memory; else 1 when it is the address of a live block
// (its tag in *tag) and 0 when not. Reads nothing `p` points to unless it is a block.
int SmallPoolBlockState(const void *p, ULONG *tag);

// Adds the live small blocks by tag to `totals`.
void SmallPoolLiveByTag(std::map<ULONG, PoolTagTotals> *totals);

// The tag as its four characters in memory order, '.' for unprintable ones.
std::string PoolTagText(ULONG tag);

// Whether the pool type is paged (odd base types).
inline bool IsPagedPool(POOL_TYPE type)
{
    return (static_cast<ULONG>(type) & 1u) != 0;
}

} // namespace core
} // namespace hk
