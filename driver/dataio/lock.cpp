// IRP_MJ_LOCK_CONTROL: byte-range locks live in the driver alone. The request is screened and given to the platform's
// lock package, which completes it, then or later. The object's lock is held across that call: a worker keeps the file
// object, and so the lock, until its work is done.

#include "frame/context.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"

NTSTATUS GvDoLockControl(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel) {
        GV_TRACE(GvTraceError, "ERR: lock-ctrl must be a top-level request\n");
        return STATUS_INVALID_PARAMETER;
    }
    const PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(context->Irp)->FileObject;
    Fcb* const fcb = GvFcbOf(fileObject);
    if (fcb->FcbType != GvFile) {
        GV_TRACE(GvTraceError, "ERR: bad fcb type: %d\n", fcb->FcbType);
        return STATUS_INVALID_PARAMETER;
    }
    if (context->IsAsync) return GvPendIrpContext(context);

    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;
    // Its unlocking has been: a lock that came now would stay for as long as the object does.
    if (GvCcbOf(fileObject)->HandleGone) {
        GV_TRACE(GvTraceError, "ERR: FO: 0x%x has had its cleanup\n", fileObject);
        return STATUS_FILE_CLOSED;
    }
    // The package completes the request, or lets it wait with a cancel routine of its own: the one that a pended
    // request carries must be gone by then.
    if (context->IsPended) GvDisarmCancelForPluginCall(context->Vcb, context, CancelRoutine::Clear);
    // Before the call: from that moment on the request is the package's.
    outcome->IrpTakenOver = true;
    const NTSTATUS status = FsRtlProcessFileLock(&fcb->FileLock, context->Irp, nullptr);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("FsRtlProcessFileLock", status);
    return status;
}
