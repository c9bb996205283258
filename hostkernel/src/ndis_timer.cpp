// Host kernel runtime: NDIS timers.
//
// Set timers wait in one queue served by a runtime thread, started with the
// first timer. When a timer is due the thread takes it out of the queue (a
// periodic one goes back in for its next period first), then runs the routine
// at DISPATCH_LEVEL outside the queue's lock, so a routine may set or cancel
// timers, its own included. Routines run one at a time. A routine taken off
// the queue runs even when its timer is cancelled meanwhile, as a DPC that is
// already queued does; KeFlushQueuedDpcs waits for such routines.
#include "internal.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace hk {
namespace {

using Clock = std::chrono::steady_clock;

constexpr ULONG kTimerSignature = 0x524D5444; // "DTMR"

struct Armed {
    Clock::time_point due;
    std::chrono::milliseconds period; // zero for a one-shot timer
};

struct TimerQueue {
    std::mutex lock;
    std::condition_variable changed; // a timer was set: the earliest due time may be sooner
    std::unordered_map<PNDIS_TIMER, Armed> armed;
    bool serving = false; // the timer thread has been started
    unsigned long long taken = 0;    // routines taken off the queue
    unsigned long long finished = 0; // routines that have returned
    std::condition_variable ran;     // `finished` went up
};

// Never destroyed: the timer thread runs until the process ends.
TimerQueue &Queue()
{
    static TimerQueue *queue = new TimerQueue;
    return *queue;
}

// Runs one routine the way a DPC runs: at DISPATCH_LEVEL, which it must
// return at.
void RunRoutine(PNDIS_TIMER timer, PNDIS_TIMER_FUNCTION routine, PVOID context)
{
    KIRQL previous;
    KeRaiseIrql(DISPATCH_LEVEL, &previous);
    routine(timer, context, nullptr, nullptr);
    KIRQL after = KeGetCurrentIrql();
    if (after != DISPATCH_LEVEL)
        VerifierError("NDIS timer routine %p returned at IRQL %u instead of DISPATCH_LEVEL",
                      reinterpret_cast<void *>(routine), static_cast<unsigned>(after));
    KeLowerIrql(PASSIVE_LEVEL);
}

// The timer thread: waits for the earliest due timer and runs it, forever.
void ServeTimers()
{
    TimerQueue &queue = Queue();
    std::unique_lock<std::mutex> lock(queue.lock);
    for (;;) {
        if (queue.armed.empty()) {
            queue.changed.wait(lock);
            continue;
        }
        auto next = queue.armed.begin();
        for (auto it = queue.armed.begin(); it != queue.armed.end(); ++it)
            if (it->second.due < next->second.due)
                next = it;
        const Clock::time_point due = next->second.due; // the entry may go while waiting
        if (Clock::now() < due) {
            queue.changed.wait_until(lock, due);
            continue;
        }
        PNDIS_TIMER timer = next->first;
        PNDIS_TIMER_FUNCTION routine = timer->TimerFunction;
        PVOID context = timer->FunctionContext;
        if (next->second.period.count() > 0)
            next->second.due += next->second.period;
        else
            queue.armed.erase(next);
        ++queue.taken;
        lock.unlock();
        RunRoutine(timer, routine, context);
        lock.lock();
        ++queue.finished;
        queue.ran.notify_all();
    }
}

// Whether NdisInitializeTimer prepared the record; reports it otherwise.
bool RequireInitialized(PNDIS_TIMER timer, const char *api)
{
    if (timer != nullptr && timer->Signature == kTimerSignature)
        return true;
    VerifierError("%s(%p): the timer was not initialized with NdisInitializeTimer", api,
                  static_cast<void *>(timer));
    return false;
}

// Queues (or moves) a timer; starts the timer thread on first use.
void Arm(PNDIS_TIMER timer, UINT delayMs, UINT periodMs)
{
    TimerQueue &queue = Queue();
    std::lock_guard<std::mutex> guard(queue.lock);
    queue.armed[timer] = Armed{Clock::now() + std::chrono::milliseconds(delayMs),
                               std::chrono::milliseconds(periodMs)};
    if (!queue.serving) {
        std::thread(ServeTimers).detach();
        queue.serving = true;
    }
    queue.changed.notify_one();
}

} // namespace
} // namespace hk

using namespace hk;

extern "C" {

// Prepares a timer that is not set. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisInitializeTimer(PNDIS_TIMER Timer, PNDIS_TIMER_FUNCTION TimerFunction,
                               PVOID FunctionContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NdisInitializeTimer");
    if (Timer == nullptr || TimerFunction == nullptr) {
        VerifierError("NdisInitializeTimer: NULL timer or routine");
        return;
    }
    {
        TimerQueue &queue = Queue();
        std::lock_guard<std::mutex> guard(queue.lock);
        if (queue.armed.erase(Timer) != 0)
            VerifierError("NdisInitializeTimer(%p): the timer is set (cancel it first)",
                          static_cast<void *>(Timer));
    }
    RtlZeroMemory(Timer, sizeof(*Timer));
    Timer->TimerFunction = TimerFunction;
    Timer->FunctionContext = FunctionContext;
    Timer->Signature = kTimerSignature;
}

// Runs the routine once, MillisecondsToDelay from now. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisSetTimer");
    if (RequireInitialized(Timer, "NdisSetTimer"))
        Arm(Timer, MillisecondsToDelay, 0);
}

// As NdisSetTimer with a new routine context. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisSetTimerEx(PNDIS_TIMER Timer, UINT MillisecondsToDelay, PVOID FunctionContext)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisSetTimerEx");
    if (!RequireInitialized(Timer, "NdisSetTimerEx"))
        return;
    {
        TimerQueue &queue = Queue();
        std::lock_guard<std::mutex> guard(queue.lock);
        Timer->FunctionContext = FunctionContext;
    }
    Arm(Timer, MillisecondsToDelay, 0);
}

// Runs the routine every MillisecondsPeriod until cancelled. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisSetPeriodicTimer(PNDIS_TIMER Timer, UINT MillisecondsPeriod)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisSetPeriodicTimer");
    if (!RequireInitialized(Timer, "NdisSetPeriodicTimer"))
        return;
    if (MillisecondsPeriod == 0) {
        VerifierError("NdisSetPeriodicTimer(%p): a period of 0 ms", static_cast<void *>(Timer));
        return;
    }
    Arm(Timer, MillisecondsPeriod, MillisecondsPeriod);
}

// Waits for every routine taken off the queue before the call. IRQL == PASSIVE_LEVEL.
VOID NTAPI KeFlushQueuedDpcs(VOID)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "KeFlushQueuedDpcs");
    TimerQueue &queue = Queue();
    std::unique_lock<std::mutex> lock(queue.lock);
    const unsigned long long target = queue.taken;
    queue.ran.wait(lock, [&] { return queue.finished >= target; });
}

// Takes the timer out of the queue; *TimerCancelled tells whether it was
// there. Does not wait for a running routine. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisCancelTimer");
    BOOLEAN cancelled = FALSE;
    if (RequireInitialized(Timer, "NdisCancelTimer")) {
        TimerQueue &queue = Queue();
        std::lock_guard<std::mutex> guard(queue.lock);
        cancelled = queue.armed.erase(Timer) != 0 ? TRUE : FALSE;
    }
    if (TimerCancelled != nullptr)
        *TimerCancelled = cancelled;
}

} // extern "C"
