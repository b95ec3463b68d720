// KMUTEX: its owner and count are the dispatcher's, taken by waits (wait.cpp); the thread's record of held locks has it
// as well. A mutex keeps kernel APCs away while it is held.
#include <nthost/check.h>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/apc.h"
#include "ke/dispatcher.h"
#include "ke/held.h"
#include "ke/wait.h"

namespace nthost::ke {

namespace {

enum class How { Release, Abandon };

// Under the lock, by the owner: one less, or free at once.
WakeChain GiveUp(PRKMUTEX mutex, How how)
{
    const LONG state = how == How::Abandon ? 1 : mutex->Header.SignalState + 1;
    __atomic_store_n(&mutex->Header.SignalState, state, __ATOMIC_RELEASE);
    if (state != 1) return nullptr;
    mutex->OwnerThread = nullptr;
    mutex->Abandoned = how == How::Abandon;
    return ReleaseWaiters(&mutex->Header);
}

[[noreturn]] void RaiseNotOwned(PRKMUTEX mutex, bool abandoned)
{
    if (NTHOST_CHECKS)
        ReportFinding("mutex-not-owner", "mutex " + HexText(mutex) + " is released by a thread without it");
    ExRaiseStatus(abandoned ? STATUS_ABANDONED : STATUS_MUTANT_NOT_OWNED);
}

} // namespace

void AbandonMutexes(_ETHREAD* thread)
{
    for (const HeldLock& held : thread->Held) {
        if (held.LockKind != HeldLock::Kind::Mutex) continue;
        WakeChain chain;
        {
            const std::lock_guard hold(dispatcherLock);
            chain = GiveUp(static_cast<PRKMUTEX>(held.Address), How::Abandon);
        }
        WakeAll(chain);
    }
}

} // namespace nthost::ke

using namespace nthost;
using namespace nthost::ke;

VOID NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG)
{
    if (NTHOST_CHECKS) ForgetLocksIn(Mutex, sizeof(KMUTEX));
    InitializeHeader(&Mutex->Header, kMutexObject, 1);
    Mutex->Header.Size = sizeof(KMUTEX) / sizeof(ULONG);
    InitializeListHead(&Mutex->MutantListEntry);
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
}

LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN)
{
    _ETHREAD* const thread = CurrentThread();
    HeldLock* const held = FindHeld(thread, Mutex);
    LONG before = 0;
    bool abandoned;
    WakeChain chain = nullptr;
    {
        const std::lock_guard hold(dispatcherLock);
        abandoned = Mutex->Abandoned;
        before = Mutex->Header.SignalState;
        if (held) chain = GiveUp(Mutex, How::Release);
    }
    // Raised with nothing held: no destructor runs on the way to the guard.
    if (!held) RaiseNotOwned(Mutex, abandoned);
    NoteReleased(thread, held);
    WakeAll(chain);
    AllowKernelApcs(thread);
    return before;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) { return __atomic_load_n(&Mutex->Header.SignalState, __ATOMIC_ACQUIRE); }
