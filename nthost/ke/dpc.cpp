// Deferred procedure calls: a queue under the dispatcher lock, which the clock's thread empties at DISPATCH_LEVEL. As
// all run on one thread, none runs beside another.
#include "ke/dpc.h"

#include "ke/callout.h"
#include "ke/dispatcher.h"
#include "ke/wait.h"

namespace nthost::ke {

namespace {

LIST_ENTRY g_queue = {&g_queue, &g_queue};
KEVENT g_idle; // nothing queued or running
constexpr UCHAR kDpcObject = 0x13;

struct DpcCall {
    PKDEFERRED_ROUTINE Routine; // null: the queue is empty
    PRKDPC Dpc;
    PVOID Context, Argument1, Argument2;
};

// The record is free for another use when its routine is called.
DpcCall TakeDpc()
{
    const std::lock_guard hold(dispatcherLock);
    if (IsListEmpty(&g_queue)) return {};
    PRKDPC const dpc = CONTAINING_RECORD(RemoveHeadList(&g_queue), KDPC, DpcListEntry);
    dpc->DpcData = nullptr;
    return {dpc->DeferredRoutine, dpc, dpc->DeferredContext, dpc->SystemArgument1, dpc->SystemArgument2};
}

// Set by the thread that has found nothing more, unless something came in between.
void NoteIdle()
{
    WakeChain chain = nullptr;
    {
        const std::lock_guard hold(dispatcherLock);
        if (!IsListEmpty(&g_queue)) return;
        g_idle.Header.SignalState = 1;
        chain = ReleaseWaiters(&g_idle.Header);
    }
    WakeAll(chain);
}

} // namespace

bool QueueDpc(PRKDPC dpc, PVOID argument1, PVOID argument2)
{
    if (dpc->DpcData) return false;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    dpc->DpcData = &g_queue;
    InsertTailList(&g_queue, &dpc->DpcListEntry);
    g_idle.Header.SignalState = 0;
    return true;
}

void RunDpcs()
{
    const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
    for (DpcCall call = TakeDpc(); call.Routine; call = TakeDpc())
        CallDriver(MustRestore::Everything, "deferred procedure call", call.Routine, call.Dpc, call.Context,
                   call.Argument1, call.Argument2);
    KeLowerIrql(before);
    NoteIdle();
}

void ResetDpcs()
{
    InitializeListHead(&g_queue);
    KeInitializeEvent(&g_idle, NotificationEvent, TRUE);
}

} // namespace nthost::ke

using namespace nthost;
using namespace nthost::ke;

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    *Dpc = {};
    Dpc->Type = kDpcObject;
    Dpc->Importance = 1;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    {
        const std::lock_guard hold(dispatcherLock);
        if (!QueueDpc(Dpc, SystemArgument1, SystemArgument2)) return FALSE;
    }
    WakeClock();
    return TRUE;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc)
{
    const std::lock_guard hold(dispatcherLock);
    if (!Dpc->DpcData) return FALSE;
    RemoveEntryList(&Dpc->DpcListEntry);
    Dpc->DpcData = nullptr;
    return TRUE;
}

VOID NTAPI KeFlushQueuedDpcs(VOID)
{
    WakeClock(); // which says that it is idle if the last was removed
    (void)KeWaitForSingleObject(&g_idle, Executive, KernelMode, FALSE, nullptr);
}
