// IRQL tracking, spin locks, interlocked lists and dispatcher waits of the host runtime.
#include "hk_test_support.h"

#include <ntddk.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

LARGE_INTEGER RelativeMs(LONGLONG ms)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -ms * 10000;
    return timeout;
}

// ---- IRQL ----

TEST(IrqlTest, RaiseAndLowerTrackTheLevelPerThread)
{
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_EQ(PASSIVE_LEVEL, old);
    EXPECT_EQ(APC_LEVEL, KeRaiseIrqlToDpcLevel());
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());

    KIRQL otherThread = HIGH_LEVEL;
    std::thread([&] { otherThread = KeGetCurrentIrql(); }).join();
    EXPECT_EQ(PASSIVE_LEVEL, otherThread);

    KeLowerIrql(APC_LEVEL);
    KeLowerIrql(old);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
}

TEST(IrqlTest, RaisingToALowerOrLoweringToAHigherLevelIsReported)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    {
        hktest::ExpectVerifierFinding finding("KeRaiseIrql to IRQL 1 from the higher IRQL 2");
        KIRQL ignored;
        KeRaiseIrql(APC_LEVEL, &ignored);
    }
    KeLowerIrql(PASSIVE_LEVEL);
    hktest::ExpectVerifierFinding finding("KeLowerIrql to IRQL 2 from the lower IRQL 0");
    KeLowerIrql(DISPATCH_LEVEL);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
}

// ---- spin locks ----

TEST(SpinLockTest, ExcludesOtherThreadsUnderContention)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    long counter = 0; // deliberately not atomic: the lock must protect it
    int inside = 0;
    bool overlapped = false;
    const int kThreads = 4, kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
                if (++inside != 1)
                    overlapped = true;
                ++counter;
                --inside;
                KeReleaseSpinLock(&lock, old);
                EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(static_cast<long>(kThreads) * kRounds, counter);
}

TEST(SpinLockTest, DpcLevelVariantsLeaveTheIrqlAlone)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
    EXPECT_EQ(PASSIVE_LEVEL, old);
    KSPIN_LOCK inner;
    KeInitializeSpinLock(&inner);
    KeAcquireSpinLockAtDpcLevel(&inner);
    KeReleaseSpinLockFromDpcLevel(&inner);
    EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
    KeReleaseSpinLock(&lock, old);
}

TEST(SpinLockTest, TryAcquireFailsWhileAnotherThreadHoldsTheLock)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    std::atomic<int> stage{0};
    std::thread holder([&] {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
        stage = 1;
        while (stage != 2)
            std::this_thread::yield();
        KeReleaseSpinLock(&lock, old);
        stage = 3;
    });
    while (stage != 1)
        std::this_thread::yield();
    KIRQL old = KeRaiseIrqlToDpcLevel();
    EXPECT_FALSE(KeTryToAcquireSpinLockAtDpcLevel(&lock));
    stage = 2;
    while (stage != 3)
        std::this_thread::yield();
    EXPECT_TRUE(KeTryToAcquireSpinLockAtDpcLevel(&lock));
    KeReleaseSpinLockFromDpcLevel(&lock);
    KeLowerIrql(old);
    holder.join();
}

TEST(SpinLockTest, ReleasingALockTheThreadDoesNotHoldIsReported)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old = KeRaiseIrqlToDpcLevel();
    hktest::ExpectVerifierFinding finding("released by a thread that does not hold it");
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
}

TEST(SpinLockTest, AcquiringAtDpcLevelFromPassiveIsReported)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    hktest::ExpectVerifierFinding finding("requires DISPATCH_LEVEL", 2);
    KeAcquireSpinLockAtDpcLevel(&lock);
    KeReleaseSpinLockFromDpcLevel(&lock);
}

void AcquireTwice()
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL first;
    KIRQL second;
    KeAcquireSpinLock(&lock, &first);
    KeAcquireSpinLock(&lock, &second);
}

TEST(SpinLockDeathTest, AcquiringAHeldLockAgainBugchecks)
{
    EXPECT_DEATH(AcquireTwice(), "BUGCHECK 0x0000000F \\(SPIN_LOCK_ALREADY_OWNED\\)");
}

// ---- interlocked lists ----

TEST(SListTest, PushPopFlushAndDepthFromManyThreads)
{
    SLIST_HEADER head;
    InitializeSListHead(&head);
    const int kThreads = 4, kEach = 1000;
    std::vector<SLIST_ENTRY> entries(kThreads * kEach);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                InterlockedPushEntrySList(&head, &entries[t * kEach + i]);
                if (i % 2 == 1) {
                    EXPECT_NE(nullptr, InterlockedPopEntrySList(&head));
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * kEach / 2, QueryDepthSList(&head));
    int chained = 0;
    for (PSLIST_ENTRY entry = InterlockedFlushSList(&head); entry != nullptr; entry = entry->Next)
        ++chained;
    EXPECT_EQ(kThreads * kEach / 2, chained);
    EXPECT_EQ(0, QueryDepthSList(&head));
    EXPECT_EQ(nullptr, InterlockedPopEntrySList(&head));
}

// ---- events and waits ----

TEST(EventTest, SetAndResetReturnThePreviousState)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(0, KeSetEvent(&event, IO_NO_INCREMENT, FALSE));
    EXPECT_EQ(1, KeSetEvent(&event, IO_NO_INCREMENT, FALSE));
    EXPECT_NE(0, KeReadStateEvent(&event));
    EXPECT_EQ(1, KeResetEvent(&event));
    EXPECT_EQ(0, KeResetEvent(&event));
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    KeClearEvent(&event);
    EXPECT_EQ(0, KeReadStateEvent(&event));
}

TEST(EventTest, ZeroTimeoutPollsAndNegativeTimeoutExpires)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero));
    LARGE_INTEGER shortWait = RelativeMs(30);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(STATUS_TIMEOUT,
              KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &shortWait));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero));
}

TEST(EventTest, AbsoluteTimeoutInThePastReturnsAtOnce)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    LARGE_INTEGER past;
    KeQuerySystemTime(&past);
    past.QuadPart -= 10000000;
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past));
}

TEST(EventTest, SynchronizationEventReleasesOneWaiterAndResetsItself)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            LARGE_INTEGER timeout = RelativeMs(10000);
            if (KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout) ==
                STATUS_SUCCESS)
                ++woken;
        });
    }
    for (int i = 1; i <= 3; ++i) {
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        EXPECT_TRUE(hktest::WaitUntil([&] { return woken >= i; }));
        EXPECT_EQ(i, woken.load());
        EXPECT_EQ(0, KeReadStateEvent(&event)); // consumed by the released waiter
    }
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(3, woken);
}

TEST(EventTest, NotificationEventReleasesEveryWaiterAndStaysSignalled)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            if (KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr) ==
                STATUS_SUCCESS)
                ++woken;
        });
    }
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    for (std::thread &waiter : waiters)
        waiter.join();
    EXPECT_EQ(4, woken);
    EXPECT_EQ(1, KeReadStateEvent(&event));
}

TEST(EventTest, WaitWithATimeoutAboveApcLevelIsReportedAndDoesNotBlock)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KIRQL old = KeRaiseIrqlToDpcLevel();
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero));
    {
        hktest::ExpectVerifierFinding finding("KeWaitForSingleObject called at IRQL 2 with a "
                                              "non-zero time-out");
        EXPECT_EQ(STATUS_TIMEOUT,
                  KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
    }
    KeLowerIrql(old);
}

TEST(EventTest, WaitingOnAnUninitializedObjectIsReported)
{
    KEVENT event = {};
    hktest::ExpectVerifierFinding finding("not an initialized event or thread object");
    EXPECT_EQ(STATUS_INVALID_PARAMETER,
              KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr));
}

TEST(EventTest, WaiterMayFreeTheEventAsSoonAsItsWaitReturns)
{
    // The common driver pattern: the event lives in the waiter's memory, which is gone as
    // soon as the wait returns, while the signalling thread may still be in KeSetEvent.
    // (AddressSanitizer builds report any access after the free.)
    std::atomic<KEVENT *> handOver{nullptr};
    std::atomic<bool> done{false};
    std::thread setter([&] {
        while (!done) {
            KEVENT *event = handOver.exchange(nullptr);
            if (event != nullptr)
                KeSetEvent(event, IO_NO_INCREMENT, FALSE);
            else
                std::this_thread::yield();
        }
    });
    for (int i = 0; i < 3000; ++i) {
        auto *event = new KEVENT;
        KeInitializeEvent(event, i % 2 == 0 ? NotificationEvent : SynchronizationEvent, FALSE);
        handOver = event;
        EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr));
        delete event;
    }
    done = true;
    setter.join();
}

TEST(MultipleWaitTest, WaitAnyReturnsTheIndexOfTheSignalledObject)
{
    KEVENT events[3];
    for (KEVENT &event : events)
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    PVOID objects[3] = {&events[0], &events[1], &events[2]};
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        KeSetEvent(&events[2], IO_NO_INCREMENT, FALSE);
    });
    LARGE_INTEGER timeout = RelativeMs(10000);
    EXPECT_EQ(STATUS_WAIT_0 + 2, KeWaitForMultipleObjects(3, objects, WaitAny, Executive,
                                                          KernelMode, FALSE, &timeout, nullptr));
    setter.join();
    EXPECT_EQ(0, KeReadStateEvent(&events[2]));
}

TEST(MultipleWaitTest, WaitAllNeedsEveryObjectAndConsumesSynchronizationEvents)
{
    KEVENT sync, notification;
    KeInitializeEvent(&sync, SynchronizationEvent, TRUE);
    KeInitializeEvent(&notification, NotificationEvent, FALSE);
    PVOID objects[2] = {&sync, &notification};
    LARGE_INTEGER shortWait = RelativeMs(20);
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode,
                                                       FALSE, &shortWait, nullptr));
    EXPECT_EQ(1, KeReadStateEvent(&sync)); // not taken by the failed wait

    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        KeSetEvent(&notification, IO_NO_INCREMENT, FALSE);
    });
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode,
                                                       FALSE, nullptr, nullptr));
    setter.join();
    EXPECT_EQ(0, KeReadStateEvent(&sync));
    EXPECT_EQ(1, KeReadStateEvent(&notification));
}

TEST(DelayTest, DelayExecutionSleepsAtLeastTheInterval)
{
    LARGE_INTEGER interval = RelativeMs(20);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(STATUS_SUCCESS, KeDelayExecutionThread(KernelMode, FALSE, &interval));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(TimeTest, SystemTimeCountsFrom1601AndTicksFollowTheIncrement)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    // 2020-01-01 is 132223104000000000 in 100 ns units since 1601.
    EXPECT_GT(now.QuadPart, 132223104000000000LL);
    EXPECT_EQ(156250u, KeQueryTimeIncrement());
    LARGE_INTEGER ticks;
    KeQueryTickCount(&ticks);
    const LONGLONG expected = static_cast<LONGLONG>(KeQueryInterruptTime() / 156250);
    EXPECT_LE(expected - ticks.QuadPart, 1);
    LARGE_INTEGER frequency;
    LARGE_INTEGER first = KeQueryPerformanceCounter(&frequency);
    EXPECT_EQ(10000000, frequency.QuadPart);
    EXPECT_LE(first.QuadPart, KeQueryPerformanceCounter(nullptr).QuadPart);
}

} // namespace
