// Contexts: allocation, release, and the hand-over to the worker pool. List membership, PendedCount, IsPended and the
// cancel routine change under Vcb.QueueLock only, so that a cancel finds the request in exactly one place.

#include "frame/context.h"

#include "frame/guard.h"
#include "frame/pool.h"
#include "frame/trace.h"

NTSTATUS GvUtlCheckFileObject(PDEVICE_OBJECT device, PFILE_OBJECT fileObject)
{
    const PDEVICE_OBJECT opened = fileObject ? fileObject->DeviceObject : nullptr;
    if (opened == device) return STATUS_SUCCESS;
    GV_TRACE(GvTraceError, "dev-obj's don't match: 0x%x != 0x%x\n", opened, device);
    return STATUS_INVALID_PARAMETER;
}

bool GvUtlIsEntryOnList(const LIST_ENTRY* head, const LIST_ENTRY* entry)
{
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        if (link == entry) return true;
    }
    return false;
}

NTSTATUS GvAllocIrpContext(PDEVICE_OBJECT device, PIRP irp, bool isTopLevel, IrpContext** result)
{
    const NTSTATUS status = GvUtlCheckFileObject(device, IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvUtlCheckFileObject", status);
        return status;
    }
    auto* const context = GvAllocate<IrpContext>(NonPagedPool);
    if (!context) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    context->DeviceObject = device;
    context->Irp = irp;
    context->Vcb = GvVcbOf(device);
    context->IsTopLevel = isTopLevel;
    context->IsAsync = !IoIsOperationSynchronous(irp);
    KeInitializeEvent(&context->PluginCallContext, SynchronizationEvent, FALSE);
    *result = context;
    return STATUS_SUCCESS;
}

NTSTATUS GvFreeIrpContext(IrpContext* context)
{
    Vcb* const vcb = context->Vcb;
    bool queued;
    {
        GvHeldSpinLock lock(vcb->QueueLock);
        queued = GvUtlIsEntryOnList(&vcb->PendedList, &context->Link) ||
                 GvUtlIsEntryOnList(&vcb->ActiveList, &context->Link);
    }
    if (queued) {
        // Freeing it would leave the list with a link into freed memory; a leaked context is the lesser harm.
        GV_TRACE(GvTraceError, "ERR: Irp: 0x%x is queued\n", context->Irp);
        return STATUS_UNSUCCESSFUL;
    }
    GvFree(context);
    return STATUS_SUCCESS;
}

namespace {

// The part of pending that a cancel must see as one step. *queued tells a context that stood on a list already.
[[nodiscard]] NTSTATUS Enqueue(Vcb* vcb, IrpContext* context, bool* queued)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    if (vcb->PendedCount >= GvMaximumPended) return STATUS_INSUFFICIENT_RESOURCES;
    if (GvUtlIsEntryOnList(&vcb->PendedList, &context->Link) || GvUtlIsEntryOnList(&vcb->ActiveList, &context->Link)) {
        *queued = true;
        return STATUS_UNSUCCESSFUL;
    }
    const PIRP irp = context->Irp;
    GvSetIrpVcb(irp, vcb);
    IoMarkIrpPending(irp);
    context->IsPended = 1;
    InsertTailList(&vcb->PendedList, &context->Link);
    ++vcb->PendedCount;
    IoSetCancelRoutine(irp, GvIoCancelRoutine);
    return STATUS_PENDING;
}

// A release beyond the semaphore's limit raises and changes nothing. The count then already has a permit for every
// context that can be queued: permits of cancelled requests that no worker has taken yet.
void ReleaseWorker(Vcb* vcb)
{
    if (!GvGuarded([vcb] { KeReleaseSemaphore(&vcb->WorkSemaphore, IO_NO_INCREMENT, 1, FALSE); })) {
        GV_TRACE_AS("GvPendIrpContext", GvTraceNotable, "io-dev-ctxt: 0x%x, work semaphore is full\n", vcb);
    }
}

} // namespace

NTSTATUS GvPendIrpContext(IrpContext* context)
{
    Vcb* const vcb = context->Vcb;
    const PIRP irp = context->Irp;
    bool locked = false;
    bool queued = false;
    NTSTATUS status = GvLockUserBufferIrpContext(context, &locked);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvLockUserBufferIrpContext", status);
    } else {
        status = Enqueue(vcb, context, &queued);
        if (status == STATUS_PENDING) {
            ReleaseWorker(vcb);
            return status;
        }
    }
    GV_TRACE(GvTraceError, "ERR, irp: 0x%x, queued: %d, status: 0x%x\n", irp, static_cast<ULONG>(queued), status);
    if (locked) GvUnlockUserBufferIrpContext(context);
    return status;
}
