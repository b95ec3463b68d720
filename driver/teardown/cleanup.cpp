// IRP_MJ_CLEANUP: the last handle to a file object is gone. What belongs to the handle ends here; the file object
// itself lives on until its close, since the memory manager can keep it referenced. The plugin hears nothing, unless
// this was the last handle of an object that is to be deleted.

#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/util.h"
#include "teardown/deletion.h"

namespace {

// Filter 0 means that there is nothing to report.
ULONG ChangesOf(const Ccb* ccb)
{
    ULONG filter = 0;
    if (ccb->SizeChanged) filter |= FILE_NOTIFY_CHANGE_SIZE;
    if (ccb->LastWriteChanged) filter |= FILE_NOTIFY_CHANGE_LAST_WRITE;
    return filter;
}

// The count still includes the handle that goes.
bool IsTimeToDelete(const Fcb* fcb) { return GvLoad(fcb->DeletePending) && GvLoad(fcb->HandleCount) == 1; }

// Deletion needs Vcb.Resource, which comes before the object's lock. While neither is held another cleanup may run to
// its end, or the wish be withdrawn. What becomes of the deletion does not reach the caller.
[[nodiscard]] NTSTATUS DeleteIfStillTime(IrpContext* context, Fcb* fcb, GvHeldResource* volumeLock,
                                         GvHeldResource* lock)
{
    lock->Release();
    NTSTATUS status = volumeLock->Exclusive(&context->Vcb->Resource);
    if (!NT_SUCCESS(status)) return status;
    status = lock->Exclusive(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    if (!IsTimeToDelete(fcb)) return STATUS_SUCCESS;
    const NTSTATUS deleted = GvPerformDeletion(context, fcb);
    if (!NT_SUCCESS(deleted)) GV_TRACE_FAILED_AS("GvDoCleanup", "GvDoFileDelete", deleted);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvDoCleanup(IrpContext* context, GvOutcome*)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (context->IsAsync || !context->IsTopLevel) {
        GV_TRACE(GvTraceError, "Cleanup async: %d, top-level: %d, err: 0x%x\n", context->IsAsync, context->IsTopLevel,
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    const PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(context->Irp)->FileObject;
    Fcb* const fcb = GvFcbOf(fileObject);
    Ccb* const ccb = GvCcbOf(fileObject);
    GvHeldResource volumeLock;
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;

    // A lock request that still waits for a worker finds its handle gone, and leaves no lock behind.
    ccb->HandleGone = 1;
    FsRtlFastUnlockAll(&fcb->FileLock, fileObject, IoGetRequestorProcess(context->Irp), nullptr);
    if (ccb->DeleteOnClose) GvStore(fcb->DeletePending, 1); // also while other handles remain
    if (IsTimeToDelete(fcb)) {
        if (const NTSTATUS status = DeleteIfStillTime(context, fcb, &volumeLock, &lock); !NT_SUCCESS(status)) {
            return status;
        }
    }
    if (const ULONG changes = ChangesOf(ccb)) GvUtlReportChange(context->Vcb, fcb, changes, FILE_ACTION_MODIFIED);
    InterlockedDecrement(&fcb->HandleCount);
    IoRemoveShareAccess(fileObject, &fcb->ShareAccess);
    if (!CcUninitializeCacheMap(fileObject, nullptr, nullptr)) {
        GV_TRACE(GvTraceError, "CcUninitializeCacheMap(): failed\n");
    }
    return STATUS_SUCCESS;
}
