/*
 * Small pool blocks (under a page).
 *
 * Blocks of one size class are slots carved from 1 MiB arenas. Each slot
 * opens with a 16-byte header (state, tag, size, pool type, the tag's index
 * in the tag table) in front of the block. A pointer is a block only when it
 * lies in an arena, on a slot boundary, below what was carved, so a foreign
 * pointer is told apart without reading what it points to.
 *
 * Every thread keeps its own free slots per class, its own quarantine ring
 * and its own live counts per tag, so allocating and freeing take no lock
 * and share no line with other threads. The global lock is taken only to
 * refill or spill a thread's free slots in batches, to carve a new arena, to
 * enter a tag never seen, and when a thread starts or ends.
 *
 * A freed block enters its thread's quarantine ring and stays readable with
 * its contents until kQuarantineSlots later frees push it out; freeing it
 * again meanwhile is a double free (the state in its header says so, whatever
 * thread frees it). Pushed out, it may be handed out again. Under
 * AddressSanitizer the free slots and the tail of each block are poisoned.
 *
 * A thread frees blocks of others, so one thread's counts may go below zero;
 * the sum over all threads (and the retired totals of ended threads) is exact
 * whenever no thread is in the middle of an allocation or a free.
 */
#include "pool_small.h"

#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace {

using hk::core::PoolTagTotals;

constexpr unsigned kArenaShift = 20;
constexpr uintptr_t kArenaBytes = uintptr_t(1) << kArenaShift;
constexpr uintptr_t kArenaHeaderBytes = 64;
constexpr uintptr_t kHeaderBytes = 16;
constexpr size_t kClassSizes[] = {16, 32, 48, 64, 96, 128, 192, 256, 384, 512, 768, 1024, 1536, 2048, 3072, 4096};
constexpr unsigned kClassCount = sizeof(kClassSizes) / sizeof(kClassSizes[0]);
constexpr unsigned kCacheSlots = 256; // free slots a thread keeps per class
constexpr unsigned kBatch = kCacheSlots / 2;
constexpr unsigned kQuarantineSlots = 4096; // per thread
constexpr unsigned kMaxTags = 1024;
constexpr uint16_t kUntabledTag = 0xFFFF;

// Arena address bits above the arena size: a two-level table of arenas.
constexpr unsigned kAddressBits = 47;
constexpr unsigned kLeafBits = 14;
constexpr unsigned kTopBits = kAddressBits - kArenaShift - kLeafBits;

enum : uint32_t {
    kLive = 0x4556494C,        // "LIVE"
    kQuarantined = 0x52415551, // "QUAR"
    kFree = 0x45455246,        // "FREE"
};

struct SlotHeader {
    std::atomic<uint32_t> state;
    ULONG tag;
    uint32_t size;
    uint16_t type;
    uint16_t tagIndex;
};
static_assert(sizeof(SlotHeader) == kHeaderBytes, "the header keeps blocks 16-byte aligned");

struct Arena {
    unsigned cls;
    uint32_t stride;
    uint32_t capacity;
    std::atomic<uint32_t> carved;
};
static_assert(sizeof(Arena) <= kArenaHeaderBytes, "arena header");

struct TagCount {
    int64_t blocks;
    int64_t bytes;
};

struct FreeSlots {
    unsigned count;
    SlotHeader *slots[kCacheSlots];
};

// One thread's share; trivially constructible (calloc'd), owned by the thread.
struct ThreadCache {
    FreeSlots free[kClassCount];
    SlotHeader *quarantine[kQuarantineSlots];
    unsigned quarantineNext;
    TagCount counts[kMaxTags];
};

struct Global {
    std::mutex mutex;
    std::vector<SlotHeader *> free[kClassCount];
    Arena *carving[kClassCount] = {};
    std::deque<SlotHeader *> quarantine; // of ended threads
    std::vector<ThreadCache *> caches;
    TagCount retired[kMaxTags] = {};
    std::map<ULONG, PoolTagTotals> untabled; // tags beyond the table
    pthread_key_t key;
};

std::atomic<std::atomic<Arena *> *> gArenas[size_t(1) << kTopBits];
std::atomic<uint64_t> gTags[kMaxTags]; // (1 << 32) | tag once taken
thread_local ThreadCache *tCache;

// Never destroyed: drivers and runtime threads may free pool during exit.
Global &State();

/* Whether each thread's own counters are read and written with relaxed atomics
 * (only the owner writes; the report reads). */
inline void AddCount(int64_t *counter, int64_t delta)
{
    __atomic_store_n(counter, __atomic_load_n(counter, __ATOMIC_RELAXED) + delta, __ATOMIC_RELAXED);
}

unsigned ClassOf(size_t size)
{
    unsigned cls = 0;
    while (kClassSizes[cls] < size)
        ++cls;
    return cls;
}

inline void *Payload(SlotHeader *header)
{
    return reinterpret_cast<char *>(header) + kHeaderBytes;
}

inline Arena *ArenaOf(const void *p)
{
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    if ((address >> kAddressBits) != 0)
        return nullptr;
    const uintptr_t index = address >> kArenaShift;
    std::atomic<Arena *> *leaf = gArenas[index >> kLeafBits].load(std::memory_order_acquire);
    return leaf == nullptr ? nullptr : leaf[index & ((uintptr_t(1) << kLeafBits) - 1)].load(std::memory_order_acquire);
}

/* The header of the block at `p`, or nullptr when `p` is not the start of a carved slot. */
SlotHeader *SlotAt(Arena *arena, const void *p)
{
    const uintptr_t first = reinterpret_cast<uintptr_t>(arena) + kArenaHeaderBytes + kHeaderBytes;
    const uintptr_t address = reinterpret_cast<uintptr_t>(p);
    if (address < first || (address - first) % arena->stride != 0)
        return nullptr;
    if ((address - first) / arena->stride >= arena->carved.load(std::memory_order_acquire))
        return nullptr;
    return reinterpret_cast<SlotHeader *>(address - kHeaderBytes);
}

/* The table index of `tag`, entering it when new; kUntabledTag once the table is full. */
uint16_t TagIndex(ULONG tag)
{
    const uint64_t entry = (uint64_t(1) << 32) | tag;
    unsigned slot = (tag * 0x9E3779B1u) >> 22; // 10 bits
    for (unsigned probe = 0; probe < kMaxTags; ++probe, slot = (slot + 1) % kMaxTags) {
        uint64_t seen = gTags[slot].load(std::memory_order_acquire);
        if (seen == entry)
            return static_cast<uint16_t>(slot);
        if (seen == 0) {
            if (gTags[slot].compare_exchange_strong(seen, entry, std::memory_order_acq_rel))
                return static_cast<uint16_t>(slot);
            if (seen == entry)
                return static_cast<uint16_t>(slot);
        }
    }
    return kUntabledTag;
}

/* Counts a block in or out (delta +1 / -1) for the calling thread. */
void Count(ThreadCache *cache, const SlotHeader *header, int64_t delta)
{
    if (header->tagIndex != kUntabledTag) {
        TagCount &count = cache->counts[header->tagIndex];
        AddCount(&count.blocks, delta);
        AddCount(&count.bytes, delta * static_cast<int64_t>(header->size));
        return;
    }
    Global &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    PoolTagTotals &totals = state.untabled[header->tag];
    totals.blocks += delta;
    totals.bytes += delta * static_cast<int64_t>(header->size);
}

/* A new arena for a class, registered in the arena table, or nullptr. Caller holds the lock. */
Arena *NewArena(unsigned cls)
{
    void *memory = aligned_alloc(kArenaBytes, kArenaBytes);
    if (memory == nullptr)
        return nullptr;
    const uintptr_t index = reinterpret_cast<uintptr_t>(memory) >> kArenaShift;
    if ((reinterpret_cast<uintptr_t>(memory) >> kAddressBits) != 0) {
        free(memory);
        return nullptr;
    }
    std::atomic<std::atomic<Arena *> *> &top = gArenas[index >> kLeafBits];
    std::atomic<Arena *> *leaf = top.load(std::memory_order_acquire);
    if (leaf == nullptr) {
        leaf = new (std::nothrow) std::atomic<Arena *>[size_t(1) << kLeafBits]();
        if (leaf == nullptr) {
            free(memory);
            return nullptr;
        }
        top.store(leaf, std::memory_order_release);
    }
    Arena *arena = new (memory) Arena;
    arena->cls = cls;
    arena->stride = static_cast<uint32_t>(kHeaderBytes + kClassSizes[cls]);
    arena->capacity = static_cast<uint32_t>((kArenaBytes - kArenaHeaderBytes) / arena->stride);
    arena->carved.store(0, std::memory_order_relaxed);
    ASAN_POISON_MEMORY_REGION(reinterpret_cast<char *>(memory) + kArenaHeaderBytes, kArenaBytes - kArenaHeaderBytes);
    leaf[index & ((uintptr_t(1) << kLeafBits) - 1)].store(arena, std::memory_order_release);
    return arena;
}

/* Carves up to `want` new slots of a class into `out`; returns how many. Caller holds the lock. */
unsigned Carve(Global &state, unsigned cls, SlotHeader **out, unsigned want)
{
    unsigned got = 0;
    while (got < want) {
        Arena *arena = state.carving[cls];
        if (arena == nullptr || arena->carved.load(std::memory_order_relaxed) == arena->capacity) {
            arena = state.carving[cls] = NewArena(cls);
            if (arena == nullptr)
                break;
        }
        uint32_t carved = arena->carved.load(std::memory_order_relaxed);
        char *first = reinterpret_cast<char *>(arena) + kArenaHeaderBytes;
        for (; got < want && carved < arena->capacity; ++carved, ++got) {
            auto *header = reinterpret_cast<SlotHeader *>(first + size_t(carved) * arena->stride);
            ASAN_UNPOISON_MEMORY_REGION(header, kHeaderBytes);
            new (header) SlotHeader;
            header->state.store(kFree, std::memory_order_relaxed);
            out[got] = header;
        }
        arena->carved.store(carved, std::memory_order_release);
    }
    return got;
}

/* Fills half of a thread's empty free slots of a class; false without memory. */
bool Refill(ThreadCache *cache, unsigned cls)
{
    FreeSlots &slots = cache->free[cls];
    Global &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    std::vector<SlotHeader *> &shared = state.free[cls];
    while (slots.count < kBatch && !shared.empty()) {
        slots.slots[slots.count++] = shared.back();
        shared.pop_back();
    }
    if (slots.count == 0)
        slots.count = Carve(state, cls, slots.slots, kBatch);
    return slots.count != 0;
}

/* Makes a block pushed out of a quarantine free again, in the calling thread's cache
 * (or the shared lists when there is none). */
void Release(ThreadCache *cache, SlotHeader *header)
{
    const unsigned cls = ArenaOf(header)->cls;
    header->state.store(kFree, std::memory_order_release);
    ASAN_POISON_MEMORY_REGION(Payload(header), kClassSizes[cls]);
    if (cache == nullptr) {
        State().free[cls].push_back(header); // caller holds the lock
        return;
    }
    FreeSlots &slots = cache->free[cls];
    if (slots.count == kCacheSlots) {
        Global &state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.free[cls].insert(state.free[cls].end(), slots.slots + kBatch, slots.slots + kCacheSlots);
        slots.count = kBatch;
    }
    slots.slots[slots.count++] = header;
}

/* At a thread's end: its counts, free slots and quarantine go to the shared state. */
void RetireCache(void *argument)
{
    auto *cache = static_cast<ThreadCache *>(argument);
    Global &state = State();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        for (unsigned i = 0; i < kMaxTags; ++i) {
            state.retired[i].blocks += cache->counts[i].blocks;
            state.retired[i].bytes += cache->counts[i].bytes;
        }
        for (unsigned cls = 0; cls < kClassCount; ++cls)
            state.free[cls].insert(state.free[cls].end(), cache->free[cls].slots,
                                   cache->free[cls].slots + cache->free[cls].count);
        for (unsigned i = 0; i < kQuarantineSlots; ++i) {
            SlotHeader *header = cache->quarantine[(cache->quarantineNext + i) % kQuarantineSlots];
            if (header == nullptr)
                continue;
            state.quarantine.push_back(header);
            if (state.quarantine.size() > kQuarantineSlots) {
                Release(nullptr, state.quarantine.front());
                state.quarantine.pop_front();
            }
        }
        for (size_t i = 0; i < state.caches.size(); ++i) {
            if (state.caches[i] == cache) {
                state.caches[i] = state.caches.back();
                state.caches.pop_back();
                break;
            }
        }
    }
    if (tCache == cache)
        tCache = nullptr;
    free(cache);
}

Global &State()
{
    static Global *state = [] {
        auto *created = new Global;
        pthread_key_create(&created->key, RetireCache);
        return created;
    }();
    return *state;
}

/* The calling thread's cache, created on its first use; nullptr without memory. */
ThreadCache *Cache()
{
    ThreadCache *cache = tCache;
    if (__builtin_expect(cache != nullptr, 1))
        return cache;
    cache = static_cast<ThreadCache *>(calloc(1, sizeof(ThreadCache)));
    if (cache == nullptr)
        return nullptr;
    Global &state = State();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.caches.push_back(cache);
    }
    pthread_setspecific(state.key, cache);
    tCache = cache;
    return cache;
}

} // namespace

namespace hk {
namespace core {

void *SmallPoolAllocate(POOL_TYPE type, size_t size, ULONG tag)
{
    ThreadCache *cache = Cache();
    if (cache == nullptr)
        return nullptr;
    const unsigned cls = ClassOf(size);
    FreeSlots &slots = cache->free[cls];
    if (slots.count == 0 && !Refill(cache, cls))
        return nullptr;
    SlotHeader *header = slots.slots[--slots.count];
    header->tag = tag;
    header->size = static_cast<uint32_t>(size);
    header->type = static_cast<uint16_t>(type);
    header->tagIndex = TagIndex(tag);
    header->state.store(kLive, std::memory_order_release);
    Count(cache, header, +1);
    void *p = Payload(header);
    ASAN_UNPOISON_MEMORY_REGION(p, size);
    return p;
}

bool SmallPoolFree(void *p, bool checkTag, ULONG tag, const char *api)
{
    Arena *arena = ArenaOf(p);
    if (arena == nullptr)
        return false;
    SlotHeader *header = SlotAt(arena, p);
    uint32_t state = kLive;
    if (header == nullptr || !header->state.compare_exchange_strong(state, kQuarantined, std::memory_order_acq_rel)) {
        if (state == kQuarantined)
            VerifierError("%s: double free of pool block %p", api, p);
        else
            VerifierError("%s: %p is not the address of a pool block", api, p);
        return true;
    }
    RequireIrqlAtMost(IsPagedPool(static_cast<POOL_TYPE>(header->type)) ? APC_LEVEL : DISPATCH_LEVEL, api);
    const ULONG allocated = header->tag & ~static_cast<ULONG>(PROTECTED_POOL);
    if (checkTag && (tag & ~static_cast<ULONG>(PROTECTED_POOL)) != allocated)
        VerifierError("%s: pool block %p freed with tag '%s' but allocated with tag '%s'", api, p,
                      PoolTagText(tag).c_str(), PoolTagText(header->tag).c_str());
    if (!checkTag && (header->tag & PROTECTED_POOL) != 0)
        VerifierError("%s: pool block %p has the protected tag '%s' and must be freed with "
                      "ExFreePoolWithTag", api, p, PoolTagText(header->tag).c_str());
    ThreadCache *cache = Cache();
    if (cache == nullptr) { // no memory for a cache: straight back to the shared lists
        Global &shared = State();
        std::lock_guard<std::mutex> lock(shared.mutex);
        if (header->tagIndex != kUntabledTag) {
            shared.retired[header->tagIndex].blocks -= 1;
            shared.retired[header->tagIndex].bytes -= header->size;
        } else {
            PoolTagTotals &totals = shared.untabled[header->tag];
            totals.blocks -= 1;
            totals.bytes -= header->size;
        }
        Release(nullptr, header);
        return true;
    }
    Count(cache, header, -1);
    SlotHeader *&entry = cache->quarantine[cache->quarantineNext];
    cache->quarantineNext = (cache->quarantineNext + 1) % kQuarantineSlots;
    SlotHeader *oldest = entry;
    entry = header;
    if (oldest != nullptr)
        Release(cache, oldest);
    return true;
}

int SmallPoolBlockState(const void *p, ULONG *tag)
{
    Arena *arena = ArenaOf(p);
    if (arena == nullptr)
        return -1;
    SlotHeader *header = SlotAt(arena, p);
    if (header == nullptr || header->state.load(std::memory_order_acquire) != kLive)
        return 0;
    *tag = header->tag;
    return 1;
}

void SmallPoolLiveByTag(std::map<ULONG, PoolTagTotals> *totals)
{
    Global &state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    for (unsigned i = 0; i < kMaxTags; ++i) {
        const uint64_t entry = gTags[i].load(std::memory_order_acquire);
        if (entry == 0)
            continue;
        int64_t blocks = state.retired[i].blocks, bytes = state.retired[i].bytes;
        for (ThreadCache *cache : state.caches) {
            blocks += __atomic_load_n(&cache->counts[i].blocks, __ATOMIC_RELAXED);
            bytes += __atomic_load_n(&cache->counts[i].bytes, __ATOMIC_RELAXED);
        }
        if (blocks != 0 || bytes != 0) {
            PoolTagTotals &sum = (*totals)[static_cast<ULONG>(entry)];
            sum.blocks += blocks;
            sum.bytes += bytes;
        }
    }
    for (const auto &entry : state.untabled) {
        if (entry.second.blocks != 0) {
            PoolTagTotals &sum = (*totals)[entry.first];
            sum.blocks += entry.second.blocks;
            sum.bytes += entry.second.bytes;
        }
    }
}

} // namespace core
} // namespace hk
