// The end that several finishers share: the open enters the share record, and the file object is tied to the object.

#include "create/create.h"

#include "frame/resource.h"
#include "frame/trace.h"

NTSTATUS GvJoinShareAccess(const char* function, const CreateParameters& parameters, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    if (GvLoad(fcb->OpenCount) == 0) {
        IoSetShareAccess(parameters.DesiredAccess, parameters.ShareAccess, parameters.FileObject, &fcb->ShareAccess);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = IoCheckShareAccess(parameters.DesiredAccess, parameters.ShareAccess, parameters.FileObject,
                                               &fcb->ShareAccess, TRUE);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "IoCheckShareAccess", status);
    return status;
}

NTSTATUS GvInitSharedFileObj(const char* function, PFILE_OBJECT fileObject, Fcb* fcb, bool deleteOnClose)
{
    const NTSTATUS status = GvInitFileObj(fileObject, fcb, deleteOnClose);
    if (NT_SUCCESS(status)) return status;
    // The record must not count an open that does not exist: nothing would ever take it out.
    IoRemoveShareAccess(fileObject, &fcb->ShareAccess);
    GV_TRACE_FAILED_AS(function, "GvInitFileObj", status);
    return status;
}
