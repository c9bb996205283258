/*
 * Host kernel runtime: system threads, thread records, system work items and
 * time.
 *
 * A system thread is a host thread with a kernel thread object: the handle
 * PsCreateSystemThread returns is a real kernel handle, and the object it
 * refers to is signalled (KeWaitForSingleObject) when the thread ends. Every
 * other thread that calls into the runtime gets a thread record on first use.
 * Valid C11 and C++17.
 */
#ifndef HK_THREAD_H
#define HK_THREAD_H

#include "hk/base.h"
#include "hk/sync.h"

/* Scheduling priorities. */
#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
#define MAXIMUM_PRIORITY 32

/* Thread access rights (the standard rights agree with hk/io.h). */
#ifndef SYNCHRONIZE
#define SYNCHRONIZE 0x00100000UL
#endif
#ifndef STANDARD_RIGHTS_REQUIRED
#define STANDARD_RIGHTS_REQUIRED 0x000F0000UL
#endif
#define THREAD_TERMINATE 0x0001
#define THREAD_QUERY_INFORMATION 0x0040
#define THREAD_SET_INFORMATION 0x0020
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Threads
 * ====================================================================== */

/* Thread records are opaque; PKTHREAD and PETHREAD name the same record. */
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;

/* Object attributes are the object manager's (hk/io.h); here they are only passed on. */
struct _OBJECT_ATTRIBUTES;
typedef struct _OBJECT_ATTRIBUTES *POBJECT_ATTRIBUTES;

/* Identifies a thread and its process. */
typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef VOID(NTAPI KSTART_ROUTINE)(PVOID StartContext);
typedef KSTART_ROUTINE *PKSTART_ROUTINE;

/* Starts StartRoutine(StartContext) on a new system thread at PASSIVE_LEVEL and returns a
 * kernel handle to its thread object (close it with ZwClose). ProcessHandle must be NULL
 * (the system process). ClientId, when given, receives the thread's ids. IRQL ==
 * PASSIVE_LEVEL. */
NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes,
                                                HANDLE ProcessHandle, PCLIENT_ID ClientId,
                                                PKSTART_ROUTINE StartRoutine,
                                                PVOID StartContext);
/* Ends the calling system thread (does not return). The thread must be at PASSIVE_LEVEL
 * and hold no spin lock. */
NTKERNELAPI NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);

/* The calling thread's record. Any IRQL. */
NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread(VOID);
NTKERNELAPI PETHREAD NTAPI PsGetCurrentThread(VOID);
/* The calling thread's id (a nonzero multiple of 4). Any IRQL. */
NTKERNELAPI HANDLE NTAPI PsGetCurrentThreadId(VOID);
/* The id of the process system threads belong to. */
NTKERNELAPI HANDLE NTAPI PsGetCurrentProcessId(VOID);
/* Records a new priority (0..31) and returns the previous one. IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTKERNELAPI KPRIORITY NTAPI KeQueryPriorityThread(PKTHREAD Thread);

/* ======================================================================
 * System work items
 * ====================================================================== */

typedef VOID(NTAPI WORKER_THREAD_ROUTINE)(PVOID Parameter);
typedef WORKER_THREAD_ROUTINE *PWORKER_THREAD_ROUTINE;

#ifndef HK_WORK_QUEUE_TYPE_DEFINED
#define HK_WORK_QUEUE_TYPE_DEFINED
typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    NormalWorkQueue,
    BackgroundWorkQueue,
    RealTimeWorkQueue,
    SuperCriticalWorkQueue,
    MaximumWorkQueue,
    CustomPriorityWorkQueue = 32
} WORK_QUEUE_TYPE;
#endif

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

#define ExInitializeWorkItem(Item, Routine, Context) \
    do {                                             \
        (Item)->WorkerRoutine = (Routine);           \
        (Item)->Parameter = (Context);               \
        (Item)->List.Flink = NULL;                   \
    } while (0)

/* Runs Item's routine at PASSIVE_LEVEL on a system worker thread. The item must not be
 * queued again before its routine has started. IRQL <= DISPATCH_LEVEL. */
NTKERNELAPI VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

/* Returns once every deferred procedure call queued before the call has run to its end (on
 * the host: every NDIS timer routine already taken off the timer queue). IRQL == PASSIVE_LEVEL. */
NTKERNELAPI VOID NTAPI KeFlushQueuedDpcs(VOID);

/* ======================================================================
 * Time and processors
 * ====================================================================== */

/* The system time: 100 ns units since 1601-01-01 UTC. Any IRQL. */
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
/* 100 ns units added to the interrupt time per clock tick (156250, 15.625 ms). */
NTKERNELAPI ULONG NTAPI KeQueryTimeIncrement(VOID);
/* Clock ticks since start-up. */
NTKERNELAPI VOID NTAPI KeQueryTickCount(PLARGE_INTEGER TickCount);
/* 100 ns units since start-up (monotonic). */
NTKERNELAPI ULONGLONG NTAPI KeQueryInterruptTime(VOID);
/* A monotonic high-resolution counter and, optionally, its frequency in counts per second. */
NTKERNELAPI LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

typedef KAFFINITY *PKAFFINITY;

/* Processor the caller runs on, and the number of processors (with their mask). */
NTKERNELAPI ULONG NTAPI KeGetCurrentProcessorNumber(VOID);
NTKERNELAPI ULONG NTAPI KeQueryActiveProcessorCount(PKAFFINITY ActiveProcessors);

HK_EXTERN_C_END

#endif /* HK_THREAD_H */
