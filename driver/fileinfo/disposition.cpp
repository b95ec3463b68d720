// FileDispositionInformation: the wish to delete, and its withdrawal. Nothing is deleted here; the last cleanup acts on
// the flag.

#include "fileinfo/fileinfo.h"

#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/util.h"

namespace {

[[nodiscard]] NTSTATUS CheckDeletable(const GvSetRequest& set)
{
    Fcb* const fcb = set.Object;
    if (!(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE)) return STATUS_CANNOT_DELETE; // read-only
    if (fcb->FcbType == GvDirectory) {
        const NTSTATUS status = GvUtlIsPluginDirEmpty(set.Context, fcb);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvSetDispositionInfo", "GvUtlIsPluginDirEmpty", status);
        return status;
    }
    // A running image stays.
    return MmFlushImageSection(&fcb->SectionObjectPointers, MmFlushForDelete) ? STATUS_SUCCESS : STATUS_CANNOT_DELETE;
}

} // namespace

NTSTATUS GvSetDispositionInfo(const GvSetRequest& set)
{
    GV_ASSERT_HELD_OR_NESTED(set.Context, &set.Context->Vcb->Resource);
    // For the whole object: a withdrawal also undoes what another handle has asked for.
    const bool isDelete = static_cast<PFILE_DISPOSITION_INFORMATION>(set.Buffer)->DeleteFile != FALSE;
    if (isDelete) {
        if (const NTSTATUS status = CheckDeletable(set); !NT_SUCCESS(status)) return status;
    }
    GvStore(set.Object->DeletePending, isDelete);
    set.FileObject->DeletePending = isDelete;
    return STATUS_SUCCESS;
}
