/*
 * System threads and thread records.
 *
 * A system thread is a detached host thread whose thread object is a kernel
 * object (object manager): the handle PsCreateSystemThread returns holds one
 * reference, the running thread holds another, and the object is signalled
 * when the thread ends. Any other thread that asks for its record (the test's
 * main thread, runtime workers) gets a plain record on first use, freed when
 * that thread exits.
 */
#include "core_internal.h"

#include <pthread.h>
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>

namespace {

// The object type name of thread objects (PsThreadType).
const char kThreadTypeName[] = "Thread";
// Default priority of a new thread (Windows' normal base priority).
constexpr KPRIORITY kDefaultPriority = 8;
// The id of the system process.
const HANDLE kSystemProcessId = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(4));

// The body of a thread object and of a plain thread record. It begins with the dispatcher
// header so KeWaitForSingleObject can wait on it.
struct KThreadBody {
    DISPATCHER_HEADER Header;
    HANDLE threadId;
    KPRIORITY priority; // accessed atomically
    bool systemThread;
    PKSTART_ROUTINE startRoutine;
    PVOID startContext;
    NTSTATUS exitStatus;
};

struct SystemThreads {
    std::mutex mutex;
    std::condition_variable allEnded;
    std::list<KThreadBody *> running; // oldest first
};

// Never destroyed: system threads may still end while the process exits.
SystemThreads &SystemThreadList()
{
    static SystemThreads *threads = new SystemThreads;
    return *threads;
}

/* A new thread id: nonzero multiples of 4, as Windows gives. */
HANDLE NextThreadId()
{
    static ULONG_PTR lastId = 0x100;
    return reinterpret_cast<HANDLE>(__atomic_add_fetch(&lastId, 4, __ATOMIC_RELAXED));
}

/* Fills a zeroed body as a not-yet-signalled thread object. */
void InitializeRecord(KThreadBody *thread, bool systemThread)
{
    thread->Header.Type = ThreadObject;
    thread->Header.Size = sizeof(DISPATCHER_HEADER) / sizeof(LONG);
    thread->threadId = NextThreadId();
    thread->priority = kDefaultPriority;
    thread->systemThread = systemThread;
}

// Owns the plain record of a thread that is not a system thread.
struct PlainRecordOwner {
    KThreadBody *record = nullptr;
    ~PlainRecordOwner()
    {
        if (hk::core::tThread.record == record)
            hk::core::tThread.record = nullptr;
        delete record;
    }
};
thread_local PlainRecordOwner tPlainRecord;

/* The calling thread's record, created on first use. */
KThreadBody *CurrentRecord()
{
    if (hk::core::tThread.record == nullptr) {
        auto *record = new KThreadBody();
        InitializeRecord(record, false);
        tPlainRecord.record = record;
        hk::core::tThread.record = record;
    }
    return static_cast<KThreadBody *>(hk::core::tThread.record);
}

/* Ends a system thread's life in the runtime: checks its state, signals its object,
 * forgets it and drops the running thread's reference. */
void FinishSystemThread(KThreadBody *thread)
{
    char where[96];
    snprintf(where, sizeof where, "system thread %p (start routine %p)", thread->threadId,
             reinterpret_cast<void *>(thread->startRoutine));
    hk::core::CheckThreadIsClean(where);
    hk::core::SignalThreadObject(&thread->Header);
    SystemThreads &threads = SystemThreadList();
    {
        std::lock_guard<std::mutex> lock(threads.mutex);
        threads.running.remove(thread);
        if (threads.running.empty())
            threads.allEnded.notify_all();
    }
    hk::core::tThread.record = nullptr;
    ObDereferenceObject(thread);
}

// Runs FinishSystemThread when the start routine returns or PsTerminateSystemThread
// unwinds the thread.
struct SystemThreadFinisher {
    KThreadBody *thread;
    ~SystemThreadFinisher()
    {
        hk::FlushThreadFileWrites();
        FinishSystemThread(thread);
    }
};

/* Body of a system thread's host thread: PASSIVE_LEVEL, the start routine, the end. */
void *SystemThreadMain(void *context)
{
    auto *thread = static_cast<KThreadBody *>(context);
    hk::core::tThread.irql = PASSIVE_LEVEL;
    hk::core::tThread.record = thread;
    SystemThreadFinisher finisher{thread};
    thread->startRoutine(thread->startContext);
    return nullptr;
}

/* Whether the handle names the system process (NULL or the current-process handle). */
bool IsSystemProcessHandle(HANDLE process)
{
    return process == nullptr || process == reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}

} // namespace

namespace hk {
namespace core {

/* Reports a runtime thread that returns to its idle state above PASSIVE_LEVEL or holding
 * locks, then resets its IRQL and lock counts. */
void CheckThreadIsClean(const char *where)
{
    if (tThread.irql != PASSIVE_LEVEL) {
        VerifierError("%s ended at IRQL %u; it must return at PASSIVE_LEVEL", where, tThread.irql);
        tThread.irql = PASSIVE_LEVEL;
    }
    if (tThread.locksHeld != 0) {
        VerifierError("%s ended holding %d spin or read-write lock(s)", where, tThread.locksHeld);
        tThread.locksHeld = 0;
        tThread.readHoldCount = 0;
    }
}

/* Starts a detached host thread running routine(context); false when it cannot. */
bool StartRuntimeThread(void *(*routine)(void *), void *context, const char *name)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int error = pthread_create(&thread, &attributes, routine, context);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        return false;
    pthread_setname_np(thread, name);
    return true;
}

} // namespace core
} // namespace hk

/* Starts a system thread (see hk/thread.h). IRQL == PASSIVE_LEVEL. */
NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                    POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                    PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    UNREFERENCED_PARAMETER(ObjectAttributes);
    hk::core::RequireIrqlExactly(PASSIVE_LEVEL, "PsCreateSystemThread");
    if (ThreadHandle == nullptr || StartRoutine == nullptr) {
        hk::VerifierError("PsCreateSystemThread without a handle pointer or a start routine");
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsSystemProcessHandle(ProcessHandle)) {
        hk::VerifierError("PsCreateSystemThread in process %p: only system-process threads are "
                          "supported", ProcessHandle);
        return STATUS_NOT_IMPLEMENTED;
    }
    auto *thread = static_cast<KThreadBody *>(
        hk::ObjectCreate(sizeof(KThreadBody), kThreadTypeName, nullptr));
    if (thread == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    InitializeRecord(thread, true);
    thread->startRoutine = StartRoutine;
    thread->startContext = StartContext;
    HANDLE handle = hk::ObjectInsertHandle(thread);
    if (handle == nullptr) {
        ObDereferenceObject(thread);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    SystemThreads &threads = SystemThreadList();
    {
        std::lock_guard<std::mutex> lock(threads.mutex);
        threads.running.push_back(thread);
    }
    if (!hk::core::StartRuntimeThread(SystemThreadMain, thread, "hk-system")) {
        {
            std::lock_guard<std::mutex> lock(threads.mutex);
            threads.running.remove(thread);
        }
        ZwClose(handle);
        ObDereferenceObject(thread);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (ClientId != nullptr) {
        ClientId->UniqueProcess = kSystemProcessId;
        ClientId->UniqueThread = thread->threadId;
    }
    *ThreadHandle = handle;
    return STATUS_SUCCESS;
}

/* Ends the calling system thread; returns (with an error) only when the caller is not one.
 * The end-of-thread checks (IRQL, held locks) run as the thread unwinds. */
NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    auto *thread = static_cast<KThreadBody *>(hk::core::tThread.record);
    if (thread == nullptr || !thread->systemThread) {
        hk::VerifierError("PsTerminateSystemThread called by a thread that is not a system "
                          "thread");
        return STATUS_INVALID_PARAMETER;
    }
    thread->exitStatus = ExitStatus;
    pthread_exit(nullptr);
}

/* The calling thread's record. Any IRQL. */
PKTHREAD NTAPI KeGetCurrentThread(VOID)
{
    return reinterpret_cast<PKTHREAD>(CurrentRecord());
}

/* The calling thread's record (the same as KeGetCurrentThread). Any IRQL. */
PETHREAD NTAPI PsGetCurrentThread(VOID)
{
    return reinterpret_cast<PETHREAD>(CurrentRecord());
}

/* The calling thread's id. Any IRQL. */
HANDLE NTAPI PsGetCurrentThreadId(VOID)
{
    return CurrentRecord()->threadId;
}

/* The system process's id. Any IRQL. */
HANDLE NTAPI PsGetCurrentProcessId(VOID)
{
    return kSystemProcessId;
}

/* Records Priority (0..31) and returns the previous one. IRQL <= DISPATCH_LEVEL. */
KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetPriorityThread");
    auto *thread = reinterpret_cast<KThreadBody *>(Thread);
    if (Priority < LOW_PRIORITY || Priority > HIGH_PRIORITY) {
        hk::VerifierError("KeSetPriorityThread: priority %d is outside 0..31", Priority);
        return __atomic_load_n(&thread->priority, __ATOMIC_RELAXED);
    }
    return __atomic_exchange_n(&thread->priority, Priority, __ATOMIC_RELAXED);
}

/* The thread's current priority. Any IRQL. */
KPRIORITY NTAPI KeQueryPriorityThread(PKTHREAD Thread)
{
    return __atomic_load_n(&reinterpret_cast<KThreadBody *>(Thread)->priority, __ATOMIC_RELAXED);
}

/* ---- host control ---- */

/* System threads not yet ended. */
ULONG HkSystemThreadCount(void)
{
    SystemThreads &threads = SystemThreadList();
    std::lock_guard<std::mutex> lock(threads.mutex);
    return static_cast<ULONG>(threads.running.size());
}

/* Waits up to TimeoutMs for every system thread to end; TRUE when they all did. */
BOOLEAN HkWaitForSystemThreads(ULONG TimeoutMs)
{
    SystemThreads &threads = SystemThreadList();
    std::unique_lock<std::mutex> lock(threads.mutex);
    return threads.allEnded.wait_for(lock, std::chrono::milliseconds(TimeoutMs),
                                     [&] { return threads.running.empty(); })
               ? TRUE
               : FALSE;
}

/* Copies up to MaxCount running system threads' details; returns how many run. */
ULONG HkQuerySystemThreads(HK_SYSTEM_THREAD_INFO *Threads, ULONG MaxCount)
{
    SystemThreads &threads = SystemThreadList();
    std::lock_guard<std::mutex> lock(threads.mutex);
    ULONG i = 0;
    for (KThreadBody *thread : threads.running) {
        if (i < MaxCount && Threads != nullptr) {
            Threads[i].ThreadId = thread->threadId;
            Threads[i].Priority = __atomic_load_n(&thread->priority, __ATOMIC_RELAXED);
            Threads[i].StartRoutine = reinterpret_cast<PVOID>(thread->startRoutine);
            Threads[i].StartContext = thread->startContext;
        }
        ++i;
    }
    return i;
}
