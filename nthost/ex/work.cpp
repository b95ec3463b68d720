// Work items on system worker threads. Each kind of queue has threads of its own, so that delayed work that blocks
// cannot hold up critical work it waits for; within a kind the order is first in, first out. A queue's lock guards its
// list.
#include "ex/work.h"

#include <mutex>

#include "ke/callout.h"
#include "check/fatal.h"
#include "check/text.h"
#include "ke/wait.h"
#include "ke/word_lock.h"
#include "ps/threads.h"

namespace nthost::ex {

namespace {

struct WorkQueue {
    ke::WordLock Lock;
    LIST_ENTRY Items{};
    KSEMAPHORE Ready{}; // one unit per item, and one per worker at the end
    std::vector<PETHREAD> Workers;
};

WorkQueue queues[MaximumWorkQueue];
std::atomic<uint32_t> outstanding; // items queued or running; Drain parks on it
std::atomic<bool> accepting;

WORK_QUEUE_ITEM* Take(WorkQueue& queue)
{
    std::lock_guard lock(queue.Lock);
    if (IsListEmpty(&queue.Items)) return nullptr;
    return CONTAINING_RECORD(RemoveHeadList(&queue.Items), WORK_QUEUE_ITEM, List);
}

void Run(WORK_QUEUE_ITEM* item)
{
    const PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
    PVOID const parameter = item->Parameter;
    item->List.Flink = nullptr; // from here on the routine may free or queue it again
    CallDriver(MustRestore::Everything, "work item", routine, parameter);
    if (outstanding.fetch_sub(1, std::memory_order_acq_rel) == 1) ke::UnparkAddress(&outstanding, UINT32_MAX >> 1);
}

VOID NTAPI WorkerMain(PVOID context)
{
    WorkQueue& queue = *static_cast<WorkQueue*>(context);
    for (;;) {
        (void)KeWaitForSingleObject(&queue.Ready, Executive, KernelMode, FALSE, nullptr);
        WORK_QUEUE_ITEM* const item = Take(queue);
        if (!item) return; // the unit was the order to end
        Run(item);
    }
}

void StartWorkers(WorkQueue& queue, unsigned count)
{
    InitializeListHead(&queue.Items);
    KeInitializeSemaphore(&queue.Ready, 0, INT32_MAX);
    queue.Workers.resize(count);
    for (PETHREAD& worker : queue.Workers)
        if (!NT_SUCCESS(
                ps::StartSystemThread(PsInitialSystemProcess, WorkerMain, &queue, ps::StartedBy::Host, &worker)))
            Fatal("no system worker thread");
}

void StopWorkers(WorkQueue& queue)
{
    ke::ReleaseSemaphore(&queue.Ready, static_cast<LONG>(queue.Workers.size()));
    for (PETHREAD const worker : queue.Workers) {
        (void)KeWaitForSingleObject(worker, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(worker);
    }
    queue.Workers.clear();
}

} // namespace

void BootWorkers(unsigned count)
{
    if (count == 0) count = 1;
    for (unsigned i = 0; i < MaximumWorkQueue; ++i) StartWorkers(queues[i], i == HyperCriticalWorkQueue ? 1 : count);
    accepting = true;
}

void DrainWorkItems()
{
    while (const uint32_t left = outstanding.load(std::memory_order_acquire)) ke::ParkOnAddress(&outstanding, left);
}

void ShutdownWorkers()
{
    DrainWorkItems();
    accepting = false;
    for (WorkQueue& queue : queues) StopWorkers(queue);
    ps::JoinEndedThreads();
}

} // namespace nthost::ex

using namespace nthost;
using namespace nthost::ex;

VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType)
{
    if (!accepting) Fatal("work item %p is queued while no worker runs", static_cast<void*>(WorkItem));
    if (WorkItem->List.Flink) FatalFinding("work-item-queued-twice", HexText(WorkItem));
    WorkQueue& queue = queues[QueueType];
    outstanding.fetch_add(1, std::memory_order_acq_rel);
    {
        std::lock_guard lock(queue.Lock);
        InsertTailList(&queue.Items, &WorkItem->List);
    }
    ke::ReleaseSemaphore(&queue.Ready, 1);
}
