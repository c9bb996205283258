/*
 * Executive spin locks.
 *
 * A KSPIN_LOCK holds 0 when free and the owner's tag (see CurrentOwnerTag)
 * when held, so the runtime can tell who holds it: taking a lock one already
 * holds bugchecks (it would hang on Windows), and releasing a lock one does
 * not hold is reported. Host threads can be preempted while they hold a
 * lock, so waiters spin briefly and then yield the processor.
 */
#include "core_internal.h"

#include <sched.h>
#include <time.h>

namespace hk {
namespace core {

/* One step of a wait for another thread: pause a growing number of times, then yield,
 * and once the other thread has clearly lost its processor, nap briefly so it gets one
 * even on an oversubscribed host. `round` counts the steps taken. Any IRQL. */
void SpinBackoff(unsigned *round)
{
    if (*round < 10) {
        for (unsigned i = 0; i < (1u << *round); ++i)
            __builtin_ia32_pause();
    } else if (*round < 60) {
        sched_yield();
    } else {
        const timespec nap = {0, 50000};
        nanosleep(&nap, nullptr);
    }
    ++*round;
}

/* Takes the lock word for the calling thread, waiting while another thread holds it. */
void SpinAcquireWord(volatile ULONG_PTR *word)
{
    const ULONG_PTR me = CurrentOwnerTag();
    unsigned round = 0;
    for (;;) {
        ULONG_PTR expected = 0;
        if (__atomic_load_n(word, __ATOMIC_RELAXED) == 0 &&
            __atomic_compare_exchange_n(word, &expected, me, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
            return;
        SpinBackoff(&round);
    }
}

} // namespace core
} // namespace hk

namespace {

using hk::core::tThread;

/* Takes a spin lock at the current IRQL; bugchecks when the caller already holds it. */
void AcquireHeld(PKSPIN_LOCK SpinLock, const char *api)
{
    if (hk::core::SpinHeldByCaller(SpinLock)) {
        hk::VerifierError("%s: spin lock %p acquired twice by the same thread", api,
                          static_cast<void *>(SpinLock));
        hk::core::BugCheck(hk::core::kSpinLockAlreadyOwned, "%s: spin lock %p is already held by "
                           "the acquiring thread", api, static_cast<void *>(SpinLock));
    }
    hk::core::SpinAcquireWord(SpinLock);
    ++tThread.locksHeld;
}

/* Frees a spin lock the caller holds; reports (and leaves the lock alone) otherwise. */
void ReleaseHeld(PKSPIN_LOCK SpinLock, const char *api)
{
    if (!hk::core::SpinHeldByCaller(SpinLock)) {
        hk::VerifierError("%s: spin lock %p released by a thread that does not hold it", api,
                          static_cast<void *>(SpinLock));
        return;
    }
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
    --tThread.locksHeld;
}

/* Reports a caller below DISPATCH_LEVEL of a routine that requires it. */
void RequireDispatch(const char *api)
{
    if (tThread.irql < DISPATCH_LEVEL)
        hk::VerifierError("%s called at IRQL %u; it requires DISPATCH_LEVEL", api, tThread.irql);
}

/* Raises to DISPATCH_LEVEL (never lowers) and returns the previous level. */
KIRQL RaiseToDispatch()
{
    KIRQL old = tThread.irql;
    if (old < DISPATCH_LEVEL)
        tThread.irql = DISPATCH_LEVEL;
    return old;
}

} // namespace

/* Makes the lock free. Any IRQL. */
VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    *SpinLock = 0;
}

/* Raises to DISPATCH_LEVEL, saves the old level in *OldIrql and takes the lock. */
VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "KeAcquireSpinLock");
    KIRQL old = RaiseToDispatch();
    AcquireHeld(SpinLock, "KeAcquireSpinLock");
    *OldIrql = old; // only once held: *OldIrql often lives inside the lock's owner record
}

/* Raises to DISPATCH_LEVEL, takes the lock and returns the old level. */
KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "KeAcquireSpinLockRaiseToDpc");
    KIRQL old = RaiseToDispatch();
    AcquireHeld(SpinLock, "KeAcquireSpinLockRaiseToDpc");
    return old;
}

/* Frees the lock and returns to NewIrql. */
VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    ReleaseHeld(SpinLock, "KeReleaseSpinLock");
    KeLowerIrql(NewIrql);
}

/* Takes the lock; the caller is already at DISPATCH_LEVEL. */
VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    RequireDispatch("KeAcquireSpinLockAtDpcLevel");
    AcquireHeld(SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

/* Frees the lock without changing the IRQL. */
VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    RequireDispatch("KeReleaseSpinLockFromDpcLevel");
    ReleaseHeld(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}

/* Takes the lock if it is free (TRUE), else returns FALSE at once. DISPATCH_LEVEL. */
BOOLEAN NTAPI KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    RequireDispatch("KeTryToAcquireSpinLockAtDpcLevel");
    if (hk::core::SpinHeldByCaller(SpinLock)) {
        hk::VerifierError("KeTryToAcquireSpinLockAtDpcLevel: spin lock %p is already held by "
                          "the calling thread", static_cast<void *>(SpinLock));
        return FALSE;
    }
    ULONG_PTR expected = 0;
    if (!__atomic_compare_exchange_n(SpinLock, &expected, hk::core::CurrentOwnerTag(), false,
                                     __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return FALSE;
    ++tThread.locksHeld;
    return TRUE;
}
