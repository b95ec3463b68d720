// Joining an object that has a control block: dispositions and types, access, sharing, overwriting. Runs under the
// object's lock, taken here after Vcb.Resource. Neither a re-open nor an overwrite is undone when a later step fails.

#include "create/create.h"

#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/coherence.h"

namespace {

constexpr char kName[] = "GvInitExistingFcb"; // whose steps the checks below are

bool IsOverwrite(ULONG disposition) { return disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF; }

[[nodiscard]] NTSTATUS CheckDeleteOnClose(const CreateParameters& parameters, const Fcb* fcb)
{
    if (!(parameters.DesiredAccess & DELETE)) {
        GV_TRACE_AS(kName, GvTraceError, "delete-on-close is requested, but not delete-access: 0x%x\n",
                    STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (fcb->IsRootDir) { // by whatever path
        GV_TRACE_AS(kName, GvTraceError, "not allowed to delete root-dir: 0x%x\n", STATUS_CANNOT_DELETE);
        return STATUS_CANNOT_DELETE;
    }
    if (fcb->FcbType == GvFile && !(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE)) {
        GV_TRACE_AS(kName, GvTraceError, "err, can't delete read-only file: 0x%x\n", STATUS_CANNOT_DELETE);
        return STATUS_CANNOT_DELETE;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS CheckType(ULONG requested, ULONG actual)
{
    if (requested == GvAnyType) return STATUS_SUCCESS;
    if (requested != GvDirectory && requested != GvFile) {
        GV_TRACE_AS(kName, GvTraceError, "invalid requested file-type: %d\n", requested);
        return STATUS_INVALID_PARAMETER;
    }
    if (requested == actual) return STATUS_SUCCESS;
    GV_TRACE_AS(kName, GvTraceError, "requested file-type: %d != real file-type: %d\n", requested, actual);
    return actual == GvDirectory ? STATUS_FILE_IS_A_DIRECTORY : STATUS_NOT_A_DIRECTORY;
}

// The rules that neither the plugin nor other opens have a say in.
[[nodiscard]] NTSTATUS CheckRules(const CreateParameters& parameters, const ResolvedPaths& paths, const Fcb* fcb)
{
    if (parameters.Disposition == FILE_CREATE) {
        GV_TRACE_AS(kName, GvTraceError, "error disposition == create : 0x%x\n", STATUS_OBJECT_NAME_COLLISION);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (parameters.DeleteOnClose) {
        const NTSTATUS status = CheckDeleteOnClose(parameters, fcb);
        if (!NT_SUCCESS(status)) return status;
    }
    if (GvLoad(fcb->DeletePending)) {
        GV_TRACE_AS(kName, GvTraceError, "FCB is pending deletion: 0x%x\n", STATUS_DELETE_PENDING);
        return STATUS_DELETE_PENDING;
    }
    if (const NTSTATUS status = CheckType(parameters.RequestedFileType, fcb->FcbType); !NT_SUCCESS(status)) {
        return status;
    }
    if (fcb->FcbType == GvFile && paths.TrailingBackslash) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: FCB is file, path has trailing bkslash\n");
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (fcb->FcbType == GvDirectory && IsOverwrite(parameters.Disposition)) {
        GV_TRACE_AS(kName, GvTraceError, "can't overwrite dir, err: 0x%x\n", STATUS_OBJECT_NAME_COLLISION);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS CheckAccess(IrpContext* context, const CreateParameters& parameters, PCUNICODE_STRING path,
                                   Fcb* fcb, ACCESS_MASK effective)
{
    NTSTATUS status = GvReopenPluginFdIfRequired(context, fcb, effective);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvReopenPluginFdIfRequired", status);
        return status;
    }
    status = GvCheckDesiredAccessWithFcbMaxAccess(fcb->FcbType, effective, fcb->MaxAllowedAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError,
                    "GvCheckDesiredAccessWithFcbMaxAccess(), desired: 0x%x, fcb-max: 0x%x, ns: 0x%x\n", effective,
                    fcb->MaxAllowedAccess, status);
        return status;
    }
    status = GvAccessCheck(context, path, effective, parameters.SubjectToken);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvAccessCheck", status);
    return status;
}

// A writer must not meet a running image, nor pages of a mapped view that would go stale.
[[nodiscard]] NTSTATUS PrepareForWriting(const CreateParameters& parameters, Fcb* fcb, ACCESS_MASK effective)
{
    if (fcb->FcbType != GvFile) return STATUS_SUCCESS;
    if (!(effective & FILE_WRITE_DATA) && !parameters.DeleteOnClose) return STATUS_SUCCESS;
    if (!MmFlushImageSection(&fcb->SectionObjectPointers, MmFlushForWrite)) {
        const NTSTATUS status = parameters.DeleteOnClose ? STATUS_CANNOT_DELETE : STATUS_SHARING_VIOLATION;
        GV_TRACE_AS(kName, GvTraceError, "MmFlushImageSection(): 0x%x\n", status);
        return status;
    }
    if (!parameters.DeleteOnClose && GvLoad(fcb->SectionObjectPointers.DataSectionObject)) {
        GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::Yes);
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS Overwrite(IrpContext* context, const CreateParameters& parameters, Fcb* fcb)
{
    const NTSTATUS status = GvOverwriteExistingFcb(context, parameters, fcb);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvOverwriteExistingFcb", status);
        return status;
    }
    ULONG filter = FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;
    if (parameters.EaLength != 0) filter |= FILE_NOTIFY_CHANGE_EA;
    GvUtlReportChange(context->Vcb, fcb, filter, FILE_ACTION_MODIFIED);
    return status;
}

// With the caller's own access, not the effective one: an overwrite does not make the handle a writer.
[[nodiscard]] NTSTATUS RecordShareAccess(const CreateParameters& parameters, Fcb* fcb, ACCESS_MASK effective)
{
    const PFILE_OBJECT fileObject = parameters.FileObject;
    if (GvLoad(fcb->OpenCount) == 0) {
        IoSetShareAccess(parameters.DesiredAccess, parameters.ShareAccess, fileObject, &fcb->ShareAccess);
        return STATUS_SUCCESS;
    }
    if (parameters.DesiredAccess == effective) {
        IoUpdateShareAccess(fileObject, &fcb->ShareAccess);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status =
        IoCheckShareAccess(parameters.DesiredAccess, parameters.ShareAccess, fileObject, &fcb->ShareAccess, TRUE);
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "IoCheckShareAccess(2nd): 0x%x\n", status);
    return status;
}

} // namespace

NTSTATUS GvInitExistingFcb(IrpContext* context, const CreateParameters& parameters, const ResolvedPaths& paths,
                           Fcb* fcb, ULONG* information)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    GvHeldResource lock;
    NTSTATUS status = lock.Exclusive(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    status = CheckRules(parameters, paths, fcb);
    if (!NT_SUCCESS(status)) return status;

    const bool overwrite = IsOverwrite(parameters.Disposition);
    const ACCESS_MASK effective = parameters.DesiredAccess | (overwrite ? FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES : 0);
    status = CheckAccess(context, parameters, paths.FullPath.Get(), fcb, effective);
    if (!NT_SUCCESS(status)) return status;
    if (GvLoad(fcb->OpenCount) != 0) {
        status = IoCheckShareAccess(effective, parameters.ShareAccess, parameters.FileObject, &fcb->ShareAccess, FALSE);
        if (!NT_SUCCESS(status)) {
            GV_TRACE_FAILED("IoCheckShareAccess", status);
            return status;
        }
    }
    status = PrepareForWriting(parameters, fcb, effective);
    if (!NT_SUCCESS(status)) return status;
    if (overwrite) {
        status = Overwrite(context, parameters, fcb);
        if (!NT_SUCCESS(status)) return status;
    }
    status = RecordShareAccess(parameters, fcb, effective);
    if (!NT_SUCCESS(status)) return status;
    status = GvInitSharedFileObj(__func__, parameters.FileObject, fcb, parameters.DeleteOnClose);
    if (!NT_SUCCESS(status)) return status;
    GvFcbAddReference(fcb); // the file object's
    *information = overwrite ? FILE_OVERWRITTEN : FILE_OPENED;
    return STATUS_SUCCESS;
}
