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

} // namespace

NTSTATUS GvPerformVolumeOpen(IrpContext* context, const CreateParameters& parameters, ULONG* information)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
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
    status = GvJoinShareAccess(__func__, parameters, volume);
    if (!NT_SUCCESS(status)) return status;
    status = GvInitSharedFileObj(__func__, parameters.FileObject, volume, false);
    if (!NT_SUCCESS(status)) return status;
    *information = FILE_OPENED;
    return STATUS_SUCCESS;
}
