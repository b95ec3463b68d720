// The open of a rename's target: the file object stands for the directory that would contain the target, its name
// becomes the target's last component, and Information says whether the target exists. Nothing is created.

#include "create/create.h"

#include "frame/resource.h"
#include "frame/trace.h"

namespace {

constexpr char kName[] = "GvOpenTargetDirectory"; // whose steps the routines below are

struct SplitPath {
    UNICODE_STRING Directory;
    UNICODE_STRING LastComponent;
};

// Both parts point into the path.
SplitPath GvSplitLastComponent(PCUNICODE_STRING path)
{
    auto separator = static_cast<USHORT>(path->Length / sizeof(WCHAR));
    while (separator > 0 && path->Buffer[--separator] != L'\\') {}
    const auto before = static_cast<USHORT>(separator * sizeof(WCHAR));
    const auto directory = static_cast<USHORT>(separator == 0 ? sizeof(WCHAR) : before);
    const auto leaf = static_cast<USHORT>(path->Length - before - sizeof(WCHAR));
    return {.Directory = {directory, directory, path->Buffer},
            .LastComponent = {leaf, leaf, path->Buffer + separator + 1}};
}

[[nodiscard]] NTSTATUS CheckRules(const CreateParameters& parameters, const Fcb* directory)
{
    if (parameters.Disposition != FILE_OPEN) {
        GV_TRACE_AS(kName, GvTraceError, "illegal disposition: %d, err: 0x%x\n", parameters.Disposition,
                    STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (parameters.DeleteOnClose) {
        GV_TRACE_AS(kName, GvTraceError, "delete-on-close not allowed, err: 0x%x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (GvLoad(directory->DeletePending)) {
        GV_TRACE_AS(kName, GvTraceError, "FCB is pending deletion: 0x%x\n", STATUS_DELETE_PENDING);
        return STATUS_DELETE_PENDING;
    }
    if (directory->FcbType != GvDirectory || parameters.RequestedFileType == GvFile) {
        GV_TRACE_AS(kName, GvTraceError,
                    "FCB is not a dir, or type doesn't match, fcb-type: %d, req-type: %d, err: 0x%x\n",
                    directory->FcbType, parameters.RequestedFileType, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

// A directory that is read-only for the plugin can still take a name in.
[[nodiscard]] NTSTATUS CheckLimits(ACCESS_MASK desired, const Fcb* directory)
{
    const NTSTATUS status =
        GvCheckDesiredAccessWithFcbMaxAccess(directory->FcbType, desired, directory->MaxAllowedAccess);
    if (NT_SUCCESS(status)) return status;
    if (!(directory->MaxAllowedAccess & GVND_ACCESS_WRITE) && (desired & (FILE_WRITE_DATA | FILE_APPEND_DATA))) {
        return STATUS_SUCCESS;
    }
    GV_TRACE_AS(kName, GvTraceError,
                "GvCheckDesiredAccessWithFcbMaxAccess(), desired: 0x%x, target-dir-fcb-max: 0x%x, ns: 0x%x\n", desired,
                directory->MaxAllowedAccess, status);
    return status;
}

[[nodiscard]] NTSTATUS CheckAccess(IrpContext* context, const CreateParameters& parameters, PCUNICODE_STRING path,
                                   Fcb* directory)
{
    NTSTATUS status = GvReopenPluginFdIfRequired(context, directory, parameters.DesiredAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GvReopenPluginFdIfRequired", status);
        return status;
    }
    status = CheckLimits(parameters.DesiredAccess, directory);
    if (!NT_SUCCESS(status)) return status;
    status = GvAccessCheck(context, path, parameters.DesiredAccess, parameters.SubjectToken);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvAccessCheck", status);
    return status;
}

[[nodiscard]] NTSTATUS OpenLocked(IrpContext* context, const CreateParameters& parameters, PCUNICODE_STRING path,
                                  Fcb* directory)
{
    NTSTATUS status = CheckRules(parameters, directory);
    if (!NT_SUCCESS(status)) return status;
    status = CheckAccess(context, parameters, path, directory);
    if (!NT_SUCCESS(status)) return status;
    status = GvJoinShareAccess(kName, parameters, directory);
    if (!NT_SUCCESS(status)) return status;
    return GvInitSharedFileObj(kName, parameters.FileObject, directory, false);
}

} // namespace

NTSTATUS GvOpenTargetDirectory(IrpContext* context, const CreateParameters& parameters, const ResolvedPaths& paths,
                               const WalkResult& found, ULONG* information)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (GvUtlIsRootPath(paths.FullPath.Get())) {
        GV_TRACE(GvTraceError, "can't open tgt-dir of root-dir, path: %wZ, err: 0x%x\n", paths.FullPath.Get(),
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    // The plugin knows directories by their normalised names; a new last component is spelled as the caller spells it.
    const UNICODE_STRING directoryPath = GvSplitLastComponent(paths.FullPath.Get()).Directory;
    const SplitPath split = GvSplitLastComponent(paths.CasePreservedPath.Get());
    UNICODE_STRING& name = parameters.FileObject->FileName;
    if (name.MaximumLength < split.LastComponent.Length) {
        GV_TRACE(GvTraceError, "ERR: FO name storage isn't enough, %d < %d\n", name.MaximumLength,
                 split.LastComponent.Length);
        return STATUS_INVALID_PARAMETER;
    }
    Fcb* const directory = found.Parent ? found.Parent : found.Object->ParentFcb;
    GvHeldResource lock;
    NTSTATUS status = lock.Exclusive(directory->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    status = OpenLocked(context, parameters, &directoryPath, directory);
    if (!NT_SUCCESS(status)) return status;
    GvFcbAddReference(directory); // the file object's

    RtlCopyMemory(name.Buffer, split.LastComponent.Buffer, split.LastComponent.Length);
    name.Length = split.LastComponent.Length;
    *information = found.Parent ? FILE_DOES_NOT_EXIST : FILE_EXISTS;
    return STATUS_SUCCESS;
}
