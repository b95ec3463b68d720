// IRP_MJ_CREATE: screens the request, pins and locks the volume, turns the name into paths, finds or builds the chain
// of control blocks, and hands the request to one finisher.

#include "create/create.h"

#include "frame/context.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/ccb.h"
#include "volume/volume.h"

namespace {

// Keeps an unmount from finishing while the create runs, and lets a waiting one go on afterwards.
class MountedPin {
public:
    explicit MountedPin(PDEVICE_OBJECT device) : device_(device), held_(GvPinVcbIfMounted(device)) {}
    MountedPin(const MountedPin&) = delete;
    MountedPin& operator=(const MountedPin&) = delete;
    ~MountedPin()
    {
        if (!held_) return;
        GvUnpinVcb(device_);
        GvUnmountIfDrained(device_);
    }
    bool Held() const { return held_; }

private:
    PDEVICE_OBJECT device_;
    bool held_;
};

ULONG RequestedFileType(ULONG options)
{
    if (options & FILE_DIRECTORY_FILE) return GvDirectory;
    if (options & FILE_NON_DIRECTORY_FILE) return GvFile;
    return GvAnyType;
}

void* SubjectToken(const SECURITY_SUBJECT_CONTEXT& subject)
{
    return subject.ClientToken ? subject.ClientToken : subject.PrimaryToken;
}

CreateParameters ReadParameters(PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    const auto& create = stack->Parameters.Create;
    const ULONG options = create.Options & FILE_VALID_OPTION_FLAGS;
    return {
        .FileObject = stack->FileObject,
        .CreateOptions = options,
        .Disposition = create.Options >> 24,
        .FileAttributes = create.FileAttributes & GVND_ATTRIBUTE_MASK,
        .DesiredAccess = create.SecurityContext->DesiredAccess,
        .ShareAccess = create.ShareAccess,
        .AllocationSize = irp->Overlay.AllocationSize.QuadPart,
        .EaBuffer = irp->AssociatedIrp.SystemBuffer,
        .EaLength = create.EaLength,
        .DeleteOnClose = (options & FILE_DELETE_ON_CLOSE) != 0,
        .OpenTargetDirectory = (stack->Flags & SL_OPEN_TARGET_DIRECTORY) != 0,
        .SubjectToken = SubjectToken(create.SecurityContext->AccessState->SubjectSecurityContext),
        .RequestedFileType = RequestedFileType(options),
    };
}

// No name, and nothing it could be relative to but the volume itself.
bool GvIsVolumeOpen(PFILE_OBJECT fileObject)
{
    if (fileObject->FileName.Length != 0) return false;
    return !fileObject->RelatedFileObject || GvFcbOf(fileObject->RelatedFileObject)->FcbType == GvVolume;
}

[[nodiscard]] NTSTATUS Finish(IrpContext* context, const CreateParameters& parameters, const ResolvedPaths& paths,
                              const WalkResult& found, ULONG* information)
{
    // First, so that the open of a rename's target can never create anything.
    if (parameters.OpenTargetDirectory) {
        const NTSTATUS status = GvOpenTargetDirectory(context, parameters, paths, found, information);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoCreate", "GvOpenTargetDirectory", status);
        return status;
    }
    if (found.Object) {
        const NTSTATUS status = GvInitExistingFcb(context, parameters, paths, found.Object, information);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoCreate", "GvInitExistingFcb", status);
        return status;
    }
    const NTSTATUS status =
        GvCreateNewFileOrDir(context, parameters, paths, found.Parent, found.LookupStatus, information);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoCreate", "GvCreateNewFileOrDir", status);
    return status;
}

// A live path is joined without a plugin call and without a look at its parents; any other is walked.
[[nodiscard]] NTSTATUS FindOrWalk(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths, WalkResult* found)
{
    found->Object = GvFcbGetExistingFcb(context->Vcb->FcbTables, paths->FullPath.Get());
    if (found->Object) return STATUS_SUCCESS;
    return GvFullyOpenPath(context, fileObject, paths, found);
}

bool HasEmptyComponent(PCUNICODE_STRING path)
{
    for (ULONG i = 1; i < path->Length / sizeof(WCHAR); ++i) {
        if (path->Buffer[i - 1] == L'\\' && path->Buffer[i] == L'\\') return true;
    }
    return false;
}

// The walk skips a separator too many, and ends at two: it has arrived at an object whose own name is not the path that
// was asked for. An object that is there is opened under its own name, so that the plugin hears of one object only. To
// create something, or to move it, the path itself would have to be a name, which it is not.
[[nodiscard]] NTSTATUS NameWhatWasFound(IrpContext* context, const CreateParameters& parameters,
                                        const WalkResult& found, ResolvedPaths* paths)
{
    if (!HasEmptyComponent(paths->FullPath.Get())) return STATUS_SUCCESS;
    if (!found.Object || parameters.OpenTargetDirectory) {
        GV_TRACE_AS("GvDoCreate", GvTraceError, "ERR: path has an empty component: %wZ\n", paths->FullPath.Get());
        return STATUS_OBJECT_NAME_INVALID;
    }
    const NTSTATUS status = GvFcbGetName(context->Vcb->FcbTables, found.Object, paths->FullPath.Out());
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvDoCreate", "GvFcbGetName", status);
    return status;
}

[[nodiscard]] NTSTATUS OpenPath(IrpContext* context, const CreateParameters& parameters, ULONG* information)
{
    ResolvedPaths paths = {};
    if (const NTSTATUS status = GvResolveName(context, parameters.FileObject, &paths); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvDoCreate", "GvResolveName", status);
        return status;
    }
    WalkResult found = {};
    const NTSTATUS status = FindOrWalk(context, parameters.FileObject, &paths, &found);
    // Released in reverse order of these two lines: the object, then its parent.
    const GvFcbReference parent(context, found.Parent);
    const GvFcbReference object(context, found.Object);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvDoCreate", "GvFullyOpenPath", status);
        return status;
    }
    if (status == STATUS_REPARSE) {
        const NTSTATUS redirected = GvHandleReparsePoint(context, parameters, paths);
        if (!NT_SUCCESS(redirected)) GV_TRACE_FAILED_AS("GvDoCreate", "GvHandleReparsePoint", redirected);
        return redirected;
    }
    if (object.Get() ? parent.Get() != nullptr : parent.Get() == nullptr) {
        GV_TRACE_AS("GvDoCreate", GvTraceError, "ERR got both or neither FCB: 0x%x, parent-FCB: 0x%x\n", object.Get(),
                    parent.Get());
        return STATUS_UNSUCCESSFUL;
    }
    if (const NTSTATUS named = NameWhatWasFound(context, parameters, found, &paths); !NT_SUCCESS(named)) return named;
    return Finish(context, parameters, paths, found, information);
}

} // namespace

NTSTATUS GvDoCreate(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (context->IsAsync || !context->IsTopLevel) {
        GV_TRACE(GvTraceError, "Create async: %d, top-level: %d, err: 0x%x\n", context->IsAsync, context->IsTopLevel,
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    const CreateParameters parameters = ReadParameters(context->Irp);
    if (const NTSTATUS status = GvCheckUnsupportedParams(context->Irp); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvCheckUnsupportedParams", status);
        return status;
    }
    const MountedPin pin(context->DeviceObject);
    if (!pin.Held()) {
        GV_TRACE(GvTraceError, "GvPinVcbIfMounted(): failed: 0x%x\n", STATUS_ACCESS_DENIED);
        return STATUS_ACCESS_DENIED;
    }
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;

    if (GvIsVolumeOpen(parameters.FileObject)) {
        const NTSTATUS status = GvPerformVolumeOpen(context, parameters, &outcome->Information);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvPerformVolumeOpen", status);
        return status;
    }
    return OpenPath(context, parameters, &outcome->Information);
}

NTSTATUS GvInitFileObj(PFILE_OBJECT fileObject, Fcb* fcb, bool deleteOnClose)
{
    Ccb* ccb;
    if (const NTSTATUS status = GvCcbCreateCcb(deleteOnClose, &ccb); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvCcbCreateCcb", status);
        return status;
    }
    fileObject->FsContext2 = ccb;
    fileObject->SectionObjectPointer = &fcb->SectionObjectPointers;
    fileObject->FsContext = fcb;
    InterlockedIncrement(&fcb->OpenCount);
    InterlockedIncrement(&fcb->HandleCount);
    return STATUS_SUCCESS;
}
