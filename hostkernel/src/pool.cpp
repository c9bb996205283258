/*
 * Pool memory.
 *
 * Every block is recorded in a side table (address -> size, tag, pool type),
 * so frees are checked before they reach the host allocator: a double free,
 * a free of a foreign pointer and a tag mismatch are verifier errors, never
 * crashes. A freed block goes to a bounded FIFO quarantine and stays readable
 * (not scrubbed, not poisoned) until it leaves it, as a freed Windows pool
 * block stays readable for a while.
 *
 * Blocks of a page or more are page aligned and backed by shared memory
 * (memfd), so the same pages can be mapped a second time at another address
 * (MapSecondView, the user-mode view that MmMapLockedPages gives). A live
 * page-backed block of 64 KiB or more keeps its memfd open, so its pages can
 * also be handed to another process (PoolPagesFile, for a user program on the
 * bridge); smaller ones close it, so descriptors stay few.
 */
#include "core_internal.h"

#include <stdio.h>
#include <stdlib.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
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
constexpr size_t kSmallAlignment = 16;
// Page-backed blocks from this size on keep their memfd (PoolPagesFile).
constexpr size_t kShareableBytes = 64u << 10;

struct Block {
    size_t size;   // bytes asked for
    ULONG tag;
    POOL_TYPE type;
    size_t mapped; // bytes mapped for a page-backed block, 0 for a heap block
    int fd;        // the memfd of a live page-backed block, -1 otherwise
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
};

// Never destroyed: drivers and runtime threads may free pool during exit.
PoolState &State()
{
    static PoolState *state = new PoolState;
    return *state;
}

/* Whether the pool type is paged (odd base types). */
bool IsPaged(POOL_TYPE type)
{
    return (static_cast<ULONG>(type) & 1u) != 0;
}

/* The tag as its four characters in memory order, '.' for unprintable ones. */
std::string TagText(ULONG tag)
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

/* Consumes one pending injected failure for `tag`, if any. Caller holds the mutex. */
bool TakeInjectedFailure(PoolState &state, ULONG tag)
{
    auto found = state.failByTag.find(tag);
    if (found != state.failByTag.end() && found->second > 0) {
        if (--found->second == 0)
            state.failByTag.erase(found);
        return true;
    }
    if (state.failAny > 0) {
        --state.failAny;
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
    if (block.mapped != 0)
        munmap(reinterpret_cast<void *>(address), block.mapped);
    else
        free(reinterpret_cast<void *>(address));
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
    hk::RequireIrqlAtMost(IsPaged(block.type) ? APC_LEVEL : DISPATCH_LEVEL, api);
    const ULONG allocated = block.tag & ~static_cast<ULONG>(PROTECTED_POOL);
    if (checkTag && (tag & ~static_cast<ULONG>(PROTECTED_POOL)) != allocated)
        hk::VerifierError("%s: pool block %p freed with tag '%s' but allocated with tag '%s'", api,
                          p, TagText(tag).c_str(), TagText(block.tag).c_str());
    if (!checkTag && (block.tag & PROTECTED_POOL) != 0)
        hk::VerifierError("%s: pool block %p has the protected tag '%s' and must be freed with "
                          "ExFreePoolWithTag", api, p, TagText(block.tag).c_str());
    state.live.erase(found);
    if (block.mapped != 0) {
        state.pageBacked.erase(address);
        if (block.fd >= 0)
            close(block.fd); // the quarantined pages stay mapped; nobody hands them out any more
    }
    Quarantine(state, address, block);
}

} // namespace

/* A tracked block of NumberOfBytes, or NULL (see hk/pool.h for the IRQL rules). */
PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    hk::RequireIrqlAtMost(IsPaged(PoolType) ? APC_LEVEL : DISPATCH_LEVEL,
                          "ExAllocatePoolWithTag");
    PoolState &state = State();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (TakeInjectedFailure(state, Tag))
            return nullptr;
    }
    Block block{NumberOfBytes, Tag, PoolType, 0, -1};
    void *memory = nullptr;
    if (NumberOfBytes >= PAGE_SIZE) {
        memory = MapPages(NumberOfBytes, &block.mapped, &block.fd);
    } else if (posix_memalign(&memory, kSmallAlignment, std::max<size_t>(NumberOfBytes, 1)) != 0) {
        memory = nullptr;
    }
    if (memory == nullptr)
        return nullptr;
    const uintptr_t address = reinterpret_cast<uintptr_t>(memory);
    std::lock_guard<std::mutex> lock(state.mutex);
    state.live.emplace(address, block);
    if (block.mapped != 0)
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

/* Number of live pool blocks. */
ULONG HkPoolLiveAllocationCount(void)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return static_cast<ULONG>(state.live.size());
}

/* Bytes asked for by the live pool blocks. */
SIZE_T HkPoolLiveByteCount(void)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    SIZE_T bytes = 0;
    for (const auto &entry : state.live)
        bytes += entry.second.size;
    return bytes;
}

/* Number of live pool blocks with Tag. */
ULONG HkPoolLiveAllocationCountWithTag(ULONG Tag)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    ULONG count = 0;
    for (const auto &entry : state.live)
        count += entry.second.tag == Tag ? 1 : 0;
    return count;
}

/* Bytes of the live pool blocks with Tag. */
SIZE_T HkPoolLiveByteCountWithTag(ULONG Tag)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    SIZE_T bytes = 0;
    for (const auto &entry : state.live)
        bytes += entry.second.tag == Tag ? entry.second.size : 0;
    return bytes;
}

/* Prints one line per tag of live blocks (sorted by tag text); returns the block count. */
ULONG HkPoolReportLeaks(BOOLEAN AsVerifierFindings)
{
    struct Totals {
        ULONG blocks = 0;
        SIZE_T bytes = 0;
    };
    std::map<std::string, Totals> byTag;
    ULONG total = 0;
    {
        PoolState &state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        for (const auto &entry : state.live) {
            Totals &totals = byTag[TagText(entry.second.tag)];
            totals.blocks++;
            totals.bytes += entry.second.size;
        }
        total = static_cast<ULONG>(state.live.size());
    }
    for (const auto &entry : byTag) {
        char line[128];
        snprintf(line, sizeof line, "POOL LEAK: tag '%s': %u blocks, %zu bytes",
                 entry.first.c_str(), entry.second.blocks, static_cast<size_t>(entry.second.bytes));
        if (AsVerifierFindings)
            hk::VerifierError("%s", line);
        else
            fprintf(stderr, "%s\n", line);
    }
    return total;
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
}

/* Makes the next Count allocations of any tag fail (0 cancels). */
void HkPoolFailAnyAllocations(ULONG Count)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.failAny = Count;
}

/* Cancels every pending injected failure. */
void HkPoolClearFailures(void)
{
    PoolState &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.failByTag.clear();
    state.failAny = 0;
}
