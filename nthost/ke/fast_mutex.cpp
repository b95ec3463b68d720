// Fast and guarded mutexes: one count, and an event for those that have to wait. They differ in what keeps APCs away
// while one is held. The record of held locks tells recursion and release by another thread; without checks a release
// trusts its caller.
#include <cstddef>

#include <nthost/check.h>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/held.h"
#include "ke/schedule_point.h"
#include "ke/wait.h"

using namespace nthost;

namespace {

// Both begin alike, and a gate is the head of an event.
static_assert(offsetof(KGUARDED_MUTEX, Owner) == offsetof(FAST_MUTEX, Owner));
static_assert(offsetof(KGUARDED_MUTEX, Contention) == offsetof(FAST_MUTEX, Contention));
static_assert(offsetof(KGUARDED_MUTEX, Gate) == offsetof(FAST_MUTEX, Event) && sizeof(KGATE) == sizeof(KEVENT));

PFAST_MUTEX Common(PKGUARDED_MUTEX mutex) { return reinterpret_cast<PFAST_MUTEX>(mutex); }

void CheckLevel(const _ETHREAD* thread, PFAST_MUTEX mutex)
{
    if (thread->Irql > APC_LEVEL)
        ReportFinding("mutex-above-apc-level", Format("mutex %p at IRQL %u", static_cast<void*>(mutex), thread->Irql));
}

void CheckAcquire(_ETHREAD* thread, PFAST_MUTEX mutex)
{
    CheckLevel(thread, mutex);
    if (ke::FindHeld(thread, mutex))
        FatalFinding("mutex-recursion", "mutex " + HexText(mutex) + " is already held by this thread");
}

void NoteTaken(_ETHREAD* thread, PFAST_MUTEX mutex, HeldLock::Kind kind, void* where)
{
    mutex->Owner = thread;
    ke::NoteHeld(thread, mutex, kind, ke::HoldMode::Exclusive, where);
}

void Acquire(_ETHREAD* thread, PFAST_MUTEX mutex, HeldLock::Kind kind, void* where)
{
    if (NTHOST_CHECKS) CheckAcquire(thread, mutex);
    if (NTHOST_CHECKS) NoteLockOrder(thread, mutex);
    ke::SwitchPoint("a mutex's acquisition");
    if (InterlockedDecrement(&mutex->Count) != 0) {
        __atomic_add_fetch(&mutex->Contention, 1, __ATOMIC_RELAXED);
        (void)KeWaitForSingleObject(&mutex->Event, Executive, KernelMode, FALSE, nullptr);
    }
    NoteTaken(thread, mutex, kind, where);
}

bool TryToAcquire(_ETHREAD* thread, PFAST_MUTEX mutex, HeldLock::Kind kind, void* where)
{
    if (NTHOST_CHECKS) CheckLevel(thread, mutex);
    if (InterlockedCompareExchange(&mutex->Count, 0, 1) != 1) return false;
    NoteTaken(thread, mutex, kind, where);
    return true;
}

// False if the release must not happen.
bool Release(_ETHREAD* thread, PFAST_MUTEX mutex)
{
    HeldLock* const held = ke::FindHeld(thread, mutex);
    if (!held && NTHOST_CHECKS) {
        ReportFinding("mutex-not-owner", "mutex " + HexText(mutex) + " is released by a thread without it");
        return false;
    }
    if (held) ke::NoteReleased(thread, held);
    mutex->Owner = nullptr;
    // With nobody waiting the next owner may free the memory from here on.
    if (InterlockedIncrement(&mutex->Count) <= 0) KeSetEvent(&mutex->Event, IO_NO_INCREMENT, FALSE);
    return true;
}

void CheckApcsOff(const _ETHREAD* thread, const void* mutex)
{
    if (NTHOST_CHECKS && !thread->IsSystemThread && thread->Irql < APC_LEVEL && !ke::AreApcsDisabled(thread))
        ReportFinding("mutex-with-apcs-enabled",
                      "mutex " + HexText(mutex) + ": the thread could be suspended while it holds it");
}

} // namespace

VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    const KIRQL before = ke::CurrentThread()->Irql;
    if (before < APC_LEVEL) KfRaiseIrql(APC_LEVEL);
    Acquire(ke::CurrentThread(), FastMutex, HeldLock::Kind::FastMutex, __builtin_return_address(0));
    FastMutex->OldIrql = before;
}

BOOLEAN FASTCALL ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    _ETHREAD* const thread = ke::CurrentThread();
    const KIRQL before = thread->Irql;
    if (!TryToAcquire(thread, FastMutex, HeldLock::Kind::FastMutex, __builtin_return_address(0))) return FALSE;
    if (before < APC_LEVEL) KfRaiseIrql(APC_LEVEL);
    FastMutex->OldIrql = before;
    return TRUE;
}

VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    const auto before = static_cast<KIRQL>(FastMutex->OldIrql);
    if (Release(ke::CurrentThread(), FastMutex)) KeLowerIrql(before);
}

VOID FASTCALL ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex)
{
    _ETHREAD* const thread = ke::CurrentThread();
    CheckApcsOff(thread, FastMutex);
    Acquire(thread, FastMutex, HeldLock::Kind::FastMutex, __builtin_return_address(0));
}

VOID FASTCALL ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex) { (void)Release(ke::CurrentThread(), FastMutex); }

VOID FASTCALL KeInitializeGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    if (NTHOST_CHECKS) ForgetLocksIn(Mutex, sizeof(KGUARDED_MUTEX));
    *Mutex = {};
    ExInitializeFastMutex(Common(Mutex));
}

VOID FASTCALL KeAcquireGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    KeEnterGuardedRegion();
    Acquire(ke::CurrentThread(), Common(Mutex), HeldLock::Kind::GuardedMutex, __builtin_return_address(0));
}

BOOLEAN FASTCALL KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (!TryToAcquire(thread, Common(Mutex), HeldLock::Kind::GuardedMutex, __builtin_return_address(0))) return FALSE;
    KeEnterGuardedRegion();
    return TRUE;
}

VOID FASTCALL KeReleaseGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    if (Release(ke::CurrentThread(), Common(Mutex))) KeLeaveGuardedRegion();
}

VOID FASTCALL KeAcquireGuardedMutexUnsafe(PKGUARDED_MUTEX Mutex)
{
    _ETHREAD* const thread = ke::CurrentThread();
    CheckApcsOff(thread, Mutex);
    Acquire(thread, Common(Mutex), HeldLock::Kind::GuardedMutex, __builtin_return_address(0));
}

VOID FASTCALL KeReleaseGuardedMutexUnsafe(PKGUARDED_MUTEX Mutex) { (void)Release(ke::CurrentThread(), Common(Mutex)); }
