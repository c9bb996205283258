// Pool memory and lookaside lists of the host runtime.
#include "hk_test_support.h"

#include <gmock/gmock.h>
#include <ntddk.h>

#include <string.h>

#include <thread>
#include <vector>

#include "../../hostkernel/src/internal.h" // MapSecondView / UnmapSecondView

namespace {

const ULONG kTag = HK_POOL_TAG('T', 'p', 'o', 'l');
const ULONG kOtherTag = HK_POOL_TAG('T', 'o', 't', 'h');

class PoolTest : public testing::Test {
protected:
    void TearDown() override { HkPoolClearFailures(); }
};

TEST_F(PoolTest, TracksLiveBlocksAndBytesByTag)
{
    const ULONG before = HkPoolLiveAllocationCountWithTag(kTag);
    const SIZE_T bytesBefore = HkPoolLiveByteCountWithTag(kTag);
    void *a = ExAllocatePoolWithTag(NonPagedPool, 100, kTag);
    void *b = ExAllocatePoolWithTag(PagedPool, 3 * PAGE_SIZE + 5, kTag);
    void *other = ExAllocatePoolWithTag(NonPagedPool, 7, kOtherTag);
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(before + 2, HkPoolLiveAllocationCountWithTag(kTag));
    EXPECT_EQ(bytesBefore + 100 + 3 * PAGE_SIZE + 5, HkPoolLiveByteCountWithTag(kTag));

    ExFreePoolWithTag(a, kTag);
    ExFreePool(b);
    ExFreePool(other);
    EXPECT_EQ(before, HkPoolLiveAllocationCountWithTag(kTag));
    EXPECT_EQ(bytesBefore, HkPoolLiveByteCountWithTag(kTag));
}

TEST_F(PoolTest, BlocksOfAPageOrMoreArePageAlignedAndSmallOnes16ByteAligned)
{
    void *large = ExAllocatePoolWithTag(NonPagedPool, PAGE_SIZE, kTag);
    void *small = ExAllocatePoolWithTag(NonPagedPool, 24, kTag);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(large) % PAGE_SIZE);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(small) % 16);
    ExFreePool(large);
    ExFreePool(small);
}

TEST_F(PoolTest, LeakReportCountsLiveBlocksAndCanRecordThemAsFindings)
{
    const ULONG leakTag = HK_POOL_TAG('L', 'e', 'a', 'k');
    void *a = ExAllocatePoolWithTag(NonPagedPool, 10, leakTag);
    void *b = ExAllocatePoolWithTag(NonPagedPool, 20, leakTag);
    EXPECT_EQ(HkPoolLiveAllocationCount(), HkPoolReportLeaks(FALSE));
    EXPECT_EQ(0u, HkVerifierFindingCount());

    HkPoolReportLeaks(TRUE);
    // Blocks of other tags that happen to be live are reported as well.
    EXPECT_THAT(hk::TakeVerifierFindings(),
                testing::Contains(testing::HasSubstr("POOL LEAK: tag 'Leak': 2 blocks, 30 bytes")));
    ExFreePool(a);
    ExFreePool(b);
}

TEST_F(PoolTest, DoubleFreeIsReportedAndDoesNotReachTheHostAllocator)
{
    void *p = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
    ExFreePool(p);
    hktest::ExpectVerifierFinding finding("double free");
    ExFreePool(p);
}

TEST_F(PoolTest, BlocksCrossingThreadsAreCountedOnceAndTheirDoubleFreesFound)
{
    const ULONG before = HkPoolLiveAllocationCountWithTag(kTag);
    std::vector<void *> blocks;
    // Allocated by a thread that ends before they are freed: its counts outlive it.
    std::thread([&blocks] {
        for (int i = 0; i < 3000; ++i)
            blocks.push_back(ExAllocatePoolWithTag(NonPagedPool, 1 + i % 3000, kTag));
    }).join();
    EXPECT_EQ(before + 3000, HkPoolLiveAllocationCountWithTag(kTag));
    void *freedElsewhere = blocks.back();
    blocks.pop_back();
    std::thread([freedElsewhere] { ExFreePoolWithTag(freedElsewhere, kTag); }).join();
    {
        hktest::ExpectVerifierFinding finding("double free");
        ExFreePool(freedElsewhere);
    }
    for (void *p : blocks)
        ExFreePoolWithTag(p, kTag);
    EXPECT_EQ(before, HkPoolLiveAllocationCountWithTag(kTag));
}

TEST_F(PoolTest, FreeOfMemoryThatIsNotAPoolBlockIsReported)
{
    static char notPool[32];
    void *p = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
    {
        hktest::ExpectVerifierFinding finding("is not the address of a pool block", 2);
        ExFreePool(notPool);
        ExFreePool(static_cast<char *>(p) + 8); // inside a block is not a block
    }
    ExFreePool(p);
}

TEST_F(PoolTest, TagMismatchIsReportedAndTheBlockIsStillFreed)
{
    const ULONG before = HkPoolLiveAllocationCountWithTag(kTag);
    void *p = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
    {
        hktest::ExpectVerifierFinding finding("freed with tag 'Toth' but allocated with tag 'Tpol'");
        ExFreePoolWithTag(p, kOtherTag);
    }
    EXPECT_EQ(before, HkPoolLiveAllocationCountWithTag(kTag));
}

TEST_F(PoolTest, FreedBlockStaysReadableWithItsContents)
{
    auto *small = static_cast<ULONG *>(ExAllocatePoolWithTag(NonPagedPool, 64, kTag));
    auto *large = static_cast<ULONG *>(ExAllocatePoolWithTag(NonPagedPool, 2 * PAGE_SIZE, kTag));
    small[0] = 0x11223344;
    large[PAGE_SIZE / sizeof(ULONG)] = 0x55667788;
    ExFreePool(small);
    ExFreePool(large);
    // Reading a just-freed block is what some drivers do with a header; it must not fault
    // (even under AddressSanitizer) and still shows the last contents.
    EXPECT_EQ(0x11223344u, small[0]);
    EXPECT_EQ(0x55667788u, large[PAGE_SIZE / sizeof(ULONG)]);
}

TEST_F(PoolTest, PagedPoolAboveApcLevelIsReported)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    void *p;
    {
        hktest::ExpectVerifierFinding finding("ExAllocatePoolWithTag called at IRQL 2");
        p = ExAllocatePoolWithTag(PagedPool, 16, kTag);
    }
    void *nonPaged = ExAllocatePoolWithTag(NonPagedPool, 16, kTag);
    ExFreePool(nonPaged);
    KeLowerIrql(old);
    ExFreePool(p);
}

TEST_F(PoolTest, InjectedFailuresHitTheNextAllocationsOfTheirTagOnly)
{
    HkPoolFailAllocations(kTag, 2);
    void *other = ExAllocatePoolWithTag(NonPagedPool, 8, kOtherTag);
    EXPECT_NE(nullptr, other);
    EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, kTag));
    EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, kTag));
    void *third = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
    EXPECT_NE(nullptr, third);
    ExFreePool(other);
    ExFreePool(third);
}

TEST_F(PoolTest, InjectedAnyTagFailureHitsTheNextAllocation)
{
    HkPoolFailAnyAllocations(1);
    EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, kOtherTag));
    void *p = ExAllocatePoolWithTag(NonPagedPool, 8, kOtherTag);
    EXPECT_NE(nullptr, p);
    ExFreePool(p);

    PVOID ndis = nullptr;
    HkPoolFailAnyAllocations(1);
    EXPECT_EQ(NDIS_STATUS_FAILURE, NdisAllocateMemoryWithTag(&ndis, 8, kTag));
    EXPECT_EQ(nullptr, ndis);
}

TEST_F(PoolTest, SecondViewAliasesThePagesInBothDirections)
{
    auto *block = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPool, 3 * PAGE_SIZE, kTag));
    ASSERT_NE(nullptr, block);
    char *inside = block + PAGE_SIZE + 100; // not page aligned, spans two pages
    auto *view = static_cast<char *>(hk::MapSecondView(inside, PAGE_SIZE));
    ASSERT_NE(nullptr, view);
    EXPECT_NE(inside, view);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(inside) % PAGE_SIZE,
              reinterpret_cast<ULONG_PTR>(view) % PAGE_SIZE);

    strcpy(inside, "kernel side");
    EXPECT_STREQ("kernel side", view);
    strcpy(view + PAGE_SIZE - 10, "user side");
    EXPECT_STREQ("user side", inside + PAGE_SIZE - 10);

    hk::UnmapSecondView(view, PAGE_SIZE);
    ExFreePool(block);
}

TEST_F(PoolTest, SecondViewIsRefusedOutsideLivePageBlocks)
{
    auto *small = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPool, 64, kTag));
    auto *large = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPool, PAGE_SIZE, kTag));
    EXPECT_EQ(nullptr, hk::MapSecondView(small, 64));
    EXPECT_EQ(nullptr, hk::MapSecondView(large + 100, PAGE_SIZE)); // runs past the block
    ExFreePool(small);
    ExFreePool(large);
    EXPECT_EQ(nullptr, hk::MapSecondView(large, 16));
    hktest::ExpectVerifierFinding finding("not a mapped view");
    hk::UnmapSecondView(large, 16);
}

// ---- lookaside lists ----

struct CountingRoutines {
    static int allocations;
    static int frees;
    static PVOID NTAPI Allocate(POOL_TYPE type, SIZE_T size, ULONG tag)
    {
        ++allocations;
        return ExAllocatePoolWithTag(type, size, tag);
    }
    static VOID NTAPI Free(PVOID buffer)
    {
        ++frees;
        ExFreePool(buffer);
    }
};
int CountingRoutines::allocations = 0;
int CountingRoutines::frees = 0;

TEST(LookasideTest, CachesUpToFourBlocksAndCountsHitsAndMisses)
{
    const ULONG tag = HK_POOL_TAG('L', 'k', 'a', 's');
    hktest::ExpectNoPoolLeak noLeak(tag);
    CountingRoutines::allocations = CountingRoutines::frees = 0;
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, CountingRoutines::Allocate, CountingRoutines::Free, 0,
                                    48, tag, 0);
    EXPECT_EQ(4, list.L.Depth);
    EXPECT_EQ(256, list.L.MaximumDepth);
    EXPECT_EQ(48u, list.L.Size);
    EXPECT_EQ(tag, list.L.Tag);

    void *blocks[6];
    for (void *&block : blocks)
        block = ExAllocateFromNPagedLookasideList(&list);
    EXPECT_EQ(6, CountingRoutines::allocations);
    EXPECT_EQ(6u, list.L.AllocateMisses);
    for (void *block : blocks)
        ExFreeToNPagedLookasideList(&list, block);
    EXPECT_EQ(2, CountingRoutines::frees); // four kept in the cache
    EXPECT_EQ(2u, list.L.FreeMisses);

    void *again[4];
    for (void *&block : again)
        block = ExAllocateFromNPagedLookasideList(&list);
    EXPECT_EQ(6, CountingRoutines::allocations); // all four served from the cache
    EXPECT_EQ(10u, list.L.TotalAllocates);
    EXPECT_EQ(6u, list.L.AllocateMisses);
    for (void *block : again)
        EXPECT_TRUE(block == blocks[0] || block == blocks[1] || block == blocks[2] ||
                    block == blocks[3] || block == blocks[4] || block == blocks[5]);
    for (void *block : again)
        ExFreeToNPagedLookasideList(&list, block);
    EXPECT_EQ(10u, list.L.TotalFrees);

    ExDeleteNPagedLookasideList(&list); // frees the cached blocks
    EXPECT_EQ(6, CountingRoutines::frees);
}

TEST(LookasideTest, DefaultRoutinesUseTaggedNonPagedPool)
{
    const ULONG tag = HK_POOL_TAG('L', 'k', 'd', 'f');
    const ULONG before = HkPoolLiveAllocationCountWithTag(tag);
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 32, tag, 0);
    void *block = ExAllocateFromNPagedLookasideList(&list);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(before + 1, HkPoolLiveAllocationCountWithTag(tag));
    ExFreeToNPagedLookasideList(&list, block);
    EXPECT_EQ(before + 1, HkPoolLiveAllocationCountWithTag(tag)); // cached, still live
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(before, HkPoolLiveAllocationCountWithTag(tag));
}

TEST(LookasideTest, AllocationMissReturnsNullWhenThePoolFails)
{
    const ULONG tag = HK_POOL_TAG('L', 'k', 'f', 'l');
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 32, tag, 0);
    HkPoolFailAllocations(tag, 1);
    EXPECT_EQ(nullptr, ExAllocateFromNPagedLookasideList(&list));
    ExDeleteNPagedLookasideList(&list);
}

} // namespace
