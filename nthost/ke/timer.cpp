// Timers: a list in order of expiry under the dispatcher lock, and the clock's thread, which sleeps until the first of
// them is due. Due times are those of the monotonic clock in 100 ns, so setting the clock moves no timer.
#include <nthost/check.h>

#include "ke/clock.h"
#include "ke/dispatcher.h"
#include "ke/dpc.h"
#include "ke/live.h"
#include "ke/wait.h"

namespace nthost::ke {

namespace {

LIST_ENTRY g_timers = {&g_timers, &g_timers};
KEVENT g_work; // something became due earlier than the clock's thread thinks
std::atomic<bool> g_stopping;

constexpr ULONGLONG kTicksPerMillisecond = 10000;

ULONGLONG Now() { return static_cast<ULONGLONG>(MonotonicNow()) / 100; }

// The header's last byte says that the timer is in the list.
bool IsSet(PKTIMER timer) { return timer->Header.Reserved1; }

PKTIMER First() { return IsListEmpty(&g_timers) ? nullptr : CONTAINING_RECORD(g_timers.Flink, KTIMER, TimerListEntry); }

// Behind those of the same time, so that timers come in the order in which they were set.
void Insert(PKTIMER timer)
{
    LIST_ENTRY* before = g_timers.Blink;
    while (before != &g_timers && CONTAINING_RECORD(before, KTIMER, TimerListEntry)->DueTime > timer->DueTime)
        before = before->Blink;
    InsertHeadList(before, &timer->TimerListEntry);
    timer->Header.Reserved1 = TRUE;
}

void Remove(PKTIMER timer)
{
    RemoveEntryList(&timer->TimerListEntry);
    timer->Header.Reserved1 = FALSE;
}

// A timer out of the list has come: it is signalled, its DPC queued, and a periodic one set again.
WakeChain Expire(PKTIMER timer, ULONGLONG now)
{
    __atomic_store_n(&timer->Header.SignalState, 1, __ATOMIC_RELEASE);
    const WakeChain chain = ReleaseWaiters(&timer->Header);
    if (timer->Dpc) (void)QueueDpc(timer->Dpc, nullptr, nullptr);
    if (timer->Period) {
        timer->DueTime = now + timer->Period * kTicksPerMillisecond;
        Insert(timer);
    }
    return chain;
}

void NoteSet(PKTIMER timer)
{
    if (NTHOST_CHECKS) NoteLiveObject(LiveKind::Timer, timer);
}

void NoteNotSet(PKTIMER timer)
{
    if (NTHOST_CHECKS) ForgetLiveObject(timer);
}

// False when no timer is due.
bool ExpireFirst()
{
    WakeChain chain;
    {
        const std::lock_guard hold(dispatcherLock);
        PKTIMER const timer = First();
        const ULONGLONG now = Now();
        if (!timer || timer->DueTime > now) return false;
        Remove(timer);
        if (!timer->Period) NoteNotSet(timer); // before anybody may free it
        chain = Expire(timer, now);
    }
    WakeAll(chain);
    return true;
}

// Null if there is nothing to wait for but work.
PLARGE_INTEGER UntilFirst(LARGE_INTEGER* timeout)
{
    const std::lock_guard hold(dispatcherLock);
    PKTIMER const timer = First();
    if (!timer) return nullptr;
    const ULONGLONG now = Now();
    timeout->QuadPart = timer->DueTime > now ? -static_cast<LONGLONG>(timer->DueTime - now) : 0;
    return timeout;
}

ULONGLONG DueTimeOf(LARGE_INTEGER time, ULONGLONG now)
{
    constexpr LONGLONG longest = INT64_MAX / 200; // later than anybody will see
    if (time.QuadPart < -longest) return longest;
    const LONGLONG ticks = time.QuadPart < 0 ? -time.QuadPart : time.QuadPart - SystemTimeNow();
    if (ticks > longest) return longest;
    return ticks > 0 ? now + static_cast<ULONGLONG>(ticks) : now;
}

bool Set(PKTIMER timer, LARGE_INTEGER time, LONG period, PKDPC dpc)
{
    bool wasSet;
    WakeChain chain = nullptr;
    {
        const std::lock_guard hold(dispatcherLock);
        wasSet = IsSet(timer);
        if (wasSet) Remove(timer);
        const ULONGLONG now = Now();
        timer->DueTime = DueTimeOf(time, now);
        timer->Period = static_cast<ULONG>(period);
        timer->Dpc = dpc;
        __atomic_store_n(&timer->Header.SignalState, 0, __ATOMIC_RELEASE);
        if (timer->DueTime > now)
            Insert(timer);
        else
            chain = Expire(timer, now);
        IsSet(timer) ? NoteSet(timer) : NoteNotSet(timer);
    }
    WakeAll(chain);
    WakeClock();
    return wasSet;
}

} // namespace

void WakeClock() { KeSetEvent(&g_work, IO_NO_INCREMENT, FALSE); }

void PrepareClock()
{
    InitializeListHead(&g_timers);
    ResetDpcs();
    KeInitializeEvent(&g_work, SynchronizationEvent, FALSE);
    g_stopping = false;
}

VOID NTAPI RunClock(PVOID)
{
    while (!g_stopping) {
        LARGE_INTEGER timeout;
        (void)KeWaitForSingleObject(&g_work, Executive, KernelMode, FALSE, UntilFirst(&timeout));
        while (ExpireFirst()) {}
        RunDpcs();
    }
}

void EndClock()
{
    g_stopping = true;
    WakeClock();
}

void ForgetTimersIn(const void* memory, size_t size)
{
    const auto begin = reinterpret_cast<uintptr_t>(memory);
    const std::lock_guard hold(dispatcherLock);
    for (LIST_ENTRY* entry = g_timers.Flink; entry != &g_timers;) {
        PKTIMER const timer = CONTAINING_RECORD(entry, KTIMER, TimerListEntry);
        entry = entry->Flink;
        if (reinterpret_cast<uintptr_t>(timer) - begin < size) Remove(timer);
    }
}

void ForgetAllTimers()
{
    const std::lock_guard hold(dispatcherLock);
    while (PKTIMER const timer = First()) Remove(timer);
}

} // namespace nthost::ke

using namespace nthost;
using namespace nthost::ke;

VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    *Timer = {};
    InitializeHeader(&Timer->Header, static_cast<UCHAR>(kTimerObject + Type), 0);
    Timer->Header.Size = sizeof(KTIMER) / sizeof(ULONG);
}

VOID NTAPI KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    return Set(Timer, DueTime, Period, Dpc);
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) { return Set(Timer, DueTime, 0, Dpc); }

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer)
{
    const std::lock_guard hold(dispatcherLock);
    if (!IsSet(Timer)) return FALSE;
    Remove(Timer);
    NoteNotSet(Timer);
    return TRUE;
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer) { return KeReadStateEvent(reinterpret_cast<PRKEVENT>(Timer)) != 0; }
