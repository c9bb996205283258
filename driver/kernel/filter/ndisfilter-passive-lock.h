/*
 * ndisfilter-passive-lock.h - a shared/exclusive lock whose holders stay at
 * PASSIVE_LEVEL and may block, unlike an NDIS read-write lock (which raises
 * to DISPATCH_LEVEL). It guards lists whose entries are called while the
 * list is held, where the callee must run at PASSIVE_LEVEL.
 *
 * Readers share it while no writer holds it; a writer waits for the readers
 * to leave. Not recursive: a reader must not ask for it exclusively.
 * IRQL = PASSIVE_LEVEL for every operation.
 */
#pragma once

typedef struct _NfPassiveLock {
    KSPIN_LOCK m_SpinLock; /* guards the two fields below */
    LONG m_nReaders;
    BOOLEAN m_bWriter;
    KEVENT m_Changed; /* notification: set when the lock may have become free */
} NfPassiveLock;

inline VOID NdisFilter_InitializePassiveLock(NfPassiveLock *Lock)
{
    KeInitializeSpinLock(&Lock->m_SpinLock);
    Lock->m_nReaders = 0;
    Lock->m_bWriter = FALSE;
    KeInitializeEvent(&Lock->m_Changed, NotificationEvent, FALSE);
}

/* Takes the lock, shared or alone; waits (at PASSIVE_LEVEL) while it cannot. */
inline VOID NdisFilter_AcquirePassiveLock(NfPassiveLock *Lock, BOOLEAN Exclusive)
{
    for (;;) {
        KIRQL irql;
        KeAcquireSpinLock(&Lock->m_SpinLock, &irql);
        BOOLEAN free = !Lock->m_bWriter && (!Exclusive || Lock->m_nReaders == 0);
        if (free) {
            if (Exclusive)
                Lock->m_bWriter = TRUE;
            else
                Lock->m_nReaders++;
        } else {
            KeClearEvent(&Lock->m_Changed); /* the holder sets it after this, under the spin lock */
        }
        KeReleaseSpinLock(&Lock->m_SpinLock, irql);
        if (free)
            return;
        KeWaitForSingleObject(&Lock->m_Changed, Executive, KernelMode, FALSE, NULL);
    }
}

inline VOID NdisFilter_ReleasePassiveLock(NfPassiveLock *Lock, BOOLEAN Exclusive)
{
    KIRQL irql;
    KeAcquireSpinLock(&Lock->m_SpinLock, &irql);
    BOOLEAN wake;
    if (Exclusive) {
        Lock->m_bWriter = FALSE;
        wake = TRUE;
    } else {
        wake = --Lock->m_nReaders == 0;
    }
    if (wake)
        KeSetEvent(&Lock->m_Changed, IO_NO_INCREMENT, FALSE);
    KeReleaseSpinLock(&Lock->m_SpinLock, irql);
}

#ifdef __cplusplus
/* Holds a passive lock for as long as it lives. */
template <BOOLEAN Exclusive>
class NfPassiveLockHolder {
public:
    explicit NfPassiveLockHolder(NfPassiveLock *lock) : m_lock(lock) { NdisFilter_AcquirePassiveLock(m_lock, Exclusive); }
    ~NfPassiveLockHolder() { NdisFilter_ReleasePassiveLock(m_lock, Exclusive); }
    NfPassiveLockHolder(const NfPassiveLockHolder &) = delete;
    NfPassiveLockHolder &operator=(const NfPassiveLockHolder &) = delete;

private:
    NfPassiveLock *m_lock;
};

typedef NfPassiveLockHolder<FALSE> NfSharedPassiveLock;
typedef NfPassiveLockHolder<TRUE> NfExclusivePassiveLock;
#endif
