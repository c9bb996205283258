/*
 * The system work queue: routines run at PASSIVE_LEVEL on runtime worker
 * threads, in the order they were queued.
 *
 * Workers are started on demand while every worker is busy, up to a limit,
 * so a work routine that waits for a later one does not stall the queue.
 * Idle workers stay for the life of the process. All queue types share one
 * queue (the host has no priorities to honour).
 */
#include "core_internal.h"

#include <stdio.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <unordered_set>

namespace {

constexpr int kMaxWorkers = 16;

struct Work {
    void (*routine)(void *); // a runtime routine, or nullptr for a work item
    void *context;
    PWORK_QUEUE_ITEM item;   // the item whose routine runs, or nullptr
};

struct WorkQueue {
    std::mutex mutex;
    std::condition_variable workAvailable;
    std::condition_variable idle;
    std::deque<Work> pending;
    std::unordered_set<PWORK_QUEUE_ITEM> queuedItems;
    int workers = 0;
    int waitingWorkers = 0;
    int running = 0;
};

// Never destroyed: workers wait on it until the process ends.
WorkQueue &Queue()
{
    static WorkQueue *queue = new WorkQueue;
    return *queue;
}

/* Runs one piece of work at PASSIVE_LEVEL and checks the worker is left clean. */
void Run(const Work &work)
{
    char where[96];
    if (work.item != nullptr) {
        PWORKER_THREAD_ROUTINE routine = work.item->WorkerRoutine;
        PVOID parameter = work.item->Parameter;
        snprintf(where, sizeof where, "work item routine %p", reinterpret_cast<void *>(routine));
        routine(parameter);
    } else {
        snprintf(where, sizeof where, "system work routine %p",
                 reinterpret_cast<void *>(work.routine));
        work.routine(work.context);
    }
    hk::FlushThreadFileWrites();
    hk::core::CheckThreadIsClean(where);
}

/* Body of a worker: takes work in order, forever. */
void *WorkerMain(void *)
{
    hk::core::tThread.irql = PASSIVE_LEVEL;
    WorkQueue &queue = Queue();
    std::unique_lock<std::mutex> lock(queue.mutex);
    for (;;) {
        ++queue.waitingWorkers;
        queue.workAvailable.wait(lock, [&] { return !queue.pending.empty(); });
        --queue.waitingWorkers;
        Work work = queue.pending.front();
        queue.pending.pop_front();
        // Once its routine is about to run, an item may be queued again.
        if (work.item != nullptr)
            queue.queuedItems.erase(work.item);
        ++queue.running;
        lock.unlock();
        Run(work);
        lock.lock();
        --queue.running;
        if (queue.pending.empty() && queue.running == 0)
            queue.idle.notify_all();
    }
    return nullptr;
}

/* Appends work and makes sure a worker will take it. */
void Enqueue(const Work &work)
{
    WorkQueue &queue = Queue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    queue.pending.push_back(work);
    if (queue.waitingWorkers < static_cast<int>(queue.pending.size()) &&
        queue.workers < kMaxWorkers) {
        if (hk::core::StartRuntimeThread(WorkerMain, nullptr, "hk-worker"))
            ++queue.workers;
        else if (queue.workers == 0)
            hk::core::BugCheck(hk::core::kSystemThreadExceptionNotHandled,
                               "cannot start a system worker thread");
    }
    queue.workAvailable.notify_one();
}

} // namespace

namespace hk {

/* Runs routine(context) at PASSIVE_LEVEL on a system worker thread. Any IRQL. */
void QueueSystemWork(void (*routine)(void *), void *context)
{
    Enqueue(Work{routine, context, nullptr});
}

} // namespace hk

/* Queues a work item (see hk/thread.h). IRQL <= DISPATCH_LEVEL. */
VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType)
{
    hk::RequireIrqlAtMost(DISPATCH_LEVEL, "ExQueueWorkItem");
    if (WorkItem == nullptr || WorkItem->WorkerRoutine == nullptr) {
        hk::VerifierError("ExQueueWorkItem: no work item or no worker routine");
        return;
    }
    if (static_cast<int>(QueueType) < CriticalWorkQueue ||
        (QueueType >= MaximumWorkQueue && QueueType != CustomPriorityWorkQueue)) {
        hk::VerifierError("ExQueueWorkItem: invalid queue type %d", static_cast<int>(QueueType));
        return;
    }
    {
        WorkQueue &queue = Queue();
        std::lock_guard<std::mutex> lock(queue.mutex);
        if (!queue.queuedItems.insert(WorkItem).second) {
            hk::VerifierError("ExQueueWorkItem: work item %p queued again before its routine "
                              "started", static_cast<void *>(WorkItem));
            return;
        }
    }
    Enqueue(Work{nullptr, nullptr, WorkItem});
}

/* Waits up to TimeoutMs for the queue to be empty with no routine running. */
BOOLEAN HkWaitForWorkQueueIdle(ULONG TimeoutMs)
{
    WorkQueue &queue = Queue();
    std::unique_lock<std::mutex> lock(queue.mutex);
    return queue.idle.wait_for(lock, std::chrono::milliseconds(TimeoutMs),
                               [&] { return queue.pending.empty() && queue.running == 0; })
               ? TRUE
               : FALSE;
}
