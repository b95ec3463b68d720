// Cancellation. A request is in one of three places when the I/O manager cancels it: waiting on a PendedList (it ends
// at once), on ActiveList inside a worker or a plugin call (its event is signalled and it runs on), or on neither
// (nothing to do). All of it is ordered by Vcb.QueueLock; the global cancel lock is given up first and never held
// together with it.

#include "frame/context.h"
#include "frame/dispatch.h"

void GvArmCancelForPluginCall(Vcb* vcb, IrpContext* context)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    if (!GvUtlIsEntryOnList(&vcb->ActiveList, &context->Link)) InsertTailList(&vcb->ActiveList, &context->Link);
    GvSetIrpVcb(context->Irp, vcb);
    IoSetCancelRoutine(context->Irp, GvIoCancelRoutine);
}

void GvDisarmCancelForPluginCall(Vcb* vcb, IrpContext* context, CancelRoutine cancelRoutine)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    if (GvUtlIsEntryOnList(&vcb->ActiveList, &context->Link)) RemoveEntryList(&context->Link);
    if (cancelRoutine == CancelRoutine::Clear) IoSetCancelRoutine(context->Irp, nullptr);
}

namespace {

IrpContext* FindByIrp(LIST_ENTRY* head, PIRP irp)
{
    for (LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        auto* const context = CONTAINING_RECORD(link, IrpContext, Link);
        if (context->Irp == irp) return context;
    }
    return nullptr;
}

// The waiting context, taken off its list and now the caller's; null if the request is being served or is gone.
IrpContext* TakePendedOrSignalActive(Vcb* vcb, PIRP irp)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    for (LIST_ENTRY& list : vcb->PendedList) {
        IrpContext* const waiting = FindByIrp(&list, irp);
        if (!waiting) continue;
        RemoveEntryList(&waiting->Link);
        if (waiting->Lane == GvLaneOrdinary) --vcb->PendedCount;
        return waiting;
    }
    if (IrpContext* const active = FindByIrp(&vcb->ActiveList, irp)) {
        KeSetEvent(&active->PluginCallContext, IO_NO_INCREMENT, FALSE);
    }
    return nullptr;
}

} // namespace

VOID NTAPI GvIoCancelRoutine(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);

    auto* const vcb = GvIrpVcb(irp);
    IrpContext* const context = TakePendedOrSignalActive(vcb, irp);
    if (!context) return;

    // First: once the request is complete its file can close, and the volume that the context points to can go.
    GvFreeIrpContext(context);
    GvCompleteRequest(__func__, irp, STATUS_CANCELLED, 0);
}
