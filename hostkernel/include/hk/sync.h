/*
 * Host kernel runtime: processor levels, spin locks, interlocked operations,
 * singly linked interlocked lists and dispatcher objects (events, waits).
 *
 * Every kernel structure here is a plain record in driver memory that drivers
 * may zero or embed anywhere; the runtime keeps no host objects inside them.
 * The IRQL is tracked per thread and checked: a routine called above its
 * permitted level is reported by the verifier. Valid C11 and C++17.
 */
#ifndef HK_SYNC_H
#define HK_SYNC_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Processor level (IRQL)
 * ====================================================================== */

/* The calling thread's IRQL. Any IRQL. */
NTHALAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
/* Raises to NewIrql and stores the previous level; NewIrql below the current level is a
 * verifier error. */
NTHALAPI VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
/* Lowers to NewIrql (a level saved by KeRaiseIrql); a level above the current one is a
 * verifier error. */
NTHALAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);
/* Raises to DISPATCH_LEVEL and returns the previous level. */
NTHALAPI KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID);

/* ======================================================================
 * Spin locks
 * ====================================================================== */

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

/* Makes the lock free. Any IRQL. */
NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
/* Raises to DISPATCH_LEVEL, stores the previous level and takes the lock (IRQL <=
 * DISPATCH_LEVEL). Taking a lock the thread already holds bugchecks. */
NTHALAPI VOID NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
/* Same, returning the previous level. */
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
/* Frees the lock and returns to NewIrql. Releasing a lock the thread does not hold is a
 * verifier error (the lock is left as it is). */
NTHALAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
/* Take / free without changing the IRQL; the caller is at DISPATCH_LEVEL. */
NTKERNELAPI VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
/* Takes the lock when it is free and returns TRUE; FALSE when someone holds it. */
NTKERNELAPI BOOLEAN NTAPI KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);

/* ======================================================================
 * Interlocked operations (sequentially consistent, any IRQL)
 * ====================================================================== */

/* Increment / decrement / add return the new value for ++/--, the old one for add. */
FORCEINLINE LONG InterlockedIncrement(LONG volatile *Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedDecrement(LONG volatile *Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile *Addend, LONG Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAdd(LONG volatile *Addend, LONG Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
/* Exchange and compare-exchange return the previous value. */
FORCEINLINE LONG InterlockedExchange(LONG volatile *Target, LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile *Destination, LONG ExChange,
                                            LONG Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, ExChange, 0, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}
/* Bitwise operations return the previous value. */
FORCEINLINE LONG InterlockedOr(LONG volatile *Destination, LONG Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAnd(LONG volatile *Destination, LONG Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedXor(LONG volatile *Destination, LONG Value)
{
    return __atomic_fetch_xor(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile *Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile *Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedExchangeAdd64(LONG64 volatile *Addend, LONG64 Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedAdd64(LONG64 volatile *Addend, LONG64 Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile *Target, LONG64 Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile *Destination, LONG64 ExChange,
                                                LONG64 Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, ExChange, 0, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE LONG64 InterlockedOr64(LONG64 volatile *Destination, LONG64 Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedAnd64(LONG64 volatile *Destination, LONG64 Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile *Target, PVOID Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile *Destination, PVOID ExChange,
                                                    PVOID Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, ExChange, 0, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comperand;
}

#define KeMemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define MemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define YieldProcessor() __builtin_ia32_pause()

/* ======================================================================
 * Interlocked singly linked lists (S-lists)
 * ====================================================================== */

/* The list head. Windows packs pointer, depth and sequence into 16 bytes; the host
 * runtime keeps the first entry, the depth and a small lock word in the same space. */
typedef union DECLSPEC_ALIGN(16) _SLIST_HEADER {
    struct {
        ULONGLONG Alignment;
        ULONGLONG Region;
    };
    struct {
        PSLIST_ENTRY Next; /* first entry */
        USHORT Depth;      /* number of entries */
        USHORT Sequence;   /* bumped by every change */
        ULONG Lock;        /* host runtime: guards Next/Depth (0 = free) */
    } HostList;
} SLIST_HEADER, *PSLIST_HEADER;

/* Empties the list. Any IRQL. */
NTSYSAPI VOID NTAPI InitializeSListHead(PSLIST_HEADER ListHead);
/* Push / pop / take everything, atomically with respect to each other. Push and pop
 * return the previous first entry (NULL when the list was empty). Any IRQL. */
NTSYSAPI PSLIST_ENTRY NTAPI InterlockedPushEntrySList(PSLIST_HEADER ListHead,
                                                      PSLIST_ENTRY ListEntry);
NTSYSAPI PSLIST_ENTRY NTAPI InterlockedPopEntrySList(PSLIST_HEADER ListHead);
NTSYSAPI PSLIST_ENTRY NTAPI InterlockedFlushSList(PSLIST_HEADER ListHead);
NTSYSAPI USHORT NTAPI QueryDepthSList(PSLIST_HEADER ListHead);
#define ExInterlockedPushEntrySList(Head, Entry, Lock) InterlockedPushEntrySList((Head), (Entry))
#define ExInterlockedPopEntrySList(Head, Lock) InterlockedPopEntrySList((Head))
#define ExInterlockedFlushSList(Head) InterlockedFlushSList((Head))
#define ExQueryDepthSList(Head) QueryDepthSList((Head))

/* ======================================================================
 * Dispatcher objects: events, waits
 * ====================================================================== */

/* Header.Type values. */
#define EventNotificationObject 0
#define EventSynchronizationObject 1
#define ThreadObject 6

/* The common head of every waitable object. SignalState is the signal state (0 / 1);
 * the host runtime keeps its wait bookkeeping where Windows keeps the wait list. */
typedef struct _DISPATCHER_HEADER {
    UCHAR Type;       /* one of the *Object values above */
    UCHAR Signalling;
    UCHAR Size;       /* size of the object in LONGs, set when it is initialized */
    UCHAR Reserved1;
    LONG SignalState;
    union {
        LIST_ENTRY WaitListHead;
        struct {
            LONG Waiters;        /* threads waiting on this object alone */
            USHORT MultiWaiters; /* threads waiting on it among other objects */
            USHORT Signallers;   /* threads inside KeSetEvent on it */
        } HostWait;
    };
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef enum _WAIT_TYPE { WaitAll, WaitAny, WaitNotification, WaitDequeue } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    WrFreePage,
    WrPageIn,
    WrPoolAllocation,
    WrDelayExecution,
    WrSuspended,
    WrUserRequest,
    WrEventPair,
    WrQueue,
    WrLpcReceive,
    WrLpcReply,
    WrVirtualMemory,
    WrPageOut,
    WrRendezvous,
    MaximumWaitReason
} KWAIT_REASON;

/* Wait blocks are bookkeeping that Windows needs for more than THREAD_WAIT_OBJECTS
 * objects; the host runtime accepts the array and does not use it. */
typedef struct _KWAIT_BLOCK {
    ULONG_PTR Reserved[6];
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;
#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

#define EVENT_INCREMENT 1
#ifndef IO_NO_INCREMENT
#define IO_NO_INCREMENT 0
#endif

/* Initializes an event of the given type and state. Any IRQL. */
NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
/* Signals the event and wakes its waiters (a synchronization event releases one waiter
 * and is reset by it). Returns the previous state. IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
/* Resets the event; KeResetEvent returns the previous state. IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
/* Current state (nonzero = signalled). Any IRQL. */
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);

/* Waits until Object (an event or a thread object) is signalled. Timeout: NULL waits
 * forever, negative is relative (100 ns units), positive an absolute system time, zero
 * polls. Returns STATUS_SUCCESS or STATUS_TIMEOUT. A satisfied wait resets a
 * synchronization event. IRQL <= APC_LEVEL, or DISPATCH_LEVEL with a zero time-out. */
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                                 KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                 PLARGE_INTEGER Timeout);
/* WaitAny: returns STATUS_WAIT_0 + the index of a signalled object; WaitAll: STATUS_SUCCESS
 * once all are signalled together. STATUS_TIMEOUT as above. Count <= MAXIMUM_WAIT_OBJECTS. */
NTKERNELAPI NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[],
                                                    WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                                    KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                    PLARGE_INTEGER Timeout,
                                                    PKWAIT_BLOCK WaitBlockArray);
#define KeWaitForMutexObject KeWaitForSingleObject

/* Sleeps for Interval (negative relative / positive absolute, 100 ns units). Returns
 * STATUS_SUCCESS. IRQL <= APC_LEVEL. */
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);
/* Busy-waits for MicroSeconds. Any IRQL. */
NTHALAPI VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);

HK_EXTERN_C_END

#endif /* HK_SYNC_H */
