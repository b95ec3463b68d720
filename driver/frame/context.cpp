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

namespace {

bool IsQueued(Vcb* vcb, const IrpContext* context) GV_REQUIRES(vcb->QueueLock)
{
    for (const LIST_ENTRY& list : vcb->PendedList) {
        if (GvUtlIsEntryOnList(&list, &context->Link)) return true;
    }
    return GvUtlIsEntryOnList(&vcb->ActiveList, &context->Link);
}

} // namespace

NTSTATUS GvFreeIrpContext(IrpContext* context)
{
    Vcb* const vcb = context->Vcb;
    bool queued;
    {
        GvHeldSpinLock lock(vcb->QueueLock);
        queued = IsQueued(vcb, context);
    }
    if (queued) {
        // Freeing it would leave the list with a link into freed memory; a leaked context is the lesser harm.
        GV_TRACE(GvTraceError, "ERR: Irp: 0x%x is queued\n", context->Irp);
        return STATUS_UNSUCCESSFUL;
    }
    if (context->HasSubject) SeReleaseSubjectContext(&context->Subject);
    GvFree(context);
    return STATUS_SUCCESS;
}

namespace {

// Paging requests that came in as the outermost work of their thread take the object's lock; the others have it held
// for them, and whoever holds it may be waiting for them.
GvLane LaneOf(const IrpContext* context)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    const bool isTransfer = stack->MajorFunction == IRP_MJ_READ || stack->MajorFunction == IRP_MJ_WRITE;
    if (!isTransfer || !(context->Irp->Flags & IRP_PAGING_IO)) return GvLaneOrdinary;
    return context->IsTopLevel ? GvLanePaging : GvLaneNested;
}

// A release beyond the semaphore's limit raises and changes nothing. The count then already has a permit for every
// context that can be queued: permits of cancelled requests that no worker has taken yet.
void ReleaseWorker(Vcb* vcb, GvLane lane)
{
    KSEMAPHORE* const semaphore = &vcb->WorkSemaphore[lane];
    [[maybe_unused]] const bool contained =
        GvGuarded([semaphore] { KeReleaseSemaphore(semaphore, IO_NO_INCREMENT, 1, FALSE); });
}

// The part of pending that a cancel must see as one step. *queued tells a context that stood on a list already. The
// permit is given under the lock: behind it the request may already be served, its file closed, and the volume gone.
[[nodiscard]] NTSTATUS Enqueue(Vcb* vcb, IrpContext* context, bool* queued)
{
    const GvLane lane = LaneOf(context);
    GvHeldSpinLock lock(vcb->QueueLock);
    if (lane == GvLaneOrdinary && vcb->PendedCount >= GvMaximumPended) return STATUS_INSUFFICIENT_RESOURCES;
    if (IsQueued(vcb, context)) {
        *queued = true;
        return STATUS_UNSUCCESSFUL;
    }
    const PIRP irp = context->Irp;
    GvSetIrpVcb(irp, vcb);
    IoMarkIrpPending(irp);
    context->IsPended = 1;
    context->Lane = lane;
    InsertTailList(&vcb->PendedList[lane], &context->Link);
    if (lane == GvLaneOrdinary) ++vcb->PendedCount;
    IoSetCancelRoutine(irp, GvIoCancelRoutine);
    ReleaseWorker(vcb, lane);
    return STATUS_PENDING;
}

// A rename may ask the plugin whether the caller may delete what it replaces, and the caller is here.
void CaptureSubject(IrpContext* context)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    if (stack->MajorFunction != IRP_MJ_SET_INFORMATION ||
        stack->Parameters.SetFile.FileInformationClass != FileRenameInformation) {
        return;
    }
    SeCaptureSubjectContext(&context->Subject);
    context->HasSubject = 1;
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
        CaptureSubject(context);
        status = Enqueue(vcb, context, &queued);
        if (status == STATUS_PENDING) return status;
    }
    GV_TRACE(GvTraceError, "ERR, irp: 0x%x, queued: %d, status: 0x%x\n", irp, static_cast<ULONG>(queued), status);
    if (locked) GvUnlockUserBufferIrpContext(context);
    return status;
}

GvCallerSubject::GvCallerSubject(IrpContext* context) : subject_(context->HasSubject ? &context->Subject : &own_)
{
    if (subject_ == &own_) SeCaptureSubjectContext(subject_);
    SeLockSubjectContext(subject_);
}

GvCallerSubject::~GvCallerSubject()
{
    SeUnlockSubjectContext(subject_);
    if (subject_ == &own_) SeReleaseSubjectContext(subject_);
}
