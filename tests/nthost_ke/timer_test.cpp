// Timers and deferred procedure calls. Tests wait for the timer itself, or for an event that its call sets.
#include <atomic>

#include "kernel.h"

namespace {

using Timer = KernelTest;

LARGE_INTEGER In(LONGLONG value)
{
    LARGE_INTEGER time;
    time.QuadPart = value;
    return time;
}

constexpr LONGLONG Soon = -10000, Never = -LONGLONG{3600} * 10000000;

TEST_F(Timer, KindsOfTimersAndDueTimes)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    for (const TIMER_TYPE type : {NotificationTimer, SynchronizationTimer}) {
        KTIMER timer;
        KeInitializeTimerEx(&timer, type);
        EXPECT_FALSE(KeReadStateTimer(&timer));
        for (const LONGLONG due : {Soon, now.QuadPart + 10000, now.QuadPart - 10000, LONGLONG{0}}) {
            EXPECT_FALSE(KeSetTimer(&timer, In(due), nullptr));
            if (due >= 0 && due < now.QuadPart) { EXPECT_TRUE(KeReadStateTimer(&timer)); } // at once
            EXPECT_EQ(WaitFor(&timer), STATUS_SUCCESS);
            EXPECT_EQ(KeReadStateTimer(&timer), type == NotificationTimer);
        }
        EXPECT_FALSE(KeCancelTimer(&timer)); // it has come
    }
}

TEST_F(Timer, SetAgainStartsAnewAndCancelledDoesNotCome)
{
    KTIMER timer;
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, In(0), nullptr));
    EXPECT_FALSE(KeSetTimer(&timer, In(Never), nullptr));
    EXPECT_FALSE(KeReadStateTimer(&timer)); // setting takes the signal back
    EXPECT_TRUE(KeSetTimer(&timer, In(Soon), nullptr));
    EXPECT_EQ(WaitFor(&timer), STATUS_SUCCESS);
    EXPECT_FALSE(KeSetTimer(&timer, In(INT64_MIN), nullptr)); // the longest time there is
    EXPECT_TRUE(KeCancelTimer(&timer));
    EXPECT_FALSE(KeCancelTimer(&timer));
    EXPECT_FALSE(KeReadStateTimer(&timer));
}

struct Call {
    KDPC Dpc;
    KSEMAPHORE Ran;
    std::atomic<int> Count{0};
    KIRQL Irql = 0;
    PVOID Argument1 = nullptr;

    Call()
    {
        KeInitializeSemaphore(&Ran, 0, 1000);
        KeInitializeDpc(&Dpc, Run, this);
    }
    static VOID NTAPI Run(PKDPC, PVOID context, PVOID argument1, PVOID)
    {
        auto* const call = static_cast<Call*>(context);
        call->Irql = KeGetCurrentIrql();
        call->Argument1 = argument1;
        ++call->Count;
        KeReleaseSemaphore(&call->Ran, 0, 1, FALSE);
    }
};

TEST_F(Timer, PeriodicOneCallsEachTime)
{
    Call call;
    KTIMER timer;
    KeInitializeTimerEx(&timer, SynchronizationTimer);
    EXPECT_FALSE(KeSetTimerEx(&timer, In(0), 1, &call.Dpc));
    for (int i = 0; i < 4; ++i) WaitFor(&call.Ran);
    EXPECT_EQ(call.Irql, DISPATCH_LEVEL);
    EXPECT_TRUE(KeCancelTimer(&timer));
    KeFlushQueuedDpcs();
    const int count = call.Count;
    EXPECT_GE(count, 4);
    EXPECT_FALSE(KeRemoveQueueDpc(&call.Dpc));
    EXPECT_EQ(call.Count, count);
}

// The first call blocks the only thread that runs them, so that the others stand in the queue.
TEST_F(Timer, DpcIsQueuedOnceAndCanBeTakenBack)
{
    struct Gate {
        std::atomic<bool> Entered{false}, Open{false};
    } gate;
    KDPC blocker;
    KeInitializeDpc(
        &blocker,
        [](PKDPC, PVOID context, PVOID, PVOID) NTAPI {
            auto* const g = static_cast<Gate*>(context);
            g->Entered = true;
            YieldUntil([g] { return g->Open.load(); });
        },
        &gate);
    EXPECT_TRUE(KeInsertQueueDpc(&blocker, nullptr, nullptr));
    YieldUntil([&] { return gate.Entered.load(); });
    Call kept, removed;
    EXPECT_TRUE(KeInsertQueueDpc(&kept.Dpc, &kept, nullptr));
    EXPECT_FALSE(KeInsertQueueDpc(&kept.Dpc, &removed, nullptr));
    EXPECT_TRUE(KeInsertQueueDpc(&removed.Dpc, nullptr, nullptr));
    EXPECT_TRUE(KeRemoveQueueDpc(&removed.Dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&removed.Dpc));
    gate.Open = true;
    KeFlushQueuedDpcs();
    EXPECT_EQ(kept.Count, 1);
    EXPECT_EQ(kept.Argument1, &kept); // of the call that queued it
    EXPECT_EQ(removed.Count, 0);
    EXPECT_TRUE(KeInsertQueueDpc(&kept.Dpc, nullptr, nullptr));
    KeFlushQueuedDpcs();
    EXPECT_EQ(kept.Count, 2);
}

TEST_F(Timer, DelaysEndByTimeAlone)
{
    LARGE_INTEGER before, after;
    KeQuerySystemTime(&before);
    LARGE_INTEGER delay = In(-20000), none = In(0);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &delay), STATUS_SUCCESS);
    KeQuerySystemTime(&after);
    EXPECT_GE(after.QuadPart - before.QuadPart, 20000 - 10);
    EXPECT_EQ(NtDelayExecution(TRUE, &none), STATUS_SUCCESS);
    EXPECT_EQ(NtDelayExecution(FALSE, nullptr), STATUS_ACCESS_VIOLATION);

    LARGE_INTEGER frequency;
    const LARGE_INTEGER first = KeQueryPerformanceCounter(&frequency);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &delay), STATUS_SUCCESS);
    EXPECT_GE(KeQueryPerformanceCounter(nullptr).QuadPart - first.QuadPart, frequency.QuadPart / 500 - 10);
}

#if NTHOST_CHECKS

TEST_F(Timer, LeftSetIsFound)
{
    const nthost::QuietFindings quiet;
    const auto make = [] {
        auto* const timer = static_cast<PKTIMER>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KTIMER), PoolTag("Time")));
        KeInitializeTimer(timer);
        KeSetTimer(timer, In(Never), nullptr);
        return timer;
    };
    ExFreePoolWithTag(make(), 0);
    const auto findings = nthost::TakeFindings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].Rule, "timer-not-cancelled");

    static KTIMER left;
    KeInitializeTimer(&left);
    KeSetTimer(&left, In(Never), nullptr);
    const nthost::LeakReport report = nthost::Shutdown();
    ASSERT_EQ(report.Lines.size(), 1u);
    EXPECT_EQ(report.Lines[0].find("timer 0x"), 0u) << report.Lines[0];
    EXPECT_NE(report.Lines[0].find("still set"), std::string::npos);
    nthost::Boot();
    EXPECT_FALSE(KeCancelTimer(&left));
}

#endif

} // namespace
