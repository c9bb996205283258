/*
 * Time, delays and processors.
 *
 * System time comes from the real-time clock, converted to Windows units
 * (100 ns since 1601-01-01 UTC). Interrupt time, tick count and the
 * performance counter come from the monotonic clock. Time-outs are turned
 * into monotonic deadlines so that waits are not disturbed by clock changes.
 */
#include "core_internal.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

namespace {

// 100 ns units between 1601-01-01 and 1970-01-01.
constexpr LONGLONG kUnixEpochIn100ns = 116444736000000000LL;
// Windows' default clock tick: 15.625 ms in 100 ns units.
constexpr ULONG kTimeIncrement = 156250;
// The performance counter counts 100 ns units.
constexpr LONGLONG kPerformanceFrequency = 10000000;

/* A host clock in nanoseconds. */
int64_t ClockNs(clockid_t clock)
{
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

} // namespace

namespace hk {
namespace core {

/* Monotonic clock in nanoseconds. Any IRQL. */
int64_t MonotonicNowNs()
{
    return ClockNs(CLOCK_MONOTONIC);
}

/* System time now in 100 ns units since 1601. Any IRQL. */
LONGLONG SystemTimeNow()
{
    return ClockNs(CLOCK_REALTIME) / 100 + kUnixEpochIn100ns;
}

/* The monotonic deadline of a kernel time-out (NULL = kForever, negative = relative 100 ns
 * units, positive = absolute system time, zero = now). */
int64_t DeadlineFromTimeout(const LARGE_INTEGER *timeout)
{
    if (timeout == nullptr)
        return kForever;
    const int64_t now = MonotonicNowNs();
    LONGLONG relative100ns = timeout->QuadPart < 0 ? -timeout->QuadPart
                                                   : timeout->QuadPart - SystemTimeNow();
    if (timeout->QuadPart == 0 || relative100ns <= 0)
        return now;
    if (relative100ns > (kForever - now) / 100)
        return kForever;
    return now + relative100ns * 100;
}

} // namespace core
} // namespace hk

/* The system time. Any IRQL. */
VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = hk::core::SystemTimeNow();
}

/* 100 ns units per clock tick. Any IRQL. */
ULONG NTAPI KeQueryTimeIncrement(VOID)
{
    return kTimeIncrement;
}

/* 100 ns units since start-up. Any IRQL. */
ULONGLONG NTAPI KeQueryInterruptTime(VOID)
{
    return static_cast<ULONGLONG>(hk::core::MonotonicNowNs() / 100);
}

/* Clock ticks since start-up. Any IRQL. */
VOID NTAPI KeQueryTickCount(PLARGE_INTEGER TickCount)
{
    TickCount->QuadPart = static_cast<LONGLONG>(KeQueryInterruptTime() / kTimeIncrement);
}

/* The performance counter (100 ns resolution) and its frequency. Any IRQL. */
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    if (PerformanceFrequency != nullptr)
        PerformanceFrequency->QuadPart = kPerformanceFrequency;
    LARGE_INTEGER counter;
    counter.QuadPart = hk::core::MonotonicNowNs() / 100;
    return counter;
}

/* Sleeps until the interval has passed; a zero interval gives up the processor.
 * IRQL <= APC_LEVEL. */
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval)
{
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    hk::RequireIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread");
    if (Interval == nullptr) {
        hk::VerifierError("KeDelayExecutionThread called without an interval");
        return STATUS_INVALID_PARAMETER;
    }
    const int64_t deadline = hk::core::DeadlineFromTimeout(Interval);
    if (deadline == hk::core::kForever) {
        hk::VerifierError("KeDelayExecutionThread: interval too long to wait for");
        return STATUS_INVALID_PARAMETER;
    }
    if (deadline <= hk::core::MonotonicNowNs()) {
        sched_yield();
        return STATUS_SUCCESS;
    }
    if (KeGetCurrentIrql() == PASSIVE_LEVEL)
        hk::FlushThreadFileWrites();
    timespec until;
    until.tv_sec = deadline / 1000000000;
    until.tv_nsec = deadline % 1000000000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
        // interrupted by a signal: sleep on to the same deadline
    }
    return STATUS_SUCCESS;
}

/* Busy-waits MicroSeconds without giving up the processor. Any IRQL. */
VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds)
{
    const int64_t until = hk::core::MonotonicNowNs() + static_cast<int64_t>(MicroSeconds) * 1000;
    while (hk::core::MonotonicNowNs() < until)
        __builtin_ia32_pause();
}

/* The processor the caller runs on now. Any IRQL. */
ULONG NTAPI KeGetCurrentProcessorNumber(VOID)
{
    int cpu = sched_getcpu();
    return cpu < 0 ? 0 : static_cast<ULONG>(cpu);
}

/* Number of online processors (at most 64) and their mask. Any IRQL. */
ULONG NTAPI KeQueryActiveProcessorCount(PKAFFINITY ActiveProcessors)
{
    long online = sysconf(_SC_NPROCESSORS_ONLN);
    ULONG count = online < 1 ? 1 : online > 64 ? 64 : static_cast<ULONG>(online);
    if (ActiveProcessors != nullptr)
        *ActiveProcessors = count == 64 ? ~0ULL : ((1ULL << count) - 1);
    return count;
}
