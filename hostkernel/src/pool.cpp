/*
 * Pool memory.
 *
 * Every free is checked before memory is reused: a double free, a free of a
 * foreign pointer and a tag mismatch are verifier errors, never crashes. A
 * freed block goes to a bounded FIFO quarantine and stays readable (not
 * scrubbed, not poisoned) until it leaves it, as a freed Windows pool block
 * stays readable for a while.
 *
 * Blocks under a page come from pool_small.cpp: slabs with per-thread caches,
 * quarantines and counts, so the packet path takes no lock. Blocks of a page
 * or more are recorded here in a side table (address -> size, tag, pool type)
 * under one lock; they are page aligned and backed by shared memory (memfd),
 * so the same pages can be mapped a second time at another address
 * (MapSecondView, the user-mode view that MmMapLockedPages gives). A live
 * page-backed block of 64 KiB or more keeps its memfd open, so its pages can
 * also be handed to another process (PoolPagesFile, for a user program on the
 * bridge); smaller ones close it, so descriptors stay few.
 */
#include "pool_small.h"

#include <stdio.h>
#include <stdlib.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace {

// ExAllocatePool's tag, "None".
constexpr ULONG kDefaultTag = HK_POOL_TAG('N', 'o', 'n', 'e');
// Freed blocks kept readable before they are really released.
constexpr size_t kQuarantineMaxBlocks = 4096;
constexpr size_t kQuarantineMaxBytes = 64u << 20;
// Page-backed blocks from this size on keep their memfd (PoolPagesFile).
constexpr size_t kShareableBytes = 64u << 10;

struct Block {
    size_t size;   // bytes asked for
    ULONG tag;
    POOL_TYPE type;
    size_t mapped; // bytes mapped
    int fd;        // the memfd of a live block of kShareableBytes or more, -1 otherwise
};

struct PoolState {
    std::mutex mutex;
    std::unordered_map<uintptr_t, Block> live;
    std::map<uintptr_t, std::pair<size_t, int>> pageBacked; // live page-backed blocks: base -> mapped bytes, memfd
    std::deque<std::pair<uintptr_t, Block>> quarantine;
    std::unordered_set<uintptr_t> quarantined;
    size_t quarantineBytes = 0;
    std::unordered_map<uintptr_t, size_t> views; // second views: base -> mapped bytes
    std::unordered_map<ULONG, ULONG> failByTag;
    ULONG failAny = 0;
    std::atomic<bool> failing{false}; // whether failByTag or failAny holds anything
};

// Never destroyed: drivers and runtime threads may free pool during exit.
PoolState &State()
{
    static PoolState *state = new PoolState;
    return *state;
}

using hk::core::IsPagedPool;
using hk::core::PoolTagText;
using hk::core::PoolTagTotals;

} // namespace

/* The tag as its four characters in memory order, '.' for unprintable ones. */
std::string hk::core::PoolTagText(ULONG tag)
{
    tag &= ~static_cast<ULONG>(PROTECTED_POOL);
    std::string text(4, '.');
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((tag >> (8 * i)) & 0xFF);
        if (c >= 0x20 && c < 0x7F)
            text[static_cast<size_t>(i)] = c;
    }
    return text;
}

namespace {

/* Recomputes the flag that lets allocations skip the lock. Caller holds the mutex. */
void UpdateFailing(PoolState &state)
{
    state.failing = state.failAny > 0 || !state.failByTag.empty();
}

/* Consumes one pending injected failure for `tag`, if any. Caller holds the mutex. */
bool TakeInjectedFailure(PoolState &state, ULONG tag)
{
    auto found = state.failByTag.find(tag);
    if (found != state.failByTag.end() && found->second > 0) {
        if (--found->second == 0)
            state.failByTag.erase(found);
        UpdateFailing(state);
        return true;
    }
    if (state.failAny > 0) {
        --state.failAny;
        UpdateFailing(state);
        return true;
    }
    return false;
}

/* Page-aligned shared pages for `size` bytes, or nullptr; *fd keeps their memfd open for
 * a block of kShareableBytes or more, else it is -1. */
void *MapPages(size_t size, size_t *mapped, int *fd)
{
    *mapped = ROUND_TO_PAGES(size);
    *fd = memfd_create("hk-pool", MFD_CLOEXEC);
    if (*fd < 0)
        return nullptr;
    void *pages = MAP_FAILED;
    if (ftruncate(*fd, static_cast<off_t>(*mapped)) == 0)
        pages = mmap(nullptr, *mapped, PROT_READ | PROT_WRITE, MAP_SHARED, *fd, 0);
    if (pages == MAP_FAILED || size < kShareableBytes) {
        close(*fd);
        *fd = -1;
    }
    return pages == MAP_FAILED ? nullptr : pages;
}

/* Returns a block's memory to the host. */
void Release(uintptr_t address, const Block &block)
{
    munmap(reinterpret_cast<void *>(address), block.mapped);
}

/* Puts a freed block into the quarantine and releases the oldest ones beyond its bounds.
 * Caller holds the mutex. */
void Quarantine(PoolState &state, uintptr_t address, const Block &block)
{
    state.quarantine.emplace_back(address, block);
    state.quarantined.insert(address);
    state.quarantineBytes += block.size;
    while (state.quarantine.size() > kQuarantineMaxBlocks ||
           (state.quarantineBytes > kQuarantineMaxBytes && state.quarantine.size() > 1)) {
        auto oldest = state.quarantine.front();
        state.quarantine.pop_front();
        state.quarantined.erase(oldest.first);
        state.quarantineBytes -= oldest.second.size;
        Release(oldest.first, oldest.second);
    }
}

/* The common free path: checks the pointer, tag and IRQL, then quarantines the block. */
void FreeBlock(PVOID p, bool checkTag, ULONG tag, const char *api)
{
    if (p == nullptr) {
        hk::VerifierError("%s(NULL)", api);
        return;
    }
    if (hk::core::SmallPoolFree(p, checkTag, tag, api))
        return;
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto found = state.live.find(address);
    if (found == state.live.end()) {
        if (state.quarantined.count(address) != 0)
            hk::VerifierError("%s: double free of pool block %p", api, p);
        else
            hk::VerifierError("%s: %p is not the address of a pool block", api, p);
        return;
    }
    const Block block = found->second;
    hk::RequireIrqlAtMost(IsPagedPool(block.type) ? APC_LEVEL : DISPATCH_LEVEL, api);
    const ULONG allocated = block.tag & ~static_cast<ULONG>(PROTECTED_POOL);
    if (checkTag && (tag & ~static_cast<ULONG>(PROTECTED_POOL)) != allocated)
        hk::VerifierError("%s: pool block %p freed with tag '%s' but allocated with tag '%s'", api,
                          p, PoolTagText(tag).c_str(), PoolTagText(block.tag).c_str());
    if (!checkTag && (block.tag & PROTECTED_POOL) != 0)
        hk::VerifierError("%s: pool block %p has the protected tag '%s' and must be freed with "
                          "ExFreePoolWithTag", api, p, PoolTagText(block.tag).c_str());
    state.live.erase(found);
    state.pageBacked.erase(address);
    if (block.fd >= 0)
        close(block.fd); // the quarantined pages stay mapped; nobody hands them out any more
    Quarantine(state, address, block);
}

} // namespace

/* A tracked block of NumberOfBytes, or NULL (see hk/pool.h for the IRQL rules). */
PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    hk::RequireIrqlAtMost(IsPagedPool(PoolType) ? APC_LEVEL : DISPATCH_LEVEL,
                          "ExAllocatePoolWithTag");
    PoolState &state = State();
    if (state.failing.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (TakeInjectedFailure(state, Tag))
            return nullptr;
    }
    if (NumberOfBytes < PAGE_SIZE)
        return hk::core::SmallPoolAllocate(PoolType, std::max<size_t>(NumberOfBytes, 1), Tag) ;
    Block block{NumberOfBytes, Tag, PoolType, 0, -1};
    void *memory = MapPages(NumberOfBytes, &block.mapped, &block.fd);
    if (memory == nullptr)
        return nullptr;
    const uintptr_t address = reinterpret_cast<uintptr_t>(memory);
    std::lock_guard<std::mutex> lock(state.mutex);
    state.live.emplace(address, block);
    state.pageBacked.emplace(address, std::make_pair(block.mapped, block.fd));
    return memory;
}

/* A block tagged "None". */
PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, kDefaultTag);
}

/* Frees a block whatever its tag. */
VOID NTAPI ExFreePool(PVOID P)
{
    FreeBlock(P, false, 0, "ExFreePool");
}

/* Frees a block allocated with Tag. */
VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    FreeBlock(P, true, Tag, "ExFreePoolWithTag");
}

namespace hk {

/* Whether `block` is a live pool block of `tag`: lock-free for small blocks. */
bool IsLivePoolBlock(const void *block, ULONG tag)
{
    ULONG found = 0;
    int small = core::SmallPoolBlockState(block, &found);
    if (small >= 0)
        return small == 1 && found == tag;
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto live = state.live.find(reinterpret_cast<uintptr_t>(block));
    return live != state.live.end() && live->second.tag == tag;
}

/* A second mapping of the pages under [address, address + length) of a live page-backed
 * block; returns the address corresponding to `address`, or nullptr. */
void *MapSecondView(const void *address, size_t length)
{
    const uintptr_t start = reinterpret_cast<uintptr_t>(address);
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto above = state.pageBacked.upper_bound(start);
    if (above == state.pageBacked.begin() || length == 0)
        return nullptr;
    auto block = std::prev(above);
    if (start + length < start || start + length > block->first + block->second.first)
        return nullptr;
    const uintptr_t firstPage = start & ~static_cast<uintptr_t>(PAGE_SIZE - 1);
    const size_t mapped = ROUND_TO_PAGES(start + length) - firstPage;
    void *view = mremap(reinterpret_cast<void *>(firstPage), 0, mapped, MREMAP_MAYMOVE);
    if (view == MAP_FAILED)
        return nullptr;
    state.views.emplace(reinterpret_cast<uintptr_t>(view), mapped);
    return static_cast<char *>(view) + (start - firstPage);
}

/* The memfd behind the pages of [address, address + length) of a live page-backed block of
 * kShareableBytes or more, duplicated for the caller (who closes it), with the offset in it
 * of the first of those pages and their mapped length; -1 when the range is not inside one
 * such block. */
int PoolPagesFile(const void *address, size_t length, size_t *fileOffset, size_t *mappedLength)
{
    const uintptr_t start = reinterpret_cast<uintptr_t>(address);
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto above = state.pageBacked.upper_bound(start);
    if (above == state.pageBacked.begin() || length == 0)
        return -1;
    auto block = std::prev(above);
    if (start + length < start || start + length > block->first + block->second.first)
        return -1;
    const uintptr_t firstPage = start & ~static_cast<uintptr_t>(PAGE_SIZE - 1);
    *fileOffset = firstPage - block->first;
    *mappedLength = ROUND_TO_PAGES(start + length) - firstPage;
    return block->second.second < 0 ? -1 : fcntl(block->second.second, F_DUPFD_CLOEXEC, 0);
}

/* Removes a mapping made by MapSecondView (viewAddress as it returned). */
void UnmapSecondView(void *viewAddress, size_t length)
{
    const uintptr_t firstPage =
        reinterpret_cast<uintptr_t>(viewAddress) & ~static_cast<uintptr_t>(PAGE_SIZE - 1);
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    auto found = state.views.find(firstPage);
    if (found == state.views.end()) {
        VerifierError("unmapping %p (%zu bytes), which is not a mapped view of pool pages",
                      viewAddress, length);
        return;
    }
    munmap(reinterpret_cast<void *>(firstPage), found->second);
    state.views.erase(found);
}

} // namespace hk

/* ---- host control ---- */

namespace {

/* Live blocks and bytes by tag, small and page-backed. */
std::map<ULONG, PoolTagTotals> LiveByTag()
{
    std::map<ULONG, PoolTagTotals> totals;
    hk::core::SmallPoolLiveByTag(&totals);
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    for (const auto &entry : state.live) {
        PoolTagTotals &sum = totals[entry.second.tag];
        sum.blocks++;
        sum.bytes += static_cast<int64_t>(entry.second.size);
    }
    return totals;
}

} // namespace

/* Number of live pool blocks. */
ULONG HkPoolLiveAllocationCount(void)
{
    int64_t blocks = 0;
    for (const auto &entry : LiveByTag())
        blocks += entry.second.blocks;
    return static_cast<ULONG>(blocks);
}

/* Bytes asked for by the live pool blocks. */
SIZE_T HkPoolLiveByteCount(void)
{
    int64_t bytes = 0;
    for (const auto &entry : LiveByTag())
        bytes += entry.second.bytes;
    return static_cast<SIZE_T>(bytes);
}

/* Number of live pool blocks with Tag. */
ULONG HkPoolLiveAllocationCountWithTag(ULONG Tag)
{
    auto totals = LiveByTag();
    auto found = totals.find(Tag);
    return found == totals.end() ? 0 : static_cast<ULONG>(found->second.blocks);
}

/* Bytes of the live pool blocks with Tag. */
SIZE_T HkPoolLiveByteCountWithTag(ULONG Tag)
{
    auto totals = LiveByTag();
    auto found = totals.find(Tag);
    return found == totals.end() ? 0 : static_cast<SIZE_T>(found->second.bytes);
}

/* Prints one line per tag of live blocks (sorted by tag text); returns the block count. */
ULONG HkPoolReportLeaks(BOOLEAN AsVerifierFindings)
{
    std::map<std::string, PoolTagTotals> byText;
    int64_t total = 0;
    for (const auto &entry : LiveByTag()) {
        if (entry.second.blocks == 0)
            continue;
        PoolTagTotals &sum = byText[PoolTagText(entry.first)];
        sum.blocks += entry.second.blocks;
        sum.bytes += entry.second.bytes;
        total += entry.second.blocks;
    }
    for (const auto &entry : byText) {
        char line[128];
        snprintf(line, sizeof line, "POOL LEAK: tag '%s': %lld blocks, %lld bytes", entry.first.c_str(),
                 static_cast<long long>(entry.second.blocks), static_cast<long long>(entry.second.bytes));
        if (AsVerifierFindings)
            hk::VerifierError("%s", line);
        else
            fprintf(stderr, "%s\n", line);
    }
    return static_cast<ULONG>(total);
}

/* Makes the next Count allocations with Tag fail (0 cancels). */
void HkPoolFailAllocations(ULONG Tag, ULONG Count)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (Count == 0)
        state.failByTag.erase(Tag);
    else
        state.failByTag[Tag] = Count;
    UpdateFailing(state);
}

/* Makes the next Count allocations of any tag fail (0 cancels). */
void HkPoolFailAnyAllocations(ULONG Count)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.failAny = Count;
    UpdateFailing(state);
}

/* Cancels every pending injected failure. */
void HkPoolClearFailures(void)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.failByTag.clear();
    state.failAny = 0;
    UpdateFailing(state);
}
