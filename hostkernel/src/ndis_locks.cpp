/*
 * NDIS spin locks and read-write locks.
 *
 * A read-write lock's SpinLock word is the writer's lock (the owner's tag
 * while a writer holds or waits for it). Readers count themselves in one of
 * the per-processor-slot counters; each thread has a fixed slot, so readers
 * on different slots touch different cache lines and share no lock. A reader
 * increments its slot and then checks for a writer; a writer takes the word
 * and then waits for every slot to drain (both sequentially consistent, so
 * one of them always sees the other).
 *
 * The threads' own read holds are remembered per thread, so a reader taking
 * the lock again does not wait behind a waiting writer (NDIS allows
 * recursive reads), and a thread that would deadlock on itself is reported.
 */
#include "core_internal.h"

namespace {

using hk::core::tThread;

// LOCK_STATE.LockState: the kind of acquisition in the low byte, the reader slot above.
enum : USHORT {
    kStateNothing = 0x00A0, // nothing taken (the request was reported); release only lowers
    kStateRead = 0x00A1,
    kStateWrite = 0x00A2,
};
constexpr unsigned kSlotShift = 8;

/* The calling thread's reader slot, assigned round-robin on first use. */
unsigned ReaderSlot()
{
    static unsigned nextSlot = 0;
    if (tThread.rwSlot == 0)
        tThread.rwSlot = 1 + __atomic_fetch_add(&nextSlot, 1, __ATOMIC_RELAXED) % MAXIMUM_PROCESSORS;
    return tThread.rwSlot - 1;
}

/* The reader counter of one slot. */
UINT *SlotCount(PNDIS_RW_LOCK lock, unsigned slot)
{
    return &lock->RefCount[slot].RefCount;
}

/* The calling thread's read-hold record of `lock`, or nullptr. */
hk::core::ReadHold *FindReadHold(const void *lock)
{
    for (int i = 0; i < tThread.readHoldCount; ++i) {
        if (tThread.readHolds[i].lock == lock)
            return &tThread.readHolds[i];
    }
    return nullptr;
}

/* Records one more read hold of `lock` by the calling thread. */
void AddReadHold(const void *lock)
{
    if (hk::core::ReadHold *hold = FindReadHold(lock)) {
        hold->count++;
        return;
    }
    if (tThread.readHoldCount == hk::core::kMaxReadHolds) {
        hk::VerifierError("NdisAcquireReadWriteLock: a thread holds more than %d read-write "
                          "locks for reading", hk::core::kMaxReadHolds);
        return;
    }
    tThread.readHolds[tThread.readHoldCount++] = hk::core::ReadHold{lock, 1};
}

/* Forgets one read hold; false when the thread has none of `lock`. */
bool DropReadHold(const void *lock)
{
    hk::core::ReadHold *hold = FindReadHold(lock);
    if (hold == nullptr)
        return false;
    if (--hold->count == 0)
        *hold = tThread.readHolds[--tThread.readHoldCount];
    return true;
}

/* Counts the caller as a reader once no writer holds or waits for the lock. */
void AcquireRead(PNDIS_RW_LOCK lock, unsigned slot, bool recursive)
{
    UINT *count = SlotCount(lock, slot);
    unsigned round = 0;
    for (;;) {
        __atomic_add_fetch(count, 1, __ATOMIC_SEQ_CST);
        // A recursive reader goes ahead of a waiting writer, which waits for it anyway.
        if (recursive || __atomic_load_n(&lock->SpinLock, __ATOMIC_SEQ_CST) == 0)
            return;
        __atomic_sub_fetch(count, 1, __ATOMIC_SEQ_CST);
        while (__atomic_load_n(&lock->SpinLock, __ATOMIC_RELAXED) != 0)
            hk::core::SpinBackoff(&round);
    }
}

/* Takes the writer word, then waits until no reader is left. */
void AcquireWrite(PNDIS_RW_LOCK lock)
{
    hk::core::SpinAcquireWord(&lock->SpinLock);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    for (unsigned slot = 0; slot < MAXIMUM_PROCESSORS; ++slot) {
        unsigned round = 0;
        while (__atomic_load_n(SlotCount(lock, slot), __ATOMIC_SEQ_CST) != 0)
            hk::core::SpinBackoff(&round);
    }
}

} // namespace

/* ---- spin locks ---- */

/* Makes the lock free. Any IRQL. */
VOID NTAPI NdisAllocateSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    KeInitializeSpinLock(&SpinLock->SpinLock);
    SpinLock->OldIrql = PASSIVE_LEVEL;
}

/* Retires the lock; freeing a held lock is reported. */
VOID NTAPI NdisFreeSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    if (__atomic_load_n(&SpinLock->SpinLock, __ATOMIC_RELAXED) != 0)
        hk::VerifierError("NdisFreeSpinLock: spin lock %p is still held",
                          static_cast<void *>(SpinLock));
}

/* Raises to DISPATCH_LEVEL and takes the lock, saving the old IRQL in the lock. */
VOID NTAPI NdisAcquireSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&SpinLock->SpinLock);
    SpinLock->OldIrql = old;
}

/* Frees the lock and returns to the IRQL saved by NdisAcquireSpinLock. */
VOID NTAPI NdisReleaseSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    KIRQL old = SpinLock->OldIrql;
    KeReleaseSpinLock(&SpinLock->SpinLock, old);
}

/* Takes the lock at DISPATCH_LEVEL. */
VOID NTAPI NdisDprAcquireSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    KeAcquireSpinLockAtDpcLevel(&SpinLock->SpinLock);
}

/* Frees the lock at DISPATCH_LEVEL. */
VOID NTAPI NdisDprReleaseSpinLock(PNDIS_SPIN_LOCK SpinLock)
{
    KeReleaseSpinLockFromDpcLevel(&SpinLock->SpinLock);
}

/* ---- read-write locks ---- */

/* Makes the lock free (no writer, no readers). */
VOID NTAPI NdisInitializeReadWriteLock(PNDIS_RW_LOCK Lock)
{
    memset(Lock, 0, sizeof *Lock);
}

/* Raises to DISPATCH_LEVEL and takes the lock for writing or reading (hk/ndis.h). */
VOID NTAPI NdisAcquireReadWriteLock(PNDIS_RW_LOCK Lock, BOOLEAN fWrite, PLOCK_STATE LockState)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "NdisAcquireReadWriteLock");
    KIRQL old = KeGetCurrentIrql();
    if (old < DISPATCH_LEVEL)
        hk::core::SetIrqlUnchecked(DISPATCH_LEVEL);
    USHORT state = kStateNothing;
    const bool ownWrite = hk::core::SpinHeldByCaller(&Lock->SpinLock);
    if (fWrite) {
        if (ownWrite) {
            hk::VerifierError("NdisAcquireReadWriteLock: lock %p taken for writing again by "
                              "the thread that holds it for writing", static_cast<void *>(Lock));
        } else if (FindReadHold(Lock) != nullptr) {
            hk::VerifierError("NdisAcquireReadWriteLock: lock %p taken for writing by a thread "
                              "that holds it for reading", static_cast<void *>(Lock));
        } else {
            AcquireWrite(Lock);
            ++tThread.locksHeld;
            state = kStateWrite;
        }
    } else if (!ownWrite) {
        // A writer reading what it holds needs nothing more.
        const unsigned slot = ReaderSlot();
        AcquireRead(Lock, slot, FindReadHold(Lock) != nullptr);
        AddReadHold(Lock);
        ++tThread.locksHeld;
        state = static_cast<USHORT>(kStateRead | (slot << kSlotShift));
    }
    LockState->LockState = state;
    LockState->OldIrql = old;
}

/* Gives back what LockState records and returns to its saved IRQL. */
VOID NTAPI NdisReleaseReadWriteLock(PNDIS_RW_LOCK Lock, PLOCK_STATE LockState)
{
    const USHORT state = LockState->LockState;
    switch (state & 0xFF) {
    case kStateRead & 0xFF: {
        const unsigned slot = state >> kSlotShift;
        if (slot >= MAXIMUM_PROCESSORS || !DropReadHold(Lock)) {
            hk::VerifierError("NdisReleaseReadWriteLock: lock %p released for reading by a "
                              "thread that does not hold it", static_cast<void *>(Lock));
            break;
        }
        __atomic_sub_fetch(SlotCount(Lock, slot), 1, __ATOMIC_SEQ_CST);
        --tThread.locksHeld;
        break;
    }
    case kStateWrite & 0xFF:
        if (!hk::core::SpinHeldByCaller(&Lock->SpinLock)) {
            hk::VerifierError("NdisReleaseReadWriteLock: lock %p released for writing by a "
                              "thread that does not hold it", static_cast<void *>(Lock));
            break;
        }
        __atomic_store_n(&Lock->SpinLock, 0, __ATOMIC_RELEASE);
        --tThread.locksHeld;
        break;
    case kStateNothing & 0xFF:
        break;
    default:
        hk::VerifierError("NdisReleaseReadWriteLock: LOCK_STATE %p was not filled by "
                          "NdisAcquireReadWriteLock", static_cast<void *>(LockState));
        return;
    }
    KeLowerIrql(LockState->OldIrql);
}
