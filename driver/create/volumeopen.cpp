// Opens of the volume itself, served from the control block that mount made. It has no plugin handle, no name and no
// reference count: only its open and handle counts move.

#include "create/create.h"

#include "frame/resource.h"
#include "frame/trace.h"

namespace {

constexpr char kName[] = "GvPerformVolumeOpen"; // whose steps the checks below are

[[nodiscard]] NTSTATUS CheckVolumeParameters(const CreateParameters& parameters)
{
    if (parameters.RequestedFileType == GvDirectory) {
        GV_TRACE_AS(kName, GvTraceError, "ERROR: volume open can't be a directory: 0x%x\n", STATUS_NOT_A_DIRECTORY);
        return STATUS_NOT_A_DIRECTORY;
    }
    if (parameters.OpenTargetDirectory) {
        GV_TRACE_AS(kName, GvTraceError, "ERROR: can't open the volume as a rename target 0x%x\n",
                    STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (parameters.Disposition != FILE_OPEN && parameters.Disposition != FILE_OPEN_IF) {
        GV_TRACE_AS(kName, GvTraceError, "ERROR: volume already exists: 0x%x\n", STATUS_ACCESS_DENIED);
        return STATUS_ACCESS_DENIED;
    }
    if (parameters.DeleteOnClose || (parameters.DesiredAccess & DELETE)) {
        GV_TRACE_AS(kName, GvTraceError, "ERROR: volume can't be deleted: 0x%x\n", STATUS_ACCESS_DENIED);
        return STATUS_ACCESS_DENIED;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS ShareVolume(const CreateParameters& parameters, Fcb* volume)
{
    if (GvLoad(volume->OpenCount) == 0) {
        IoSetShareAccess(parameters.DesiredAccess, parameters.ShareAccess, parameters.FileObject, &volume->ShareAccess);
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = IoCheckShareAccess(parameters.DesiredAccess, parameters.ShareAccess, parameters.FileObject,
                                               &volume->ShareAccess, TRUE);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "IoCheckShareAccess", status);
    return status;
}

} // namespace

NTSTATUS GvPerformVolumeOpen(IrpContext* context, const CreateParameters& parameters, ULONG* information)
{
    Fcb* const volume = context->Vcb->VolumeFcb;
    GvHeldResource lock;
    NTSTATUS status = lock.Exclusive(volume->Header.Resource);
    if (!NT_SUCCESS(status)) return status;

    status = CheckVolumeParameters(parameters);
    if (!NT_SUCCESS(status)) return status;
    status = GvCheckDesiredAccessWithFcbMaxAccess(volume->FcbType, parameters.DesiredAccess, volume->MaxAllowedAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvCheckDesiredAccessWithFcbMaxAccess", status);
        return status;
    }
    status =
        GvAccessCheck(context, &parameters.FileObject->FileName, parameters.DesiredAccess, parameters.SubjectToken);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvAccessCheck", status);
        return status;
    }
    status = ShareVolume(parameters, volume);
    if (!NT_SUCCESS(status)) return status;
    status = GvInitFileObj(parameters.FileObject, volume, false);
    if (!NT_SUCCESS(status)) {
        // The record must not count an open that does not exist: nothing would ever take it out.
        IoRemoveShareAccess(parameters.FileObject, &volume->ShareAccess);
        GV_TRACE_FAILED("GvInitFileObj", status);
        return status;
    }
    *information = FILE_OPENED;
    return STATUS_SUCCESS;
}
