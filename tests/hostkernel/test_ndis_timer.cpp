// NDIS timers: routines run once (or periodically) at DISPATCH_LEVEL on the
// runtime's timer thread; cancelling reports whether the timer was queued.
#include <ndis.h>
#include <hostkernel.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using hktest::ExpectVerifierFinding;
using hktest::WaitUntil;

constexpr UINT kFarAway = 60 * 1000; // ms: never reached while a test runs

// What a routine saw; a routine may be held inside until released.
struct Observed {
    std::atomic<int> runs{0};
    std::atomic<int> irql{-1};
    std::atomic<PVOID> systemSpecific1{nullptr};
    std::atomic<PVOID> context{nullptr};
    std::atomic<std::thread::id> thread{};
    std::atomic<bool> hold{false};
    std::atomic<bool> inside{false};
};

VOID NTAPI Record(PVOID systemSpecific1, PVOID functionContext, PVOID, PVOID)
{
    Observed *observed = static_cast<Observed *>(functionContext);
    observed->irql = KeGetCurrentIrql();
    observed->systemSpecific1 = systemSpecific1;
    observed->context = functionContext;
    observed->thread = std::this_thread::get_id();
    observed->inside = true;
    while (observed->hold)
        std::this_thread::yield();
    observed->runs++;
    observed->inside = false;
}

// The timer and what its routine saw outlive each test: a routine that was
// already taken off the queue when the test ended still finds them.
NDIS_TIMER gTimer;
Observed gObserved;

class NdisTimerTest : public testing::Test {
protected:
    void SetUp() override
    {
        observed.runs = 0;
        observed.irql = -1;
        observed.systemSpecific1 = nullptr;
        observed.context = nullptr;
        observed.hold = false;
        NdisInitializeTimer(&timer, Record, &observed);
    }
    void TearDown() override
    {
        BOOLEAN cancelled;
        NdisCancelTimer(&timer, &cancelled);
        observed.hold = false;
        EXPECT_TRUE(WaitUntil([&] { return !observed.inside; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    NDIS_TIMER &timer = gTimer;
    Observed &observed = gObserved;
};

TEST_F(NdisTimerTest, TheRoutineRunsOnceAtDispatchLevelOnAnotherThread)
{
    NdisSetTimer(&timer, 1);
    ASSERT_TRUE(WaitUntil([&] { return observed.runs == 1; }));
    EXPECT_EQ(DISPATCH_LEVEL, observed.irql);
    EXPECT_EQ(&timer, observed.systemSpecific1);
    EXPECT_EQ(&observed, observed.context);
    EXPECT_NE(std::this_thread::get_id(), observed.thread.load());

    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, observed.runs);
    BOOLEAN cancelled = TRUE;
    NdisCancelTimer(&timer, &cancelled);
    EXPECT_FALSE(cancelled); // it has fired
}

TEST_F(NdisTimerTest, CancellingAQueuedTimerReportsItAndTheRoutineNeverRuns)
{
    NdisSetTimer(&timer, kFarAway);
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&timer, &cancelled);
    EXPECT_TRUE(cancelled);
    NdisCancelTimer(&timer, &cancelled);
    EXPECT_FALSE(cancelled);
    EXPECT_EQ(0, observed.runs);
}

TEST_F(NdisTimerTest, SettingAQueuedTimerAgainMovesItsDueTime)
{
    NdisSetTimer(&timer, kFarAway);
    NdisSetTimer(&timer, 1);
    EXPECT_TRUE(WaitUntil([&] { return observed.runs == 1; }));

    NdisSetTimer(&timer, 200);
    NdisSetTimer(&timer, kFarAway);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(1, observed.runs);
}

TEST_F(NdisTimerTest, APeriodicTimerRunsUntilCancelledAndStaysQueuedBetweenRuns)
{
    NdisSetPeriodicTimer(&timer, 2);
    ASSERT_TRUE(WaitUntil([&] { return observed.runs >= 3; }));
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&timer, &cancelled);
    EXPECT_TRUE(cancelled);
    // A run already taken off the queue may still finish; after that, no more.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(WaitUntil([&] { return !observed.inside; }));
    int runs = observed.runs;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(runs, observed.runs);
}

TEST_F(NdisTimerTest, CancelDoesNotWaitForARoutineThatIsRunning)
{
    observed.hold = true;
    NdisSetTimer(&timer, 1);
    ASSERT_TRUE(WaitUntil([&] { return observed.inside.load(); }));
    BOOLEAN cancelled = TRUE;
    NdisCancelTimer(&timer, &cancelled); // returns although the routine is still inside
    EXPECT_FALSE(cancelled);
    EXPECT_TRUE(observed.inside);

    // KeFlushQueuedDpcs does wait for it.
    std::atomic<bool> flushed{false};
    std::thread flusher([&] {
        KeFlushQueuedDpcs();
        flushed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(flushed);
    observed.hold = false;
    flusher.join();
    EXPECT_EQ(1, observed.runs);
}

// A routine that sets its own timer again until it has run three times.
VOID NTAPI Rearm(PVOID systemSpecific1, PVOID functionContext, PVOID, PVOID)
{
    std::atomic<int> *runs = static_cast<std::atomic<int> *>(functionContext);
    if (++*runs < 3)
        NdisSetTimer(static_cast<PNDIS_TIMER>(systemSpecific1), 1);
}

TEST(NdisTimer, ARoutineMaySetItsOwnTimerAgain)
{
    std::atomic<int> runs{0};
    NDIS_TIMER timer;
    NdisInitializeTimer(&timer, Rearm, &runs);
    NdisSetTimer(&timer, 1);
    EXPECT_TRUE(WaitUntil([&] { return runs == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(3, runs);
}

TEST(NdisTimer, SettingATimerThatWasNeverInitializedIsReported)
{
    NDIS_TIMER timer = {};
    ExpectVerifierFinding finding("not initialized with NdisInitializeTimer", 2);
    NdisSetTimer(&timer, 1);
    BOOLEAN cancelled = TRUE;
    NdisCancelTimer(&timer, &cancelled);
    EXPECT_FALSE(cancelled);
}

} // namespace
