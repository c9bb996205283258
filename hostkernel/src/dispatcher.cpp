/*
 * Dispatcher objects: events, thread objects and the waits on them.
 *
 * The signal state word of an object is also the futex its single-object
 * waiters sleep on. Waiters count themselves in the header before they look
 * at the state and the signaller looks at the count after it changed the
 * state (both sequentially consistent), so a signal is never missed and a
 * signal nobody waits for costs one exchange and two loads.
 *
 * Waits on several objects sleep on one process-wide generation futex
 * instead; a signaller bumps it only when the object has such waiters.
 *
 * Drivers often wait on an event in their own stack frame and return as soon
 * as it is signalled, while the signalling thread may still be inside
 * KeSetEvent. Signallers therefore count themselves in the object for as long
 * as they touch it, and a waiter leaves only once that count is zero.
 */
#include "core_internal.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

// Bumped whenever an object with multi-object waiters is signalled.
volatile LONG gMultiWaitGeneration = 0;

constexpr UCHAR kEventSizeInLongs = sizeof(KEVENT) / sizeof(LONG);

/* Whether the header looks like an initialized event or thread object. */
bool IsWaitable(const DISPATCHER_HEADER *header)
{
    switch (header->Type) {
    case EventNotificationObject:
    case EventSynchronizationObject:
    case ThreadObject:
        return header->Size != 0;
    }
    return false;
}

/* Sets the signal state and wakes whoever may be waiting; returns the previous state.
 * The object is not touched once the signaller count drops back. */
LONG Signal(DISPATCHER_HEADER *header)
{
    __atomic_add_fetch(&header->HostWait.Signallers, 1, __ATOMIC_SEQ_CST);
    LONG previous = __atomic_exchange_n(&header->SignalState, 1, __ATOMIC_SEQ_CST);
    if (previous == 0) { // otherwise waiters already see it signalled
        if (__atomic_load_n(&header->HostWait.Waiters, __ATOMIC_SEQ_CST) > 0) {
            int count = header->Type == EventSynchronizationObject ? 1 : INT_MAX;
            hk::core::FutexWake(&header->SignalState, count);
        }
        if (__atomic_load_n(&header->HostWait.MultiWaiters, __ATOMIC_SEQ_CST) > 0) {
            __atomic_add_fetch(&gMultiWaitGeneration, 1, __ATOMIC_SEQ_CST);
            hk::core::FutexWake(&gMultiWaitGeneration, INT_MAX);
        }
    }
    __atomic_sub_fetch(&header->HostWait.Signallers, 1, __ATOMIC_RELEASE);
    return previous;
}

/* Waits until no thread is inside Signal on the object, so the caller may return (and
 * its owner free the object). */
void AwaitSignallers(const DISPATCHER_HEADER *header)
{
    unsigned round = 0;
    while (__atomic_load_n(&header->HostWait.Signallers, __ATOMIC_ACQUIRE) != 0)
        hk::core::SpinBackoff(&round);
}

/* Satisfies a wait on the object if it is signalled: a synchronization event is reset by
 * the waiter that gets it. */
bool TryAcquire(DISPATCHER_HEADER *header)
{
    if (header->Type == EventSynchronizationObject) {
        LONG expected = 1;
        return __atomic_compare_exchange_n(&header->SignalState, &expected, 0, false,
                                           __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    }
    return __atomic_load_n(&header->SignalState, __ATOMIC_SEQ_CST) != 0;
}

/* Checks the IRQL rules of a wait. Returns the deadline, turned into a poll when the
 * caller waits above the permitted level (reported; a real wait could hang the host). */
int64_t CheckedDeadline(const LARGE_INTEGER *timeout, const char *api)
{
    const bool poll = timeout != nullptr && timeout->QuadPart == 0;
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL || (!poll && irql > APC_LEVEL)) {
        hk::VerifierError("%s called at IRQL %u with %s; it requires IRQL <= %s", api, irql,
                          poll ? "a zero time-out" : "a non-zero time-out",
                          poll ? "DISPATCH_LEVEL" : "APC_LEVEL");
        return hk::core::MonotonicNowNs();
    }
    return hk::core::DeadlineFromTimeout(timeout);
}

/* Waits for one object until the deadline. */
NTSTATUS WaitOne(DISPATCHER_HEADER *header, int64_t deadline)
{
    if (TryAcquire(header)) {
        AwaitSignallers(header);
        return STATUS_SUCCESS;
    }
    if (deadline != hk::core::kForever && deadline <= hk::core::MonotonicNowNs())
        return STATUS_TIMEOUT;
    if (KeGetCurrentIrql() == PASSIVE_LEVEL)
        hk::FlushThreadFileWrites();
    __atomic_add_fetch(&header->HostWait.Waiters, 1, __ATOMIC_SEQ_CST);
    NTSTATUS status = STATUS_TIMEOUT;
    for (;;) {
        if (TryAcquire(header)) {
            status = STATUS_SUCCESS;
            break;
        }
        if (!hk::core::FutexWait(&header->SignalState, 0, deadline)) {
            if (TryAcquire(header))
                status = STATUS_SUCCESS;
            break;
        }
    }
    __atomic_sub_fetch(&header->HostWait.Waiters, 1, __ATOMIC_SEQ_CST);
    AwaitSignallers(header);
    return status;
}

/* Tries to satisfy a wait on several objects at once. Returns the status of a satisfied
 * wait, or STATUS_TIMEOUT when it cannot be satisfied now. */
NTSTATUS TryAcquireMany(ULONG count, DISPATCHER_HEADER *const *headers, WAIT_TYPE waitType)
{
    if (waitType == WaitAny) {
        for (ULONG i = 0; i < count; ++i) {
            if (TryAcquire(headers[i]))
                return STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
        }
        return STATUS_TIMEOUT;
    }
    for (ULONG i = 0; i < count; ++i) {
        if (__atomic_load_n(&headers[i]->SignalState, __ATOMIC_SEQ_CST) == 0)
            return STATUS_TIMEOUT;
    }
    // All signalled: take the synchronization events; give back what was taken when
    // another waiter got one of them first.
    for (ULONG i = 0; i < count; ++i) {
        if (!TryAcquire(headers[i])) {
            for (ULONG j = 0; j < i; ++j) {
                if (headers[j]->Type == EventSynchronizationObject)
                    Signal(headers[j]);
            }
            return STATUS_TIMEOUT;
        }
    }
    return STATUS_SUCCESS;
}

} // namespace

namespace hk {
namespace core {

/* Sleeps while *word == expected, until woken or the deadline. False on time-out. */
bool FutexWait(volatile LONG *word, LONG expected, int64_t deadlineNs)
{
    timespec relative;
    timespec *timeout = nullptr;
    if (deadlineNs != kForever) {
        int64_t left = deadlineNs - MonotonicNowNs();
        if (left <= 0)
            return false;
        relative.tv_sec = left / 1000000000;
        relative.tv_nsec = left % 1000000000;
        timeout = &relative;
    }
    long result = syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, timeout, nullptr, 0);
    return !(result == -1 && errno == ETIMEDOUT);
}

/* Wakes up to `count` threads sleeping on the word. */
void FutexWake(volatile LONG *word, int count)
{
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

/* Marks an ended thread's object signalled and wakes its waiters. */
void SignalThreadObject(DISPATCHER_HEADER *header)
{
    Signal(header);
}

} // namespace core
} // namespace hk

/* Initializes an event of the given type and state. Any IRQL. */
VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    DISPATCHER_HEADER *header = &Event->Header;
    header->Type = Type == SynchronizationEvent ? EventSynchronizationObject
                                                : EventNotificationObject;
    header->Signalling = 0;
    header->Size = kEventSizeInLongs;
    header->Reserved1 = 0;
    header->SignalState = State ? 1 : 0;
    header->HostWait.Waiters = 0;
    header->HostWait.MultiWaiters = 0;
    header->HostWait.Signallers = 0;
}

/* Signals the event and wakes its waiters; returns the previous state. IRQL <=
 * DISPATCH_LEVEL. */
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    UNREFERENCED_PARAMETER(Increment);
    UNREFERENCED_PARAMETER(Wait);
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    return Signal(&Event->Header);
}

/* Resets the event and returns the previous state. IRQL <= DISPATCH_LEVEL. */
LONG NTAPI KeResetEvent(PRKEVENT Event)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    return __atomic_exchange_n(&Event->Header.SignalState, 0, __ATOMIC_SEQ_CST);
}

/* Resets the event. Any IRQL. */
VOID NTAPI KeClearEvent(PRKEVENT Event)
{
    __atomic_store_n(&Event->Header.SignalState, 0, __ATOMIC_SEQ_CST);
}

/* The current state; once it reads signalled, no signaller is still inside the event (so
 * a poller may free it). Any IRQL. */
LONG NTAPI KeReadStateEvent(PRKEVENT Event)
{
    LONG state = __atomic_load_n(&Event->Header.SignalState, __ATOMIC_SEQ_CST);
    if (state != 0)
        AwaitSignallers(&Event->Header);
    return state;
}

/* Waits for an event or a thread object (see hk/sync.h for the time-out rules). */
NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                     KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                     PLARGE_INTEGER Timeout)
{
    UNREFERENCED_PARAMETER(WaitReason);
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    auto *header = static_cast<DISPATCHER_HEADER *>(Object);
    if (header == nullptr || !IsWaitable(header)) {
        hk::VerifierError("KeWaitForSingleObject on %p, which is not an initialized event or "
                          "thread object", Object);
        return STATUS_INVALID_PARAMETER;
    }
    const int64_t deadline = CheckedDeadline(Timeout, "KeWaitForSingleObject");
    return WaitOne(header, deadline);
}

/* Waits for any or all of up to MAXIMUM_WAIT_OBJECTS objects. */
NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                        KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                        BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                        PKWAIT_BLOCK WaitBlockArray)
{
    UNREFERENCED_PARAMETER(WaitReason);
    UNREFERENCED_PARAMETER(WaitMode);
    UNREFERENCED_PARAMETER(Alertable);
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS ||
        (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr) ||
        (WaitType != WaitAny && WaitType != WaitAll)) {
        hk::VerifierError("KeWaitForMultipleObjects: invalid arguments (%u objects, wait type "
                          "%d, wait blocks %p)", Count, static_cast<int>(WaitType),
                          static_cast<void *>(WaitBlockArray));
        return STATUS_INVALID_PARAMETER;
    }
    DISPATCHER_HEADER *headers[MAXIMUM_WAIT_OBJECTS];
    for (ULONG i = 0; i < Count; ++i) {
        headers[i] = static_cast<DISPATCHER_HEADER *>(Object[i]);
        if (headers[i] == nullptr || !IsWaitable(headers[i])) {
            hk::VerifierError("KeWaitForMultipleObjects: object %u (%p) is not an initialized "
                              "event or thread object", i, Object[i]);
            return STATUS_INVALID_PARAMETER;
        }
        for (ULONG j = 0; WaitType == WaitAll && j < i; ++j) {
            if (headers[j] == headers[i]) {
                hk::VerifierError("KeWaitForMultipleObjects: WaitAll names object %p twice",
                                  Object[i]);
                return STATUS_INVALID_PARAMETER;
            }
        }
    }
    const int64_t deadline = CheckedDeadline(Timeout, "KeWaitForMultipleObjects");
    if (KeGetCurrentIrql() == PASSIVE_LEVEL && (Timeout == nullptr || Timeout->QuadPart != 0))
        hk::FlushThreadFileWrites();

    for (ULONG i = 0; i < Count; ++i)
        __atomic_add_fetch(&headers[i]->HostWait.MultiWaiters, 1, __ATOMIC_SEQ_CST);
    NTSTATUS status;
    for (;;) {
        LONG generation = __atomic_load_n(&gMultiWaitGeneration, __ATOMIC_SEQ_CST);
        status = TryAcquireMany(Count, headers, WaitType);
        if (status != STATUS_TIMEOUT)
            break;
        if (!hk::core::FutexWait(&gMultiWaitGeneration, generation, deadline)) {
            status = TryAcquireMany(Count, headers, WaitType);
            break;
        }
    }
    for (ULONG i = 0; i < Count; ++i) {
        __atomic_sub_fetch(&headers[i]->HostWait.MultiWaiters, 1, __ATOMIC_SEQ_CST);
        AwaitSignallers(headers[i]);
    }
    return status;
}
