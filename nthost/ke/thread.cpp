// The current thread's record, its IRQL and critical regions, and the clocks. Everything here belongs to the current
// thread; no locks. Threads are made and ended by ps.
#include "ke/thread.h"

#include <ctime>

#include <nthost/check.h>

#include "check/fatal.h"
#include "check/text.h"
#include "ke/apc.h"
#include "ke/schedule.h"
#include "ke/current.h"
#include "ke/wait.h"

namespace nthost::ke {

constinit thread_local _ETHREAD* currentThread;

namespace {

constexpr int64_t kUnixEpoch = 116444736000000000; // 1970-01-01 in 100 ns since 1601

int64_t Nanoseconds(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

} // namespace

void NotAttached() { Fatal("an NT routine was called on a thread that is not attached to a process"); }

void SetCurrentThread(_ETHREAD* thread)
{
    currentThread = thread;
    if (thread) SetIrql(thread, thread->Irql);
}

int64_t MonotonicNow()
{
    if (scheduled.load(std::memory_order_relaxed)) return ScheduleTime();
    return Nanoseconds(CLOCK_MONOTONIC);
}

int64_t SystemTimeNow()
{
    constexpr int64_t newYear = 133485408000000000; // 2024
    if (scheduled.load(std::memory_order_relaxed)) return newYear + ScheduleTime() / 100;
    return Nanoseconds(CLOCK_REALTIME) / 100 + kUnixEpoch;
}

} // namespace nthost::ke

using namespace nthost;

static void Leave(uint32_t _ETHREAD::*depth, const char* kind)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (thread->*depth)
        --(thread->*depth);
    else if (NTHOST_CHECKS)
        ReportFinding(Format("%s-region-underflow", kind), Format("a %s region is left that was not entered", kind));
    ke::AllowKernelApcs(thread);
}

PKTHREAD NTAPI KeGetCurrentThread(VOID) { return ke::CurrentThread(); }

KIRQL NTAPI KeGetCurrentIrql(VOID) { return ke::CurrentThread()->Irql; }

KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql)
{
    _ETHREAD* const thread = ke::CurrentThread();
    const KIRQL before = thread->Irql;
    if (NTHOST_CHECKS && NewIrql < before)
        ReportFinding("irql-not-raised", Format("raise from %u to %u", before, NewIrql));
    ke::SetIrql(thread, NewIrql);
    return before;
}

VOID NTAPI KeLowerIrql(KIRQL NewIrql)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (NTHOST_CHECKS && NewIrql > thread->Irql)
        ReportFinding("irql-not-lowered", Format("lowering from %u to %u", thread->Irql, NewIrql));
    ke::SetIrql(thread, NewIrql);
    ke::AllowKernelApcs(thread);
}

VOID NTAPI KeEnterCriticalRegion(VOID) { ++ke::CurrentThread()->ApcDisable; }

VOID NTAPI KeLeaveCriticalRegion(VOID) { Leave(&_ETHREAD::ApcDisable, "critical"); }

VOID NTAPI KeEnterGuardedRegion(VOID) { ++ke::CurrentThread()->GuardedRegions; }

VOID NTAPI KeLeaveGuardedRegion(VOID) { Leave(&_ETHREAD::GuardedRegions, "guarded"); }

BOOLEAN NTAPI KeAreApcsDisabled(VOID) { return ke::AreApcsDisabled(ke::CurrentThread()); }

BOOLEAN NTAPI KeAreAllApcsDisabled(VOID)
{
    const _ETHREAD* const thread = ke::CurrentThread();
    return thread->GuardedRegions != 0 || thread->Irql >= APC_LEVEL;
}

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = ke::SystemTimeNow(); }

LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    constexpr LONGLONG Frequency = 10000000;
    LARGE_INTEGER ticks;
    if (PerformanceFrequency) PerformanceFrequency->QuadPart = Frequency;
    ticks.QuadPart = ke::MonotonicNow() / (1000000000 / Frequency);
    return ticks;
}
