/* Timers of client drivers: expiry, repetition, stopping, freeing, ownership and deregistration. */
#include "registry.h"

#include "hk_test_support.h"

#include <atomic>
#include <chrono>
#include <thread>

using hktest::WaitUntil;

#include <sys/mman.h>
#include <unistd.h>

namespace {

/* A page that faults when read: the fault the handlers below take on purpose. */
const int *UnreadablePage()
{
    static void *page = mmap(nullptr, sysconf(_SC_PAGESIZE), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return (const int *)page;
}

const ULONG TimerPoolTag = nftest::PoolTag("NfSA");

/* What a timer's callback saw; the callback may be held inside until released. */
struct Observed {
    std::atomic<int> runs{0};
    std::atomic<int> inside{0};
    std::atomic<bool> hold{false};
    std::atomic<int> irql{-1};
    std::atomic<bool> otherThread{false};
    PFilterDriver driver = nullptr;
    PVOID driverContext = nullptr;
    PFilterTimer timer = nullptr;
    std::thread::id caller = std::this_thread::get_id();
};

BOOLEAN NTAPI Record(PFilterDriver Driver, PVOID DriverContext, PFilterTimer Timer, PVOID TimerContext)
{
    Observed *observed = (Observed *)TimerContext;
    observed->inside++;
    observed->irql = KeGetCurrentIrql();
    observed->otherThread = std::this_thread::get_id() != observed->caller;
    observed->driver = Driver;
    observed->driverContext = DriverContext;
    observed->timer = Timer;
    while (observed->hold)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    observed->runs++;
    observed->inside--;
    return TRUE;
}

BOOLEAN NTAPI Fault(PFilterDriver, PVOID, PFilterTimer, PVOID TimerContext)
{
    ((Observed *)TimerContext)->runs++;
    (void)*(volatile const int *)UnreadablePage();
    return TRUE;
}

class Timers : public nftest::Registries {
protected:
    PFilterTimer Make(PFilterDriver driver, Observed *observed, BOOLEAN repeat, PFILTER_TIMER_PROC proc = Record)
    {
        PFilterTimer timer = nullptr;
        EXPECT_EQ(Filter_InitializeTimer(driver, proc, observed, repeat, &timer), FILTER_STATUS_SUCCESS);
        return timer;
    }

    /*
     * Runs stay where they are for a while: nothing is armed any more. The
     * callbacks already queued for a live `timer` run first; those of an
     * ended one are dropped.
     */
    static void ExpectNoMoreRuns(const Observed &observed, PFilterTimer timer = nullptr)
    {
        if (timer != nullptr) {
            EXPECT_TRUE(WaitUntil([&] { return timer->m_nPending == 0; }));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(WaitUntil([&] { return observed.inside == 0; }));
        int runs = observed.runs;
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        EXPECT_EQ(runs, observed.runs);
    }
};

TEST_F(Timers, AOneShotTimerFiresOnceAtPassiveLevelOnAWorkerWithItsArguments)
{
    int context = 0;
    PFilterDriver driver = RegisterDriver("timed", &context);
    Observed observed;
    PFilterTimer timer = Make(driver, &observed, FALSE);
    ASSERT_NE(timer, nullptr);
    EXPECT_TRUE(Filter_IsValidTimer(timer));
    EXPECT_EQ(g_pGlobal->m_FilterTimerList.Flink, &timer->m_ListEntry);

    ASSERT_EQ(Filter_StartTimer(timer, 1), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return observed.runs == 1; }));
    EXPECT_EQ(observed.irql, PASSIVE_LEVEL);
    EXPECT_TRUE(observed.otherThread);
    EXPECT_EQ(observed.driver, driver);
    EXPECT_EQ(observed.driverContext, &context);
    EXPECT_EQ(observed.timer, timer);
    EXPECT_EQ(timer->m_MsToDelay, 1u);
    ExpectNoMoreRuns(observed);
    EXPECT_EQ(observed.runs, 1);

    /* Started again, it fires again. */
    ASSERT_EQ(Filter_StartTimer(timer, 0), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return observed.runs == 2; }));
    EXPECT_EQ(Filter_FreeTimer(driver, timer), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(WaitUntil([] { return HkPoolLiveAllocationCountWithTag(TimerPoolTag) == 0; }));
}

TEST_F(Timers, BadArgumentsAreRefusedAndAFaultingCallbackIsReportedAndCountedAsDone)
{
    PFilterDriver driver = RegisterDriver("checked");
    PFilterTimer timer = nullptr;
    EXPECT_EQ(Filter_InitializeTimer(driver, nullptr, nullptr, FALSE, &timer), FILTER_ERROR_INVALID_ARGUMENT);
    ULONG notADriver[8] = {};
    EXPECT_EQ(Filter_InitializeTimer((PFilterDriver)notADriver, Record, nullptr, FALSE, &timer),
              FILTER_ERROR_INVALID_DRIVER_HANDLE);
    HkPoolFailAllocations(TimerPoolTag, 1);
    EXPECT_EQ(Filter_InitializeTimer(driver, Record, nullptr, FALSE, &timer), FILTER_STATUS_SUCCESS);
    HkPoolClearFailures();
    EXPECT_EQ(timer, nullptr);
    EXPECT_EQ(Filter_StartTimer(nullptr, 1), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_StopTimer((PFilterTimer)notADriver), FILTER_ERROR_INVALID_TIMER_HANDLE);

    Observed observed;
    timer = Make(driver, &observed, FALSE, Fault);
    ASSERT_EQ(Filter_StartTimer(timer, 1), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return observed.runs == 1; }));
    EXPECT_EQ(Filter_FreeTimer(driver, timer), FILTER_STATUS_SUCCESS);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "Filter_TimerWorkRoutine: exception, code = -1073741819"), 0);
}

TEST_F(Timers, ARepeatingTimerReArmsAlsoWithZeroMsUntilStoppedAndRepeatsWhenStartedAgain)
{
    PFilterDriver driver = RegisterDriver("repeating");
    Observed observed;
    PFilterTimer timer = Make(driver, &observed, TRUE);
    ASSERT_EQ(Filter_StartTimer(timer, 0), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return observed.runs >= 5; }));
    EXPECT_EQ(Filter_StopTimer(timer), FILTER_STATUS_SUCCESS);
    ExpectNoMoreRuns(observed, timer);

    int before = observed.runs;
    ASSERT_EQ(Filter_StartTimer(timer, 2), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return observed.runs >= before + 3; }));
    EXPECT_EQ(Filter_FreeTimer(driver, timer), FILTER_STATUS_SUCCESS);
    ExpectNoMoreRuns(observed);
}

TEST_F(Timers, StoppingBeforeExpiryPreventsTheCallback)
{
    PFilterDriver driver = RegisterDriver("stopped");
    Observed observed;
    PFilterTimer once = Make(driver, &observed, FALSE);
    PFilterTimer repeating = Make(driver, &observed, TRUE);
    ASSERT_EQ(Filter_StartTimer(once, 80), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_StartTimer(repeating, 80), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_StopTimer(once), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_StopTimer(repeating), FILTER_STATUS_SUCCESS);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(observed.runs, 0);
    EXPECT_EQ(Filter_FreeTimer(driver, once), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_FreeTimer(driver, repeating), FILTER_STATUS_SUCCESS);
}

TEST_F(Timers, FreeWaitsForACallbackInFlight)
{
    PFilterDriver driver = RegisterDriver("waited");
    Observed observed;
    observed.hold = true;
    PFilterTimer timer = Make(driver, &observed, FALSE);
    ASSERT_EQ(Filter_StartTimer(timer, 1), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return observed.inside == 1; }));

    HkDebugClearCapture();
    std::atomic<bool> freed{false};
    std::thread freer([&] {
        EXPECT_EQ(Filter_FreeTimer(driver, timer), FILTER_STATUS_SUCCESS);
        freed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(freed);
    observed.hold = false;
    freer.join();
    EXPECT_EQ(observed.runs, 1);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Filter_FreeTimer: wait 1 pending timer callback to completed"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Filter_FreeTimer: pending timer callback has completed"), 0);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(TimerPoolTag), 0u);
}

TEST_F(Timers, AnotherDriversHandleIsRefusedAndTheTimerRunsOnAndASecondFreeIsRefused)
{
    PFilterDriver owner = RegisterDriver("owner");
    PFilterDriver other = RegisterDriver("other");
    Observed observed;
    PFilterTimer timer = Make(owner, &observed, TRUE);
    ASSERT_EQ(Filter_StartTimer(timer, 1), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_FreeTimer(other, timer), FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER);
    int runs = observed.runs;
    EXPECT_TRUE(WaitUntil([&] { return observed.runs >= runs + 3; }));

    EXPECT_EQ(Filter_FreeTimer(owner, timer), FILTER_STATUS_SUCCESS);
    /* The freed record's tag is cleared, so the handle fails its check before the list is searched. */
    EXPECT_EQ(Filter_FreeTimer(owner, timer), FILTER_ERROR_INVALID_TIMER_HANDLE);
    EXPECT_EQ(Filter_StartTimer(timer, 1), FILTER_ERROR_INVALID_TIMER_HANDLE);

    /* A listed record whose tag is right but which is not this driver's list entry: not found. */
    FilterTimer copy;
    RtlZeroMemory(&copy, sizeof(copy));
    copy.m_Tag = FILTER_TIMER_TAG;
    EXPECT_EQ(Filter_FreeTimer(owner, &copy), FILTER_ERROR_TIMER_HANDLER_NOT_FOUND);
    ExpectNoMoreRuns(observed);
}

TEST_F(Timers, DeregistrationEndsTheDriversTimersAndNoneFiresAfterwards)
{
    PFilterDriver leaving = RegisterDriver("leaving");
    PFilterDriver staying = RegisterDriver("staying");
    /* The staying timer runs until teardown, after this frame is gone. */
    static Observed gone, kept;
    PFilterTimer first = Make(leaving, &gone, TRUE);
    PFilterTimer second = Make(leaving, &gone, TRUE);
    PFilterTimer third = Make(staying, &kept, TRUE);
    for (PFilterTimer timer : {first, second, third})
        ASSERT_EQ(Filter_StartTimer(timer, 0), FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return gone.runs >= 4 && kept.runs >= 2; }));

    ASSERT_EQ(Filter_DeregisterDriver(leaving), FILTER_STATUS_SUCCESS);
    ExpectNoMoreRuns(gone);
    EXPECT_EQ(g_pGlobal->m_FilterTimerList.Flink, &third->m_ListEntry);
    EXPECT_EQ(g_pGlobal->m_FilterTimerList.Flink->Flink, &g_pGlobal->m_FilterTimerList);
    int runs = kept.runs;
    EXPECT_TRUE(WaitUntil([&] { return kept.runs >= runs + 3; }));
    /* The staying driver's timer is still running: teardown ends it. */
}

} // namespace
