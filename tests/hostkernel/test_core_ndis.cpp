// The NDIS library part of the host runtime: read-write locks, spin locks, events.
#include "hk_test_support.h"

#include <ndis.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

class RwLockTest : public testing::Test {
protected:
    void SetUp() override { NdisInitializeReadWriteLock(&lock); }
    NDIS_RW_LOCK lock;
};

TEST_F(RwLockTest, ManyReadersHoldTheLockAtTheSameTime)
{
    const int kReaders = 4;
    std::atomic<int> inside{0};
    std::atomic<bool> allInside{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i) {
        readers.emplace_back([&] {
            LOCK_STATE state;
            NdisAcquireReadWriteLock(&lock, FALSE, &state);
            EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
            ++inside;
            // Every reader waits inside until all are inside: only possible if shared.
            EXPECT_TRUE(hktest::WaitUntil([&] { return inside == kReaders || allInside; }));
            allInside = true;
            NdisReleaseReadWriteLock(&lock, &state);
            EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
        });
    }
    for (std::thread &reader : readers)
        reader.join();
    EXPECT_TRUE(allInside);
}

TEST_F(RwLockTest, WriterExcludesReadersAndOtherWriters)
{
    const int kThreads = 4, kRounds = 5000;
    volatile long value[2] = {0, 0}; // a writer keeps both equal; readers never see them differ
    std::atomic<bool> tornRead{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                LOCK_STATE state;
                const bool write = (i + t) % 4 == 0;
                NdisAcquireReadWriteLock(&lock, write ? TRUE : FALSE, &state);
                if (write) {
                    long next = value[0] + 1;
                    value[0] = next;
                    for (int spin = 0; spin < 200; ++spin)
                        YieldProcessor(); // widen the window a reader could see
                    value[1] = next;
                } else if (value[0] != value[1]) {
                    tornRead = true;
                }
                NdisReleaseReadWriteLock(&lock, &state);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_FALSE(tornRead);
    EXPECT_EQ(value[0], value[1]);
    EXPECT_EQ(kThreads * kRounds / 4, value[0]);
}

TEST_F(RwLockTest, ReaderMayTakeTheLockAgainWhileAWriterWaits)
{
    LOCK_STATE outer, inner;
    NdisAcquireReadWriteLock(&lock, FALSE, &outer);
    std::atomic<bool> writerDone{false};
    std::thread writer([&] {
        LOCK_STATE state;
        NdisAcquireReadWriteLock(&lock, TRUE, &state);
        writerDone = true;
        NdisReleaseReadWriteLock(&lock, &state);
    });
    // Give the writer time to start waiting for this reader.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    NdisAcquireReadWriteLock(&lock, FALSE, &inner); // must not wait behind the writer
    EXPECT_FALSE(writerDone);
    NdisReleaseReadWriteLock(&lock, &inner);
    EXPECT_FALSE(writerDone);
    NdisReleaseReadWriteLock(&lock, &outer);
    writer.join();
    EXPECT_TRUE(writerDone);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
}

TEST_F(RwLockTest, WriterTakingTheLockAgainIsReportedInsteadOfHanging)
{
    LOCK_STATE outer, inner;
    NdisAcquireReadWriteLock(&lock, TRUE, &outer);
    {
        hktest::ExpectVerifierFinding finding("taken for writing again");
        NdisAcquireReadWriteLock(&lock, TRUE, &inner);
    }
    NdisReleaseReadWriteLock(&lock, &inner);
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    NdisReleaseReadWriteLock(&lock, &outer);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
}

TEST_F(RwLockTest, WriterMayReadWhatItHolds)
{
    LOCK_STATE write, read;
    NdisAcquireReadWriteLock(&lock, TRUE, &write);
    NdisAcquireReadWriteLock(&lock, FALSE, &read);
    NdisReleaseReadWriteLock(&lock, &read);
    NdisReleaseReadWriteLock(&lock, &write);
    // The lock is free again: another thread can write.
    std::thread([&] {
        LOCK_STATE state;
        NdisAcquireReadWriteLock(&lock, TRUE, &state);
        NdisReleaseReadWriteLock(&lock, &state);
    }).join();
}

TEST_F(RwLockTest, ReleaseWithoutAcquireIsReported)
{
    LOCK_STATE state;
    state.LockState = 0x00A1; // looks like a read acquisition this thread never made
    state.OldIrql = PASSIVE_LEVEL;
    hktest::ExpectVerifierFinding finding("does not hold it");
    NdisReleaseReadWriteLock(&lock, &state);
}

TEST(NdisSpinLockTest, AcquireRaisesAndReleaseRestoresTheCallersIrql)
{
    NDIS_SPIN_LOCK lock;
    NdisAllocateSpinLock(&lock);
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    NdisAcquireSpinLock(&lock);
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    NdisReleaseSpinLock(&lock);
    EXPECT_EQ(APC_LEVEL, KeGetCurrentIrql());
    KeLowerIrql(old);

    KIRQL dpc = KeRaiseIrqlToDpcLevel();
    NdisDprAcquireSpinLock(&lock);
    NdisDprReleaseSpinLock(&lock);
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    KeLowerIrql(dpc);
    NdisFreeSpinLock(&lock);
}

TEST(NdisSpinLockTest, SavedIrqlBelongsToTheHolderNotToAWaiter)
{
    // A waiter must not overwrite OldIrql in the lock before it owns the lock.
    NDIS_SPIN_LOCK lock;
    NdisAllocateSpinLock(&lock);
    std::atomic<bool> holding{false};
    std::atomic<bool> release{false};
    std::thread holder([&] {
        NdisAcquireSpinLock(&lock); // from PASSIVE_LEVEL
        holding = true;
        while (!release)
            std::this_thread::yield();
        NdisReleaseSpinLock(&lock);
        EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    });
    while (!holding)
        std::this_thread::yield();
    std::thread waiter([&] {
        KIRQL old;
        KeRaiseIrql(APC_LEVEL, &old);
        NdisAcquireSpinLock(&lock); // from APC_LEVEL, spins until the holder releases
        NdisReleaseSpinLock(&lock);
        EXPECT_EQ(APC_LEVEL, KeGetCurrentIrql());
        KeLowerIrql(old);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
    holder.join();
    waiter.join();
}

TEST(NdisEventTest, WaitReturnsFalseAfterItsTimeoutAndTrueOnceSet)
{
    NDIS_EVENT event;
    NdisInitializeEvent(&event);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NdisWaitEvent(&event, 30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));

    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        NdisSetEvent(&event);
    });
    EXPECT_TRUE(NdisWaitEvent(&event, 0)); // 0 waits until set
    setter.join();
    EXPECT_TRUE(NdisWaitEvent(&event, 1)); // stays set
    NdisResetEvent(&event);
    EXPECT_FALSE(NdisWaitEvent(&event, 1));
}

TEST(NdisMemoryTest, AllocatedMemoryIsTaggedNonPagedPool)
{
    const ULONG tag = HK_POOL_TAG('N', 'd', 'i', 's');
    const ULONG before = HkPoolLiveAllocationCountWithTag(tag);
    PVOID memory = nullptr;
    ASSERT_EQ(NDIS_STATUS_SUCCESS, NdisAllocateMemoryWithTag(&memory, 100, tag));
    ASSERT_NE(nullptr, memory);
    NdisZeroMemory(memory, 100);
    EXPECT_EQ(before + 1, HkPoolLiveAllocationCountWithTag(tag));
    NdisFreeMemory(memory, 100, 0);
    EXPECT_EQ(before, HkPoolLiveAllocationCountWithTag(tag));
}

TEST(NdisMemoryTest, AllocationAtDispatchLevelIsAllowed)
{
    PVOID memory = nullptr;
    KIRQL old = KeRaiseIrqlToDpcLevel();
    EXPECT_EQ(NDIS_STATUS_SUCCESS, NdisAllocateMemoryWithTag(&memory, 16, HK_POOL_TAG('T', 'e', 's', 't')));
    NdisFreeMemory(memory, 16, 0);
    KeLowerIrql(old);
}

} // namespace
