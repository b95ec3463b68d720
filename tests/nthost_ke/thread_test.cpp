// Processes, system threads, work items.
#include <atomic>
#include <vector>

#include "kernel.h"

namespace {

using Threads = KernelTest;

TEST_F(Threads, IdentityOfAttachedThreads)
{
    const HANDLE process = PsGetCurrentProcessId(), thread = PsGetCurrentThreadId();
    for (const HANDLE id : {process, thread}) EXPECT_EQ(reinterpret_cast<uintptr_t>(id) % 4, 0u);
    EXPECT_EQ(PsGetCurrentProcess(), nthost::HostProcess());
    EXPECT_EQ(ExGetPreviousMode(), UserMode);
    EXPECT_FALSE(PsIsSystemThread(PsGetCurrentThread()));

    const nthost::Process other("other");
    nthost::StartThread(other.Object(), [&] {
        EXPECT_EQ(PsGetCurrentProcess(), other.Object());
        EXPECT_NE(PsGetCurrentProcessId(), process);
        EXPECT_NE(PsGetCurrentThreadId(), thread);
    }).join();
    {
        const nthost::ActAs as(PsInitialSystemProcess, KernelMode);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(PsGetCurrentProcessId()), 4u);
        EXPECT_EQ(ExGetPreviousMode(), KernelMode);
    }
    EXPECT_EQ(PsGetCurrentProcessId(), process);
}

TEST_F(Threads, AnEndingProcessClosesItsHandlesAndIsSignalled)
{
    PVOID process;
    {
        const nthost::Process other("other");
        process = other.Object();
        ObReferenceObject(process);
        const nthost::ActAs as(other.Object());
        HANDLE event;
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
    }
    EXPECT_EQ(WaitFor(process), STATUS_SUCCESS);
    ObDereferenceObject(process);
}

struct Started {
    PETHREAD Thread = nullptr;
    HANDLE Process = nullptr;
    KPROCESSOR_MODE Mode = UserMode;
    bool IsSystem = false;
    bool WentOn = false;
};

struct Destroyed {
    bool* Flag;
    ~Destroyed() { *Flag = true; }
};

__attribute__((noinline)) void EndHere(Started* started)
{
    const Destroyed destroyed{&started->WentOn}; // no destructor runs, as in a kernel
    NT_GUARD guard;
    if (NtGuardEnter(&guard)) PsTerminateSystemThread(STATUS_CANCELLED);
    started->WentOn = true;
}

void NTAPI StartRoutine(PVOID context)
{
    auto* const started = static_cast<Started*>(context);
    started->Thread = PsGetCurrentThread();
    started->Process = PsGetCurrentProcessId();
    started->Mode = ExGetPreviousMode();
    started->IsSystem = PsIsSystemThread(PsGetCurrentThread());
    EndHere(started);
    started->WentOn = true;
}

TEST_F(Threads, SystemThreadEndsItselfInTheMiddle)
{
    Started started;
    HANDLE handle;
    CLIENT_ID id;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    ASSERT_EQ(PsCreateSystemThread(&handle, 0x1fffff, &attributes, nullptr, &id, StartRoutine, &started),
              STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(handle, FALSE, nullptr), STATUS_INVALID_HANDLE); // out of user mode's reach
    EXPECT_EQ(ZwWaitForSingleObject(handle, FALSE, nullptr), STATUS_SUCCESS);
    PVOID thread;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(thread, started.Thread);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(started.Process), 4u);
    EXPECT_EQ(id.UniqueProcess, started.Process);
    EXPECT_EQ(started.Mode, KernelMode);
    EXPECT_TRUE(started.IsSystem);
    EXPECT_FALSE(started.WentOn);
    ObDereferenceObject(thread);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER); // this thread is not one
}

TEST_F(Threads, SystemThreadInAnotherProcess)
{
    HANDLE handle;
    HANDLE seen = nullptr;
    const auto routine = [](PVOID context) NTAPI { *static_cast<HANDLE*>(context) = PsGetCurrentProcessId(); };
    const NTSTATUS status =
        PsCreateSystemThread(&handle, SYNCHRONIZE, nullptr, NtCurrentProcess(), nullptr, routine, &seen);
    ASSERT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(handle, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(seen, PsGetCurrentProcessId());
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, reinterpret_cast<HANDLE>(0x4444), nullptr, routine, &seen),
              STATUS_INVALID_HANDLE);
}

class WorkItems : public KernelTest {
protected:
    WorkItems() : KernelTest({.SystemWorkers = 1}) {}
};

struct OrderedItem {
    WORK_QUEUE_ITEM Item;
    std::vector<int>* Order;
    int Number;
};

TEST_F(WorkItems, FirstInFirstOutAndFreedByThemselves)
{
    std::vector<int> order;
    KEVENT done;
    KeInitializeEvent(&done, SynchronizationEvent, FALSE);
    const auto run = [](PVOID context) NTAPI {
        auto* const item = static_cast<OrderedItem*>(context);
        item->Order->push_back(item->Number);
        delete item;
    };
    for (int i = 0; i < 20; ++i) {
        auto* const item = new OrderedItem{{}, &order, i};
        ExInitializeWorkItem(&item->Item, run, item);
        ExQueueWorkItem(&item->Item, DelayedWorkQueue);
    }
    WORK_QUEUE_ITEM last;
    ExInitializeWorkItem(
        &last, [](PVOID event) NTAPI { KeSetEvent(static_cast<PRKEVENT>(event), 0, FALSE); }, &done);
    ExQueueWorkItem(&last, DelayedWorkQueue);
    EXPECT_EQ(WaitFor(&done), STATUS_SUCCESS);
    ASSERT_EQ(order.size(), 20u);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

// Delayed work may wait for critical work; one worker for both would never get there.
TEST_F(WorkItems, CriticalWorkPassesBlockedDelayedWork)
{
    KEVENT critical, delayed;
    KeInitializeEvent(&critical, NotificationEvent, FALSE);
    KeInitializeEvent(&delayed, NotificationEvent, FALSE);
    PRKEVENT events[] = {&critical, &delayed};
    WORK_QUEUE_ITEM waits, sets;
    ExInitializeWorkItem(
        &waits,
        [](PVOID context) NTAPI {
            auto* const both = static_cast<PRKEVENT*>(context);
            WaitFor(both[0]);
            KeSetEvent(both[1], 0, FALSE);
        },
        events);
    ExInitializeWorkItem(
        &sets, [](PVOID event) NTAPI { KeSetEvent(static_cast<PRKEVENT>(event), 0, FALSE); }, &critical);
    ExQueueWorkItem(&waits, DelayedWorkQueue);
    ExQueueWorkItem(&sets, CriticalWorkQueue);
    EXPECT_EQ(WaitFor(&delayed), STATUS_SUCCESS);
}

// An item that queues itself again a few times: a shutdown runs all of it.
TEST_F(WorkItems, ShutdownRunsOutTheQueues)
{
    struct Again {
        WORK_QUEUE_ITEM Item;
        int Left;
    } again{{}, 50};
    ExInitializeWorkItem(
        &again.Item,
        [](PVOID context) NTAPI {
            auto* const self = static_cast<Again*>(context);
            if (--self->Left) ExQueueWorkItem(&self->Item, self->Left % 2 ? CriticalWorkQueue : DelayedWorkQueue);
        },
        &again);
    ExQueueWorkItem(&again.Item, DelayedWorkQueue);
    EXPECT_EQ(ShutDown(), std::vector<std::string>());
    EXPECT_EQ(again.Left, 0);
}

} // namespace
