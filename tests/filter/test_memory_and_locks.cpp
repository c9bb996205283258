/* Tagged memory blocks and the level-saving lock. */
#include "framework.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

/* Makes GlobalDebugFlag show the common-services traces for one test. */
struct CommonTraces {
    CommonTraces() { GlobalDebugFlag = NF_DBG_COMMON; HkDebugClearCapture(); }
    ~CommonTraces() { GlobalDebugFlag = 0; }
};

} // namespace

TEST(TaggedMemory, ABlockCarriesItsSizeAndTagInFrontAndIsFreedOnce)
{
    PUCHAR block = (PUCHAR)Filter_AllocateMemory(100, nftest::PoolTag("Test"));
    ASSERT_NE(block, nullptr);
    const FilterMemory *header = (const FilterMemory *)block - 1;
    EXPECT_EQ(header->m_Size, 112u);
    EXPECT_EQ(header->m_Tag, (ULONG)FILTER_MEMORY_TAG);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(nftest::PoolTag("Test")), 1u);
    memset(block, 0xA5, 100 + 4); /* the 4 spare bytes behind the block are ours too */

    EXPECT_EQ(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(nftest::PoolTag("Test")), 0u);
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_ERROR_INVALID_MEMORY_POINTER);
}

TEST(TaggedMemory, ZeroBytesStillGiveAValidBlock)
{
    PVOID block = Filter_AllocateMemory(0, nftest::PoolTag("Zero"));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(((const FilterMemory *)block - 1)->m_Size, 12u);
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
}

TEST(TaggedMemory, AFailedAllocationAndAnImpossibleSizeGiveNull)
{
    CommonTraces traces;
    HkPoolFailAllocations(nftest::PoolTag("Fail"), 1);
    EXPECT_EQ(Filter_AllocateMemory(64, nftest::PoolTag("Fail")), nullptr);
    EXPECT_EQ(Filter_AllocateMemory(0xFFFFFFF8u, nftest::PoolTag("Fail")), nullptr);
    HkPoolClearFailures();
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "  NdisAllocateMemory(size=76) fails"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Leave Filter_AllocateMemory, 0x0000000000000000"), 0);
}

TEST(TaggedMemory, ForeignAndNullPointersAreRefusedWithTheirTraces)
{
    CommonTraces traces;
    ULONG foreign[8] = {0, 0, 0, 0};
    EXPECT_EQ(Filter_FreeMemory(&foreign[2]), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Filter_FreeMemory(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    auto lines = nftest::TakeTrace();
    std::vector<std::string> expected = {
        "Enter Filter_FreeMemory",
        "  pFilterMemory->m_Tag != FILTER_MEMORY_TAG",
        "  Error: -35 - FILTER_ERROR_INVALID_MEMORY_POINTER",
        "Leave Filter_FreeMemory, -35-FILTER_ERROR_INVALID_MEMORY_POINTER",
        "Enter Filter_FreeMemory",
        "  ppVirtualAddress == NULL",
        "  Error: -1 - FILTER_ERROR_INVALID_ARGUMENT",
        "Leave Filter_FreeMemory, -1-FILTER_ERROR_INVALID_ARGUMENT",
    };
    EXPECT_EQ(lines, expected);
}

TEST(TaggedMemory, AnUnreadableHeaderIsCaughtAsAnExceptionAndTheProcessLivesOn)
{
    long pageSize = sysconf(_SC_PAGESIZE);
    void *page = mmap(nullptr, pageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    HkDebugClearCapture();

    EXPECT_EQ(Filter_FreeMemory((PUCHAR)page + 16), FILTER_ERROR_EXCEPTION);

    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Filter_FreeMemory: exception, code = -1073741819"), 0);
    munmap(page, pageSize);

    PVOID block = Filter_AllocateMemory(8, nftest::PoolTag("Life"));
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
}

TEST(FilterLock, AcquireRaisesToDispatchAndReleaseReturnsToTheSavedLevel)
{
    FilterLock lock;
    ASSERT_EQ(Filter_InitializeLock(&lock), FILTER_STATUS_SUCCESS);

    KIRQL before;
    KeRaiseIrql(APC_LEVEL, &before);
    ASSERT_EQ(Filter_AcquireLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_EQ(lock.m_OldIrql, APC_LEVEL);
    ASSERT_EQ(Filter_ReleaseLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(before);

    EXPECT_EQ(Filter_FreeLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_InitializeLock(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_AcquireLock(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_ReleaseLock(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_FreeLock(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}
