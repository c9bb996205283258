/*
 * Host kernel runtime, core area: what the verifier, IRQL, lock, dispatcher,
 * pool, thread, time and registry files offer each other. Not seen by
 * drivers, tests or the other runtime areas (they use internal.h).
 */
#pragma once
#include "internal.h"

#include <hk/host_core.h>

#include <stdint.h>

namespace hk {
namespace core {

// ======================================================================
// Fatal errors (verifier.cpp)
// ======================================================================

// Bugcheck codes the runtime raises.
enum : ULONG {
    kIrqlNotLessOrEqual = 0x0A,
    kSpinLockAlreadyOwned = 0x0F,
    kSpinLockNotOwned = 0x10,
    kSystemThreadExceptionNotHandled = 0x7E,
};

// Prints "*** BUGCHECK 0x0000000F (NAME): <text>" to stderr and aborts the process.
[[noreturn]] void BugCheck(ULONG code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ======================================================================
// Per-thread state (irql.cpp)
// ======================================================================

// The maximum number of distinct read-write locks one thread can hold for reading.
constexpr int kMaxReadHolds = 32;

struct ReadHold {
    const void *lock; // the NDIS_RW_LOCK
    unsigned count;   // recursive acquisitions by this thread
};

// Trivially constructible, so it lives in thread-local storage without an
// initialization guard. Its address identifies the thread in lock words.
struct ThreadState {
    KIRQL irql;
    int locksHeld;  // spin locks and read-write locks currently held
    int readHoldCount;
    ReadHold readHolds[kMaxReadHolds];
    void *record;   // the thread's record (threads.cpp), created on first use
    unsigned rwSlot; // 1 + the reader slot of NDIS read-write locks, 0 until assigned
};

extern thread_local ThreadState tThread;

// A nonzero value unique to the calling thread while it lives.
inline ULONG_PTR CurrentOwnerTag()
{
    return reinterpret_cast<ULONG_PTR>(&tThread);
}

// Sets the IRQL without checks (runtime threads resetting themselves).
inline void SetIrqlUnchecked(KIRQL irql)
{
    tThread.irql = irql;
}

// Reports a verifier error naming `api` when the IRQL is not exactly `irql`.
void RequireIrqlExactly(KIRQL irql, const char *api);

// ======================================================================
// Spin lock words (spinlock.cpp): the owner tag of the holder, or 0
// ======================================================================

// Spins (pause, then yield) until the word goes from 0 to the caller's tag.
void SpinAcquireWord(volatile ULONG_PTR *word);
// Whether the calling thread holds the word.
inline bool SpinHeldByCaller(const volatile ULONG_PTR *word)
{
    return __atomic_load_n(word, __ATOMIC_RELAXED) == CurrentOwnerTag();
}
// Spins with backoff: call in a loop while waiting for another thread.
void SpinBackoff(unsigned *round);

// ======================================================================
// Futex waits (dispatcher.cpp) and time (time.cpp)
// ======================================================================

// A monotonic deadline in nanoseconds; kForever for no time-out.
constexpr int64_t kForever = INT64_MAX;
int64_t MonotonicNowNs();
// The monotonic deadline a kernel time-out value gives (NULL = kForever, negative =
// relative 100 ns units, positive = absolute system time, 0 = now).
int64_t DeadlineFromTimeout(const LARGE_INTEGER *timeout);
// Blocks while *word == expected, until woken or the deadline. Returns false on time-out.
bool FutexWait(volatile LONG *word, LONG expected, int64_t deadlineNs);
void FutexWake(volatile LONG *word, int count);
// System time now, in 100 ns units since 1601.
LONGLONG SystemTimeNow();

// ======================================================================
// Dispatcher objects (dispatcher.cpp)
// ======================================================================

// Signals a thread object whose thread has ended (wakes every waiter).
void SignalThreadObject(DISPATCHER_HEADER *header);

// ======================================================================
// Threads (threads.cpp)
// ======================================================================

// Checks a runtime thread returning to its idle state (end of a work routine or a
// system thread): reports IRQL above PASSIVE_LEVEL and held locks naming `where`,
// then resets both.
void CheckThreadIsClean(const char *where);

// Starts a detached host thread named `name` running routine(context); false when the
// host cannot start one.
bool StartRuntimeThread(void *(*routine)(void *), void *context, const char *name);

// ======================================================================
// UTF-16 helpers (rtl.cpp)
// ======================================================================

// Length in WCHARs of a NUL-terminated string.
size_t WideLength(PCWSTR s);
// Upper-case form used for case-insensitive comparisons (ASCII and Latin-1).
WCHAR UpcaseChar(WCHAR c);

} // namespace core

// Writes the drive-file caches the calling thread wrote to through to the host
// files (drive_files.cpp): when a thread blocks, finishes a work item or ends.
void FlushThreadFileWrites();

} // namespace hk
