// IRP_MJ_CLEANUP: the last handle to a file object is gone. What belongs to the handle ends here; the file object
// itself lives on until its close, since the memory manager can keep it referenced. The plugin hears nothing.

#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/util.h"

namespace {

// Filter 0 means that there is nothing to report.
ULONG ChangesOf(const Ccb* ccb)
{
    ULONG filter = 0;
    if (ccb->SizeChanged) filter |= FILE_NOTIFY_CHANGE_SIZE;
    if (ccb->LastWriteChanged) filter |= FILE_NOTIFY_CHANGE_LAST_WRITE;
    return filter;
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
    const Ccb* const ccb = GvCcbOf(fileObject);
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;

    FsRtlFastUnlockAll(&fcb->FileLock, fileObject, IoGetRequestorProcess(context->Irp), nullptr);
    if (const ULONG changes = ChangesOf(ccb)) GvUtlReportChange(context->Vcb, fcb, changes, FILE_ACTION_MODIFIED);
    InterlockedDecrement(&fcb->HandleCount);
    IoRemoveShareAccess(fileObject, &fcb->ShareAccess);
    if (!CcUninitializeCacheMap(fileObject, nullptr, nullptr)) {
        GV_TRACE(GvTraceError, "CcUninitializeCacheMap(): failed\n");
    }
    return STATUS_SUCCESS;
}
