// User APCs and alerts: which waits they end, in which order they run, and when not.
#include <vector>

#include "kernel.h"

namespace {

using Apc = KernelTest;

std::vector<int> ran;

void NTAPI Note(PVOID number, PVOID, PVOID) { ran.push_back(static_cast<int>(reinterpret_cast<intptr_t>(number))); }

void Queue(intptr_t number, HANDLE thread = NtCurrentThread())
{
    EXPECT_EQ(NtQueueApcThread(thread, Note, reinterpret_cast<PVOID>(number), nullptr, nullptr), STATUS_SUCCESS);
}

std::vector<int> TakeRan() { return std::exchange(ran, {}); }

using Numbers = std::vector<int>;

HANDLE NewEvent(BOOLEAN state)
{
    HANDLE event = nullptr;
    EXPECT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, state), STATUS_SUCCESS);
    return event;
}

// Rows: how a thread with one queued APC waits, what it gets, and whether the APC ran.
TEST_F(Apc, EndAlertableUserModeWaitsOnly)
{
    const HANDLE set = NewEvent(TRUE), clear = NewEvent(FALSE);
    HANDLE both[] = {clear, set};
    LARGE_INTEGER now{}, soon;
    soon.QuadPart = -1;
    const struct {
        const char* Why;
        std::function<NTSTATUS()> Wait;
        NTSTATUS Status;
        bool Runs;
    } rows[] = {
        {"not alertable", [&] { return NtWaitForSingleObject(clear, FALSE, &soon); }, STATUS_TIMEOUT, false},
        {"satisfied already", [&] { return NtWaitForSingleObject(set, TRUE, nullptr); }, STATUS_SUCCESS, false},
        {"satisfied already", [&] { return NtWaitForMultipleObjects(2, both, WaitAny, TRUE, nullptr); }, 1, false},
        {"kernel mode", [&] { return ZwWaitForSingleObject(clear, TRUE, &soon); }, STATUS_TIMEOUT, false},
        {"another service", [&] { return NtSetEvent(set, nullptr); }, STATUS_SUCCESS, false},
        {"before the timeout", [&] { return NtWaitForSingleObject(clear, TRUE, &now); }, STATUS_USER_APC, true},
        {"for ever", [&] { return NtWaitForSingleObject(clear, TRUE, nullptr); }, STATUS_USER_APC, true},
        {"all", [&] { return NtWaitForMultipleObjects(2, both, WaitAll, TRUE, nullptr); }, STATUS_USER_APC, true},
        {"a delay", [&] { return NtDelayExecution(TRUE, &now); }, STATUS_USER_APC, true},
        {"only a test", [&] { return NtTestAlert(); }, STATUS_SUCCESS, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.Why);
        Queue(1);
        EXPECT_EQ(row.Wait(), row.Status);
        EXPECT_EQ(TakeRan(), row.Runs ? Numbers{1} : Numbers{});
        if (!row.Runs) { EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS); } // so that the next row has one
        TakeRan();
    }
    NtClose(set);
    NtClose(clear);
}

// A driver that waits for its user-mode caller: the APC runs when the service that it is in returns.
TEST_F(Apc, RunWhenTheServiceReturnsToUserMode)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const HANDLE handle = NewEvent(FALSE);
    Queue(1);
    EXPECT_EQ(KeWaitForSingleObject(&event, UserRequest, UserMode, TRUE, nullptr), STATUS_USER_APC);
    {
        const nthost::ActAs driver(PsInitialSystemProcess, KernelMode);
        EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
    }
    EXPECT_EQ(TakeRan(), Numbers{});
    EXPECT_EQ(NtSetEvent(handle, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(TakeRan(), Numbers{1});
    NtClose(handle);
}

TEST_F(Apc, TheQueueRunsEmptyInOrder)
{
    Queue(1);
    const PPS_APC_ROUTINE more = [](PVOID, PVOID, PVOID) NTAPI {
        ran.push_back(2);
        Queue(4); // runs in the same wait
    };
    EXPECT_EQ(NtQueueApcThread(NtCurrentThread(), more, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    Queue(3);
    LARGE_INTEGER none{};
    EXPECT_EQ(NtDelayExecution(TRUE, &none), STATUS_USER_APC);
    EXPECT_EQ(TakeRan(), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(NtDelayExecution(TRUE, &none), STATUS_SUCCESS);
}

// A thread that waits is woken, runs it itself, and a thread that has ended takes none.
TEST_F(Apc, ReachAnotherThread)
{
    HANDLE thread = nullptr;
    KEVENT ready, leave;
    KeInitializeEvent(&ready, NotificationEvent, FALSE);
    KeInitializeEvent(&leave, NotificationEvent, FALSE);
    NTSTATUS first = 0, second = 0;
    Numbers ranThere;
    std::thread other = nthost::StartThread(nthost::HostProcess(), [&] {
        EXPECT_EQ(NtDuplicateObject(NtCurrentProcess(), NtCurrentThread(), NtCurrentProcess(), &thread, 0, 0,
                                    DUPLICATE_SAME_ACCESS),
                  STATUS_SUCCESS);
        const HANDLE never = NewEvent(FALSE);
        KeSetEvent(&ready, 0, FALSE);
        first = NtWaitForSingleObject(never, TRUE, nullptr);
        ranThere = TakeRan();
        KeSetEvent(&ready, 0, FALSE);
        second = NtWaitForSingleObject(never, TRUE, nullptr);
        NtClose(never);
        KeSetEvent(&ready, 0, FALSE);
        WaitFor(&leave);
    });
    const auto step = [&] {
        WaitFor(&ready);
        KeClearEvent(&ready);
    };
    step();
    Queue(7, thread);
    step();
    EXPECT_EQ(NtAlertThread(thread), STATUS_SUCCESS);
    step();
    EXPECT_EQ(first, STATUS_USER_APC);
    EXPECT_EQ(ranThere, Numbers{7});
    EXPECT_EQ(second, STATUS_ALERTED);
    Queue(8, thread); // stays in the queue, and goes with the thread
    KeSetEvent(&leave, 0, FALSE);
    other.join();
    EXPECT_EQ(NtQueueApcThread(thread, Note, nullptr, nullptr, nullptr), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(TakeRan(), Numbers{});
    NtClose(thread);
}

TEST_F(Apc, AlertsAreTakenOnceAndBeforeApcs)
{
    const HANDLE never = NewEvent(FALSE);
    LARGE_INTEGER now{};
    EXPECT_EQ(NtAlertThread(NtCurrentThread()), STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(never, FALSE, &now), STATUS_TIMEOUT);
    Queue(1);
    EXPECT_EQ(NtWaitForSingleObject(never, TRUE, nullptr), STATUS_ALERTED);
    EXPECT_EQ(NtWaitForSingleObject(never, TRUE, nullptr), STATUS_USER_APC);
    EXPECT_EQ(TakeRan(), Numbers{1});
    EXPECT_EQ(NtAlertThread(NtCurrentThread()), STATUS_SUCCESS);
    EXPECT_EQ(NtTestAlert(), STATUS_ALERTED);
    EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
    // A kernel-mode alert ends a user-mode wait, the other way round it does not.
    EXPECT_EQ(ZwAlertThread(NtCurrentThread()), STATUS_SUCCESS);
    EXPECT_EQ(NtWaitForSingleObject(never, TRUE, nullptr), STATUS_ALERTED);
    EXPECT_EQ(NtAlertThread(NtCurrentThread()), STATUS_SUCCESS);
    EXPECT_EQ(ZwWaitForSingleObject(never, TRUE, &now), STATUS_TIMEOUT);
    EXPECT_EQ(NtTestAlert(), STATUS_ALERTED);
    NtClose(never);
    AsDriver(
        [] { EXPECT_EQ(ZwQueueApcThread(NtCurrentThread(), Note, nullptr, nullptr, nullptr), STATUS_INVALID_HANDLE); });
}

} // namespace
