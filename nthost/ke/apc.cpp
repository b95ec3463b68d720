// Queues of APCs, alerts, and their delivery. The queues are under the dispatcher lock, since a wait has to look at
// them in the step in which it begins.
#include "ke/apc.h"

#include <utility>

#include "check/fatal.h"
#include "ke/dispatcher.h"

namespace nthost::ke {

namespace {

// Under the lock.
WakeChain Interrupt(_ETHREAD* thread, KPROCESSOR_MODE mode)
{
    WaitRecord* const wait = thread->Wait;
    if (mode == KernelMode) return WaitsForKernelApcs(wait) ? EndWait(wait, STATUS_KERNEL_APC) : nullptr;
    return WaitsForUserApcs(wait) ? EndWait(wait, STATUS_USER_APC) : nullptr;
}

Apc* TakeApc(_ETHREAD* thread, KPROCESSOR_MODE mode)
{
    const std::lock_guard hold(dispatcherLock);
    LIST_ENTRY* const queue = &thread->Apcs[ModeIndex(mode)];
    if (IsListEmpty(queue)) return nullptr;
    Apc* const apc = CONTAINING_RECORD(RemoveHeadList(queue), Apc, Link);
    if (mode == KernelMode) thread->HasKernelApcs.store(!IsListEmpty(queue), std::memory_order_relaxed);
    return apc;
}

} // namespace

bool QueueApc(_ETHREAD* thread, KPROCESSOR_MODE mode, Apc* apc)
{
    WakeChain chain;
    {
        const std::lock_guard hold(dispatcherLock);
        if (thread->ApcsClosed) return false;
        InsertTailList(&thread->Apcs[ModeIndex(mode)], &apc->Link);
        if (mode == KernelMode) thread->HasKernelApcs.store(true, std::memory_order_relaxed);
        chain = Interrupt(thread, mode);
    }
    WakeAll(chain);
    return true;
}

void AlertThread(_ETHREAD* thread, KPROCESSOR_MODE mode)
{
    WakeChain chain = nullptr;
    {
        const std::lock_guard hold(dispatcherLock);
        if (WaitsForAlerts(thread->Wait, mode))
            chain = EndWait(thread->Wait, STATUS_ALERTED);
        else
            thread->Alerted[ModeIndex(mode)] = true;
    }
    WakeAll(chain);
}

bool TestAlert(KPROCESSOR_MODE mode)
{
    _ETHREAD* const thread = CurrentThread();
    const std::lock_guard hold(dispatcherLock);
    const bool alerted = std::exchange(thread->Alerted[ModeIndex(mode)], false);
    if (!alerted && mode == UserMode && !IsListEmpty(&thread->Apcs[UserMode])) thread->UserApcPending = true;
    return alerted;
}

void RundownApcs(_ETHREAD* thread)
{
    {
        const std::lock_guard hold(dispatcherLock);
        thread->ApcsClosed = true;
    }
    for (const KPROCESSOR_MODE mode : {KernelMode, UserMode})
        while (Apc* const apc = TakeApc(thread, mode)) apc->Discard(apc);
}

void DeliverKernelApcs(_ETHREAD* thread)
{
    while (thread->Irql < APC_LEVEL && !AreApcsDisabled(thread)) {
        Apc* const apc = TakeApc(thread, KernelMode);
        if (!apc) return;
        apc->Deliver(apc);
    }
}

NTSTATUS LeaveService(NTSTATUS status)
{
    _ETHREAD* const thread = CurrentThread();
    AllowKernelApcs(thread);
    if (!thread->UserApcPending || thread->PreviousMode != UserMode) return status;
    thread->UserApcPending = false;
    // Those that the routines queue too: the thread does not go on before its queue is empty.
    while (Apc* const apc = TakeApc(thread, UserMode)) apc->Deliver(apc);
    return status;
}

} // namespace nthost::ke
