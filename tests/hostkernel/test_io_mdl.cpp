// Memory descriptor lists: system addresses, user-mode mappings, and misuse.
#include <ntddk.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using hktest::ExpectVerifierFinding;

constexpr ULONG kTag = HK_POOL_TAG('M', 'd', 'l', 'T');

// Two pages of non-paged pool described by an MDL that starts `offset` bytes in.
class PoolMdl {
public:
    explicit PoolMdl(ULONG offset = 0, ULONG length = 2 * PAGE_SIZE - 128)
    {
        pool_ = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, 2 * PAGE_SIZE, kTag));
        buffer_ = pool_ + offset;
        mdl_ = IoAllocateMdl(buffer_, length, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl_);
    }
    ~PoolMdl()
    {
        IoFreeMdl(mdl_);
        ExFreePoolWithTag(pool_, kTag);
    }
    PoolMdl(const PoolMdl &) = delete;
    PoolMdl &operator=(const PoolMdl &) = delete;

    PMDL mdl() const { return mdl_; }
    PUCHAR buffer() const { return buffer_; }

private:
    PUCHAR pool_;
    PUCHAR buffer_;
    PMDL mdl_;
};

TEST(Mdl, DescribesItsBufferAndMapsItToItsOwnSystemAddress)
{
    PoolMdl pool(100, 5000);
    PMDL mdl = pool.mdl();
    EXPECT_EQ(pool.buffer(), MmGetMdlVirtualAddress(mdl));
    EXPECT_EQ(5000u, MmGetMdlByteCount(mdl));
    EXPECT_EQ(BYTE_OFFSET(pool.buffer()), MmGetMdlByteOffset(mdl));
    EXPECT_EQ(PAGE_ALIGN(pool.buffer()), mdl->StartVa);
    EXPECT_EQ(pool.buffer(), MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    EXPECT_EQ(nullptr, mdl->Next);
}

TEST(Mdl, AUserMappingAliasesTheSamePagesAtAnotherAddress)
{
    PoolMdl pool(100);
    PMDL mdl = pool.mdl();
    PUCHAR user = static_cast<PUCHAR>(
        MmMapLockedPagesSpecifyCache(mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority));
    ASSERT_NE(nullptr, user);
    PUCHAR kernel = static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    EXPECT_NE(kernel, user);
    EXPECT_EQ(BYTE_OFFSET(kernel), BYTE_OFFSET(user));

    std::memcpy(user, "written by user", 16);
    EXPECT_EQ(0, std::memcmp(kernel, "written by user", 16));
    kernel[PAGE_SIZE + 7] = 0x5A; // second page
    EXPECT_EQ(0x5A, user[PAGE_SIZE + 7]);

    MmUnmapLockedPages(user, mdl);
}

TEST(Mdl, FreeingAnMdlStillMappedForUserModeIsReported)
{
    PUCHAR pool = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, PAGE_SIZE, kTag));
    PMDL mdl = IoAllocateMdl(pool, PAGE_SIZE, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    ASSERT_NE(nullptr, MmMapLockedPagesSpecifyCache(mdl, UserMode, MmCached, nullptr, FALSE,
                                                    NormalPagePriority));
    {
        ExpectVerifierFinding finding("still mapped into user mode");
        IoFreeMdl(mdl);
    }
    ExFreePoolWithTag(pool, kTag);
    EXPECT_EQ(0u, HkLiveMdlCount());
}

TEST(Mdl, UnmappingTwiceOrFreeingTwiceIsReported)
{
    PoolMdl pool;
    PVOID user = MmMapLockedPages(pool.mdl(), UserMode);
    ASSERT_NE(nullptr, user);
    MmUnmapLockedPages(user, pool.mdl());
    {
        ExpectVerifierFinding finding("not a current mapping");
        MmUnmapLockedPages(user, pool.mdl());
    }
    PMDL extra = IoAllocateMdl(pool.buffer(), 16, FALSE, FALSE, nullptr);
    IoFreeMdl(extra);
    {
        ExpectVerifierFinding finding("freed twice");
        IoFreeMdl(extra);
    }
}

TEST(Mdl, LockedPagesGetASystemMappingOnlyWhenAsked)
{
    UCHAR local[64] = {};
    PMDL mdl = IoAllocateMdl(local, sizeof(local), FALSE, FALSE, nullptr);
    {
        ExpectVerifierFinding finding("not locked");
        EXPECT_EQ(nullptr, MmMapLockedPages(mdl, KernelMode));
    }
    MmProbeAndLockPages(mdl, KernelMode, IoWriteAccess);
    EXPECT_EQ(0, mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_EQ(local, MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    EXPECT_NE(0, mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    MmUnlockPages(mdl);
    EXPECT_EQ(0, mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED));
    IoFreeMdl(mdl);
}

TEST(Mdl, MdlsAllocatedForAnIrpChainThroughNext)
{
    UCHAR first[32];
    UCHAR second[32];
    PIRP irp = IoAllocateIrp(1, FALSE);
    PMDL a = IoAllocateMdl(first, sizeof(first), FALSE, FALSE, irp);
    PMDL b = IoAllocateMdl(second, sizeof(second), TRUE, FALSE, irp);
    EXPECT_EQ(a, irp->MdlAddress);
    EXPECT_EQ(b, a->Next);
    IoFreeMdl(b);
    IoFreeMdl(a);
    IoFreeIrp(irp);
}

TEST(Mdl, APartialMdlDescribesPartOfItsSourceAtTheSameSystemAddress)
{
    PoolMdl pool(0, PAGE_SIZE * 2);
    PUCHAR inside = pool.buffer() + PAGE_SIZE - 10;
    PMDL partial = IoAllocateMdl(inside, 20, FALSE, FALSE, nullptr);
    IoBuildPartialMdl(pool.mdl(), partial, inside, 20);
    EXPECT_EQ(inside, MmGetMdlVirtualAddress(partial));
    EXPECT_EQ(20u, MmGetMdlByteCount(partial));
    EXPECT_EQ(inside, MmGetSystemAddressForMdlSafe(partial, NormalPagePriority));
    IoFreeMdl(partial);
}

} // namespace
