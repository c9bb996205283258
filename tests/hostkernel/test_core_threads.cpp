// System threads, thread records and the system work queue of the host runtime.
#include "hk_test_support.h"

#include <ntddk.h>

#include <atomic>
#include <thread>

#include "../../hostkernel/src/internal.h" // QueueSystemWork

namespace {

// What a test's system thread sees and does.
struct ThreadProbe {
    KEVENT go;                 // the thread waits for it when `wait` is set
    bool wait = false;
    bool terminate = false;    // calls PsTerminateSystemThread before returning
    bool endAtDispatch = false;
    KSPIN_LOCK lock = 0;
    std::atomic<bool> started{false};
    std::atomic<bool> pastTerminate{false};
    KIRQL irql = HIGH_LEVEL;
    PKTHREAD self = nullptr;
    HANDLE id = nullptr;
    KPRIORITY previousPriority = -1;

    ThreadProbe() { KeInitializeEvent(&go, NotificationEvent, FALSE); }
};

VOID NTAPI ProbeRoutine(PVOID context)
{
    auto *probe = static_cast<ThreadProbe *>(context);
    probe->irql = KeGetCurrentIrql();
    probe->self = KeGetCurrentThread();
    probe->id = PsGetCurrentThreadId();
    probe->previousPriority = KeSetPriorityThread(KeGetCurrentThread(), LOW_REALTIME_PRIORITY);
    probe->started = true;
    if (probe->wait)
        KeWaitForSingleObject(&probe->go, Executive, KernelMode, FALSE, nullptr);
    if (probe->endAtDispatch) {
        KIRQL ignored;
        KeAcquireSpinLock(&probe->lock, &ignored);
    }
    if (probe->terminate)
        PsTerminateSystemThread(STATUS_SUCCESS);
    probe->pastTerminate = true;
}

// Starts a system thread running ProbeRoutine and references its thread object.
PVOID StartProbe(ThreadProbe *probe, CLIENT_ID *clientId = nullptr)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr,
                                                   clientId, ProbeRoutine, probe));
    PVOID thread = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType,
                                                        KernelMode, &thread, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, ZwClose(handle));
    return thread;
}

// Waits for the thread object (generously) and drops the reference.
void AwaitEnd(PVOID thread)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10LL * 10000000;
    EXPECT_EQ(STATUS_SUCCESS, KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &timeout));
    ObDereferenceObject(thread);
}

TEST(SystemThreadTest, ThreadObjectIsSignalledWhenTheThreadEnds)
{
    ThreadProbe probe;
    probe.wait = true;
    PVOID thread = StartProbe(&probe);
    EXPECT_TRUE(hktest::WaitUntil([&] { return probe.started.load(); }));
    LARGE_INTEGER poll;
    poll.QuadPart = 0;
    EXPECT_EQ(STATUS_TIMEOUT, KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &poll));
    EXPECT_GE(HkSystemThreadCount(), 1u);
    KeSetEvent(&probe.go, IO_NO_INCREMENT, FALSE);
    AwaitEnd(thread);
    EXPECT_TRUE(probe.pastTerminate);
    EXPECT_TRUE(HkWaitForSystemThreads(10000));
    EXPECT_EQ(0u, HkSystemThreadCount());
}

TEST(SystemThreadTest, StartsAtPassiveLevelWithItsOwnRecordAndId)
{
    ThreadProbe probe;
    CLIENT_ID clientId = {};
    PVOID thread = StartProbe(&probe, &clientId);
    AwaitEnd(thread);
    EXPECT_EQ(PASSIVE_LEVEL, probe.irql);
    EXPECT_EQ(thread, static_cast<PVOID>(probe.self));
    EXPECT_EQ(clientId.UniqueThread, probe.id);
    EXPECT_NE(PsGetCurrentThreadId(), probe.id);
    EXPECT_EQ(0u, reinterpret_cast<ULONG_PTR>(probe.id) % 4);
}

TEST(SystemThreadTest, PriorityIsRecordedAndVisibleToHostControl)
{
    ThreadProbe probe;
    probe.wait = true;
    PVOID thread = StartProbe(&probe);
    EXPECT_TRUE(hktest::WaitUntil([&] { return probe.started.load(); }));
    EXPECT_EQ(8, probe.previousPriority);
    EXPECT_EQ(LOW_REALTIME_PRIORITY, KeQueryPriorityThread(static_cast<PKTHREAD>(thread)));

    HK_SYSTEM_THREAD_INFO infos[64];
    const ULONG count = HkQuerySystemThreads(infos, 64);
    bool found = false;
    for (ULONG i = 0; i < count && i < 64; ++i) {
        if (infos[i].StartContext == &probe) {
            found = true;
            EXPECT_EQ(LOW_REALTIME_PRIORITY, infos[i].Priority);
            EXPECT_EQ(probe.id, infos[i].ThreadId);
            EXPECT_EQ(reinterpret_cast<PVOID>(ProbeRoutine), infos[i].StartRoutine);
        }
    }
    EXPECT_TRUE(found);
    KeSetEvent(&probe.go, IO_NO_INCREMENT, FALSE);
    AwaitEnd(thread);
}

TEST(SystemThreadTest, TerminateEndsTheThreadWithoutReturning)
{
    ThreadProbe probe;
    probe.terminate = true;
    AwaitEnd(StartProbe(&probe));
    EXPECT_TRUE(probe.started);
    EXPECT_FALSE(probe.pastTerminate);
}

TEST(SystemThreadTest, EndingAtDispatchLevelHoldingASpinLockIsReported)
{
    ThreadProbe probe;
    probe.endAtDispatch = true;
    probe.terminate = true;
    hktest::ExpectVerifierFinding finding("system thread", 2); // the IRQL and the held lock
    AwaitEnd(StartProbe(&probe));
}

TEST(SystemThreadTest, TerminateFromAThreadThatIsNotASystemThreadIsReported)
{
    hktest::ExpectVerifierFinding finding("not a system thread");
    EXPECT_EQ(STATUS_INVALID_PARAMETER, PsTerminateSystemThread(STATUS_SUCCESS));
}

TEST(ThreadRecordTest, EveryThreadHasItsOwnRecordIdAndPriority)
{
    PKTHREAD mine = KeGetCurrentThread();
    ASSERT_NE(nullptr, mine);
    EXPECT_EQ(mine, KeGetCurrentThread());
    EXPECT_EQ(static_cast<PVOID>(mine), static_cast<PVOID>(PsGetCurrentThread()));
    PKTHREAD other = nullptr;
    HANDLE otherId = nullptr;
    std::thread([&] {
        other = KeGetCurrentThread();
        otherId = PsGetCurrentThreadId();
    }).join();
    EXPECT_NE(mine, other);
    EXPECT_NE(PsGetCurrentThreadId(), otherId);

    const KPRIORITY before = KeQueryPriorityThread(mine);
    EXPECT_EQ(before, KeSetPriorityThread(mine, HIGH_PRIORITY));
    EXPECT_EQ(HIGH_PRIORITY, KeQueryPriorityThread(mine));
    KeSetPriorityThread(mine, before);
}

// ---- system work queue ----

struct WorkProbe {
    WORK_QUEUE_ITEM item;
    KEVENT *waitFor = nullptr;
    KEVENT *setWhenDone = nullptr;
    bool raise = false;
    std::atomic<bool> ran{false};
    KIRQL irql = HIGH_LEVEL;
    HANDLE threadId = nullptr;
};

VOID NTAPI WorkRoutine(PVOID parameter)
{
    auto *probe = static_cast<WorkProbe *>(parameter);
    probe->irql = KeGetCurrentIrql();
    probe->threadId = PsGetCurrentThreadId();
    if (probe->waitFor != nullptr)
        KeWaitForSingleObject(probe->waitFor, Executive, KernelMode, FALSE, nullptr);
    if (probe->setWhenDone != nullptr)
        KeSetEvent(probe->setWhenDone, IO_NO_INCREMENT, FALSE);
    if (probe->raise) {
        KIRQL ignored;
        KeRaiseIrql(DISPATCH_LEVEL, &ignored);
    }
    probe->ran = true;
}

void Queue(WorkProbe *probe, WORK_QUEUE_TYPE type = DelayedWorkQueue)
{
    ExInitializeWorkItem(&probe->item, WorkRoutine, probe);
    ExQueueWorkItem(&probe->item, type);
}

TEST(WorkQueueTest, ItemQueuedAtDispatchLevelRunsAtPassiveOnAWorkerThread)
{
    WorkProbe probe;
    KIRQL old = KeRaiseIrqlToDpcLevel();
    Queue(&probe, CriticalWorkQueue);
    KeLowerIrql(old);
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_TRUE(probe.ran);
    EXPECT_EQ(PASSIVE_LEVEL, probe.irql);
    EXPECT_NE(PsGetCurrentThreadId(), probe.threadId);
}

TEST(WorkQueueTest, RoutineMayWaitForOneQueuedAfterIt)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    WorkProbe first, second;
    first.waitFor = &event;
    second.setWhenDone = &event;
    Queue(&first);
    Queue(&second);
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_TRUE(first.ran);
    EXPECT_TRUE(second.ran);
}

TEST(WorkQueueTest, IdleWaitTimesOutWhileARoutineRuns)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    WorkProbe blocked;
    blocked.waitFor = &event;
    Queue(&blocked);
    EXPECT_FALSE(HkWaitForWorkQueueIdle(20));
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(HkWaitForWorkQueueIdle(10000));
}

TEST(WorkQueueTest, RoutineReturningAtRaisedIrqlIsReportedAndTheWorkerRecovers)
{
    WorkProbe raising;
    raising.raise = true;
    {
        hktest::ExpectVerifierFinding finding("ended at IRQL 2");
        Queue(&raising);
        ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    }
    WorkProbe next;
    Queue(&next);
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_EQ(PASSIVE_LEVEL, next.irql);
}

TEST(WorkQueueTest, RuntimeWorkSharesTheQueue)
{
    std::atomic<int> runs{0};
    for (int i = 0; i < 10; ++i)
        hk::QueueSystemWork([](void *context) { ++*static_cast<std::atomic<int> *>(context); },
                            &runs);
    ASSERT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_EQ(10, runs);
}

} // namespace
