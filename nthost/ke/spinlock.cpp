// Spin locks: a word lock in the low half of the KSPIN_LOCK, held at DISPATCH_LEVEL. With checks on, the thread's
// record of held locks tells recursion and release by another thread; without them a release trusts its caller.
#include <nthost/check.h>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "ke/held.h"
#include "ke/schedule_point.h"
#include "ke/word_lock.h"

using namespace nthost;

namespace {

std::atomic<uint32_t>& WordOf(PKSPIN_LOCK lock) { return *reinterpret_cast<std::atomic<uint32_t>*>(lock); }

void CheckAcquire(_ETHREAD* thread, PKSPIN_LOCK lock)
{
    if (ke::FindHeld(thread, lock))
        FatalFinding("spinlock-recursion", "spin lock " + HexText(lock) + " is already held by this thread");
    NoteLockOrder(thread, lock);
}

// False if the release must not happen.
bool CheckRelease(_ETHREAD* thread, PKSPIN_LOCK lock)
{
    HeldLock* const held = ke::FindHeld(thread, lock);
    if (!held) {
        ReportFinding("spinlock-not-owner", "spin lock " + HexText(lock) + " is released by a thread without it");
        return false;
    }
    ke::NoteReleased(thread, held);
    return true;
}

} // namespace

VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    if (NTHOST_CHECKS) ForgetLocksIn(SpinLock, sizeof(KSPIN_LOCK));
    *SpinLock = 0;
}

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    _ETHREAD* const thread = ke::CurrentThread();
    const KIRQL before = thread->Irql;
    if (before < DISPATCH_LEVEL) ke::SetIrql(thread, DISPATCH_LEVEL);
    if (NTHOST_CHECKS) CheckAcquire(thread, SpinLock);
    ke::SwitchPoint("a spin lock's acquisition");
    ke::LockWord(WordOf(SpinLock));
    if (NTHOST_CHECKS)
        ke::NoteHeld(thread, SpinLock, HeldLock::Kind::SpinLock, ke::HoldMode::Exclusive, __builtin_return_address(0));
    return before;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    _ETHREAD* const thread = ke::CurrentThread();
    if (!NTHOST_CHECKS || CheckRelease(thread, SpinLock)) ke::UnlockWord(WordOf(SpinLock));
    ke::SetIrql(thread, NewIrql);
    ke::SwitchPoint("a spin lock's release");
}
