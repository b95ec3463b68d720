// Waits on events, semaphores and threads: what is satisfied, what is taken, who is woken.
#include <atomic>
#include <vector>

#include "kernel.h"

namespace {

using Wait = KernelTest;

LARGE_INTEGER Timeout(LONGLONG value)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = value;
    return timeout;
}

struct MixRow {
    const char* Why;
    BOOLEAN Notification, Synchronization;
    LONG Semaphore;
    WAIT_TYPE Type;
    NTSTATUS Status;
    LONG NotificationAfter, SynchronizationAfter, SemaphoreAfter;
};

constexpr MixRow kMixes[] = {
    {"nothing signalled", 0, 0, 0, WaitAny, STATUS_TIMEOUT, 0, 0, 0},
    {"the lowest index wins, and only it is taken", 0, 1, 1, WaitAny, STATUS_WAIT_0 + 1, 0, 0, 1},
    {"a notification event stays signalled", 1, 1, 1, WaitAny, STATUS_WAIT_0, 1, 1, 1},
    {"one unit of the semaphore", 0, 0, 3, WaitAny, STATUS_WAIT_0 + 2, 0, 0, 2},
    {"all are taken together", 1, 1, 2, WaitAll, STATUS_WAIT_0, 1, 0, 1},
    {"one missing: nothing is taken", 1, 1, 0, WaitAll, STATUS_TIMEOUT, 1, 1, 0},
    {"first missing: nothing is taken", 0, 1, 2, WaitAll, STATUS_TIMEOUT, 0, 1, 2},
};

TEST_F(Wait, MixesOfObjects)
{
    for (const MixRow& row : kMixes) {
        SCOPED_TRACE(row.Why);
        KEVENT notification, synchronization;
        KSEMAPHORE semaphore;
        KeInitializeEvent(&notification, NotificationEvent, row.Notification);
        KeInitializeEvent(&synchronization, SynchronizationEvent, row.Synchronization);
        KeInitializeSemaphore(&semaphore, row.Semaphore, 10);
        PVOID objects[] = {&notification, &synchronization, &semaphore};
        LARGE_INTEGER test = Timeout(0);
        EXPECT_EQ(KeWaitForMultipleObjects(3, objects, row.Type, Executive, KernelMode, FALSE, &test, nullptr),
                  row.Status);
        EXPECT_EQ(KeReadStateEvent(&notification), row.NotificationAfter);
        EXPECT_EQ(KeReadStateEvent(&synchronization), row.SynchronizationAfter);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), row.SemaphoreAfter);
    }
}

TEST_F(Wait, SemaphoreReleasePastTheLimitRaisesAndCountsNothing)
{
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 1, 3);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 1, FALSE), 1);
    for (const LONG adjustment : {2, INT32_MAX, 0, -1})
        EXPECT_EQ(Guarded([&] { KeReleaseSemaphore(&semaphore, 0, adjustment, FALSE); }),
                  STATUS_SEMAPHORE_LIMIT_EXCEEDED);
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 2);
    EXPECT_EQ(Guarded([&] { KeReleaseSemaphore(&semaphore, 0, 1, FALSE); }), STATUS_SUCCESS);
}

TEST_F(Wait, TimeoutsRelativeAndAbsolute)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    for (const LONGLONG value : {LONGLONG{0}, LONGLONG{-20000}, LONGLONG{1}, now.QuadPart + 20000}) {
        LARGE_INTEGER timeout = Timeout(value), before, after;
        KeQuerySystemTime(&before);
        EXPECT_EQ(WaitFor(&event, &timeout), STATUS_TIMEOUT);
        KeQuerySystemTime(&after);
        if (value < 0) { EXPECT_GE(after.QuadPart - before.QuadPart, 20000 - 10); }
    }
    EXPECT_TRUE(IsListEmpty(&event.Header.WaitListHead));
    KeSetEvent(&event, 0, FALSE);
    LARGE_INTEGER longest = Timeout(INT64_MIN);
    EXPECT_EQ(WaitFor(&event, &longest), STATUS_SUCCESS);
}

TEST_F(Wait, OneWaiterPerUnit)
{
    constexpr int waiters = 8;
    KEVENT synchronization;
    KSEMAPHORE semaphore, acknowledged;
    KeInitializeEvent(&synchronization, SynchronizationEvent, FALSE);
    KeInitializeSemaphore(&semaphore, 0, waiters);
    KeInitializeSemaphore(&acknowledged, 0, 2 * waiters);
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i)
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&] {
            for (PVOID object : {static_cast<PVOID>(&semaphore), static_cast<PVOID>(&synchronization)}) {
                EXPECT_EQ(WaitFor(object), STATUS_SUCCESS);
                KeReleaseSemaphore(&acknowledged, 0, 1, FALSE);
            }
        }));
    for (int unit = 0; unit < waiters; ++unit) {
        KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
        EXPECT_EQ(WaitFor(&acknowledged), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateSemaphore(&acknowledged), 0);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0);
    }
    for (int unit = 0; unit < waiters; ++unit) {
        KeSetEvent(&synchronization, 0, FALSE);
        EXPECT_EQ(WaitFor(&acknowledged), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateSemaphore(&acknowledged), 0);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(KeReadStateEvent(&synchronization), 0);
}

TEST_F(Wait, NotificationEventReleasesAll)
{
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    std::atomic<int> released{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.push_back(
            nthost::StartThread(nthost::HostProcess(), [&] { released += WaitFor(&go) == STATUS_SUCCESS; }));
    EXPECT_EQ(KeSetEvent(&go, 0, FALSE), 0);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(released, 6);
    EXPECT_EQ(KeResetEvent(&go), 1);
    EXPECT_EQ(KeReadStateEvent(&go), 0);
}

// Each side takes both events or none, whatever the order it names them in; one taken alone would end in a deadlock.
TEST_F(Wait, WaitAllTakesAllInOneStep)
{
    KEVENT first, second;
    KeInitializeEvent(&first, SynchronizationEvent, TRUE);
    KeInitializeEvent(&second, SynchronizationEvent, TRUE);
    int inside = 0; // what the two events guard
    const auto side = [&](PVOID a, PVOID b) {
        PVOID objects[] = {a, b};
        for (int i = 0; i < 2000; ++i) {
            ASSERT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
                      STATUS_WAIT_0);
            ASSERT_EQ(++inside, 1);
            --inside;
            KeSetEvent(&first, 0, FALSE);
            KeSetEvent(&second, 0, FALSE);
        }
    };
    std::thread other = nthost::StartThread(nthost::HostProcess(), [&] { side(&second, &first); });
    side(&first, &second);
    other.join();
}

// The signal may come while the time runs out; the waiter's stack must not go before the waker is done with it.
TEST_F(Wait, SignalAgainstTimeout)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::atomic<int> taken{0};
    std::atomic<bool> done{false};
    std::thread waiter = nthost::StartThread(nthost::HostProcess(), [&] {
        while (!done) {
            LARGE_INTEGER timeout = Timeout(-1);
            taken += WaitFor(&event, &timeout) == STATUS_SUCCESS;
        }
    });
    for (int i = 1; i <= 1000; ++i) {
        KeSetEvent(&event, 0, FALSE);
        YieldUntil([&] { return taken == i; });
    }
    done = true;
    waiter.join();
    EXPECT_EQ(taken, 1000);
}

TEST_F(Wait, SpinLockExcludesAndKeepsTheLevel)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    int counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 5000; ++i) {
            KIRQL before;
            KeAcquireSpinLock(&lock, &before);
            ++counter;
            KeReleaseSpinLock(&lock, before);
        }
    };
    std::thread other = nthost::StartThread(nthost::HostProcess(), count);
    count();
    other.join();
    EXPECT_EQ(counter, 10000);

    KIRQL level;
    KeRaiseIrql(APC_LEVEL, &level);
    const KIRQL before = KeAcquireSpinLockRaiseToDpc(&lock);
    EXPECT_EQ(before, APC_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseSpinLock(&lock, before);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    KeLowerIrql(level);
}

} // namespace
